#include "static/script_scan_events.h"

#include <cwchar>
#include <string_view>

namespace {

constexpr DISPID FoundId = 1, ErrorsId = 2;

std::wstring_view text_of(BSTR text) {
    return text ? std::wstring_view(text, SysStringLen(text)) : std::wstring_view();
}

} // namespace

STDMETHODIMP CScriptScanEvents::FoundDepFile(BSTR) {
    ++m_found;
    return S_OK;
}

STDMETHODIMP CScriptScanEvents::GetReferencePath(BSTR, BSTR* path) {
    if (!path)
        return E_POINTER;
    *path = nullptr;
    return S_OK;
}

STDMETHODIMP CScriptScanEvents::ErrorEncountered(BSTR file, LONG error, BSTR description) {
    return qv::com_boundary([&] {
        wchar_t number[16];
        swprintf(number, std::size(number), L"0x%08lX", static_cast<unsigned long>(error));
        ((((m_errors += text_of(file)) += L": ") += number) += L": ") += text_of(description);
        m_errors += L"\n";
        return S_OK;
    });
}

STDMETHODIMP CScriptScanEvents::get_MMCatalog(IUnknown** catalog) {
    if (!catalog)
        return E_POINTER;
    *catalog = nullptr;
    return S_OK;
}

STDMETHODIMP CScriptScanEvents::GetOtherReferences(VARIANT* value) {
    if (!value)
        return E_POINTER;
    VariantInit(value);
    return S_OK;
}

STDMETHODIMP CScriptScanEvents::GetTypeInfoCount(UINT* count) {
    if (!count)
        return E_POINTER;
    *count = 0;
    return S_OK;
}

STDMETHODIMP CScriptScanEvents::GetTypeInfo(UINT, LCID, ITypeInfo** info) {
    if (info)
        *info = nullptr;
    return DISP_E_BADINDEX;
}

STDMETHODIMP CScriptScanEvents::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
    if (!names || !ids || count == 0)
        return E_INVALIDARG;
    HRESULT hr = S_OK;
    for (UINT i = 0; i < count; ++i) {
        const bool found = i == 0 && names[0] && _wcsicmp(names[0], L"Found") == 0;
        const bool errors = i == 0 && names[0] && _wcsicmp(names[0], L"Errors") == 0;
        ids[i] = found ? FoundId : errors ? ErrorsId : DISPID_UNKNOWN;
        if (ids[i] == DISPID_UNKNOWN)
            hr = DISP_E_UNKNOWNNAME;
    }
    return hr;
}

STDMETHODIMP CScriptScanEvents::Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                       EXCEPINFO*, UINT*) {
    if (id != FoundId && id != ErrorsId)
        return DISP_E_MEMBERNOTFOUND;
    if (!(flags & (DISPATCH_PROPERTYGET | DISPATCH_METHOD)))
        return DISP_E_MEMBERNOTFOUND;
    if (params && params->cArgs != 0)
        return DISP_E_BADPARAMCOUNT;
    if (!result)
        return S_OK;
    VariantInit(result);
    if (id == FoundId) {
        V_VT(result) = VT_I4;
        V_I4(result) = m_found;
        return S_OK;
    }
    BSTR text = SysAllocStringLen(m_errors.data(), static_cast<UINT>(m_errors.size()));
    if (!text)
        return E_OUTOFMEMORY;
    V_VT(result) = VT_BSTR;
    V_BSTR(result) = text;
    return S_OK;
}
