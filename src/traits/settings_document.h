// The one setting the library reads from the host tool's settings document: the folders that the search
// for .NET assemblies leaves out ("Halyard/Scanners/DotNetExclusionList", each child's "Path"). The
// document's path comes from QvAppServices.dll (selector 8); it is read once per process, and read again
// only after a failed attempt. The set is process-wide and unguarded, like the library's other caches:
// scans run on one thread at a time.
#pragma once

#include <cwchar>
#include <set>
#include <string>

namespace qv {

struct no_case_less {
    bool operator()(const std::wstring& a, const std::wstring& b) const noexcept {
        return _wcsicmp(a.c_str(), b.c_str()) < 0;
    }
};
using exclusion_set = std::set<std::wstring, no_case_less>;

// Fills the exclusion set unless it was filled before. Every list element at the path adds its children's
// "Path" texts (an absent attribute adds the empty text, which matches nothing); a text that differs from
// another only in case is kept once. Throws com_exception when the services library, the document or the
// query fails, and then leaves the set to be read at the next call.
void LoadExclusionList();

// The set as it stands (empty before the first successful load).
const exclusion_set& ExclusionList();

} // namespace qv
