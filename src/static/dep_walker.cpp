#include "static/dep_walker.h"

#include "companions.h"
#include "filter/filter_base.h"
#include "format/pe/pe_layout.h"
#include "scanutil/scan_util.h"
#include "static/activation_scope.h"
#include "static/pe_images.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"
#include "toolkit/string_convert.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace {

constexpr long IgnoreCatalogFlag = 0x8000;
constexpr long ModeNoImportTables = 2;

const wchar_t* const InitialSkipNames[] = {L"kernel32.dll", L"ntdll.dll",   L"user32.dll", L"gdi32.dll",
                                           L"advapi32.dll", L"shell32.dll", L"ole32.dll"};

// Key and subject of a module the catalog has, from its record.
void TakeModuleTexts(IUnknown* module, ScannedFile& record) {
    qv::com_ptr<IQvMergeModule> texts;
    check_hr(module->QueryInterface(IID_IQvMergeModule, texts.put_void()));
    qv::bstr key, subject;
    check_hr(texts->get_ModuleKey(key.put()));
    check_hr(texts->get_ModuleName(subject.put()));
    record.MergeModuleKey = key.str();
    record.MergeModuleSubject = subject.str();
}

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

namespace {

// The machine test of a candidate: whether it is no usable image (taken at once) or an image of the
// machine asked for (0 takes any). What is no file on disk (a device, a pipe) is never taken.
bool TakesCandidate(const std::wstring& candidate, DWORD machine) {
    CPEImage image(candidate);
    if (image.OpenStatus() == CFileView::OpenNotDisk)
        return false;
    return machine == 0 || !image.Usable() || image.GetMachine() == machine;
}

// The process's current directory, of any length.
std::wstring CurrentDirectory() {
    std::wstring dir(MAX_PATH, L'\0');
    for (int attempt = 0; attempt < 3; ++attempt) {
        DWORD n = GetCurrentDirectoryW(static_cast<DWORD>(dir.size()), dir.data());
        if (n < dir.size()) {
            dir.resize(n);
            return dir;
        }
        dir.resize(n);
    }
    return {};
}

// The key of a name as written and the machine it is looked for, in the scan's settled answers.
std::wstring SettledKey(const std::wstring& name, DWORD machine) {
    return name + L'|' + std::to_wstring(machine);
}

} // namespace

bool FindDependency(const std::wstring& root, const std::wstring& name, DWORD machine, std::wstring& result) {
    // A device name is no file on disk in any folder: it is missing, and nothing is opened for it.
    if (name.empty() || qv::IsDeviceName(name))
        return false;

    const std::wstring& systemFolder = qv::SystemFolder();
    const std::wstring& nativeFolder = qv::SysNativeFolder();
    const bool redirect = (machine == qv::pe::layout::machine::ia64 || machine == qv::pe::layout::machine::amd64) &&
                          !nativeFolder.empty();

    auto tryFolder = [&](const std::wstring& dir) {
        std::wstring candidate = qv::JoinPath(dir, name);
        if (redirect && qv::StartsWithNoCase(candidate, systemFolder))
            candidate.replace(0, systemFolder.size(), nativeFolder);
        DWORD attributes = GetFileAttributesW(candidate.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY))
            return false;
        if (!TakesCandidate(candidate, machine))
            return false;
        // A name that climbs ("..\\x.dll") or holds forward slashes is recorded where the file really is.
        result = qv::NormalisedPath(candidate);
        return true;
    };

    // A root given is the one folder; otherwise the current folder, then the folders of Path.
    if (!root.empty())
        return tryFolder(root);
    if (tryFolder(CurrentDirectory()))
        return true;
    for (const auto& dir : qv::GetSearchFolders()) {
        if (tryFolder(dir))
            return true;
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

    qv::com_object<CScanUtil>* scanUtil = nullptr;
    check_hr(qv::com_object<CScanUtil>::CreateInstance(&scanUtil));
    m_pScanUtil = qv::com_ptr<IScanUtilValeSP1>(scanUtil);

    // The host's merge-module catalog, unless the scan type says to leave it unused.
    qv::com_ptr<IUnknown> catalog;
    check_hr(m_pEvents->get_MMCatalog(catalog.put()));
    m_bUseCatalog = false;
    if (!(scanType & IgnoreCatalogFlag) && catalog) {
        check_hr(m_pScanUtil->put_MMCatalog(catalog.get()));
        m_bUseCatalog = true;
    }

    m_searches.clear();
    m_passed.clear();
    m_settledMissing.clear();
    EnterFileDirectory(file);
    Status = ScanOneFile(file, false);
    // An exception from the walk skips this: the process stays in the scanned file's folder.
    if (m_bDirectoryChanged)
        SetCurrentDirectoryW(m_sSavedDirectory.c_str());
    m_pEvents.reset();
}

void CDepWalker::EnterFileDirectory(const std::wstring& file) {
    m_bDirectoryChanged = false;
    auto slash = file.find_last_of(L"\\/");
    if (slash == std::wstring::npos)
        return;
    m_sSavedDirectory = CurrentDirectory();
    // For a file in a drive's root this is "C:", the drive's own current folder: kept so.
    SetCurrentDirectoryW(file.substr(0, slash).c_str());
    m_bDirectoryChanged = true;
}

// One image whose imports are being walked, as the walk keeps it on its own stack: a chain of any
// depth costs heap, never the thread's stack. The image itself is closed once its names are read.
struct CDepWalker::ImportFrame {
    std::wstring path;
    std::vector<std::wstring> names;
    DWORD machine = 0;
    size_t next = 0;                        // the name being walked
    std::wstring found;                     // where it was found, announced when the walk below it ends
    std::unique_ptr<ActivationScope> scope; // the image's own manifest, active while its imports are walked
};

DWORD CDepWalker::ScanOneFile(const std::wstring& path, bool isDependency) {
    std::vector<ImportFrame> stack;
    // Frames end newest first, on an exception too, so that activation contexts end in the reverse order
    // of their start.
    struct unwind {
        std::vector<ImportFrame>& frames;
        ~unwind() {
            while (!frames.empty())
                frames.pop_back();
        }
    } guard{stack};

    EnterFile(path, isDependency, stack);
    while (!stack.empty()) {
        ImportFrame& top = stack.back();
        if (top.next == top.names.size()) {
            stack.pop_back();
            if (!stack.empty()) {
                FireFoundDepFile(stack.back().found);
                ++stack.back().next;
            }
            continue;
        }
        const std::wstring& name = top.names[top.next];
        std::wstring result;
        if (!FindCached(name, top.machine, result)) {
            MissingDependency(name, top.machine);
            FireFoundDepFile(name);
            ++top.next;
            continue;
        }
        top.found = result;
        const size_t depth = stack.size();
        EnterFile(result, true, stack); // may add a frame, and so move top
        if (stack.size() == depth) {
            FireFoundDepFile(result);
            ++stack.back().next;
        }
    }
    return 0;
}

void CDepWalker::EnterFile(const std::wstring& path, bool isDependency, std::vector<ImportFrame>& stack) {
    // The image is opened first so that the scope can tell from its resources whether a manifest of its
    // own is there to activate; only a usable image is walked under it.
    CScannedPE image(path);
    std::unique_ptr<ActivationScope> scope;
    if (ActivationScope::HasManifest(image, path))
        scope = std::make_unique<ActivationScope>(path);
    if (image.ImageError().bError) {
        check_hr(m_pEvents->ErrorEncountered(qv::bstr(path).get(), image.ImageError().hrCode,
                                             qv::bstr(image.ImageError().sText).get()));
    } else if (!image.Usable()) {
        // No such file, or no usable image: kept as a dependency if it passes the filter, not looked into.
        // The top-level file in this state yields nothing.
        if (isDependency) {
            ScannedFile record(path, false);
            AddFound(path, record);
        }
    } else if (!image.Assembly() && WalkImage(image, path, isDependency)) {
        stack.push_back({path, image.ImportNames(), image.GetMachine(), 0, {}, std::move(scope)});
    }
}

bool CDepWalker::WalkImage(const CScannedPE& image, const std::wstring& path, bool isDependency) {
    // The one guard against cycles and double work, by name only: the first file of a name wins.
    if (FoundFiles.count(qv::bstr(qv::FileNamePart(path))))
        return false;
    if (isDependency) {
        // Entered before anything below it is walked: that is what ends a cycle.
        ScannedFile record(path, image.ExportsDllRegisterServer());
        if (!AddFound(path, record))
            return false;
    } else if (!PassesFilter(path)) {
        return false;
    }
    return m_nScanMode != ModeNoImportTables && image.DirectorySize(1) != 0 && image.DirectoryInFile(1);
}

bool CDepWalker::FindCached(const std::wstring& name, DWORD machine, std::wstring& result) {
    std::wstring key = SettledKey(name, machine);
    auto it = m_searches.find(key);
    if (it == m_searches.end()) {
        std::optional<std::wstring> found;
        if (FindDependency(std::wstring(), name, machine, result))
            found = result;
        it = m_searches.emplace(std::move(key), std::move(found)).first;
    }
    if (it->second)
        result = *it->second;
    return it->second.has_value();
}

bool CDepWalker::AddFound(const std::wstring& path, ScannedFile& record) {
    // A file that a merge module covers is kept as that module, past the filter and the skip list, and
    // is not walked further: the module carries its dependencies.
    const bool covered = m_bUseCatalog && InMergeModule(path, record);
    if (!covered && !PassesFilter(path))
        return false;
    FoundFiles[qv::bstr(qv::FileNamePart(path))] = record;
    return !covered;
}

bool CDepWalker::InMergeModule(const std::wstring& path, ScannedFile& record) {
    const qv::bstr source(path);
    qv::com_ptr<IUnknown> module;
    VARIANT_BOOL yes = VARIANT_FALSE;
    check_hr(m_pScanUtil->InMergeModule(source.get(), module.put(), &yes));
    if (!yes)
        return false;
    if (module) {
        TakeModuleTexts(module.get(), record);
        return true;
    }

    // A module the catalog knows but cannot hand out: the entry is marked, and stands for the module only
    // when the catalog names both its key and its subject.
    record.MissingMergeModule = true;
    qv::bstr key;
    check_hr(m_pScanUtil->GetMissingMergeModuleKey(source.get(), key.put()));
    if (key.empty())
        return false;
    // The key goes through the thread's ANSI code page and back, as the entry's key always has; the
    // catalog is asked with the key as it gave it.
    record.MergeModuleKey = qv::WidenAnsi(qv::NarrowAnsi(key.view(), CP_THREAD_ACP), CP_THREAD_ACP);
    qv::bstr subject;
    check_hr(m_pScanUtil->GetMissingMergeModuleSubject(key.get(), subject.put()));
    if (subject.empty())
        return false;
    record.MergeModuleSubject = subject.str();
    return true;
}

void CDepWalker::MissingDependency(const std::wstring& path, DWORD machine) {
    // A missing name met again (an import table may repeat one a million times) was settled the first time.
    if (!m_settledMissing.insert(SettledKey(path, machine)).second)
        return;
    ScannedFile record(path, false);
    if (m_bUseCatalog) {
        qv::com_ptr<IUnknown> module;
        VARIANT_BOOL yes = VARIANT_FALSE;
        check_hr(m_pScanUtil->InMergeModuleEx(qv::bstr(path).get(), static_cast<LONG>(machine), module.put(), &yes));
        if (yes) {
            // A module the catalog lacks takes the name out of the results altogether.
            if (module) {
                TakeModuleTexts(module.get(), record);
                FoundFiles[qv::bstr(qv::FileNamePart(path))] = record;
            }
            return;
        }
    }
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
    if (!m_pFilter || m_passed.count(name))
        return true;
    bool inList = false;
    bool drop = false;
    AskFilter(m_pFilter, name, inList, drop);
    if (drop) {
        m_skipNames[name] = true;
        return false;
    }
    m_passed.insert(std::move(name));
    return true;
}

void CDepWalker::FireFoundDepFile(const std::wstring& path) {
    check_hr(m_pEvents->FoundDepFile(qv::bstr(path).get()));
}
