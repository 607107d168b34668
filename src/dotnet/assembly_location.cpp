#include "dotnet/assembly_location.h"

#include "dotnet/metadata_scope.h"
#include "inc/com_error.h"
#include "inc/com_ptr.h"
#include "inc/unique_handles.h"
#include "toolkit/folder_listing.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"
#include "traits/settings_document.h"

#include <windows.h>

#include <fusion.h>
#include <shlwapi.h>

#include <algorithm>

namespace {

using qv::unique_hfind;

using CreateAssemblyCacheFn = HRESULT(WINAPI*)(IAssemblyCache**, DWORD);

using qv::ContainsNoCase;
using qv::EqualNoCase;

// An empty folder gets one too, as the callers expect every found folder to end in a backslash.
std::wstring WithBackslash(std::wstring folder) {
    if (folder.empty() || folder.back() != L'\\')
        folder += L'\\';
    return folder;
}

bool IsDotOrDotDot(const wchar_t* name) {
    return EqualNoCase(name, L".") || EqualNoCase(name, L"..");
}

// The entries of folder that pattern matches: the process's listing for "*.*" (every entry), else a search of
// the disk.
std::shared_ptr<const qv::folder_listing> EntriesOf(const std::wstring& folder, const std::wstring& pattern) {
    if (pattern == L"*.*")
        return qv::ListFolder(folder);
    WIN32_FIND_DATAW data;
    unique_hfind find(FindFirstFileW(qv::JoinPath(folder, pattern).c_str(), &data));
    if (!find)
        return nullptr;
    std::vector<qv::folder_entry> entries;
    do {
        if (!IsDotOrDotDot(data.cFileName))
            entries.push_back({data.cFileName, (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0});
    } while (FindNextFileW(find.get(), &data));
    return std::make_shared<const qv::folder_listing>(std::move(entries));
}

// Whether folder holds an entry of that name, a file or a folder, as PathFileExistsW tells: through the
// process's listing of the folder, which the ladder lists next in any case.
bool HoldsEntry(const std::wstring& folder, const std::wstring& name) {
    if (qv::ListingAnswersFor(name))
        if (const auto listing = qv::ListFolder(folder))
            return listing->find(name) != nullptr;
    return GetFileAttributesW(qv::JoinPath(folder, name).c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool IsNeutral(const std::wstring& culture) {
    return culture.empty() || EqualNoCase(culture, L"neutral");
}

// A value longer than the buffer reads as empty: the folders below it are then relative ones.
const std::wstring& SystemRoot() {
    static const std::wstring s_SystemRoot = [] {
        std::wstring value;
        qv::ReadEnvironment(L"SystemRoot", value);
        return value;
    }();
    return s_SystemRoot;
}

const std::wstring& GacFolder() {
    static const std::wstring s_GacFolder = qv::JoinPath(SystemRoot(), L"Assembly\\GAC\\");
    return s_GacFolder;
}

const std::wstring& Framework64Folder() {
    static const std::wstring s_Framework64Folder = qv::JoinPath(SystemRoot(), L"Microsoft.NET\\Framework64\\");
    return s_Framework64Folder;
}

const std::wstring& FrameworkFolder() {
    static const std::wstring s_FrameworkFolder = qv::JoinPath(SystemRoot(), L"Microsoft.NET\\Framework\\");
    return s_FrameworkFolder;
}

bool IsExcluded(const std::wstring& folder) {
    const qv::exclusion_set& exclusions = qv::ExclusionList();
    if (exclusions.empty())
        return false;
    const std::wstring test = WithBackslash(folder);
    return std::any_of(exclusions.begin(), exclusions.end(),
                       [&](const std::wstring& entry) { return !entry.empty() && ContainsNoCase(test, entry); });
}

qv::detail::native_processor NativeProcessor() {
    if (qv::IsAmd64())
        return qv::detail::native_processor::amd64;
    return qv::IsItanium() ? qv::detail::native_processor::itanium : qv::detail::native_processor::x86;
}

} // namespace

namespace qv::detail {

std::wstring AssemblyDisplayName(const std::wstring& name, const std::wstring& version, const std::wstring& culture,
                                 const std::wstring& token) {
    std::wstring text = name + L", Version=" + version;
    if (!culture.empty())
        text += L", Culture=" + culture;
    return text + L", PublicKeyToken=" + token;
}

std::vector<std::wstring> CacheArchitectures(native_processor native, const std::wstring& machineText) {
    const bool msil = EqualNoCase(machineText, L"MSIL"), x86 = EqualNoCase(machineText, L"X86");
    switch (native) {
    case native_processor::amd64:
        if (msil || EqualNoCase(machineText, L"Amd64"))
            return {L"Amd64", L"MSIL"};
        break;
    case native_processor::itanium:
        if (msil || EqualNoCase(machineText, L"IA64"))
            return {L"IA64", L"MSIL"};
        break;
    case native_processor::x86:
        if (msil)
            return {L"X86", L"MSIL"};
        break;
    }
    if (x86)
        return {L"X86", L"MSIL"};
    return {L"MSIL"};
}

} // namespace qv::detail

bool FindAssembly(const std::wstring& name, const std::wstring& version, const std::wstring& culture,
                  const std::wstring& token, const std::wstring& machineText, const std::wstring& baseFolder,
                  std::wstring& outFolder, std::wstring& outFile) {
    if (FindInAssemblyCache(name, version, culture, token, machineText, outFolder, outFile))
        return true;
    // An unreadable settings document only means that no folder is left out: a scan must not die of it, and
    // the next search tries the document again. Its description is dropped, so that no later failure wears it.
    try {
        qv::LoadExclusionList();
    } catch (const com_exception&) {
        qv::take_error_description();
    }
    // The whole ladder for ".dll" before any probe for ".exe": a library in a framework folder beats a program
    // of the name beside the referring assembly.
    for (const wchar_t* extension : {L".dll", L".exe"}) {
        const std::wstring file = name + extension;
        outFile = file;
        if (!name.empty()) {
            // probe is the search's folder and its output at once. A failed search empties it, so the name
            // folder joined next lies below the current folder, not below baseFolder: kept as it is.
            std::wstring probe = baseFolder;
            if (!IsNeutral(culture))
                probe = qv::JoinPath(probe, culture);
            bool hit = FindInFolderTree(probe, L"*.*", file, probe, -2);
            if (!hit) {
                probe = qv::JoinPath(probe, name);
                hit = FindInFolderTree(probe, L"*.*", file, probe, -2);
            }
            if (hit) {
                outFolder = WithBackslash(probe);
                return true;
            }
        }
        if (HoldsEntry(baseFolder, file)) {
            outFolder = WithBackslash(baseFolder);
            return true;
        }
        std::wstring found;
        if (FindInFolderTree(baseFolder, L"*.*", file, found, 1)) {
            outFolder = found;
            return true;
        }
        const std::wstring& gac = GacFolder();
        if (!token.empty()) {
            const std::wstring key = version + L"_" + (IsNeutral(culture) ? L"" : culture) + L"_" + token;
            if (FindInGacFolder(WithBackslash(qv::JoinPath(gac, name)), L"*.*", key, file, found)) {
                outFolder = WithBackslash(found);
                return true;
            }
        }
        // An MSIL assembly on a 64-bit system sees the 64-bit folders first; one built for a processor sees only
        // the folders of its own word.
        const std::wstring& framework64 = Framework64Folder();
        if (qv::Is64BitOs() &&
            (EqualNoCase(machineText, L"MSIL") || (qv::IsAmd64() && EqualNoCase(machineText, L"Amd64")) ||
             (qv::IsItanium() && EqualNoCase(machineText, L"IA64")))) {
            if (FindInFrameworkFolders(framework64, file, outFolder))
                return true;
        }
        const std::wstring& framework = FrameworkFolder();
        if (machineText.empty() || EqualNoCase(machineText, L"MSIL") || EqualNoCase(machineText, L"X86")) {
            if (FindInFrameworkFolders(framework, file, outFolder))
                return true;
        }
    }
    outFolder.clear();
    return false;
}

bool FindInAssemblyCache(const std::wstring& name, const std::wstring& version, const std::wstring& culture,
                         const std::wstring& token, const std::wstring& machineText, std::wstring& outFolder,
                         std::wstring& outFile) {
    // Declared before the cache, so that the module is freed after the cache is released.
    const qv::unique_hmodule fusion(LoadFusion());
    if (!fusion)
        return false;
    auto create = reinterpret_cast<CreateAssemblyCacheFn>(
        reinterpret_cast<void*>(GetProcAddress(fusion.get(), "CreateAssemblyCache")));
    if (!create)
        return false;
    qv::com_ptr<IAssemblyCache> cache;
    create(cache.put(), 0); // only a cache handed out counts, whatever the result says
    if (!cache)
        return false;
    const std::wstring displayName = qv::detail::AssemblyDisplayName(name, version, culture, token);
    if (machineText.empty())
        return false;
    for (const std::wstring& architecture : qv::detail::CacheArchitectures(NativeProcessor(), machineText)) {
        const std::wstring query = displayName + L", ProcessorArchitecture=" + architecture;
        wchar_t path[MAX_PATH] = {};
        ASSEMBLY_INFO info = {};
        static_assert(sizeof info == 32, "the cache is told the size of the structure in a 64-bit process");
        info.cbAssemblyInfo = sizeof info;
        info.pszCurrentAssemblyPathBuf = path;
        info.cchBuf = MAX_PATH;
        if (FAILED(cache->QueryAssemblyInfo(0, query.c_str(), &info)) || path[0] == L'\0')
            continue;
        // The answer is as long as cchBuf says, kept within the buffer; a terminator counted in it is no part.
        const std::wstring found(path, std::min<ULONG>(info.cchBuf, MAX_PATH));
        outFolder = WithBackslash(qv::DirectoryPart(found));
        outFile = qv::FileNamePart(found);
        return true;
    }
    return false;
}

bool FindInFolderTree(const std::wstring& folder, const std::wstring& pattern, const std::wstring& file,
                      std::wstring& outFolder, int depth) {
    // folder and outFolder may be one string: outFolder is written only after folder's last use.
    if (IsExcluded(folder)) {
        outFolder.clear();
        return false;
    }
    const auto entries = EntriesOf(folder, pattern);
    if (!entries) {
        outFolder.clear();
        return false;
    }
    std::vector<std::wstring> subfolders;
    for (const qv::folder_entry& entry : *entries) {
        if (entry.folder) {
            if (depth != 0)
                subfolders.push_back(entry.name);
        } else if (EqualNoCase(entry.name, file)) {
            outFolder = WithBackslash(folder);
            return true;
        }
    }
    const int nextDepth = depth == -2 ? -2 : depth - 1;
    for (const std::wstring& subfolder : subfolders) {
        std::wstring local;
        if (FindInFolderTree(qv::JoinPath(folder, subfolder), pattern, file, local, nextDepth)) {
            outFolder = local;
            return true;
        }
    }
    outFolder.clear();
    return false;
}

bool FindInGacFolder(const std::wstring& gacNameFolder, const std::wstring& pattern, const std::wstring& key,
                     const std::wstring& file, std::wstring& outFolder) {
    const auto entries = EntriesOf(gacNameFolder, pattern);
    if (!entries) {
        outFolder.clear();
        return false;
    }
    for (const qv::folder_entry& entry : *entries) {
        if (entry.folder) {
            // The folder's name is looked for within the key, not the key within the name: a folder "1"
            // matches every key that holds a 1.
            if (ContainsNoCase(key, entry.name))
                return FindInFolderTree(qv::JoinPath(gacNameFolder, entry.name), pattern, file, outFolder, -2);
        } else if (EqualNoCase(entry.name, file)) {
            outFolder = WithBackslash(gacNameFolder);
            return true;
        }
    }
    outFolder.clear();
    return false;
}

bool FindInFrameworkFolders(const std::wstring& root, const std::wstring& file, std::wstring& outFolder) {
    std::vector<std::wstring> versions;
    if (const auto entries = qv::ListFolder(root))
        for (const qv::folder_entry& entry : *entries)
            if (entry.folder && qv::StartsWithNoCase(entry.name, L"v"))
                versions.push_back(entry.name);
    // Text order, not version order: v10.0 sorts before v2.0.
    std::sort(versions.begin(), versions.end(), qv::no_case_less());
    for (auto it = versions.rbegin(); it != versions.rend(); ++it) {
        std::wstring local;
        if (FindInFolderTree(qv::JoinPath(root, *it), L"*.*", file, local, -2)) {
            outFolder = WithBackslash(local);
            return true;
        }
    }
    return false;
}
