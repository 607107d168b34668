#include "record/dep_files.h"

#include "inc/com_boundary.h"

CDepFileBag::CDepFileBag(std::wstring_view tag) : m_tagName(tag) {}

HRESULT CDepFileBag::FinalConstruct() {
    qv::com_object<CDepFiles>* files = nullptr;
    HRESULT hr = qv::com_object<CDepFiles>::CreateInstance(&files);
    if (FAILED(hr))
        return hr;
    m_files = qv::com_ptr<CDepFiles>(files);
    return S_OK;
}

STDMETHODIMP CDepFileBag::get_TagName(BSTR* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = nullptr;
    return qv::com_boundary([&] {
        *pVal = qv::bstr(m_tagName).detach();
        return S_OK;
    });
}

// The default member: the same collection object every time.
STDMETHODIMP CDepFileBag::get_Files(IDepFiles** pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = nullptr;
    return m_files->QueryInterface(IID_IDepFiles, reinterpret_cast<void**>(pVal));
}
