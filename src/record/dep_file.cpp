#include "record/dep_file.h"

#include "format/pe/pe_layout.h"
#include "image/file_cache.h"
#include "image/pe_images.h"
#include "inc/com_boundary.h"
#include "inc/unique_handles.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"
#include "toolkit/scan_round.h"
#include "toolkit/string_convert.h"
#include "toolkit/version_info.h"
#include "traits/project_traits.h"

#include <algorithm>
#include <vector>

namespace {

constexpr wchar_t kSharedDllsKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\SharedDlls";

using qv::unique_hfind;

VARIANT_BOOL ToVariantBool(bool value) {
    return value ? VARIANT_TRUE : VARIANT_FALSE;
}

using qv::EqualNoCase;

void DropTrailingBackslash(std::wstring& text) {
    if (!text.empty() && text.back() == L'\\')
        text.pop_back();
}

// A byte-exact copy, so that a BSTR with an odd byte count or embedded nulls comes back as it went in.
// Null stays null.
BSTR CopyBstr(BSTR source) {
    if (!source)
        return nullptr;
    BSTR copy = SysAllocStringByteLen(reinterpret_cast<const char*>(source), SysStringByteLen(source));
    if (!copy)
        throw com_exception(E_OUTOFMEMORY);
    return copy;
}

std::wstring FromBstr(BSTR value) {
    return value ? std::wstring(value, SysStringLen(value)) : std::wstring();
}

HRESULT GetFlag(VARIANT_BOOL* out, bool value) {
    if (!out)
        return E_POINTER;
    *out = ToVariantBool(value);
    return S_OK;
}

// The client's marks take only the automation true (-1); any other value clears them.
bool FromStrictVariantBool(VARIANT_BOOL value) {
    return value == VARIANT_TRUE;
}

// A time of the file system as local time, as FileTimeToLocalFileTime gives it: the zone's offset of now,
// whatever the time's own date. Within a scan round the offset is asked once (the round is one moment of the
// scan; under Wine each conversion reads the zone from the registry anew).
bool LocalFileTime(const FILETIME& utc, FILETIME& local) {
    thread_local unsigned long offsetRound = 0;
    thread_local LONGLONG offset = 0; // local minus UTC, in FILETIME ticks
    const unsigned long round = qv::CurrentScanRound();
    const LONGLONG at = static_cast<LONGLONG>((static_cast<ULONGLONG>(utc.dwHighDateTime) << 32) | utc.dwLowDateTime);
    constexpr LONGLONG Day = 864000000000LL;
    if (round == 0 || at < Day || at > (LONGLONG{1} << 62))
        return FileTimeToLocalFileTime(&utc, &local) != FALSE;
    if (offsetRound != round) {
        FILETIME utcNow, localNow;
        GetSystemTimeAsFileTime(&utcNow);
        if (!FileTimeToLocalFileTime(&utcNow, &localNow))
            return FileTimeToLocalFileTime(&utc, &local) != FALSE;
        auto ticks = [](const FILETIME& t) {
            return static_cast<LONGLONG>((static_cast<ULONGLONG>(t.dwHighDateTime) << 32) | t.dwLowDateTime);
        };
        offset = ticks(localNow) - ticks(utcNow);
        offsetRound = round;
    }
    const ULONGLONG shifted = static_cast<ULONGLONG>(at + offset);
    local.dwLowDateTime = static_cast<DWORD>(shifted);
    local.dwHighDateTime = static_cast<DWORD>(shifted >> 32);
    return true;
}

// Last write time as local time, cut to the 2-second grain of a DOS time. 0 when a step fails (a time
// before 1980 has no DOS form).
DATE LocalDosTime(const FILETIME& written) {
    FILETIME local;
    WORD dosDate = 0;
    WORD dosTime = 0;
    DATE result = 0;
    if (!LocalFileTime(written, local) || !FileTimeToDosDateTime(&local, &dosDate, &dosTime) ||
        !DosDateTimeToVariantTime(dosDate, dosTime, &result))
        return 0;
    return result;
}

// What a record reads of its file: the version resource, and the size and write time of its directory entry.
// Kept per process while the file's size and write time stay the same, so a library that the closures of many
// scans meet is read once.
struct file_facts {
    qv::version_info info;
    bool listed = false; // the directory entry was found
    DWORD sizeLow = 0, sizeHigh = 0;
    FILETIME written{};
};

std::shared_ptr<const file_facts> FileFacts(const std::wstring& path) {
    static file_cache<file_facts> kept(8192);
    return kept.get(
        path,
        [](const std::wstring& file) {
            auto facts = std::make_shared<file_facts>();
            // An image's version resource as the image's facts found it, when they could tell which one the
            // system reads: no opening and mapping of the file again through GetFileVersionInfoW, twice.
            const auto image = ImageFacts(file);
            using version = qv::pe::version_resource::kind;
            if (image->version == version::one)
                facts->info.LoadResource(image->versionResource.data(), image->versionResource.size());
            else if (image->version == version::ask)
                facts->info.Load(file);
            WIN32_FIND_DATAW data{};
            if (unique_hfind find(FindFirstFileW(file.c_str(), &data)); find) {
                facts->listed = true;
                facts->sizeLow = data.nFileSizeLow;
                facts->sizeHigh = data.nFileSizeHigh;
                facts->written = data.ftLastWriteTime;
            }
            return std::shared_ptr<const file_facts>(std::move(facts));
        },
        [](const file_facts& facts) { return facts.listed; });
}

} // namespace

namespace qv::dep_file_detail {

std::wstring RemoveDotComponents(std::wstring_view path) {
    std::vector<std::wstring_view> parts;
    for (size_t start = 0;;) {
        size_t end = path.find_first_of(L"\\/", start);
        parts.push_back(path.substr(start, end == std::wstring_view::npos ? std::wstring_view::npos : end - start));
        if (end == std::wstring_view::npos)
            break;
        start = end + 1;
    }
    // The root, which ".." never takes away: "C:", the empty part before a leading backslash, or the
    // "\\server\share" (and "\\?\C:") head.
    size_t root = 0;
    if (parts[0].size() == 2 && parts[0][1] == L':')
        root = 1;
    else if (parts.size() >= 2 && parts[0].empty() && parts[1].empty())
        root = std::min<size_t>(parts.size(), 4);
    else if (parts[0].empty())
        root = 1;

    std::vector<std::wstring_view> kept(parts.begin(), parts.begin() + static_cast<ptrdiff_t>(root));
    for (size_t i = root; i < parts.size(); ++i) {
        bool last = i + 1 == parts.size();
        if (parts[i] == L"." || parts[i] == L"..") {
            if (parts[i] == L".." && kept.size() > root)
                kept.pop_back();
            if (last)
                kept.push_back({}); // the folder keeps its trailing backslash
            continue;
        }
        kept.push_back(parts[i]);
    }
    std::wstring result;
    for (size_t i = 0; i < kept.size(); ++i) {
        if (i)
            result += L'\\';
        result += kept[i];
    }
    return result;
}

namespace {

bool SameFolder(std::wstring_view a, std::wstring_view b) {
    if (a.empty() || b.empty())
        return false;
    return EqualNoCase(RemoveDotComponents(a), RemoveDotComponents(b));
}

} // namespace

bool InSharedFolder(std::wstring_view dir, const shared_folders& folders) {
    if (SameFolder(dir, folders.system) || SameFolder(dir, folders.windows))
        return true;
    return folders.wow64 && (SameFolder(dir, folders.sysnative) || SameFolder(dir, folders.syswow64));
}

REGSAM SharedDllsAccess(bool wow64, DWORD machine) {
    bool image64 = machine == qv::pe::layout::machine::ia64 || machine == qv::pe::layout::machine::amd64;
    return wow64 && image64 ? (KEY_READ | KEY_WOW64_64KEY) : KEY_READ;
}

namespace {

// The file-name parts of the values of SharedDlls, in the key's order, as far as the key can be read.
std::vector<std::wstring> SharedDllNames(REGSAM access) {
    std::vector<std::wstring> names;
    qv::unique_hkey key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSharedDllsKey, 0, access, key.put()) != ERROR_SUCCESS)
        return names;
    // Value names have at most 16383 characters.
    std::vector<wchar_t> valueName(16384);
    for (DWORD index = 0;; ++index) {
        DWORD length = static_cast<DWORD>(valueName.size());
        if (RegEnumValueW(key.get(), index, valueName.data(), &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS)
            return names; // the end of the values, or a key that cannot be read further
        names.emplace_back(qv::FileNamePart(std::wstring_view(valueName.data(), length)));
    }
}

} // namespace

bool ListedInSharedDlls(std::wstring_view name, REGSAM access) {
    // A machine may list thousands of shared files: within a scan round the key is read once for all the records
    // of the scan (the round's rule, toolkit/scan_round.h); outside a round it is read at each question.
    thread_local struct {
        unsigned long round = 0;
        REGSAM access = 0;
        std::vector<std::wstring> names;
    } kept;
    const unsigned long round = qv::CurrentScanRound();
    if (round == 0 || kept.round != round || kept.access != access) {
        kept.names = SharedDllNames(access);
        kept.round = round;
        kept.access = access;
    }
    return std::any_of(kept.names.begin(), kept.names.end(),
                       [&](const std::wstring& listed) { return EqualNoCase(listed, name); });
}

} // namespace qv::dep_file_detail

using namespace qv::dep_file_detail;

CDepFile::CDepFile() {
    m_pLanguages = qv::make_object<CLanguages>();
}

// ---- IDepFile

STDMETHODIMP CDepFile::get_Name(BSTR* pVal) {
    return qv::com_boundary([&] {
        if (!pVal)
            return E_POINTER;
        *pVal = CopyBstr(m_bstrName.get());
        return S_OK;
    });
}

STDMETHODIMP CDepFile::get_ModifiedTime(DATE* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = m_dModifiedTime;
    return S_OK;
}

STDMETHODIMP CDepFile::get_Size(long* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = m_nSize;
    return S_OK;
}

STDMETHODIMP CDepFile::get_Path(BSTR* pVal) {
    return qv::com_boundary([&] {
        if (!pVal)
            return E_POINTER;
        *pVal = CopyBstr(m_bstrPath.get());
        return S_OK;
    });
}

STDMETHODIMP CDepFile::get_Shared(VARIANT_BOOL* pVal) {
    return GetFlag(pVal, m_bShared != VARIANT_FALSE);
}

STDMETHODIMP CDepFile::get_SelfRegistering(VARIANT_BOOL* pVal) {
    return GetFlag(pVal, m_bSelfRegistering != VARIANT_FALSE);
}

STDMETHODIMP CDepFile::get_Languages(ILanguages** pVal) {
    if (!pVal)
        return E_POINTER;
    return m_pLanguages->QueryInterface(IID_ILanguages, reinterpret_cast<void**>(pVal));
}

STDMETHODIMP CDepFile::get_MajorVersion(long* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = m_nMajorVersion;
    return S_OK;
}

STDMETHODIMP CDepFile::get_MinorVersion(long* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = m_nMinorVersion;
    return S_OK;
}

// ---- IDepFileTarn

STDMETHODIMP CDepFile::PutDestPath(BSTR bstrVal) {
    return qv::com_boundary([&] {
        m_sDestPath = FromBstr(bstrVal);
        return S_OK;
    });
}

STDMETHODIMP CDepFile::GetDestPath(BSTR* pbstrVal) {
    if (!pbstrVal)
        return E_INVALIDARG;
    return qv::copy_text_out(m_sDestPath, pbstrVal);
}

namespace {

// Stores a fresh copy of value; the very pointer the field holds is left alone (a copy made after
// freeing it would read freed memory).
void StoreCopy(qv::bstr& field, BSTR value) {
    if (value == field.get())
        return;
    field = qv::bstr::adopt(CopyBstr(value));
}

} // namespace

STDMETHODIMP CDepFile::PutName(BSTR bstrVal) {
    return qv::com_boundary([&] {
        StoreCopy(m_bstrName, bstrVal);
        return S_OK;
    });
}

STDMETHODIMP CDepFile::PutPath(BSTR bstrVal) {
    return qv::com_boundary([&] {
        StoreCopy(m_bstrPath, bstrVal);
        return S_OK;
    });
}

STDMETHODIMP CDepFile::PutSelfReg(VARIANT_BOOL vbSelfReg) {
    m_bAutoSelfReg = false;
    m_bSelfRegistering = ToVariantBool(vbSelfReg != VARIANT_FALSE);
    return S_OK;
}

STDMETHODIMP CDepFile::PutDotNet(VARIANT_BOOL vbDotNet) {
    m_bAutoDotNet = false;
    m_bDotNet = vbDotNet != VARIANT_FALSE;
    return S_OK;
}

STDMETHODIMP CDepFile::GetDotNet(VARIANT_BOOL* vbDotNet) {
    return GetFlag(vbDotNet, m_bAutoDotNet ? static_cast<bool>(m_pAssembly) : m_bDotNet);
}

// ---- IDepFileInfo

STDMETHODIMP CDepFile::get_Included(VARIANT_BOOL* pVal) {
    return GetFlag(pVal, m_bIncluded);
}

STDMETHODIMP CDepFile::put_Included(VARIANT_BOOL newVal) {
    m_bIncluded = FromStrictVariantBool(newVal);
    return S_OK;
}

STDMETHODIMP CDepFile::get_IsMergeModule(VARIANT_BOOL* pVal) {
    return GetFlag(pVal, m_bIsMergeModule);
}

STDMETHODIMP CDepFile::get_IsDriver(VARIANT_BOOL* pVal) {
    return GetFlag(pVal, m_bIsDriver);
}

STDMETHODIMP CDepFile::put_IsDriver(VARIANT_BOOL newVal) {
    m_bIsDriver = FromStrictVariantBool(newVal);
    return S_OK;
}

STDMETHODIMP CDepFile::get_IsFilterable(VARIANT_BOOL* pVal) {
    return GetFlag(pVal, m_bIsFilterable);
}

STDMETHODIMP CDepFile::put_IsFilterable(VARIANT_BOOL newVal) {
    m_bIsFilterable = FromStrictVariantBool(newVal);
    return S_OK;
}

STDMETHODIMP CDepFile::get_IsMissing(VARIANT_BOOL* pVal) {
    return GetFlag(pVal, m_bIsMissing);
}

STDMETHODIMP CDepFile::get_Assembly(IDotNetAssembly** pVal) {
    // No assembly: the argument stays as the caller left it, and the call succeeds.
    if (!m_pAssembly)
        return S_OK;
    return m_pAssembly->QueryInterface(IID_IDotNetAssembly, reinterpret_cast<void**>(pVal));
}

// IQvDepFileDetails

STDMETHODIMP CDepFile::get_DelayLoaded(long* delayOnly) {
    if (!delayOnly)
        return E_POINTER;
    *delayOnly = m_details.delayOnly ? 1 : 0;
    return S_OK;
}

STDMETHODIMP CDepFile::get_MissingEntryPoints(BSTR* lines) {
    std::wstring text;
    for (const auto& gap : m_details.missingEntries) {
        text += gap.importer;
        const size_t kept = std::min(gap.names.size(), qv::entry_names_kept);
        for (size_t i = 0; i < kept; ++i)
            text += L'\t' + gap.names[i];
        if (gap.names.size() > kept)
            text += L"\t+" + std::to_wstring(gap.names.size() - kept);
        text += L'\n';
    }
    return qv::copy_text_out(text, lines);
}

STDMETHODIMP CDepFile::get_PassedOver(BSTR* lines) {
    std::wstring text;
    for (const auto& copy : m_details.passedOver) {
        const std::string_view machine = qv::pe::layout::machine::name(static_cast<std::uint16_t>(copy.machine));
        text += copy.path + L'\t' +
                (machine.empty() ? L"machine " + std::to_wstring(copy.machine) : qv::WidenAnsi(machine)) + L'\n';
    }
    return qv::copy_text_out(text, lines);
}

// ---- Operations for the scanners

void CDepFile::SetAssembly(IUnknown* assembly) {
    qv::com_ptr<IDotNetAssembly> held;
    if (assembly)
        assembly->QueryInterface(IID_IDotNetAssembly, held.put_void());
    m_pAssembly = std::move(held);
}

std::optional<std::wstring> CDepFile::MapDestPath(const std::wstring& path) {
    if (path.empty())
        return std::nullopt;
    std::wstring mapped = qv::LowerCase(path);
    std::replace(mapped.begin(), mapped.end(), L'/', L'\\');
    DropTrailingBackslash(mapped);

    struct folder_token {
        std::wstring (*folder)();
        std::wstring (*token)();
    };
    static const folder_token pairs[] = {
        {[] { return qv::SystemFolder(); }, &qv::traits::SystemFolderToken},
        {[] { return qv::WindowsFolder(); }, &qv::traits::WindowsFolderToken},
        {&qv::ReadCommonFilesDir, &qv::traits::CommonFilesFolderToken},
    };
    for (const folder_token& pair : pairs) {
        std::wstring folder = qv::LowerCase(pair.folder());
        DropTrailingBackslash(folder);
        // An unknown folder (no CommonFilesDir value) occurs nowhere.
        if (folder.empty())
            continue;
        size_t at = mapped.find(folder);
        if (at != std::wstring::npos)
            return mapped.replace(at, folder.size(), pair.token());
    }
    return std::nullopt;
}

void CDepFile::SetPaths(const std::wstring& name, const std::wstring& path) {
    if (!name.empty()) {
        m_bstrName = qv::bstr(name);
        m_bstrPath = qv::bstr(qv::DirectoryPart(path));
    } else {
        m_bstrName = qv::bstr(path);
        m_bstrPath = qv::bstr(path);
    }
    std::optional<std::wstring> mapped = MapDestPath(m_bstrPath.str());
    m_sDestPath = mapped ? std::move(*mapped) : m_bstrPath.str();
}

void CDepFile::SetMissing(const std::wstring& path) {
    SetPaths(qv::FileNamePart(path), path);
    m_bIsMissing = true;
    m_bSelfRegistering = VARIANT_FALSE;
    m_bShared = VARIANT_FALSE;
    m_nSize = 0;
    m_dModifiedTime = 0;
    m_nMajorVersion = 0;
    m_nMinorVersion = 0;
}

void CDepFile::SetMergeModule(std::wstring_view name, std::wstring_view path, bool bMissing) {
    qv::bstr subject(name);
    qv::bstr key(path);
    m_bIsMergeModule = true;
    m_bstrName = std::move(subject);
    m_bstrPath = std::move(key);
    m_bIsMissing = bMissing;
}

bool CDepFile::TestSelfRegistration(const std::wstring& path, const qv::version_info& info) {
    // An executable announces itself in its version resource; it is never loaded.
    if (EqualNoCase(qv::ExtensionPart(path), L".exe"))
        return info.GetString("OLESelfRegister") != nullptr;
    if (!m_bAutoSelfReg)
        return m_bSelfRegistering != VARIANT_FALSE;
    // This runs the DLL's initialisation code on the caller's thread.
    qv::unique_hmodule module(LoadLibraryW(path.c_str()));
    if (!module) {
        m_bSelfRegistering = VARIANT_FALSE;
        m_bAutoSelfReg = false;
        return false;
    }
    return GetProcAddress(module.get(), "DllRegisterServer") != nullptr;
}

bool CDepFile::TestShared(const std::wstring& path) const {
    std::wstring dir = m_bstrPath.str();
    if (dir.empty() || !qv::IsPathSeparator(dir.back()))
        dir += L'\\';
    shared_folders folders{qv::SystemFolder(), qv::WindowsFolder(), qv::IsWow64(), qv::SysNativeFolder(),
                           qv::SysWow64Folder()};
    if (InSharedFolder(dir, folders))
        return true;
    DWORD machine = 0;
    if (folders.wow64) {
        CPEImage image(path);
        if (image.Status() == CExeImage::StatusUsable)
            machine = image.GetMachine();
    }
    return ListedInSharedDlls(m_bstrName.view(), SharedDllsAccess(folders.wow64, machine));
}

void CDepFile::LoadFromFile(const std::wstring& path) {
    std::wstring name = qv::FileNamePart(path);
    if (!qv::PathExists(path, qv::path_accept_any)) {
        SetMissing(path);
        return;
    }
    SetPaths(name, path);

    const auto facts = FileFacts(path);
    const qv::version_info& info = facts->info;
    m_bSelfRegistering = ToVariantBool(TestSelfRegistration(path, info));

    if (facts->listed) {
        // The low half less the high half: the size for a file below 4 GiB, and what clients have
        // always been given above it.
        m_nSize = static_cast<long>(facts->sizeLow - facts->sizeHigh);
        m_dModifiedTime = LocalDosTime(facts->written);
    } else {
        m_nSize = 0;
        m_dModifiedTime = 0;
    }

    m_bShared = ToVariantBool(!m_bstrName.empty() && TestShared(path));

    m_nMajorVersion = static_cast<long>(info.dwFileVersionMS);
    m_nMinorVersion = static_cast<long>(info.dwFileVersionLS);

    // Every translation goes under the one key "1": the collection ends up holding the language of the
    // last translation only.
    for (DWORD translation : info.m_translations)
        m_pLanguages->Add(L"1", static_cast<long>(LOWORD(translation)));
}
