// The target profile: what the machine an installer targets provides without the installer (its system
// files, the API-set contract families its loader resolves, the .NET Framework assemblies it holds), read
// from a JSON document of Support\targets, and applied to a scan's records.
#pragma once

#include "records.h"

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace qvscan {

inline constexpr wchar_t default_target[] = L"windows-x64-net48";

struct target_profile {
    std::wstring name;                                      // empty when no profile could be read
    std::unordered_set<std::wstring> systemFiles;           // lower case
    std::unordered_map<std::wstring, std::wstring> apiSets; // contract family (lower case) -> host DLL
    std::unordered_set<std::wstring> frameworkAssemblies;   // lower case
};

// The profile a name stands for: Support\targets\NAME.json (the support folder beside the tool, or
// QV_SUPPORT_DIR), or the document at NAME when it is a path ending in ".json". A missing or malformed
// document is named on standard error and gives an empty profile; the scan goes on without it.
target_profile load_target(const std::wstring& name);
// The same from a document's text; a std::exception (with the reason) when it is not a profile.
target_profile parse_target(const std::string& text);

// The family of an API-set contract: its name in lower case, without ".dll", up to its last hyphen
// ("api-ms-win-core-synch-l1-2-0.dll" -> "api-ms-win-core-synch-l1-2"); empty for a name that is no contract.
std::wstring api_set_family(const std::wstring& name);

// What the target and the operating system provide among the records: every API-set contract (never a file to
// ship; its host DLL named where the profile knows it) and each missing file or assembly the target holds,
// marked filterable with providedBy "os" or "target". With the filter on they leave the list; the count of
// those is returned.
size_t apply_target(std::vector<record>& records, const target_profile& target, bool filter);

} // namespace qvscan
