// The filter of the Visual Basic scans: the lists of filters.xml first, then the section "System" of
// VBSystem.ini in the support folder, then the section "Do Not Redistribute" of Visual Basic's own
// Vb6dep.ini. The ini lists take names as they stand, compared without regard to case, and are read
// through SectionLoader.dll. An Include entry of filters.xml only keeps its name off the Exclude list:
// the ini lists are still asked about it.
#pragma once

#include "companions.h"
#include "filter/qvwi_filter.h"
#include "inc/com_ptr.h"

#include <string>
#include <vector>

// A list of names: the keys of one section of an ini file, in file order.
class CQVWIFilter::CQVWIIniFilterBase {
public:
    virtual ~CQVWIIniFilterBase() = default;

    // Reads the section's key names. A path that is empty or names no file leaves the list as it was;
    // a file that is there needs SectionLoader.dll, and every failure of it is thrown.
    void Load(const std::wstring& path, const std::wstring& section, bool bFiltering);
    // True when the name is on the list; then OnMatch sets the outputs.
    virtual bool Match(const std::wstring& name, bool& bInFilterList, bool& bFilter);
    virtual void OnMatch(bool& bInFilterList, bool& bFilter) = 0;

    const std::vector<std::wstring>& Names() const { return m_names; }

protected:
    bool m_bFiltering = false;
    std::vector<std::wstring> m_names;
};

// A list whose names are on the do-not-redistribute list, dropped when filtering is on.
class CQVWIFilter::CQVWIIniFilter : public CQVWIFilter::CQVWIIniFilterBase {
public:
    void OnMatch(bool& bInFilterList, bool& bFilter) override;
};

class CQVWIVBFilter : public CQVWIFilter {
public:
    bool Filter(const std::wstring& name, bool& bInFilterList) override;
    // Loads VBSystem.ini, Vb6dep.ini and filters.xml, in this order.
    void Initialize() override;

private:
    CQVWIIniFilter m_systemFilter;
    CQVWIIniFilter m_doNotRedistribute;
};

// The section-file object of SectionLoader.dll, for reading file. A library that cannot be reached is
// thrown, with a description that names it and the file that needs it.
qv::com_ptr<IQvSectionLoader> MakeSectionLoader(const std::wstring& file);

// The command of the Make verb of the .vbp association (HKEY_CLASSES_ROOT\.vbp, then <type>\shell\Make\command),
// as registered; empty when there is none.
std::wstring VbpMakeCommand();

// The folder of Visual Basic, with its trailing backslash, from the Make verb of the .vbp association: the
// command up to its last backslash, in upper case. Empty when there is no such association. The command
// is taken as it stands: a leading quote stays, and a backslash among its arguments counts.
std::wstring FindVbDir();
