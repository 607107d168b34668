// The services object of QvAppServices.dll: the tool's folders, its settings document and its
// strong-name provider, as app_folders.h works them out.
#pragma once

#include "companions.h"
#include "inc/com_object.h"

class CQvAppServices : public qv::object_root, public IQvAppServices, public IQvStrongNameServices {
public:
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CQvAppServices)
    QV_INTERFACE(IID_IQvAppServices, IQvAppServices)
    QV_INTERFACE(IID_IQvStrongNameServices, IQvStrongNameServices)
    QV_END_INTERFACE_MAP()

    // IQvAppServices
    STDMETHOD(GetSupportFolder)(BSTR* folder) override;
    STDMETHOD(GetProgramsFolder)(BSTR* folder) override;
    STDMETHOD(GetPath)(long selector, BSTR* path) override;

    // IQvStrongNameServices
    STDMETHOD(GetStrongNameLibrary)(BSTR* path) override;
};
