// Where a referenced assembly lies on this machine: a fixed ladder of probes, by file name only. The
// assembly cache through fusion.dll, the neighbourhood of the referring assembly, the cache folder by path,
// then the installed framework folders; the whole ladder for ".dll" before the whole ladder for ".exe".
// Only the cache steps use version and token; nothing checks the identity of a file that is found. Folders
// named by the settings document's exclusion list are left out of every tree search.
//
// Trusts the file system's enumeration and the platform's assembly cache; every failure is the next probe,
// and nothing here throws but std::bad_alloc. The folder constants ("SystemRoot" and the folders below it)
// and the exclusion list are read once per process and never again.
#pragma once

#include <string>
#include <vector>

// The file of the assembly name/version/culture/token, referred to by an assembly of machineText ("MSIL",
// "X86", "IA64", "Amd64" or empty) that lies in baseFolder (may be empty: the current folder). On true,
// outFolder ends in a backslash and outFile is the bare file name; on false, outFolder is empty and outFile
// the last name tried.
bool FindAssembly(const std::wstring& name, const std::wstring& version, const std::wstring& culture,
                  const std::wstring& token, const std::wstring& machineText, const std::wstring& baseFolder,
                  std::wstring& outFolder, std::wstring& outFile);

// Asks the platform's assembly cache for the display name, once per architecture of
// qv::detail::CacheArchitectures. False without fusion.dll, without a cache or with an empty machineText;
// the outputs are then untouched.
bool FindInAssemblyCache(const std::wstring& name, const std::wstring& version, const std::wstring& culture,
                         const std::wstring& token, const std::wstring& machineText, std::wstring& outFolder,
                         std::wstring& outFile);

// The folder below folder (itself included) that holds a file named file (without regard to case): all
// files of a folder before any of its subfolders, subfolders depth-first in enumeration order. depth: -2 no
// limit, 0 this folder only, 1 with its direct subfolders, and so on. A folder whose text (with a trailing
// backslash) holds an exclusion entry is not searched, at every level. outFolder may be folder itself; on
// false it is emptied.
bool FindInFolderTree(const std::wstring& folder, const std::wstring& pattern, const std::wstring& file,
                      std::wstring& outFolder, int depth);

// file in the tree of one of root's folders that begin with "v", the folder last in text order first (so
// v2.0 before v10.0). On false outFolder is untouched.
bool FindInFrameworkFolders(const std::wstring& root, const std::wstring& file, std::wstring& outFolder);

// file beside gacNameFolder's entries or in the tree of the first of its folders whose name occurs within
// key ("1" matches any key that holds a 1); that first folder ends the search, found or not. On false
// outFolder is emptied.
bool FindInGacFolder(const std::wstring& gacNameFolder, const std::wstring& pattern, const std::wstring& key,
                     const std::wstring& file, std::wstring& outFolder);

namespace qv::detail {

enum class native_processor { x86, amd64, itanium };

// "Name, Version=v[, Culture=c], PublicKeyToken=t": the culture part whenever culture is not empty.
std::wstring AssemblyDisplayName(const std::wstring& name, const std::wstring& version, const std::wstring& culture,
                                 const std::wstring& token);

// The processor architectures the cache is asked for, in order, for a referring assembly of machineText
// (compared without regard to case) on the given native processor.
std::vector<std::wstring> CacheArchitectures(native_processor native, const std::wstring& machineText);

} // namespace qv::detail
