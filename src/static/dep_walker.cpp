#include "static/dep_walker.h"

#include "filter/filter_base.h"
#include "static/activation_scope.h"
#include "static/pe_images.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"

#include <algorithm>

namespace {

constexpr long IgnoreCatalogFlag = 0x8000;
constexpr long ModeNoImportTables = 2;
constexpr DWORD MachineItanium = 512;
constexpr DWORD MachineAmd64 = 34404;

const wchar_t* const InitialSkipNames[] = {L"kernel32.dll", L"ntdll.dll",    L"user32.dll", L"gdi32.dll",
                                           L"advapi32.dll", L"shell32.dll", L"ole32.dll"};

} // namespace

ScannedFile::ScannedFile(const std::wstring& path, bool selfRegistering)
    : Name(qv::FileNamePart(path)), FullPath(path), SelfRegistering(selfRegistering) {}

ScannedFile::ScannedFile(const std::wstring& path, IUnknown* assembly)
    : Name(qv::FileNamePart(path)), FullPath(path), Assembly(assembly) {}

bool BstrOrder::operator()(const qv::bstr& a, const qv::bstr& b) const {
    return VarBstrCmp(a.get(), b.get(), LOCALE_USER_DEFAULT, 0) == static_cast<HRESULT>(VARCMP_LT);
}

bool SkipNameOrder::operator()(const std::wstring& a, const std::wstring& b) const {
    size_t n = std::min(a.size(), b.size());
    int r = n ? _wcsnicmp(a.c_str(), b.c_str(), n) : 0;
    if (r != 0)
        return r < 0;
    return a.size() < b.size();
}

bool FindDependency(const std::wstring& root, const std::wstring& name, DWORD machine, std::wstring& result) {
    if (name.empty())
        return false;

    std::vector<std::wstring> ownDirs;
    const std::vector<std::wstring>* searchFolders = &ownDirs;
    if (!root.empty()) {
        ownDirs.push_back(root);
    } else {
        wchar_t current[MAX_PATH];
        DWORD n = GetCurrentDirectoryW(MAX_PATH, current);
        ownDirs.emplace_back(current, n < MAX_PATH ? n : 0);
    }
    const std::vector<std::wstring>& pathFolders = qv::GetSearchFolders();

    const std::wstring& systemFolder = qv::SystemFolder();
    const std::wstring& nativeFolder = qv::SysNativeFolder();
    const bool redirect = (machine == MachineItanium || machine == MachineAmd64) && !nativeFolder.empty();

    auto tryFolder = [&](const std::wstring& dir) {
        std::wstring candidate = qv::JoinPath(dir, name);
        if (redirect && qv::StartsWithNoCase(candidate, systemFolder))
            candidate.replace(0, systemFolder.size(), nativeFolder);
        DWORD attributes = GetFileAttributesW(candidate.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY))
            return false;
        CPEImage image(candidate);
        if (image.NtHeaders() && machine != 0 && image.GetMachine() != machine)
            return false;
        result = std::move(candidate);
        return true;
    };

    for (const auto& dir : *searchFolders) {
        if (tryFolder(dir))
            return true;
    }
    if (root.empty()) {
        for (const auto& dir : pathFolders) {
            if (tryFolder(dir))
                return true;
        }
    }
    return false;
}

CDepWalker::CDepWalker() {
    for (const wchar_t* name : InitialSkipNames)
        m_skipNames[name] = true;
}

void CDepWalker::Scan(const std::wstring& file, IStaticScanEvents* events, CFilterBase* filter,
                      const std::wstring& langId, long scanType) {
    m_pEvents.reset();
    if (!events)
        throw com_exception(E_POINTER);
    check_hr(events->QueryInterface(IID_IStaticScanEventsFellSP2, m_pEvents.put_void()));

    m_pFilter = filter;
    m_sLangId = langId;
    m_nScanMode = scanType & ~IgnoreCatalogFlag;

    // The host's merge-module catalog is read once per scan. No lookup is wired to it yet, so the walk
    // runs without a catalog whatever the host hands in.
    m_pCatalog.reset();
    check_hr(m_pEvents->get_MMCatalog(m_pCatalog.put()));
    m_bUseCatalog = false;

    EnterFileDirectory(file);
    Status = ScanOneFile(file, false);
    // An exception from the walk skips this: the process stays in the scanned file's folder.
    if (m_bDirectoryChanged)
        SetCurrentDirectoryW(m_szSavedDirectory);
    m_pEvents.reset();
}

void CDepWalker::EnterFileDirectory(const std::wstring& file) {
    m_bDirectoryChanged = false;
    auto slash = file.find_last_of(L'\\');
    if (slash == std::wstring::npos)
        return;
    GetCurrentDirectoryW(MAX_PATH, m_szSavedDirectory);
    // For a file in a drive's root this is "C:", the drive's own current folder: kept so.
    SetCurrentDirectoryW(file.substr(0, slash).c_str());
    m_bDirectoryChanged = true;
}

DWORD CDepWalker::ScanOneFile(const std::wstring& path, bool isDependency) {
    ActivationScope scope(path);
    CScannedPE image(path);
    if (image.ImageError().bError) {
        check_hr(m_pEvents->ErrorEncountered(qv::bstr(path).get(), image.ImageError().hrCode,
                                             qv::bstr(image.ImageError().sText).get()));
    } else if (!image.NtHeaders()) {
        // No such file, or no usable image: kept as a dependency if it passes the filter, not looked into.
        // The top-level file in this state yields nothing.
        if (isDependency) {
            ScannedFile record(path, false);
            AddFound(path, record);
        }
    } else if (!image.Assembly()) {
        WalkImage(image, path, isDependency);
    }
    return 0;
}

void CDepWalker::WalkImage(const CScannedPE& image, const std::wstring& path, bool isDependency) {
    // The one guard against cycles and double work, by name only: the first file of a name wins.
    if (FoundFiles.count(qv::bstr(qv::FileNamePart(path))))
        return;
    if (isDependency) {
        // Entered before anything below it is walked: that is what ends a cycle.
        ScannedFile record(path, image.ExportsDllRegisterServer());
        if (!AddFound(path, record))
            return;
    } else if (!PassesFilter(path)) {
        return;
    }

    if (m_nScanMode == ModeNoImportTables || image.DirectorySize(1) == 0 || !image.DirectoryPointer(1))
        return;
    const DWORD machine = image.GetMachine();
    for (const std::wstring& name : image.ImportNames()) {
        std::wstring result;
        if (FindDependency(std::wstring(), name, machine, result)) {
            ScanOneFile(result, true);
        } else {
            result = name;
            MissingDependency(result, machine);
        }
        FireFoundDepFile(result);
    }
}

bool CDepWalker::AddFound(const std::wstring& path, ScannedFile& record) {
    if (!PassesFilter(path))
        return false;
    FoundFiles[qv::bstr(qv::FileNamePart(path))] = record;
    return true;
}

void CDepWalker::MissingDependency(const std::wstring& path, DWORD /*machine*/) {
    ScannedFile record(path, false);
    // A missing name on the skip list or a filter list is not reported.
    if (!PassesFilter(path))
        return;
    MissingFiles[qv::bstr(path)] = record;
}

bool CDepWalker::PassesFilter(const std::wstring& path) {
    if (path.empty())
        return false;
    std::wstring name = qv::FileNamePart(path);
    if (m_skipNames.count(name))
        return false;
    if (!m_pFilter)
        return true;
    bool inList = false;
    bool drop = false;
    AskFilter(m_pFilter, name, inList, drop);
    if (drop) {
        m_skipNames[name] = true;
        return false;
    }
    return true;
}

void CDepWalker::FireFoundDepFile(const std::wstring& path) { check_hr(m_pEvents->FoundDepFile(qv::bstr(path).get())); }
