#include "dep_file_groups.h"

#include "inc/com_boundary.h"

STDMETHODIMP CQvDepFileGroups::get_Count(long* count) {
    if (!count)
        return E_POINTER;
    *count = static_cast<long>(m_groups.size());
    return S_OK;
}

STDMETHODIMP CQvDepFileGroups::get_Item(long index, IQvDepFileGroup** group) {
    if (!group)
        return E_POINTER;
    *group = nullptr;
    if (index < 1 || static_cast<unsigned long>(index) > m_groups.size())
        return E_INVALIDARG;
    m_groups[static_cast<size_t>(index) - 1].copy_to(group);
    return S_OK;
}

STDMETHODIMP CQvDepFileGroups::Add(IQvDepFileGroup* group) {
    if (!group)
        return E_POINTER;
    return qv::com_boundary([&] {
        m_groups.emplace_back(group);
        return S_OK;
    });
}
