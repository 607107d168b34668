#include "static/dep_walker.h"

#include "companions.h"
#include "filter/filter_base.h"
#include "filter/vb_filter.h"
#include "format/pe/pe_layout.h"
#include "inc/scan_extensions.h"
#include "inc/unique_handles.h"
#include "image/activation_scope.h"
#include "image/dependency_search.h"
#include "image/entry_points.h"
#include "image/pe_images.h"
#include "scanutil/scan_util.h"
#include "static/scanned_pe.h"
#include "toolkit/folder_listing.h"
#include "toolkit/path_helpers.h"
#include "toolkit/scan_round.h"
#include "toolkit/probes.h"
#include "toolkit/string_convert.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace {

constexpr long IgnoreCatalogFlag = 0x8000;
constexpr long ModeSkipTopAssembly = 1;
constexpr long ModeNoImportTables = 2;

const wchar_t* const InitialSkipNames[] = {L"kernel32.dll", L"ntdll.dll",   L"user32.dll", L"gdi32.dll",
                                           L"advapi32.dll", L"shell32.dll", L"ole32.dll"};

} // namespace

void TakeModuleTexts(IUnknown* module, ScannedFile& record) {
    qv::com_ptr<IQvMergeModule> texts;
    check_hr(module->QueryInterface(IID_IQvMergeModule, texts.put_void()));
    qv::bstr key, subject;
    check_hr(texts->get_ModuleKey(key.put()));
    check_hr(texts->get_ModuleName(subject.put()));
    record.MergeModuleKey = key.str();
    record.MergeModuleSubject = subject.str();
}

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

// The key of a name as written and the machine it is looked for, in the scan's settled answers.
std::wstring SettledKey(const std::wstring& name, DWORD machine) {
    return name + L'|' + std::to_wstring(machine);
}

} // namespace

CDepWalker::CDepWalker() {
    for (const wchar_t* name : InitialSkipNames)
        m_skipNames[name] = true;
}

void CDepWalker::Scan(const std::wstring& file, IStaticScanEvents* events, CFilterBase* filter,
                      const std::wstring& langId, long scanType) {
    const qv::scan_round round; // each file is checked against the disk once in the scan
    m_pEvents.reset();
    if (!events)
        throw com_exception(E_POINTER);
    check_hr(events->QueryInterface(IID_IStaticScanEventsFellSP2, m_pEvents.put_void()));

    m_pFilter = filter;
    m_sLangId = langId;
    m_nScanMode = scanType & ~(IgnoreCatalogFlag | qv::scan_type::extensions);
    m_bDelayLoads = (scanType & qv::scan_type::delay_loads) != 0;
    m_bDetails = (scanType & qv::scan_type::details) != 0;
    // Without lists every image the walk finds is a record whose entry points are checked: its tables are read
    // with its facts.
    std::optional<image_tables_ahead> tablesAhead;
    if (m_bDetails && (!filter || !filter->Filtering()))
        tablesAhead.emplace();

    m_pScanUtil = qv::make_object<CScanUtil>();

    // The host's merge-module catalog, unless the scan type says to leave it unused.
    qv::com_ptr<IUnknown> catalog;
    check_hr(m_pEvents->get_MMCatalog(catalog.put()));
    m_bUseCatalog = false;
    if (!(scanType & IgnoreCatalogFlag) && catalog) {
        check_hr(m_pScanUtil->put_MMCatalog(catalog.get()));
        m_bUseCatalog = true;
    }

    m_searches.clear();
    m_depFiles.clear();
    m_passed.clear();
    m_settledMissing.clear();
    m_passedOver.clear();
    m_edges.clear();
    EnterFileDirectory(file);
    Status = ScanOneFile(file, false);
    if (Status == 0 && (m_bDelayLoads || m_bDetails))
        SettleDetails(file); // in the scan's folder still: forwarders are searched as the imports were
    // An exception from the walk skips this: the process stays in the scanned file's folder.
    if (m_bDirectoryChanged)
        SetCurrentDirectoryW(m_sSavedDirectory.c_str());
    m_pEvents.reset();
}

void CDepWalker::EnterFileDirectory(const std::wstring& file) {
    m_bDirectoryChanged = m_bDirectoryPending = false;
    auto slash = file.find_last_of(L"\\/");
    if (slash == std::wstring::npos)
        return;
    const std::wstring folder = file.substr(0, slash);
    // A folder of a drive that exists becomes the process's current folder only when something needs the
    // process's own (a search path, the runtime, an activation context): the import search takes the
    // folder as the process would spell it. Changing the current folder costs a round trip to the system
    // twice a scan, which is most of a scan that meets nothing new.
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (folder.size() >= 3 && folder[1] == L':' && qv::IsPathSeparator(folder[2]) &&
        GetFileAttributesExW(folder.c_str(), GetFileExInfoStandard, &data) &&
        (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
        m_sWalkDirectory = qv::FullPath(folder);
        while (m_sWalkDirectory.size() > 3 && m_sWalkDirectory.back() == L'\\')
            m_sWalkDirectory.pop_back();
        m_bDirectoryPending = true;
        return;
    }
    m_sSavedDirectory = qv::CurrentDirectory();
    // For a file in a drive's root this is "C:", the drive's own current folder: kept so.
    SetCurrentDirectoryW(folder.c_str());
    m_bDirectoryChanged = true;
}

void CDepWalker::EnterWalkDirectory() {
    if (!m_bDirectoryPending)
        return;
    m_bDirectoryPending = false;
    m_sSavedDirectory = qv::CurrentDirectory();
    SetCurrentDirectoryW(m_sWalkDirectory.c_str());
    m_bDirectoryChanged = true;
}

std::wstring CDepWalker::WalkDirectory() const {
    return m_bDirectoryPending ? m_sWalkDirectory : qv::CurrentDirectory();
}

// One step of the walk as it keeps it on its own stack, so that a chain of any depth costs heap, never the
// thread's stack: an image with the names of its import table, or a section of a .dep file with the files
// its Uses entries name. A frame says in state what it does next whenever it is on top: what it starts
// (a file entered, a section pushed) runs above it, and it goes on where it stood once that is done.
struct CDepWalker::WalkFrame {
    enum class State { DepPlain, DepLanguage, Next, AfterFile, SubPlain, SubLanguage, AfterSubs };
    bool section = false;
    State state = State::Next;
    std::wstring path;               // the image, or the .dep file of the section
    std::wstring depPath;            // the .dep file of the image or the section
    std::wstring name;               // the image's file-name part, or the section's name as looked up
    std::vector<std::wstring> names; // import names, delay-import names, or the files of Uses1, Uses2, ...
    size_t delayFrom = SIZE_MAX;     // where the delay-import names begin among names
    std::wstring owner;              // the image whose walk this frame is part of (its file-name part)
    DWORD machine = 0;
    size_t next = 0;
    std::wstring found;                     // where names[next] was found (or the name itself)
    qv::com_ptr<IQvSections> sections;      // the .dep file of the image, or the one of the section
    std::unique_ptr<ActivationScope> scope; // the image's own manifest, active while its frame lives
    CDepSections::mark entered;             // the section's, entered while its frame lives

    // The references of an assembly, read whole before the first is walked.
    struct assembly_ref {
        std::wstring path; // full path when found, else the name looked for
        bool found = false;
        qv::com_ptr<IUnknown> assembly; // the loaded child, when the reference is one
        DWORD machine = 0;
    };
    bool assembly = false;
    std::vector<assembly_ref> refs;
};

DWORD CDepWalker::ScanOneFile(const std::wstring& path, bool isDependency) {
    std::vector<WalkFrame> stack;
    // Frames end newest first, on an exception too, so that activation contexts end in the reverse order
    // of their start.
    struct unwind {
        std::vector<WalkFrame>& frames;
        ~unwind() {
            while (!frames.empty())
                frames.pop_back();
        }
    } guard{stack};

    EnterFile(path, isDependency, stack);
    while (!stack.empty())
        Step(stack);
    return 0;
}

void CDepWalker::Step(std::vector<WalkFrame>& stack) {
    using State = WalkFrame::State;
    WalkFrame& top = stack.back(); // not used past a push
    switch (top.state) {
    case State::DepPlain:
        top.state = State::DepLanguage;
        PushSection(stack, top.sections, top.depPath, top.name, top.owner);
        return;
    case State::DepLanguage:
        top.state = State::Next;
        PushSection(stack, top.sections, top.depPath, LanguageSection(top.name), top.owner);
        return;
    case State::Next:
        if (top.assembly) {
            StepAssembly(stack);
            return;
        }
        break;
    case State::AfterFile:
        if (top.section) {
            top.state = State::SubPlain;
        } else {
            FireFoundDepFile(top.found);
            ++top.next;
            top.state = State::Next;
        }
        return;
    case State::SubPlain: // a name that the search could not resolve may name a section of its own
        top.state = State::SubLanguage;
        PushSection(stack, top.sections, top.depPath, top.found, top.owner);
        return;
    case State::SubLanguage:
        top.state = State::AfterSubs;
        PushSection(stack, top.sections, top.depPath, LanguageSection(top.found), top.owner);
        return;
    case State::AfterSubs:
        ++top.next;
        top.state = State::Next;
        return;
    }

    if (top.next == top.names.size()) {
        stack.pop_back();
        return;
    }
    const std::wstring name = top.names[top.next];
    const bool delay = top.next >= top.delayFrom;
    std::wstring result;
    if (top.section) {
        EnterWalkDirectory();
        top.found = SearchDepName(name);
    } else if (FindCached(name, top.machine, result)) {
        top.found = std::move(result);
    } else {
        AddEdge(top, name, std::wstring(), delay);
        MissingDependency(name, top.machine);
        FireFoundDepFile(name);
        ++top.next;
        return;
    }
    AddEdge(top, name, top.found, delay);
    top.state = State::AfterFile;
    const std::wstring file = top.found;
    EnterFile(file, true, stack);
}

void CDepWalker::EnterFile(const std::wstring& path, bool isDependency, std::vector<WalkFrame>& stack) {
    // What the image is comes from the facts the process keeps; only an image with a CLI header is
    // opened again here, for its assembly. The scope tells from the facts whether a manifest of its own
    // is there to activate; only a usable image is walked under it.
    const auto facts = ImageFacts(path);
    std::optional<CScannedPE> clr;
    if (facts->clr || facts->manifest)
        EnterWalkDirectory(); // the runtime and the activation context see the folder as the scan does
    if (facts->clr)
        clr.emplace(path);
    std::unique_ptr<ActivationScope> scope;
    if (facts->manifest)
        scope = std::make_unique<ActivationScope>(path);
    if (!facts->usable) {
        // No such file, or no usable image: kept as a dependency if it passes the filter, not looked into.
        // The top-level file in this state yields nothing.
        if (isDependency) {
            ScannedFile record(path, false);
            AddFound(path, record);
        }
    } else if (clr && clr->Assembly()) {
        // The scanned file itself is walked as an assembly unless the mode says to scan only the
        // assemblies it is not; its import table is never read, only its references.
        if (isDependency || m_nScanMode != ModeSkipTopAssembly)
            EnterAssembly(clr->Assembly(), path, isDependency, stack);
    } else if (WalkImage(facts->selfRegistering, path, isDependency)) {
        WalkFrame frame;
        frame.path = path;
        frame.name = qv::FileNamePart(path);
        frame.sections = ReadDepCompanion(path, frame.depPath);
        frame.state = frame.sections ? WalkFrame::State::DepPlain : WalkFrame::State::Next;
        if (m_nScanMode != ModeNoImportTables) {
            if (facts->importsInFile)
                frame.names = facts->importNames;
            frame.delayFrom = frame.names.size();
            if (m_bDelayLoads)
                frame.names.insert(frame.names.end(), facts->delayNames.begin(), facts->delayNames.end());
        }
        frame.owner = frame.name;
        frame.machine = facts->machine;
        frame.scope = std::move(scope);
        if (frame.sections || !frame.names.empty())
            stack.push_back(std::move(frame));
    }
}

void CDepWalker::EnterAssembly(IUnknown* assembly, const std::wstring& path, bool isDependency,
                               std::vector<WalkFrame>& stack) {
    if (FoundFiles.count(qv::bstr(qv::FileNamePart(path))) || !PassesFilter(path))
        return;
    if (isDependency) {
        ScannedFile record(path, assembly);
        if (!AddFound(path, record))
            return;
    } else if (!PassesFilter(path)) {
        return; // only when the name came onto the skip list in the meantime
    }
    EnterWalkDirectory(); // native libraries of the assembly are searched in the current folder
    qv::com_ptr<IDotNetAssembly> dotNet;
    check_hr(assembly->QueryInterface(IID_IDotNetAssembly, dotNet.put_void()));
    qv::com_ptr<IDotNetAssemblyRefs> refs;
    check_hr(dotNet->get_Dependencies(m_pEvents.get(), refs.put()));
    qv::com_ptr<IUnknown> enumUnknown;
    check_hr(refs->get__NewEnum(enumUnknown.put()));
    qv::com_ptr<IEnumVARIANT> items;
    check_hr(enumUnknown->QueryInterface(IID_IEnumVARIANT, items.put_void()));

    WalkFrame frame;
    frame.assembly = true;
    frame.path = path;
    frame.name = qv::FileNamePart(path);
    frame.owner = frame.name;
    for (;;) {
        qv::com_ptr<IUnknown> element;
        {
            qv::unique_variant item;
            ULONG fetched = 0;
            if (check_hr(items->Next(1, item.get(), &fetched)) != S_OK || fetched == 0)
                break;
            if (V_VT(item.get()) == VT_DISPATCH || V_VT(item.get()) == VT_UNKNOWN)
                element = qv::com_ptr<IUnknown>(V_UNKNOWN(item.get()));
        }
        if (!element)
            throw com_exception(E_FAIL);
        qv::com_ptr<IDotNetAssemblyRef> reference;
        check_hr(element->QueryInterface(IID_IDotNetAssemblyRef, reference.put_void()));
        WalkFrame::assembly_ref entry;
        qv::bstr fileName;
        check_hr(reference->get_FileName(fileName.put()));
        entry.path = fileName.str();
        VARIANT_BOOL found = VARIANT_FALSE;
        check_hr(reference->get_Found(&found));
        entry.found = found != VARIANT_FALSE;
        if (entry.found) {
            qv::com_ptr<IDotNetAssembly> child;
            check_hr(reference->get_DotNetAssembly(child.put()));
            entry.assembly = qv::com_ptr<IUnknown>(child.get());
        } else {
            qv::com_ptr<IDotNetAssemblyRefValeSP1> withMachine;
            long machine = 0;
            if (SUCCEEDED(reference->QueryInterface(IID_IDotNetAssemblyRefValeSP1, withMachine.put_void())))
                check_hr(withMachine->get_Machine(&machine));
            entry.machine = static_cast<DWORD>(machine);
        }
        frame.refs.push_back(std::move(entry));
    }
    if (!frame.refs.empty())
        stack.push_back(std::move(frame));
}

void CDepWalker::StepAssembly(std::vector<WalkFrame>& stack) {
    WalkFrame& top = stack.back(); // not used past a push
    if (top.next == top.refs.size()) {
        stack.pop_back();
        return;
    }
    const WalkFrame::assembly_ref entry = top.refs[top.next];
    top.found = entry.path;
    AddEdge(top, entry.path, entry.found ? entry.path : std::wstring(), false);
    if (!entry.found) {
        MissingDependency(entry.path, entry.machine);
        FireFoundDepFile(entry.path);
        ++top.next;
        return;
    }
    // What runs above this frame ends in AfterFile, which reports the reference and moves on.
    top.state = WalkFrame::State::AfterFile;
    if (entry.assembly)
        EnterAssembly(entry.assembly.get(), entry.path, true, stack);
    else
        EnterFile(entry.path, true, stack);
}

bool CDepWalker::WalkImage(bool selfRegistering, const std::wstring& path, bool isDependency) {
    // The one guard against cycles and double work, by name only: the first file of a name wins.
    if (FoundFiles.count(qv::bstr(qv::FileNamePart(path))))
        return false;
    if (isDependency) {
        // Entered before anything below it is walked: that is what ends a cycle.
        ScannedFile record(path, selfRegistering);
        return AddFound(path, record);
    }
    return PassesFilter(path);
}

qv::com_ptr<IQvSections> CDepWalker::ReadDepCompanion(const std::wstring& path, std::wstring& depPath) {
    const std::wstring name = qv::FileNamePart(path);
    const size_t dot = name.find_last_of(L'.');
    if (dot == std::wstring::npos)
        return {};
    depPath = path.substr(0, path.size() - (name.size() - dot)) + L".dep";
    if (!DepFileExists(depPath))
        return {};
    qv::com_ptr<IQvSectionLoader> loader = MakeSectionLoader(depPath);
    // A file cut short by a bad line is read as far as it goes; the person is told where it stopped.
    if (check_hr(loader->Load(qv::bstr(depPath).get())) == S_FALSE) {
        qv::bstr problem;
        check_hr(loader->get_Problem(problem.put()));
        check_hr(m_pEvents->ErrorEncountered(qv::bstr(depPath).get(), HRESULT_FROM_WIN32(ERROR_INVALID_DATA),
                                             qv::bstr(L"read only up to " + problem.str()).get()));
    }
    qv::com_ptr<IQvSections> sections;
    check_hr(loader->get_Root(sections.put()));
    return sections;
}

void CDepWalker::PushSection(std::vector<WalkFrame>& stack, const qv::com_ptr<IQvSections>& sections,
                             const std::wstring& depPath, const std::wstring& name, const std::wstring& owner) {
    if (!sections)
        return;
    const qv::com_ptr<IQvSection> section = CDepSections::Find(sections.get(), name);
    if (!section)
        return;
    // Sections that name each other would be walked forever: the circle is reported and not entered again.
    CDepSections::mark entered = m_sections.Enter(sections.get(), name);
    if (entered.entry() != CDepSections::Entry::Entered) {
        check_hr(m_pEvents->ErrorEncountered(
            qv::bstr(depPath).get(), HRESULT_FROM_WIN32(ERROR_CIRCULAR_DEPENDENCY),
            qv::bstr(L"the sections name each other in a circle back to [" + name + L"], which is followed once")
                .get()));
        return;
    }
    WalkFrame frame;
    frame.section = true;
    frame.path = frame.depPath = depPath;
    frame.name = name;
    frame.owner = owner;
    frame.sections = sections;
    frame.entered = std::move(entered);
    CDepSections::EachUse(section.get(), [&](const std::wstring& used) {
        if (!used.empty()) // an empty value is passed over
            frame.names.push_back(used);
        return true;
    });
    stack.push_back(std::move(frame));
}

bool CDepWalker::DepFileExists(const std::wstring& depPath) {
    // Through the process's listing of the folder (toolkit/folder_listing.h): asking for each image's own .dep
    // file would look for a file that is mostly not there, which costs a pass over the whole folder on a
    // case-sensitive file system. Within one scan the first listing stands.
    const std::wstring folder = depPath.substr(0, depPath.size() - qv::FileNamePart(depPath).size());
    auto [it, added] = m_depFiles.try_emplace(qv::FoldAsciiCase(folder));
    if (added)
        it->second = qv::ListFolder(qv::FullPath(folder.empty() ? L"." : folder));
    const qv::folder_entry* entry = it->second ? it->second->find(qv::FileNamePart(depPath)) : nullptr;
    return entry && !entry->folder;
}

std::wstring CDepWalker::LanguageSection(const std::wstring& name) const {
    return name + L" <" + m_sLangId + L">";
}

std::wstring CDepWalker::SearchDepName(const std::wstring& name) {
    // The system's own search order for the process, under the activation context of the image whose .dep
    // file names it; a name not found stays as it is.
    std::wstring found(MAX_PATH, L'\0');
    for (int attempt = 0; attempt < 3; ++attempt) {
        DWORD n = SearchPathW(nullptr, name.c_str(), nullptr, static_cast<DWORD>(found.size()), found.data(), nullptr);
        if (n == 0)
            return name;
        if (n < found.size())
            return found.substr(0, n);
        found.resize(n);
    }
    return name;
}

bool CDepWalker::FindCached(const std::wstring& name, DWORD machine, std::wstring& result) {
    std::wstring key = SettledKey(name, machine);
    auto it = m_searches.find(key);
    if (it == m_searches.end()) {
        std::optional<std::wstring> found;
        const std::wstring current = WalkDirectory();
        std::vector<passed_over>* passed = m_bDetails ? &m_passedOver[key] : nullptr;
        if (FindDependency(std::wstring(), name, machine, result, &current, passed))
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
    // The machine as InMergeModule would read it of the image, from the facts the walk already holds.
    const auto facts = ImageFacts(path);
    check_hr(m_pScanUtil->InMergeModuleEx(source.get(), static_cast<LONG>(facts->usable ? facts->machine : 0),
                                          module.put(), &yes));
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
    if (const auto passed = m_passedOver.find(SettledKey(path, machine)); passed != m_passedOver.end())
        for (const passed_over& copy : passed->second)
            record.Details.passedOver.push_back({copy.path, copy.machine});
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

// ---- Details of a scan that asks for them

void CDepWalker::AddEdge(const WalkFrame& frame, const std::wstring& name, const std::wstring& found, bool delay) {
    if (!m_bDelayLoads && !m_bDetails)
        return;
    Edge edge;
    edge.fromName = frame.owner;
    edge.toName = qv::FileNamePart(found.empty() ? name : found);
    edge.from = qv::LowerCase(edge.fromName);
    edge.to = qv::LowerCase(edge.toName);
    edge.delay = delay;
    edge.image = !frame.section && !frame.assembly;
    edge.kind = frame.section ? L"dep" : frame.assembly ? L"assembly" : delay ? L"delay" : L"import";
    edge.importer = frame.path;
    edge.name = name;
    edge.found = frame.section && found == name ? std::wstring() : found; // a section's name not found stays as it is
    edge.machine = frame.machine;
    m_edges.push_back(std::move(edge));
}

std::wstring CDepWalker::EdgeLines() const {
    std::wstring lines;
    for (const Edge& edge : m_edges)
        lines += edge.fromName + L'\t' + edge.toName + L'\t' + edge.kind + (edge.found.empty() ? L"\tmissing\n" : L"\n");
    return lines;
}

ScannedFile* CDepWalker::RecordOf(const std::wstring& name, bool missing) {
    FileMap& map = missing ? MissingFiles : FoundFiles;
    const auto it = map.find(qv::bstr(missing ? name : qv::FileNamePart(name)));
    return it == map.end() ? nullptr : &it->second;
}

void CDepWalker::SettleDetails(const std::wstring& top) {
    if (m_bDelayLoads) {
        // What the top file reaches without a delay-loaded step is needed at load time; the rest only
        // when the code that delay-loads it runs.
        std::unordered_map<std::wstring, std::vector<const Edge*>> from;
        for (const Edge& edge : m_edges)
            from[edge.from].push_back(&edge);
        std::unordered_set<std::wstring> direct{qv::LowerCase(qv::FileNamePart(top))};
        std::vector<std::wstring> todo(direct.begin(), direct.end());
        while (!todo.empty()) {
            const std::wstring name = std::move(todo.back());
            todo.pop_back();
            for (const Edge* edge : from[name])
                if (!edge->delay && direct.insert(edge->to).second)
                    todo.push_back(edge->to);
        }
        for (FileMap* map : {&FoundFiles, &MissingFiles})
            for (auto& [key, record] : *map)
                record.Details.delayOnly = record.MergeModuleKey.empty() && !direct.count(qv::LowerCase(record.Name));
    }
    if (m_bDetails)
        SettleEntryPoints();
}

void CDepWalker::SettleEntryPoints() {
    std::unordered_set<std::wstring> checked;
    for (const Edge& edge : m_edges) {
        if (!edge.image || edge.found.empty())
            continue;
        ScannedFile* record = RecordOf(edge.found, false);
        // Only a file that is a record of this scan is told about: a filtered system file is the target's.
        if (!record || !record->MergeModuleKey.empty() || lstrcmpiW(record->FullPath.c_str(), edge.found.c_str()))
            continue;
        if (!checked.insert(qv::LowerCase(edge.importer) + L'|' + qv::LowerCase(edge.name) + (edge.delay ? L"|d" : L""))
                 .second)
            continue;
        // A forwarder's module counts as there when the search finds it; one that is no file of the system
        // (the filter lets it pass) is looked into, as the application ships it.
        const forward_resolver resolve = [&](const std::wstring& module) {
            std::wstring where;
            if (!FindCached(module, edge.machine, where))
                return forward_answer{forward_answer::kind::absent, {}};
            if (PassesFilter(where))
                return forward_answer{forward_answer::kind::look, where};
            return forward_answer{forward_answer::kind::present, {}};
        };
        std::vector<std::wstring> names =
            MissingEntryPoints(edge.importer, edge.name, edge.delay, edge.found, resolve);
        if (!names.empty())
            record->Details.missingEntries.push_back({edge.importer, std::move(names)});
    }
}
