#include "scanutil/scan_util.h"

#include "format/pe/pe_layout.h"
#include "image/pe_images.h"
#include "inc/com_boundary.h"
#include "record/dep_file.h"
#include "toolkit/path_helpers.h"
#include "toolkit/version_info.h"

#include <string>
#include <string_view>

namespace {

// The one module the catalog answers for files it has no real module for: a hit on it is no hit.
constexpr wchar_t CatchAllModuleId[] = L"mondo.E4183BB4_18A8_11D5_A549_0090278A1BB8";

// The key the catalog files a file under: its name, marked with the machine for 64-bit images. Any
// other machine word (none, ARM, ...) gives an empty key, which matches no file by name.
std::wstring FileKey(std::wstring_view path, DWORD machine) {
    switch (machine) {
    case qv::pe::layout::machine::i386:
        return qv::FileNamePart(path);
    case qv::pe::layout::machine::amd64:
        return qv::FileNamePart(path) + L":x64";
    case qv::pe::layout::machine::ia64:
        return qv::FileNamePart(path) + L":i64";
    default:
        return {};
    }
}

// "a.b.c.d" of the fixed file version, most significant part first; empty for 0.0.0.0 (and for a file
// without a version resource, whose fixed record reads as zeros).
std::wstring VersionText(const qv::version_info& info) {
    if (info.dwFileVersionMS == 0 && info.dwFileVersionLS == 0)
        return {};
    return std::to_wstring(HIWORD(info.dwFileVersionMS)) + L"." + std::to_wstring(LOWORD(info.dwFileVersionMS)) +
           L"." + std::to_wstring(HIWORD(info.dwFileVersionLS)) + L"." +
           std::to_wstring(LOWORD(info.dwFileVersionLS));
}

// The language of the first translation in decimal, or "0" when the resource lists none.
std::wstring LanguageText(const qv::version_info& info) {
    if (info.m_translations.empty())
        return L"0";
    return std::to_wstring(LOWORD(info.m_translations.front()));
}

} // namespace

STDMETHODIMP CScanUtil::get_PE(BSTR FileName, IDepFile** ppPE) {
    return qv::com_boundary([&]() -> HRESULT {
        if (!ppPE)
            return E_POINTER;
        *ppPE = nullptr;
        const std::wstring path = qv::bstr_text(FileName);
        bool selfRegistering = false;
        {
            CPEImage image(path);
            if (!image.Usable())
                return S_OK;
            selfRegistering = image.ExportsDllRegisterServer();
        }
        auto record = qv::make_object<CDepFile>();
        // Settled here from the export table, so that the record never loads the file to find out.
        record->SetAutoSelfReg(false);
        record->SetSelfRegistering(selfRegistering);
        record->LoadFromFile(path);
        return record->QueryInterface(IID_IDepFile, reinterpret_cast<void**>(ppPE));
    });
}

STDMETHODIMP CScanUtil::get_MMCatalog(IUnknown** ppCatalog) {
    if (!ppCatalog)
        return E_POINTER;
    *ppCatalog = nullptr;
    if (!m_pCatalog)
        return E_UNEXPECTED;
    return m_pCatalog->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(ppCatalog));
}

STDMETHODIMP CScanUtil::put_MMCatalog(IUnknown* pCatalog) {
    return qv::com_boundary([&]() -> HRESULT {
        qv::com_ptr<IQvMergeModuleCatalog> catalog;
        if (pCatalog)
            check_hr(pCatalog->QueryInterface(IID_IQvMergeModuleCatalog, catalog.put_void()));
        // The old catalog goes with `catalog` at the end of the scope.
        m_pCatalog.swap(catalog);
        return S_OK;
    });
}

qv::com_ptr<IQvMergeModuleCatalog> CScanUtil::Catalog() {
    // Through the interface, as an outer object or a later version sees the catalog.
    qv::com_ptr<IUnknown> unknown;
    check_hr(static_cast<IScanUtilValeSP1*>(this)->get_MMCatalog(unknown.put()));
    qv::com_ptr<IQvMergeModuleCatalog> catalog;
    if (unknown)
        check_hr(unknown->QueryInterface(IID_IQvMergeModuleCatalog, catalog.put_void()));
    return catalog;
}

STDMETHODIMP CScanUtil::InMergeModule(BSTR bstrSource, IUnknown** ppMM, VARIANT_BOOL* bYes) {
    return qv::com_boundary([&]() -> HRESULT {
        DWORD machine = 0;
        {
            CPEImage image(qv::bstr_text(bstrSource));
            if (image.Usable())
                machine = image.GetMachine();
        }
        return static_cast<IScanUtilValeSP1*>(this)->InMergeModuleEx(bstrSource, static_cast<LONG>(machine), ppMM,
                                                                     bYes);
    });
}

STDMETHODIMP CScanUtil::InMergeModuleEx(BSTR bstrSource, LONG dwMachine, IUnknown** ppMM, VARIANT_BOOL* bYes) {
    return qv::com_boundary([&]() -> HRESULT {
        if (!ppMM || !bYes)
            return E_POINTER;
        *ppMM = nullptr;
        *bYes = VARIANT_FALSE;
        const std::wstring source = qv::bstr_text(bstrSource);

        qv::com_ptr<IQvMergeModuleCatalog> catalog = Catalog();
        // A catalog object that answers S_OK with nothing: no module, and the last result stands.
        HRESULT hr = S_OK;
        bool inModule = false;
        if (catalog) {
            const qv::version_info info(source);
            const qv::bstr fileKey(FileKey(source, static_cast<DWORD>(dwMachine)));
            const qv::bstr version(VersionText(info));
            const qv::bstr language(LanguageText(info));

            qv::com_ptr<IUnknown> module;
            VARIANT_BOOL found = VARIANT_FALSE;
            hr = check_hr(catalog->FindMergeModule(fileKey.get(), version.get(), language.get(), module.put(), &found));
            inModule = found != VARIANT_FALSE;

            if (module) {
                // The record's interface is the object's first: it is called as the catalog gave it.
                auto* record = reinterpret_cast<IQvMergeModule*>(module.get());
                qv::bstr id;
                hr = check_hr(record->get_ModuleId(id.put()));
                const qv::bstr catchAll(CatchAllModuleId);
                if (VarBstrCmp(id.get(), catchAll.get(), LOCALE_USER_DEFAULT, 0) == static_cast<HRESULT>(VARCMP_EQ))
                    inModule = false;
                else if (inModule)
                    hr = check_hr(module->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(ppMM)));
            }
        }
        *bYes = inModule ? VARIANT_TRUE : VARIANT_FALSE;
        return hr;
    });
}

STDMETHODIMP CScanUtil::GetMissingMergeModuleKey(BSTR bstrSource, BSTR* bstrMMKey) {
    return qv::com_boundary([&]() -> HRESULT {
        if (!bstrMMKey)
            return E_POINTER;
        *bstrMMKey = nullptr;
        qv::com_ptr<IQvMergeModuleCatalog> catalog = Catalog();
        if (!catalog)
            return E_UNEXPECTED;
        return catalog->GetMissingMergeModuleKey(bstrSource, bstrMMKey);
    });
}

STDMETHODIMP CScanUtil::GetMissingMergeModuleSubject(BSTR bstrMMKey, BSTR* bstrMMSubject) {
    return qv::com_boundary([&]() -> HRESULT {
        if (!bstrMMSubject)
            return E_POINTER;
        *bstrMMSubject = nullptr;
        qv::com_ptr<IQvMergeModuleCatalog> catalog = Catalog();
        if (!catalog)
            return E_UNEXPECTED;
        return catalog->GetMissingMergeModuleSubject(bstrMMKey, bstrMMSubject);
    });
}
