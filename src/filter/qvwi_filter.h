// The filter of the static and dynamic scans: filters.xml from the tool's support folder, whose
// Include and Exclude lists of File elements name files in lower case. Include wins over Exclude; a
// native image "x.ni.dll" is asked about as "x.dll" as well.
//
// Trusts filters.xml to be the tool's own: file names go into the XPath text unescaped, so a name with
// a double quote breaks the query, and that failure is thrown.
//
// The lists are read into two sets of names, kept for the process and shared by every filter while the
// file's path, size and last-write time stay the same: a scan asks the file system whether the file
// changed, not the XML parser. A rewritten file is read again; one that went away fails as before.
#pragma once

#include "filter/filter_base.h"
#include "inc/com_ptr.h"

#include <windows.h>

#include <msxml2.h>

#include <memory>
#include <string>
#include <unordered_set>

// The names of the File elements of the Include and Exclude lists of one reading of filters.xml.
struct filter_lists {
    std::wstring path;
    ULONGLONG size = 0;
    FILETIME written{};
    std::unordered_set<std::wstring> include, exclude;
};

class CQVWIFilter : public CFilterBase {
public:
    // Lists read from a section of an ini file (filter/vb_filter.h).
    class CQVWIIniFilterBase;
    class CQVWIIniFilter;

    // Whether the file is to be dropped now (on a list and filtering on); bInFilterList tells whether
    // it is on a list at all. Throws com_exception when a query fails, E_UNEXPECTED before SetFiltering.
    bool Filter(const std::wstring& name, bool& bInFilterList) override;
    // Loads <support folder>\filters.xml; any failure is thrown and leaves the earlier lists in place.
    void Initialize() override;

    // The support folder as QvAppServices.dll tells it, asked once and kept for the filter's life (an
    // empty answer is asked for again). Throws com_exception when the library or its answer fails.
    const std::wstring& GetSupportDir();
    // Whether the lists have been loaded (SetFiltering was called and succeeded).
    bool Loaded() const { return static_cast<bool>(m_lists); }

protected:
    // True when the lists decided the file: bInFilterList true, bFilter the filtering flag. False when
    // an Include entry names it or no list does; both outputs are then false.
    bool Match(const std::wstring& name, bool& bInFilterList, bool& bFilter);

    std::wstring m_sSupportDir;
    std::shared_ptr<const filter_lists> m_lists;
    qv::com_ptr<IXMLDOMDocument2> m_pDoc; // read only for a name the sets cannot answer as the query would

private:
    bool Listed(const wchar_t* list, const std::wstring& name);
};
