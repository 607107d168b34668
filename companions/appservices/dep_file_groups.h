// The group collection of QvAppServices.dll: the result groups in the order they were added.
#pragma once

#include "companions.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"

#include <vector>

class CQvDepFileGroups : public qv::object_root, public IQvDepFileGroups {
public:
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CQvDepFileGroups)
    QV_INTERFACE(IID_IQvDepFileGroups, IQvDepFileGroups)
    QV_END_INTERFACE_MAP()

    STDMETHOD(get_Count)(long* count) override;
    // One-based; E_INVALIDARG outside 1..Count.
    STDMETHOD(get_Item)(long index, IQvDepFileGroup** group) override;
    STDMETHOD(Reserved3)() override { return E_NOTIMPL; }
    STDMETHOD(Add)(IQvDepFileGroup* group) override;

private:
    std::vector<qv::com_ptr<IQvDepFileGroup>> m_groups;
};
