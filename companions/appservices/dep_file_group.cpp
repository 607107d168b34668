#include "dep_file_group.h"

#include "inc/com_boundary.h"

#include <string>

STDMETHODIMP CQvDepFileGroup::get_Name(BSTR* name) {
    return qv::copy_text_out(m_bstrName.view(), name);
}

STDMETHODIMP CQvDepFileGroup::get_Files(IDepFiles** files) {
    if (!files)
        return E_POINTER;
    m_pFiles.copy_to(files);
    return S_OK;
}

STDMETHODIMP CQvDepFileGroup::Init(IDepFiles* files, BSTR name) {
    if (!files)
        return E_POINTER;
    return qv::com_boundary([&] {
        qv::bstr copy(std::wstring(name ? std::wstring_view(name, SysStringLen(name)) : std::wstring_view()));
        m_bstrName.swap(copy);
        m_pFiles = qv::com_ptr<IDepFiles>(files);
        return S_OK;
    });
}
