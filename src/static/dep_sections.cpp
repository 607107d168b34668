#include "static/dep_sections.h"

#include "inc/com_exception.h"
#include "toolkit/path_helpers.h"

#include <oleauto.h>

namespace {

// A name as an Item index; the VARIANT borrows the text.
VARIANT NameIndex(const qv::bstr& name) {
    VARIANT index;
    V_VT(&index) = VT_BSTR;
    V_BSTR(&index) = name.get();
    return index;
}

} // namespace

qv::com_ptr<IQvSection> CDepSections::Find(IQvSections* sections, const std::wstring& name) {
    const qv::bstr text(name);
    qv::com_ptr<IQvSection> section;
    check_hr(sections->Item(NameIndex(text), section.put()));
    return section;
}

void CDepSections::EachUse(IQvSection* section, const std::function<bool(const std::wstring&)>& use) {
    qv::com_ptr<IQvEntries> entries;
    check_hr(section->get_Entries(entries.put()));
    for (long i = 1;; ++i) {
        const qv::bstr key(L"Uses" + std::to_wstring(i));
        qv::com_ptr<IQvEntry> entry;
        check_hr(entries->Item(NameIndex(key), entry.put()));
        if (!entry)
            return;
        qv::bstr value;
        check_hr(entry->get_Value(value.put()));
        if (!use(value.str()))
            return;
    }
}

CDepSections::mark CDepSections::Enter(IQvSections* sections, const std::wstring& name) {
    mark entered;
    if (m_active.size() >= m_deepest) {
        entered.m_entry = Entry::TooDeep;
        return entered;
    }
    auto [it, added] = m_active.insert({sections, qv::FoldAsciiCase(name)});
    if (!added)
        return entered; // a circle
    entered.m_owner = this;
    entered.m_at = it;
    entered.m_entry = Entry::Entered;
    return entered;
}

void CDepSections::mark::leave() noexcept {
    if (CDepSections* owner = std::exchange(m_owner, nullptr))
        owner->m_active.erase(m_at);
}
