// The import walker over real images built for the purpose (tests/fixtures/walk). The search folders
// are process-wide and read once, so main() sets Path before any case runs:
//   <walk>\lib ; (empty) ; <walk>\path64 ; <walk>\path32 ; <system> ; <windows>
#include "fake_catalog.h"
#include "filter/filter_base.h"
#include "image_writer.h"
#include "inc/com_exception.h"
#include "inc/com_module.h"
#include "recording_sink.h"
#include "static/dep_walker.h"
#include "test_support.h"
#include "toolkit/probes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using namespace qv::test;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

std::wstring walk(const std::wstring& rel) {
    return fixture(L"walk\\" + rel);
}

std::wstring current_dir() {
    wchar_t buffer[MAX_PATH];
    DWORD n = GetCurrentDirectoryW(MAX_PATH, buffer);
    return std::wstring(buffer, n);
}

std::vector<std::wstring> keys(const CDepWalker::FileMap& map) {
    std::vector<std::wstring> out;
    for (const auto& [key, record] : map)
        out.push_back(key.str());
    return out;
}

const ScannedFile* entry(const CDepWalker::FileMap& map, const std::wstring& key) {
    auto it = map.find(qv::bstr(key));
    return it == map.end() ? nullptr : &it->second;
}

// Drops the names it is told to, and says every name it is asked about is on its list.
class fake_filter : public CFilterBase {
public:
    explicit fake_filter(std::set<std::wstring> drop) : m_drop(std::move(drop)) {}
    std::vector<std::wstring> asked;
    bool Filter(const std::wstring& name, bool& bInFilterList) override {
        asked.push_back(name);
        bInFilterList = true;
        return m_drop.count(lower(name)) > 0;
    }
    void Initialize() override {}

private:
    std::set<std::wstring> m_drop;
};

class DepWalker : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(sink.refs, 1) << "the walker left references on the sink";
        EXPECT_EQ(qv::g_module.LockCount(), 0) << "an object made by the walk is still alive";
    }

    // Runs one scan on a fresh walker and checks what every scan must leave behind.
    void scan(CDepWalker& walker, const std::wstring& file, long type = 0, CFilterBase* filter = nullptr) {
        std::wstring before = current_dir();
        walker.Scan(file, &sink, filter, L"", type);
        EXPECT_EQ(walker.Status, 0u);
        EXPECT_EQ(current_dir(), before) << "the scan must give the current directory back";
        EXPECT_THAT(sink.unexpected, IsEmpty());
        EXPECT_THAT(sink.errors, IsEmpty());
    }

    recording_sink sink;
};

TEST_F(DepWalker, WalksTheTreeDepthFirstAndFiresEachImportAfterItsSubtree) {
    const std::wstring app = walk(L"app"), lib = walk(L"lib"), sys = system_dir();
    {
        CDepWalker walker;
        scan(walker, app + L"\\app.exe");

        // The linker sorts import descriptors by name: app.exe imports alpha beta dirlike kernel32 missing_one
        // notpe; alpha imports app.exe (back to the top file, which is then walked a second time, as a
        // dependency) and gamma; beta imports delta epsilon GAMMA.DLL KERNEL32.DLL.
        EXPECT_THAT(sink.found, ElementsAre(app + L"\\alpha.dll",    // under app.exe under alpha: seen already
                                            lib + L"\\delta.dll",    // under beta
                                            lib + L"\\epsilon.dll",  //
                                            lib + L"\\GAMMA.DLL",    //
                                            sys + L"\\KERNEL32.DLL", //
                                            app + L"\\beta.dll",     // under app.exe under alpha
                                            lib + L"\\dirlike.dll",  //
                                            sys + L"\\kernel32.dll", //
                                            L"missing_one.dll",      //
                                            app + L"\\notpe.dll",    //
                                            app + L"\\app.exe",      // under alpha
                                            lib + L"\\gamma.dll",    //
                                            app + L"\\alpha.dll",    // the top file's own list from here on
                                            app + L"\\beta.dll",     //
                                            lib + L"\\dirlike.dll",  //
                                            sys + L"\\kernel32.dll", //
                                            L"missing_one.dll",      //
                                            app + L"\\notpe.dll"));

        EXPECT_THAT(keys(walker.FoundFiles),
                    UnorderedElementsAre(L"alpha.dll", L"app.exe", L"beta.dll", L"delta.dll", L"dirlike.dll",
                                         L"epsilon.dll", L"gamma.dll", L"GAMMA.DLL", L"notpe.dll"));
        EXPECT_THAT(keys(walker.MissingFiles), ElementsAre(L"missing_one.dll"));

        struct expected_entry {
            const wchar_t* key;
            std::wstring fullPath;
            bool selfRegistering;
        };
        const expected_entry table[] = {
            {L"alpha.dll", app + L"\\alpha.dll", false},     {L"app.exe", app + L"\\app.exe", false},
            {L"gamma.dll", lib + L"\\gamma.dll", true},      // DllRegisterServer is the only export
            {L"GAMMA.DLL", lib + L"\\GAMMA.DLL", true},      // the same file under a second spelling
            {L"delta.dll", lib + L"\\delta.dll", false},     // ... second in the name table: not seen
            {L"epsilon.dll", lib + L"\\epsilon.dll", true},  // ... third: seen through the stride of 8
            {L"notpe.dll", app + L"\\notpe.dll", false},     // no image: kept, not looked into
            {L"dirlike.dll", lib + L"\\dirlike.dll", false}, // the folder of that name was stepped over
        };
        for (const auto& row : table) {
            SCOPED_TRACE(narrow(row.key));
            const ScannedFile* e = entry(walker.FoundFiles, row.key);
            ASSERT_NE(e, nullptr);
            EXPECT_EQ(e->FullPath, row.fullPath);
            EXPECT_EQ(e->Name, row.key);
            EXPECT_EQ(e->SelfRegistering, row.selfRegistering);
            EXPECT_TRUE(e->MergeModuleKey.empty());
            EXPECT_FALSE(e->MissingMergeModule);
            EXPECT_FALSE(e->Assembly);
        }
        const ScannedFile* missing = entry(walker.MissingFiles, L"missing_one.dll");
        ASSERT_NE(missing, nullptr);
        EXPECT_EQ(missing->FullPath, L"missing_one.dll");
    }
}

TEST_F(DepWalker, MapsAreOrderedByCaseSensitiveBstrComparison) {
    CDepWalker walker;
    scan(walker, walk(L"app\\app.exe"));
    std::vector<std::wstring> order = keys(walker.FoundFiles);
    for (size_t i = 1; i < order.size(); ++i) {
        qv::bstr a(order[i - 1]), b(order[i]);
        EXPECT_EQ(VarBstrCmp(a.get(), b.get(), LOCALE_USER_DEFAULT, 0), static_cast<HRESULT>(VARCMP_LT))
            << narrow(order[i - 1]) << " before " << narrow(order[i]);
    }
    EXPECT_EQ(walker.FoundFiles.count(qv::bstr(L"gamma.dll")) + walker.FoundFiles.count(qv::bstr(L"GAMMA.DLL")), 2u);
}

TEST_F(DepWalker, SkipNamesHoldTheSevenSystemNamesAndIgnoreCase) {
    CDepWalker walker;
    for (const wchar_t* name : {L"kernel32.dll", L"ntdll.dll", L"user32.dll", L"gdi32.dll", L"advapi32.dll",
                                L"shell32.dll", L"ole32.dll", L"KERNEL32.DLL", L"Ole32.Dll"}) {
        EXPECT_EQ(walker.SkipNames().count(name), 1u) << narrow(name);
        EXPECT_FALSE(walker.PassesFilter(std::wstring(L"C:\\any\\") + name)) << narrow(name);
    }
    EXPECT_EQ(walker.SkipNames().size(), 7u);
    for (const wchar_t* name : {L"kernel32.dl", L"kernel32.dllx", L"ole32", L"comctl32.dll"})
        EXPECT_EQ(walker.SkipNames().count(name), 0u) << narrow(name);
    EXPECT_FALSE(walker.PassesFilter(L""));
    EXPECT_TRUE(walker.PassesFilter(L"C:\\x\\comctl32.dll"));
}

TEST_F(DepWalker, SkippedNamesFireButNeverEnterTheResults) {
    CDepWalker walker;
    scan(walker, walk(L"lib\\upper.exe")); // imports KERNEL32.DLL and gamma.dll
    EXPECT_THAT(sink.found, ElementsAre(walk(L"lib\\gamma.dll"), system_dir() + L"\\KERNEL32.DLL"));
    EXPECT_THAT(keys(walker.FoundFiles), ElementsAre(L"gamma.dll"));
    EXPECT_THAT(keys(walker.MissingFiles), IsEmpty());
}

TEST_F(DepWalker, ThirtyTwoBitImagesTakeOnlyThirtyTwoBitLibraries) {
    CDepWalker walker;
    scan(walker, walk(L"app32\\app32.exe"));
    // shadow.dll: the 64-bit copy earlier on the path is stepped over for the 32-bit one.
    // only64.dll: a file of that name exists, but of the other machine, so the name is missing.
    EXPECT_THAT(sink.found, ElementsAre(L"only64.dll", walk(L"path32\\shadow.dll")));
    EXPECT_THAT(keys(walker.FoundFiles), ElementsAre(L"shadow.dll"));
    EXPECT_THAT(keys(walker.MissingFiles), ElementsAre(L"only64.dll"));
}

TEST_F(DepWalker, TopLevelFilesThatAreNoImagesYieldNothing) {
    temp_dir tmp;
    const std::wstring cases[] = {
        tmp / L"absent.exe",         // no such file
        walk(L"app\\notpe.dll"),     // a text file
        walk(L"app\\dirlike.dll"),   // a folder
        tmp.write(L"empty.exe", ""), // a file that cannot be mapped
        walk(L"lib\\noimports.exe"), // an image with an empty import directory
    };
    for (const auto& file : cases) {
        SCOPED_TRACE(narrow(file));
        sink.found.clear();
        CDepWalker walker;
        scan(walker, file);
        EXPECT_THAT(sink.found, IsEmpty());
        EXPECT_THAT(keys(walker.FoundFiles), IsEmpty());
        EXPECT_THAT(keys(walker.MissingFiles), IsEmpty());
    }
}

TEST_F(DepWalker, ModeTwoReadsNoImportTable) {
    CDepWalker walker;
    scan(walker, walk(L"app\\app.exe"), 2);
    EXPECT_EQ(walker.ScanMode(), 2);
    EXPECT_THAT(sink.found, IsEmpty());
    EXPECT_THAT(keys(walker.FoundFiles), IsEmpty());
}

TEST_F(DepWalker, CatalogFlagIsSplitOffTheScanType) {
    const long types[] = {0, 1, 0x8000, 0x8001};
    for (long type : types) {
        SCOPED_TRACE(type);
        recording_sink local;
        CDepWalker walker;
        walker.Scan(walk(L"lib\\upper.exe"), &local, nullptr, L"enu", type);
        EXPECT_EQ(walker.ScanMode(), type & 0x7FFF);
        EXPECT_EQ(walker.LangId(), L"enu");
        EXPECT_EQ(local.catalogReads, 1);
        EXPECT_FALSE(walker.UseCatalog());
        // Modes 0 and 1 walk a plain image alike.
        EXPECT_EQ(local.found.size(), 2u);
        EXPECT_EQ(local.refs, 1);
    }
}

TEST_F(DepWalker, FilteredNamesJoinTheSkipListAndLeaveTheResults) {
    fake_filter filter({L"delta.dll", L"missing_one.dll"});
    CDepWalker walker;
    scan(walker, walk(L"app\\app.exe"), 0, &filter);
    EXPECT_EQ(walker.FoundFiles.count(qv::bstr(L"delta.dll")), 0u);
    EXPECT_THAT(keys(walker.MissingFiles), IsEmpty()) << "a missing name on a filter list is not reported";
    EXPECT_EQ(walker.SkipNames().count(L"DELTA.DLL"), 1u);
    EXPECT_EQ(walker.SkipNames().count(L"missing_one.dll"), 1u);
    // Events report the walk, not the result: the filtered file still fires.
    EXPECT_EQ(std::count(sink.found.begin(), sink.found.end(), walk(L"lib\\delta.dll")), 1);
    // Once a name is on the skip list the filter is not asked again.
    EXPECT_EQ(std::count(filter.asked.begin(), filter.asked.end(), L"missing_one.dll"), 1);
    // The filter is asked by file name, never by path; the seven system names never reach it.
    for (const auto& name : filter.asked) {
        EXPECT_EQ(name.find(L'\\'), std::wstring::npos) << narrow(name);
        EXPECT_NE(lower(name), L"kernel32.dll");
    }
}

TEST_F(DepWalker, AFilteredTopLevelFileIsNotWalked) {
    fake_filter filter({L"app.exe"});
    CDepWalker walker;
    scan(walker, walk(L"app\\app.exe"), 0, &filter);
    EXPECT_THAT(sink.found, IsEmpty());
    EXPECT_THAT(keys(walker.FoundFiles), IsEmpty());
}

TEST_F(DepWalker, ASinkWithoutTheThirdEventInterfaceFailsBeforeAnyFileIsRead) {
    recording_sink partial(true);
    std::wstring before = current_dir();
    CDepWalker walker;
    try {
        walker.Scan(walk(L"app\\app.exe"), &partial, nullptr, L"", 0);
        ADD_FAILURE() << "the scan must fail";
    } catch (const com_exception& e) {
        EXPECT_EQ(e.Error(), E_NOINTERFACE);
    }
    EXPECT_EQ(partial.catalogReads, 0);
    EXPECT_THAT(partial.found, IsEmpty());
    EXPECT_EQ(walker.Status, 3u) << "a walk that never ran keeps its first status";
    EXPECT_EQ(current_dir(), before);
    EXPECT_EQ(partial.refs, 1);
}

TEST_F(DepWalker, AFailingEventEndsTheScanAndLeavesTheProcessInTheFilesFolder) {
    cwd_scope restore(module_dir());
    sink.failFoundAfter = 3;
    CDepWalker walker;
    try {
        walker.Scan(walk(L"app\\app.exe"), &sink, nullptr, L"", 0);
        ADD_FAILURE() << "the scan must fail";
    } catch (const com_exception& e) {
        EXPECT_EQ(e.Error(), E_ABORT);
    }
    EXPECT_EQ(sink.found.size(), 3u);
    EXPECT_EQ(lower(current_dir()), lower(walk(L"app")));
}

TEST_F(DepWalker, AFileNameWithoutFolderLeavesTheCurrentDirectoryAlone) {
    cwd_scope here(walk(L"lib"));
    CDepWalker walker;
    scan(walker, L"upper.exe");
    EXPECT_FALSE(walker.DirectoryChanged());
    EXPECT_THAT(keys(walker.FoundFiles), ElementsAre(L"gamma.dll"));
}

// ---- The host's merge-module catalog.

std::vector<std::wstring> lookup_keys(const fake_catalog& catalog) {
    std::vector<std::wstring> out;
    for (const auto& l : catalog.lookups)
        out.push_back(l.fileKey);
    return out;
}

TEST_F(DepWalker, AFileInAMergeModuleStandsForTheModuleAndIsNotWalked) {
    fake_catalog catalog;
    fake_module_record module(L"Beta.Module.1", L"beta.msm", L"Beta module");
    catalog.answerUnknownKeys = true;
    catalog.answers[L"beta.dll:x64"] = {S_OK, &module, VARIANT_TRUE};
    sink.catalog = catalog.identity();
    fake_filter filter({L"beta.dll"}); // would drop it, if it were asked
    {
        CDepWalker walker;
        scan(walker, walk(L"app\\app.exe"), 0, &filter);
        EXPECT_TRUE(walker.UseCatalog());

        const ScannedFile* beta = entry(walker.FoundFiles, L"beta.dll");
        ASSERT_NE(beta, nullptr);
        EXPECT_EQ(beta->FullPath, walk(L"app\\beta.dll"));
        EXPECT_EQ(beta->MergeModuleKey, L"beta.msm");
        EXPECT_EQ(beta->MergeModuleSubject, L"Beta module");
        EXPECT_FALSE(beta->MissingMergeModule);
        // Its imports (delta, epsilon, GAMMA.DLL) are the module's business and are not walked.
        EXPECT_THAT(keys(walker.FoundFiles), UnorderedElementsAre(L"alpha.dll", L"app.exe", L"beta.dll", L"dirlike.dll",
                                                                  L"gamma.dll", L"notpe.dll"));
        EXPECT_EQ(std::count(sink.found.begin(), sink.found.end(), walk(L"lib\\delta.dll")), 0);
        // Neither the filter nor the skip list heard of it.
        EXPECT_EQ(std::count(filter.asked.begin(), filter.asked.end(), L"beta.dll"), 0);
        EXPECT_EQ(walker.SkipNames().count(L"beta.dll"), 0u);

        // Every file met is asked before the skip list (kernel32.dll too); a file that is no image goes with
        // an empty key; a missing name with the machine of the image that imports it.
        const std::vector<std::wstring> asked = lookup_keys(catalog);
        EXPECT_THAT(std::set<std::wstring>(asked.begin(), asked.end()),
                    UnorderedElementsAre(L"alpha.dll:x64", L"app.exe:x64", L"beta.dll:x64", L"dirlike.dll:x64",
                                         L"gamma.dll:x64", L"kernel32.dll:x64", L"missing_one.dll:x64", L""));
        EXPECT_TRUE(std::all_of(catalog.lookups.begin(), catalog.lookups.end(),
                                [](const auto& l) { return l.outputsCleared; }));
    }
    EXPECT_EQ(module.keyReads, 1);
    EXPECT_EQ(module.nameReads, 1);
    EXPECT_EQ(module.refs, 1);
    EXPECT_EQ(catalog.refs, 1);
    sink.catalog = nullptr;
}

TEST_F(DepWalker, AMissingMergeModuleIsMarkedWithTheCatalogsTexts) {
    // The thread's ANSI code page cannot hold this letter: the entry's key comes back with '?' for it.
    const wchar_t zhe[] = L"\x0416";
    BOOL lossy = FALSE;
    char converted[8];
    ASSERT_GT(WideCharToMultiByte(CP_THREAD_ACP, 0, zhe, 1, converted, sizeof converted, nullptr, &lossy), 0);
    ASSERT_TRUE(lossy) << "this case needs a thread code page without Cyrillic";

    struct row {
        const char* what;
        std::wstring key, subject;
        std::set<std::wstring> drop;
        bool entered;          // beta.dll is in FoundFiles
        std::wstring entryKey; // its MergeModuleKey
        bool stands;           // the entry stands for the module, past the filter
        bool walked;           // beta's imports were walked
        int keyRequests;
    };
    const row table[] = {
        {"key and subject", L"Beta.Missing", L"Beta (missing)", {}, true, L"Beta.Missing", true, false, 1},
        {"a key without subject", L"Beta.Missing", L"", {}, true, L"Beta.Missing", false, true, 1},
        {"no key", L"", L"", {}, true, L"", false, true, 1},
        // Met twice, and asked twice: the entry that ends a second walk is never made.
        {"no key, and the filter drops it", L"", L"", {L"beta.dll"}, false, L"", false, false, 2},
        {"a key beyond the code page", std::wstring(L"Key.") + zhe, L"Subject", {}, true, L"Key.?", true, false, 1},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(r.what);
        fake_catalog catalog;
        catalog.answerUnknownKeys = true;
        catalog.answers[L"beta.dll:x64"] = {S_OK, nullptr, VARIANT_TRUE};
        catalog.missingKeys[walk(L"app\\beta.dll")] = r.key;
        if (!r.key.empty())
            catalog.subjects[r.key] = r.subject;
        sink.catalog = catalog.identity();
        fake_filter filter(r.drop);
        {
            CDepWalker walker;
            scan(walker, walk(L"app\\app.exe"), 0, &filter);
            const ScannedFile* beta = entry(walker.FoundFiles, L"beta.dll");
            ASSERT_EQ(beta != nullptr, r.entered);
            if (beta) {
                EXPECT_TRUE(beta->MissingMergeModule);
                EXPECT_EQ(beta->MergeModuleKey, r.entryKey);
                EXPECT_EQ(beta->MergeModuleSubject, r.stands ? r.subject : L"");
            }
            EXPECT_EQ(walker.FoundFiles.count(qv::bstr(L"delta.dll")), r.walked ? 1u : 0u);
            EXPECT_EQ(std::count(filter.asked.begin(), filter.asked.end(), L"beta.dll"), r.stands ? 0 : 1);
            EXPECT_EQ(catalog.keyRequests,
                      std::vector<std::wstring>(static_cast<size_t>(r.keyRequests), walk(L"app\\beta.dll")));
            // The catalog is asked for the subject with its key as it gave it.
            EXPECT_EQ(catalog.subjectRequests,
                      r.key.empty() ? std::vector<std::wstring>{} : std::vector<std::wstring>{r.key});
        }
        EXPECT_EQ(catalog.refs, 1);
        sink.catalog = nullptr;
    }
}

TEST_F(DepWalker, AMissingDependencyFoundInAMergeModuleEntersTheFoundFiles) {
    fake_module_record module(L"Extra.Module.1", L"extra.msm", L"Extra module");
    fake_module_record catchAll(L"mondo.E4183BB4_18A8_11D5_A549_0090278A1BB8", L"mondo.msm", L"Catch-all");
    // The importing image's machine decides the key's suffix.
    struct importer {
        const wchar_t* file;
        const wchar_t* name; // its missing import
        const wchar_t* key;  // what the catalog is asked for it
    };
    const importer x64{L"app\\app.exe", L"missing_one.dll", L"missing_one.dll:x64"};
    const importer x86{L"app32\\app32.exe", L"only64.dll", L"only64.dll"};
    struct row {
        const char* what;
        const importer& from;
        fake_module_record* module;
        VARIANT_BOOL found;
        std::set<std::wstring> drop;
        const wchar_t* where; // "found", "missing" or "" (nowhere)
    };
    const row table[] = {
        {"in a module the catalog has", x64, &module, VARIANT_TRUE, {}, L"found"},
        {"... even if the filter would drop it", x64, &module, VARIANT_TRUE, {L"missing_one.dll"}, L"found"},
        {"a 32-bit importer", x86, &module, VARIANT_TRUE, {}, L"found"},
        {"in a module the catalog lacks", x64, nullptr, VARIANT_TRUE, {}, L""},
        {"in no module", x64, nullptr, VARIANT_FALSE, {}, L"missing"},
        {"only in the catch-all module", x64, &catchAll, VARIANT_TRUE, {}, L"missing"},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(r.what);
        fake_catalog catalog;
        catalog.answerUnknownKeys = true;
        catalog.answers[r.from.key] = {S_OK, r.module, r.found};
        sink.catalog = catalog.identity();
        fake_filter filter(r.drop);
        {
            CDepWalker walker;
            scan(walker, walk(r.from.file), 0, &filter);
            const ScannedFile* found = entry(walker.FoundFiles, r.from.name);
            const ScannedFile* missing = entry(walker.MissingFiles, r.from.name);
            EXPECT_EQ(found != nullptr, std::wstring(r.where) == L"found");
            EXPECT_EQ(missing != nullptr, std::wstring(r.where) == L"missing");
            if (found) {
                EXPECT_EQ(found->FullPath, r.from.name) << "the name as the import table writes it";
                EXPECT_EQ(found->MergeModuleKey, L"extra.msm");
                EXPECT_EQ(found->MergeModuleSubject, L"Extra module");
                EXPECT_FALSE(found->MissingMergeModule);
                EXPECT_EQ(std::count(filter.asked.begin(), filter.asked.end(), r.from.name), 0);
            }
            const std::vector<std::wstring> asked = lookup_keys(catalog);
            EXPECT_NE(std::find(asked.begin(), asked.end(), r.from.key), asked.end());
            // The name still fires as the walk meets it.
            EXPECT_NE(std::find(sink.found.begin(), sink.found.end(), r.from.name), sink.found.end());
            EXPECT_TRUE(catalog.keyRequests.empty()) << "a missing name never asks for a missing module's key";
        }
        EXPECT_EQ(catalog.refs, 1);
        EXPECT_EQ(module.refs, 1);
        EXPECT_EQ(catchAll.refs, 1);
        sink.catalog = nullptr;
        sink.found.clear();
    }
}

TEST_F(DepWalker, TheCatalogFlagLeavesTheCatalogUntouched) {
    for (long type : {0x8000L, 0x8001L}) {
        SCOPED_TRACE(type);
        fake_catalog catalog; // answers nothing: any lookup fails the case
        sink.catalog = catalog.identity();
        {
            CDepWalker walker;
            scan(walker, walk(L"app\\app.exe"), type);
            EXPECT_FALSE(walker.UseCatalog());
            EXPECT_EQ(walker.ScanMode(), type & 0x7FFF);
            EXPECT_THAT(keys(walker.MissingFiles), ElementsAre(L"missing_one.dll"));
            EXPECT_EQ(walker.FoundFiles.count(qv::bstr(L"delta.dll")), 1u);
        }
        EXPECT_EQ(sink.catalogReads, 1) << "the events' catalog is still read";
        EXPECT_EQ(catalog.queries, 0);
        EXPECT_TRUE(catalog.lookups.empty());
        EXPECT_EQ(catalog.addRefs, catalog.releases);
        EXPECT_EQ(catalog.refs, 1);
        sink.catalog = nullptr;
        sink.catalogReads = 0;
    }
}

TEST_F(DepWalker, FailuresOfTheCatalogEndTheScan) {
    cwd_scope restore(module_dir());
    fake_catalog lacking(false);
    fake_catalog failing;
    failing.answerUnknownKeys = true;
    failing.answers[L"gamma.dll:x64"] = {E_ACCESSDENIED, nullptr, VARIANT_FALSE};
    const std::pair<fake_catalog*, HRESULT> table[] = {{&lacking, E_NOINTERFACE}, {&failing, E_ACCESSDENIED}};
    for (const auto& [catalog, expected] : table) {
        SCOPED_TRACE(expected);
        sink.catalog = catalog->identity();
        {
            CDepWalker walker;
            try {
                walker.Scan(walk(L"lib\\upper.exe"), &sink, nullptr, L"", 0);
                ADD_FAILURE() << "the scan must fail";
            } catch (const com_exception& e) {
                EXPECT_EQ(e.Error(), expected);
            }
            EXPECT_THAT(keys(walker.FoundFiles), IsEmpty());
        }
        EXPECT_EQ(catalog->refs, 1);
    }
    sink.catalog = nullptr;
}

TEST(FindDependency, SearchesTheCurrentFolderThenThePath) {
    cwd_scope here(walk(L"app"));
    struct row {
        const wchar_t* name;
        DWORD machine;
        bool found;
        std::wstring where;
    };
    const row table[] = {
        {L"alpha.dll", 34404, true, walk(L"app\\alpha.dll")},     // current folder first
        {L"gamma.dll", 34404, true, walk(L"lib\\gamma.dll")},     // then the path
        {L"dirlike.dll", 34404, true, walk(L"lib\\dirlike.dll")}, // a folder of that name is stepped over
        {L"notpe.dll", 34404, true, walk(L"app\\notpe.dll")},     // a file that is no image is taken at once
        {L"shadow.dll", 332, true, walk(L"path32\\shadow.dll")},  // the other machine is stepped over
        {L"shadow.dll", 34404, true, walk(L"path64\\shadow.dll")},
        {L"shadow.dll", 0, true, walk(L"path64\\shadow.dll")}, // machine 0 takes any
        {L"only64.dll", 332, false, L""},
        {L"only64.dll", 0, true, walk(L"path64\\only64.dll")},
        {L"kernel32.dll", 34404, true, system_dir() + L"\\kernel32.dll"},
        {L"no_such_library.dll", 0, false, L""},
        {L"", 0, false, L""},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(narrow(r.name) + " machine " + std::to_string(r.machine));
        std::wstring result = L"untouched";
        EXPECT_EQ(FindDependency(L"", r.name, r.machine, result), r.found);
        EXPECT_EQ(result, r.found ? r.where : L"untouched");
    }
}

TEST(FindDependency, TheMachineTestReadsHeadersWhereverTheyLie) {
    // Images whose new header stands early, at the edge of the first 4 KiB, and far behind it: the
    // machine test must give the image reader's answer for each.
    temp_dir tmp;
    struct row {
        std::uint32_t headerOffset;
        std::uint16_t machine;
        bool pe32plus;
    };
    const row images[] = {{64, 34404, true}, {4096 - 20, 34404, true}, {8192, 34404, true},
                          {64, 332, false},  {4096 - 20, 332, false},  {8192, 332, false}};
    for (const auto& r : images) {
        const std::wstring dir = tmp.mkdir(std::to_wstring(r.headerOffset) + L"-" + std::to_wstring(r.machine));
        auto image =
            qv::test::image_writer().header_offset(r.headerOffset).machine(r.machine).pe32plus(r.pe32plus).build();
        tmp.write(dir.substr(tmp.path().size() + 1) + L"\\far.dll", image.str());
        for (DWORD asked : {332u, 34404u, 0u}) {
            SCOPED_TRACE(std::to_string(r.headerOffset) + "/" + std::to_string(r.machine) + " asked " +
                         std::to_string(asked));
            std::wstring result;
            EXPECT_EQ(FindDependency(dir, L"far.dll", asked, result), asked == 0 || asked == r.machine);
        }
    }
    // A file that is no usable image is taken whatever the machine: short, a DOS program, a cut header.
    const std::pair<const wchar_t*, std::string> others[] = {
        {L"short", "MZ"}, {L"dos", std::string("MZ") + std::string(62, '\0')}, {L"text", std::string(5000, 'x')}};
    for (const auto& [dir, bytes] : others) {
        tmp.write(std::wstring(dir) + L"\\far.dll", bytes);
        std::wstring result;
        EXPECT_TRUE(FindDependency(tmp / dir, L"far.dll", 34404, result)) << narrow(dir);
    }
}

TEST(FindDependency, ARootFolderIsTheOnlyFolderTried) {
    std::wstring result;
    EXPECT_TRUE(FindDependency(walk(L"lib"), L"gamma.dll", 0, result));
    EXPECT_EQ(result, walk(L"lib\\gamma.dll"));
    EXPECT_FALSE(FindDependency(walk(L"app"), L"gamma.dll", 0, result));
    EXPECT_FALSE(FindDependency(walk(L"path32"), L"shadow.dll", 34404, result));
}

TEST(FindDependency, AnEmptyPathEntryLooksAtTheNameRelativeToTheCurrentFolder) {
    // main() put an empty entry second on the path: a name alone is a candidate there.
    const auto& folders = qv::GetSearchFolders();
    ASSERT_GE(folders.size(), 2u);
    EXPECT_TRUE(folders[1].empty());
    cwd_scope here(walk(L"path32"));
    std::wstring result;
    ASSERT_TRUE(FindDependency(L"", L"shadow.dll", 332, result));
    EXPECT_EQ(lower(result), lower(walk(L"path32\\shadow.dll"))) << "found through the current folder first";
}

TEST(ScannedFile, NameIsTheTextAfterTheLastBackslash) {
    const std::pair<const wchar_t*, const wchar_t*> table[] = {
        {L"C:\\a\\b\\c.dll", L"c.dll"}, {L"c.dll", L"c.dll"}, {L"C:\\a\\", L""}, {L"\\\\srv\\s\\x.ocx", L"x.ocx"}};
    for (const auto& [path, name] : table) {
        ScannedFile record(path, true);
        EXPECT_EQ(record.Name, name);
        EXPECT_EQ(record.FullPath, path);
        EXPECT_TRUE(record.SelfRegistering);
    }
}

} // namespace

int main(int argc, char** argv) {
    std::wstring path = walk(L"lib") + L";;" + walk(L"path64") + L";" + walk(L"path32") + L";" + system_dir() + L";" +
                        qv::WindowsFolder();
    SetEnvironmentVariableW(L"Path", path.c_str());
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
