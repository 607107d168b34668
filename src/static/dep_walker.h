// CDepWalker: the walk at the heart of the static scan. From one file it follows import tables
// down the tree, depth first on a stack of its own, decides for each name whether the file exists, belongs to a merge
// module of the host's catalog, is filtered or is missing, and collects the outcome in two maps. It lives for one scan,
// changes the process's current directory while it runs (from the first moment something needs it), and so
// must never overlap another scan in the process.
//
// Within a scan a name is searched once per machine, and each image is read once: the machine test's
// reading serves the walk, and a scan that checks entry points without lists reads the image's tables in the
// same open. Across scans the process keeps what it read of each image (ImageFacts) and the listings of the
// folders it looked in (toolkit/folder_listing.h: the .dep files of a folder, the folders of Path), checked
// against the file's or folder's write time once a scan. Search answers themselves are not kept across scans:
// the search runs again over the listings, so a folder before the hit that gained the name is seen.
#pragma once

#include "QVWIScanners.h"
#include "companions.h"
#include "image/dependency_search.h"
#include "inc/com_ptr.h"
#include "record/dep_file.h"
#include "static/dep_sections.h"
#include "toolkit/folder_listing.h"

#include <windows.h>

#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <string>
#include <vector>

class CFilterBase;
class CScannedPE;

// The walker's record of one file, copied into a map entry.
struct ScannedFile {
    std::wstring Name;     // file-name part of FullPath
    std::wstring FullPath; // the path as given
    std::wstring MergeModuleSubject;
    std::wstring MergeModuleKey;
    bool SelfRegistering = false;
    bool MissingMergeModule = false;
    qv::com_ptr<IUnknown> Assembly;
    dep_file_details Details; // filled by a scan that asks for details

    ScannedFile() = default;
    ScannedFile(const std::wstring& path, bool selfRegistering);
    ScannedFile(const std::wstring& path, IUnknown* assembly);
};

// Key and subject of a module the catalog has, from its record; a failure of the record is thrown.
void TakeModuleTexts(IUnknown* module, ScannedFile& record);

// Order of the result maps: VarBstrCmp at the user-default locale with no flags, which is
// case-sensitive, so two spellings of one name are two keys.
struct BstrOrder {
    bool operator()(const qv::bstr& a, const qv::bstr& b) const;
};

// Order and lookup of the skip list: the shorter length compared without case, then the lengths.
struct SkipNameOrder {
    bool operator()(const std::wstring& a, const std::wstring& b) const;
};

class CDepWalker {
public:
    using FileMap = std::map<qv::bstr, ScannedFile, BstrOrder>;

    CDepWalker();
    CDepWalker(const CDepWalker&) = delete;
    CDepWalker& operator=(const CDepWalker&) = delete;

    // One whole scan. Failures of the sink and of the merge-module lookup are thrown as com_exception.
    // scanType: the mode in the low bits; 32768 leaves the host's catalog unused; qv::scan_type's bits walk
    // delay-loaded imports and fill the records' details.
    void Scan(const std::wstring& file, IStaticScanEvents* events, CFilterBase* filter, const std::wstring& langId,
              long scanType);
    DWORD ScanOneFile(const std::wstring& path, bool isDependency);
    bool PassesFilter(const std::wstring& path);

    // Every edge of the walk of a scan that asks for delay loads or details, in the order the walk met them, a line
    // each: the file that led on, the name it led to (file-name parts), the kind ("import", "delay", "dep",
    // "assembly") and "missing" when the name was not found, tab-separated.
    std::wstring EdgeLines() const;

    FileMap FoundFiles;   // keyed by file-name part
    FileMap MissingFiles; // keyed by the name as the referring file writes it
    DWORD Status = 3;     // "General failure" until a walk has ended

private:
    struct WalkFrame;

    // One name an image, a .dep section or an assembly led to: the graph the details are settled on.
    struct Edge {
        std::wstring from, to;         // file-name parts in lower case
        std::wstring fromName, toName; // the same as written
        const wchar_t* kind = L"import"; // "import", "delay", "dep" or "assembly"
        bool delay = false;    // from the delay-import table
        bool image = false;    // from an import table (else a .dep file or an assembly's reference)
        std::wstring importer; // the importing image's path
        std::wstring name;     // as the importer writes it
        std::wstring found;    // where it was found; empty when missing
        DWORD machine = 0;
    };
    std::vector<Edge> m_edges;
    void AddEdge(const WalkFrame& frame, const std::wstring& name, const std::wstring& found, bool delay);
    // After the walk: which records are reached only through delay loads, and what their importers miss.
    void SettleDetails(const std::wstring& top);
    void SettleEntryPoints();
    bool m_bDelayLoads = false;
    bool m_bDetails = false;

    void EnterFileDirectory(const std::wstring& file);
    void EnterWalkDirectory();          // makes a pending folder the current directory
    std::wstring WalkDirectory() const; // the current directory as the walk sees it
    // One step of the frame on top of the stack.
    void Step(std::vector<WalkFrame>& stack);
    // Opens one file, reports it, and adds a frame for its .dep file and its imports when they are walked.
    void EnterFile(const std::wstring& path, bool isDependency, std::vector<WalkFrame>& stack);
    // Records an assembly and adds a frame for its references (each found one walked as a file or as an
    // assembly, each missing one reported), when they are walked.
    void EnterAssembly(IUnknown* assembly, const std::wstring& path, bool isDependency, std::vector<WalkFrame>& stack);
    void StepAssembly(std::vector<WalkFrame>& stack);
    // Records a usable image; true when what it needs is to be walked.
    bool WalkImage(bool selfRegistering, const std::wstring& path, bool isDependency);
    // The sections of the .dep file beside an image with an extension ("comp.ocx": "comp.dep"), or null.
    qv::com_ptr<IQvSections> ReadDepCompanion(const std::wstring& path, std::wstring& depPath);
    // A frame for the files that the section of that name lists, when there is such a section.
    void PushSection(std::vector<WalkFrame>& stack, const qv::com_ptr<IQvSections>& sections,
                     const std::wstring& depPath, const std::wstring& name, const std::wstring& owner);
    std::wstring LanguageSection(const std::wstring& name) const; // "name <LangId>"
    // Whether a .dep file of that path exists, from a listing of its folder made once a scan.
    bool DepFileExists(const std::wstring& depPath);
    // folded folder -> the process's listing of it, as first taken in this scan
    std::unordered_map<std::wstring, std::shared_ptr<const qv::folder_listing>> m_depFiles;
    static std::wstring SearchDepName(const std::wstring& name);
    // The sections being walked (each frame of a section holds its mark): a circle among them ends.
    CDepSections m_sections;
    bool AddFound(const std::wstring& path, ScannedFile& record);
    // Asks the catalog about a found file and fills the record's module fields. True when the entry
    // stands for a module: one the catalog has, or a missing one whose key and subject it names.
    bool InMergeModule(const std::wstring& path, ScannedFile& record);
    void MissingDependency(const std::wstring& path, DWORD machine);
    // The record of a found or missing name, or null when the name has none.
    ScannedFile* RecordOf(const std::wstring& name, bool missing);
    void FireFoundDepFile(const std::wstring& path);

    // Search answers of this scan by name as written and machine: the folders searched (the scanned file's
    // folder, then Path) are the same for every image of the scan, so a name is searched once.
    bool FindCached(const std::wstring& name, DWORD machine, std::wstring& result);
    std::unordered_map<std::wstring, std::optional<std::wstring>> m_searches;
    std::unordered_map<std::wstring, std::vector<passed_over>> m_passedOver; // by the searches' key
    // Names the filter let pass in this scan, as written: its answer for a name does not change.
    std::unordered_set<std::wstring> m_passed;
    std::unordered_set<std::wstring> m_settledMissing; // "name|machine" of missing names already settled

    std::map<std::wstring, bool, SkipNameOrder> m_skipNames;
    qv::com_ptr<IStaticScanEventsFellSP2> m_pEvents;
    qv::com_ptr<IScanUtilValeSP1> m_pScanUtil; // made anew for each scan; holds the catalog when one is used
    CFilterBase* m_pFilter = nullptr;
    std::wstring m_sLangId;
    long m_nScanMode = 0;
    bool m_bUseCatalog = false;
    bool m_bDirectoryChanged = false;
    bool m_bDirectoryPending = false; // m_sWalkDirectory is to become the current directory on first need
    std::wstring m_sSavedDirectory;
    std::wstring m_sWalkDirectory;
};
