#include "record/dep_files.h"

#include "inc/com_boundary.h"

CDepFileBag::CDepFileBag(std::wstring_view tag) : m_tagName(tag) {}

HRESULT CDepFileBag::FinalConstruct() {
    m_files = qv::make_object<CDepFiles>();
    return S_OK;
}

STDMETHODIMP CDepFileBag::get_TagName(BSTR* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = nullptr;
    // A null tag is handed out as null.
    return m_tagName.get() ? qv::copy_text_out(m_tagName.view(), pVal) : S_OK;
}

// The default member: the same collection object every time.
STDMETHODIMP CDepFileBag::get_Files(IDepFiles** pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = nullptr;
    return m_files->QueryInterface(IID_IDepFiles, reinterpret_cast<void**>(pVal));
}
