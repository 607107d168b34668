#include "filter/vb_filter.h"

#include "companions.h"
#include "inc/com_error.h"
#include "inc/unique_handles.h"
#include "siblings/sibling_module_cache.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"

#include <cwchar>

namespace {

constexpr wchar_t kSectionLoaderLibrary[] = L"SectionLoader.dll";

} // namespace

qv::com_ptr<IQvSectionLoader> MakeSectionLoader(const std::wstring& file) {
    qv::com_ptr<IQvSectionLoader> loader;
    const HRESULT made =
        CoCreateFromLibrary(kSectionLoaderLibrary, CLSID_QvSectionLoader, IID_IQvSectionLoader, loader.put());
    if (FAILED(made))
        qv::throw_described(made, std::wstring(kSectionLoaderLibrary) + L" cannot be loaded, and " + file +
                                      L" needs it to be read");
    return loader;
}

void CQVWIFilter::CQVWIIniFilterBase::Load(const std::wstring& path, const std::wstring& section, bool bFiltering) {
    m_bFiltering = bFiltering;
    WIN32_FIND_DATAW data;
    if (!qv::unique_hfind(path.empty() ? INVALID_HANDLE_VALUE : FindFirstFileW(path.c_str(), &data)))
        return; // a missing ini file is no failure: the list keeps what it held
    m_names.clear();

    qv::com_ptr<IQvSectionLoader> loader = MakeSectionLoader(path);
    check_hr(loader->Load(qv::bstr(path).get()));
    qv::com_ptr<IQvSections> sections;
    check_hr(loader->get_Root(sections.put()));
    VARIANT index;
    V_VT(&index) = VT_BSTR;
    qv::bstr name(section);
    V_BSTR(&index) = name.get();
    qv::com_ptr<IQvSection> found;
    check_hr(sections->Item(index, found.put()));
    if (!found)
        return;
    qv::com_ptr<IQvEntries> entries;
    check_hr(found->get_Entries(entries.put()));
    long count = 0;
    check_hr(entries->get_Count(&count));
    for (long i = 1; i <= count; ++i) {
        V_VT(&index) = VT_I4;
        V_I4(&index) = i;
        qv::com_ptr<IQvEntry> entry;
        check_hr(entries->Item(index, entry.put()));
        if (!entry)
            continue;
        qv::bstr key;
        check_hr(entry->get_Name(key.put()));
        if (!key.empty())
            m_names.push_back(key.str());
    }
}

bool CQVWIFilter::CQVWIIniFilterBase::Match(const std::wstring& name, bool& bInFilterList, bool& bFilter) {
    for (const std::wstring& listed : m_names) {
        if (_wcsicmp(name.c_str(), listed.c_str()) == 0) {
            OnMatch(bInFilterList, bFilter);
            return true;
        }
    }
    return false;
}

void CQVWIFilter::CQVWIIniFilter::OnMatch(bool& bInFilterList, bool& bFilter) {
    bInFilterList = true;
    bFilter = m_bFiltering;
}

void CQVWIVBFilter::Initialize() {
    m_systemFilter.Load(qv::JoinPath(GetSupportDir(), L"VBSystem.ini"), L"System", m_bFiltering);
    m_doNotRedistribute.Load(FindVbDir() + L"Wizards\\PDWizard\\Vb6dep.ini", L"Do Not Redistribute", m_bFiltering);
    CQVWIFilter::Initialize();
}

bool CQVWIVBFilter::Filter(const std::wstring& name, bool& bInFilterList) {
    bInFilterList = false;
    bool bFilter = false;
    if (Match(name, bInFilterList, bFilter) || m_systemFilter.Match(name, bInFilterList, bFilter))
        return bFilter;
    m_doNotRedistribute.Match(name, bInFilterList, bFilter);
    return bFilter;
}

std::wstring VbpMakeCommand() {
    const std::wstring progId = qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, L".vbp");
    return qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, progId + L"\\shell\\Make\\command");
}

std::wstring FindVbDir() {
    std::wstring command = VbpMakeCommand();
    const size_t slash = command.find_last_of(L'\\');
    if (command.empty() || slash == std::wstring::npos)
        return {};
    CharUpperW(command.data());
    return command.substr(0, slash + 1);
}
