// A result group of QvAppServices.dll: a name and the files found for it, as Init stores them.
#pragma once

#include "companions.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"

class CQvDepFileGroup : public qv::object_root, public IQvDepFileGroup {
public:
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CQvDepFileGroup)
    QV_INTERFACE(IID_IQvDepFileGroup, IQvDepFileGroup)
    QV_END_INTERFACE_MAP()

    STDMETHOD(get_Name)(BSTR* name) override;
    STDMETHOD(get_Files)(IDepFiles** files) override;
    STDMETHOD(Reserved3)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved4)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved5)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved6)() override { return E_NOTIMPL; }
    // Replaces what an earlier Init stored. A null name is the empty one; null files are E_POINTER.
    STDMETHOD(Init)(IDepFiles* files, BSTR name) override;

private:
    qv::bstr m_bstrName;
    qv::com_ptr<IDepFiles> m_pFiles;
};
