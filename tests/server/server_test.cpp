// The server as its clients meet it: the DLL loaded by path, used only through its interfaces. Static scans
// walk tests/fixtures/walk along the Path main() sets: lib ; (empty) ; path64 ; path32 ; system ; windows.
#include "QVWIScanners.h"
#include "companions.h"
#include "filter/filter_base.h"
#include "image_writer.h"
#include "inc/com_error.h"
#include "inc/com_exception.h"
#include "inc/com_ptr.h"
#include "inc/priv_interfaces.h"
#include "inc/unique_handles.h"
#include "recording_sink.h"
#include "server_support.h"
#include "toolkit/process_launcher.h"
#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

using namespace qv::test;
using qv::com_ptr;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::wstring slashed(std::wstring path) { return std::replace(path.begin(), path.end(), L'\\', L'/'), path; }

std::wstring walk(const std::wstring& rel) { return fixture(L"walk\\" + rel); }

std::wstring windows_dir() {
    wchar_t buffer[MAX_PATH];
    return std::wstring(buffer, GetWindowsDirectoryW(buffer, MAX_PATH));
}

// Drops the names in `drop`, and says those and the names in `listed` are on its lists.
class list_filter : public CFilterBase {
public:
    explicit list_filter(std::set<std::wstring> drop = {}, std::set<std::wstring> listed = {})
        : m_drop(std::move(drop)), m_listed(std::move(listed)) {}
    std::vector<std::wstring> asked;
    bool Filter(const std::wstring& name, bool& bInFilterList) override {
        asked.push_back(name);
        bInFilterList = m_listed.count(lower(name)) || m_drop.count(lower(name));
        return m_drop.count(lower(name)) > 0;
    }
    void Initialize() override {}

private:
    std::set<std::wstring> m_drop, m_listed;
};


class Server : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(server().Create(CLSID_StaticScan, nullptr, IID_IStaticScan, scan.put_void()), S_OK);
        priv = scan.query<IPrivStaticScan>(IID_IPrivStaticScan);
        ASSERT_EQ(server().Create(CLSID_ScanUtil, nullptr, IID_IScanUtilValeSP1, util.put_void()), S_OK);
    }
    void TearDown() override {
        priv.reset();
        scan.reset();
        util.reset();
        EXPECT_EQ(sink.refs, 1) << "references left on the sink";
        EXPECT_EQ(catalog.refs, 1) << "references left on the catalog";
    }

    // One scan through the private entry with the test's filter (pass-all by default).
    VARIANT_BOOL run(const std::wstring& file, long type = 0, CFilterBase* filter = nullptr,
                     recording_sink* events = nullptr) {
        list_filter passAll;
        VARIANT_BOOL completed = 12345;
        EXPECT_EQ(priv->ScanWithFilter(qv::bstr(file).get(), events ? events : &sink, VARIANT_TRUE,
                                       qv::bstr(L"").get(), &completed, filter ? filter : &passAll, type),
                  S_OK);
        return completed;
    }
    com_ptr<IDepFiles> dependencies() {
        com_ptr<IDepFiles> files;
        EXPECT_EQ(scan->get_Dependencies(files.put()), S_OK);
        return files;
    }
    // ScanFile with the shipped lists from the support folder.
    HRESULT scan_file(const std::wstring& file, VARIANT_BOOL filter) {
        VARIANT_BOOL completed = 0;
        HRESULT hr = scan->ScanFile(qv::bstr(file).get(), &sink, filter, qv::bstr(L"").get(), estAny, &completed);
        EXPECT_EQ(completed, VARIANT_TRUE);
        return hr;
    }
    record pe(const std::wstring& path) {
        com_ptr<IDepFile> f;
        EXPECT_EQ(util->get_PE(qv::bstr(path).get(), f.put()), S_OK);
        return f ? read(f.get()) : record{};
    }

    com_apartment apartment;
    fake_catalog catalog; // outlives the objects that may hold it
    recording_sink sink;
    com_ptr<IStaticScan> scan;
    com_ptr<IPrivStaticScan> priv;
    com_ptr<IScanUtilValeSP1> util;
};

TEST_F(Server, WalkOfTheFixtureTree) {
    const std::wstring app = walk(L"app"), lib = walk(L"lib"), sys = system_dir();
    EXPECT_EQ(run(app + L"\\app.exe"), VARIANT_TRUE);
    // Depth first, each import after its subtree. app.exe imports alpha beta dirlike kernel32 missing_one
    // notpe (the linker sorts them); alpha imports app.exe (walked once more) and gamma; beta imports delta
    // epsilon GAMMA.DLL KERNEL32.DLL. The seven system names fire but are not walked or recorded.
    EXPECT_THAT(sink.found,
                ElementsAre(app + L"\\alpha.dll", lib + L"\\delta.dll", lib + L"\\epsilon.dll", lib + L"\\GAMMA.DLL",
                            sys + L"\\KERNEL32.DLL", app + L"\\beta.dll", lib + L"\\dirlike.dll",
                            sys + L"\\kernel32.dll", L"missing_one.dll", app + L"\\notpe.dll", app + L"\\app.exe",
                            lib + L"\\gamma.dll", app + L"\\alpha.dll", app + L"\\beta.dll", lib + L"\\dirlike.dll",
                            sys + L"\\kernel32.dll", L"missing_one.dll", app + L"\\notpe.dll"));
    EXPECT_THAT(sink.errors, IsEmpty());
    EXPECT_THAT(sink.unexpected, IsEmpty());

    // The top file drops out; gamma.dll and GAMMA.DLL are one name. Exports are read with a stride of two
    // names: gamma (only export), epsilon (third) register themselves, delta (second) is not seen to.
    struct row {
        const wchar_t* name;
        std::wstring path;
        VARIANT_BOOL selfReg, missing;
    };
    const row table[] = {
        {L"alpha.dll", app, 0, 0},         {L"beta.dll", app, 0, 0},    {L"delta.dll", lib, 0, 0},
        {L"epsilon.dll", lib, -1, 0},      {L"gamma.dll", lib, -1, 0},  {L"notpe.dll", app, 0, 0},
        {L"dirlike.dll", lib, 0, 0}, // the folder of that name beside app.exe is stepped over
        {L"missing_one.dll", L"", 0, -1},
    };
    auto got = records(dependencies().get());
    EXPECT_EQ(got.size(), std::size(table));
    for (const auto& r : table) {
        SCOPED_TRACE(narrow(r.name));
        ASSERT_TRUE(got.count(r.name));
        const record& g = got[r.name];
        EXPECT_EQ(lower(g.path), lower(r.path));
        EXPECT_EQ(g.selfReg, r.selfReg);
        EXPECT_EQ(g.missing, r.missing);
        EXPECT_EQ(g.filterable, VARIANT_FALSE);
        EXPECT_EQ(g.module, VARIANT_FALSE);
        EXPECT_EQ(g.shared, VARIANT_FALSE);
    }
    EXPECT_EQ(got[L"alpha.dll"].size, static_cast<long>(read_file(app + L"\\alpha.dll").size()));
    EXPECT_EQ(got[L"missing_one.dll"].size, 0);
}

TEST_F(Server, CollectionsByNumberNameAndEnumerator) {
    run(walk(L"lib\\upper.exe"));
    com_ptr<IDepFiles> files = dependencies();
    com_ptr<IDepFile> byName, byNumber;
    qv::bstr path(walk(L"LIB\\Gamma.DLL")); // found files stand under their path, in any case
    VARIANT key;
    V_VT(&key) = VT_BSTR;
    V_BSTR(&key) = path.get();
    EXPECT_EQ(files->get_Item(key, byName.put()), S_OK);
    EXPECT_EQ(files->get_Item(index_of(1), byNumber.put()), S_OK);
    ASSERT_TRUE(byName && byNumber);
    EXPECT_EQ(byName.get(), byNumber.get());
    for (long bad : {0L, 2L, -1L}) {
        com_ptr<IDepFile> none;
        EXPECT_TRUE(FAILED(files->get_Item(index_of(bad), none.put()))) << bad;
    }

    // A second scan makes a new collection; the first stays as it was. app32.exe takes the 32-bit shadow.dll
    // behind the 64-bit one earlier on the Path; only64.dll exists only for the other machine: missing.
    run(walk(L"app32\\app32.exe"));
    com_ptr<IDepFiles> second = dependencies();
    EXPECT_EQ(names(files.get()), (std::set<std::wstring>{L"gamma.dll"}));
    auto got = records(second.get());
    EXPECT_EQ(lower(got[L"shadow.dll"].path), lower(walk(L"path32")));
    EXPECT_EQ(got[L"only64.dll"].missing, VARIANT_TRUE);

    // The enumerator: Next what is left, Skip past the end, Reset, Clone at its own position.
    com_ptr<IUnknown> unk;
    ASSERT_EQ(second->get__NewEnum(unk.put()), S_OK);
    auto e = unk.query<IEnumVARIANT>(IID_IEnumVARIANT);
    ASSERT_TRUE(e);
    VARIANT items[3];
    ULONG fetched = 99;
    EXPECT_EQ(e->Next(3, items, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 2u);
    EXPECT_TRUE(V_VT(&items[0]) == VT_DISPATCH && V_VT(&items[1]) == VT_DISPATCH);
    VariantClear(&items[0]), VariantClear(&items[1]);
    EXPECT_EQ(e->Reset(), S_OK);
    EXPECT_EQ(e->Skip(1), S_FALSE); // items remain
    com_ptr<IEnumVARIANT> clone;
    ASSERT_EQ(e->Clone(clone.put()), S_OK);
    EXPECT_EQ(e->Skip(1), S_OK); // at the end now
    EXPECT_EQ(e->Next(1, items, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 0u);
    EXPECT_EQ(clone->Next(1, items, &fetched), S_OK);
    EXPECT_EQ(fetched, 1u);
    VariantClear(&items[0]);
}

TEST_F(Server, ScanTypesAndTopFilesThatAreNoImages) {
    temp_dir tmp;
    struct row {
        std::wstring file;
        long type;
        std::set<std::wstring> records;
        size_t events;
    };
    const row table[] = {
        {walk(L"lib\\upper.exe"), 0, {L"gamma.dll"}, 2}, // KERNEL32.DLL fires, gamma.dll is recorded
        {walk(L"lib\\upper.exe"), 1, {L"gamma.dll"}, 2}, // a plain top image: as type 0
        {walk(L"lib\\upper.exe"), 2, {}, 0},             // no import table is read
        {walk(L"lib\\upper.exe"), 0x8000, {L"gamma.dll"}, 2},
        {walk(L"lib\\upper.exe"), 0x8002, {}, 0},
        {tmp / L"absent.exe", 0, {}, 0},
        {walk(L"app\\notpe.dll"), 0, {}, 0},
        {walk(L"app\\dirlike.dll"), 0, {}, 0},
        {tmp.write(L"empty.exe", ""), 0, {}, 0},
        {walk(L"lib\\noimports.exe"), 0, {}, 0},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(narrow(r.file) + " type " + std::to_string(r.type));
        sink.found.clear();
        EXPECT_EQ(run(r.file, r.type), VARIANT_TRUE);
        EXPECT_EQ(names(dependencies().get()), r.records);
        EXPECT_EQ(sink.found.size(), r.events);
    }
    tmp.write(L"far\\far.dll", image_writer().header_offset(0x2000).build().str()); // headers 8 KiB in
    run(tmp.write(L"far\\top32.exe", image_writer().machine(0x14c).pe32plus(false).import("far.dll").build().str()));
    EXPECT_EQ(records(dependencies().get())[L"far.dll"].missing, VARIANT_TRUE) << "an image of the other machine";
    // A device name is never a file on disk: missing, and never opened (a serial port would block the read).
    image_writer devices;
    for (const char* name : {"com1.dll", "aux.dll", "con.dll", "CON", "CONIN$", "nul", "lpt1", "prn.dll"})
        devices.import(name);
    run(tmp.write(L"far\\devices.exe", devices.dll(false).build().str()));
    for (const auto& [name, r] : records(dependencies().get()))
        EXPECT_EQ(r.missing, VARIANT_TRUE) << narrow(name);
    EXPECT_EQ(records(dependencies().get()).size(), 8u);
    // A name repeated by thousands of descriptors is one record, and each descriptor still fires.
    image_writer repeated;
    for (int i = 0; i < 5000; ++i)
        repeated.import("gamma.dll").import("nowhere.dll");
    sink.found.clear();
    run(tmp.write(L"far\\repeated.exe", repeated.dll(false).build().str()));
    EXPECT_EQ(names(dependencies().get()), (std::set<std::wstring>{L"gamma.dll", L"nowhere.dll"}));
    EXPECT_EQ(sink.found.size(), 10000u);
    // A name without folder is found in the current folder, which the scan gives back unchanged.
    cwd_scope here(walk(L"lib"));
    run(L"upper.exe");
    EXPECT_EQ(names(dependencies().get()), (std::set<std::wstring>{L"gamma.dll"}));
    wchar_t now[MAX_PATH];
    EXPECT_EQ(lower(std::wstring(now, GetCurrentDirectoryW(MAX_PATH, now))), lower(walk(L"lib")));
}

// What the process keeps of an image stands only while the file's size and write time do: each row rewrites
// a file between two scans and the scan reads what is there now.
TEST_F(Server, AFileChangedBetweenScansIsReadAgain) {
    temp_dir tmp;
    const std::wstring top = tmp / L"top.exe", dep = tmp / L"dep.dll";
    auto put = [&](const std::wstring& path, const std::string& bytes, int second) {
        tmp.write(path.substr(tmp.path().size() + 1), bytes);
        FILETIME at{static_cast<DWORD>(100000000 + second * 10000000), 30000000};
        qv::unique_hfile file(CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(SetFileTime(file.get(), nullptr, nullptr, &at));
    };
    const std::string gamma = image_writer().import("gamma.dll").build().str();
    const struct { std::wstring file; std::string bytes; std::set<std::wstring> records; } rows[] = {
        {top, image_writer().import("dep.dll").build().str(), {L"dep.dll"}},
        {dep, gamma, {L"dep.dll", L"gamma.dll"}},
        {dep, image_writer().import("delta.dll").build().str(), {L"dep.dll", L"delta.dll"}}, // same size, new time
        {top, image_writer().import("dep.dll").import("beta.dll").build().str(), {L"dep.dll", L"delta.dll", L"beta.dll"}},
        {dep, gamma.substr(0, 64), {L"dep.dll", L"beta.dll"}}, // shrunk: no image any more
        {top, "not an image", {}}};
    ASSERT_EQ(rows[1].bytes.size(), rows[2].bytes.size());
    for (size_t i = 0; i < std::size(rows); ++i) {
        put(rows[i].file, rows[i].bytes, int(i));
        run(top);
        EXPECT_EQ(names(dependencies().get()), rows[i].records) << "row " << i;
    }
}

TEST_F(Server, FiltersDropAndMarkByFileName) {
    list_filter filter({L"delta.dll", L"missing_one.dll"}, {L"gamma.dll"});
    run(walk(L"app\\app.exe"), 0, &filter);
    auto got = records(dependencies().get());
    EXPECT_FALSE(got.count(L"delta.dll"));
    EXPECT_FALSE(got.count(L"missing_one.dll")) << "a missing name on a list is not reported";
    EXPECT_EQ(got[L"gamma.dll"].filterable, VARIANT_TRUE);
    EXPECT_EQ(got[L"alpha.dll"].filterable, VARIANT_FALSE);
    EXPECT_EQ(std::count(sink.found.begin(), sink.found.end(), walk(L"lib\\delta.dll")), 1) << "it still fires";
    EXPECT_EQ(std::count(filter.asked.begin(), filter.asked.end(), L"missing_one.dll"), 1) << "asked once";
    for (const auto& name : filter.asked) {
        EXPECT_EQ(name.find(L'\\'), std::wstring::npos) << "asked by name: " << narrow(name);
        EXPECT_NE(lower(name), L"kernel32.dll") << "the system names never reach the filter";
    }
    list_filter dropTop({L"app.exe"});
    sink.found.clear();
    run(walk(L"app\\app.exe"), 0, &dropTop);
    EXPECT_THAT(sink.found, IsEmpty());
}

TEST_F(Server, FailuresLeaveAsExceptionsAndKeepTheLastCollection) {
    run(walk(L"lib\\upper.exe"));
    com_ptr<IDepFiles> before = dependencies();
    recording_sink partial(true), failing;
    failing.failFoundAfter = 2;
    const std::pair<recording_sink*, HRESULT> table[] = {{&partial, E_NOINTERFACE}, {&failing, E_ABORT}};
    for (const auto& [events, expected] : table) {
        cwd_scope restore(module_dir());
        try {
            run(walk(L"app\\app.exe"), 0, nullptr, events);
            ADD_FAILURE() << "the scan must fail";
        } catch (const com_exception& e) {
            EXPECT_EQ(e.Error(), expected);
        }
        EXPECT_EQ(dependencies().get(), before.get());
    }
    EXPECT_THAT(partial.found, IsEmpty()) << "a sink without FellSP2 fails before any file is read";
    EXPECT_EQ(failing.found.size(), 2u);
    EXPECT_EQ(partial.refs + failing.refs, 2);
}

TEST_F(Server, MergeModulesOfTheHostsCatalog) {
    fake_module gamma(L"Gamma.Module.1", L"gamma.msm", L"Gamma module");
    fake_module mondo(L"mondo.E4183BB4_18A8_11D5_A549_0090278A1BB8", L"mondo.msm", L"Catch-all");
    catalog.answers[L"gamma.dll:x64"] = {&gamma, VARIANT_TRUE}; // a module the catalog has
    catalog.answers[L"alpha.dll:x64"] = {&mondo, VARIANT_TRUE}; // the catch-all module: a plain file
    catalog.answers[L"beta.dll:x64"] = {nullptr, VARIANT_TRUE}; // a module the catalog lacks
    catalog.texts = {{walk(L"app\\beta.dll"), L"Beta.Missing"}, {L"Beta.Missing", L"Beta (missing)"}};
    sink.catalog = &catalog;
    run(walk(L"app\\app.exe"));
    auto got = records(dependencies().get());
    // A module stands under its subject, with its key for a folder; its files are not walked.
    EXPECT_EQ(got[L"gamma module"].path, L"gamma.msm");
    EXPECT_EQ(got[L"gamma module"].module, VARIANT_TRUE);
    EXPECT_EQ(got[L"gamma module"].missing, VARIANT_FALSE);
    EXPECT_EQ(got[L"beta (missing)"].path, L"Beta.Missing");
    EXPECT_EQ(got[L"beta (missing)"].missing, VARIANT_TRUE);
    EXPECT_EQ(got[L"alpha.dll"].module, VARIANT_FALSE);
    EXPECT_FALSE(got.count(L"delta.dll")) << "beta's imports are the module's business";
    EXPECT_FALSE(got.count(L"gamma.dll"));
    EXPECT_NE(std::find(catalog.lookups.begin(), catalog.lookups.end(), L"alpha.dll:x64||0"), catalog.lookups.end())
        << "asked with key, version and language";
    const size_t lookups = catalog.lookups.size();

    sink.catalog = nullptr;
    run(walk(L"app\\app.exe"), 0x8000);
    EXPECT_EQ(catalog.lookups.size(), lookups) << "32768 leaves the catalog unused";
    EXPECT_EQ(gamma.refs + mondo.refs, 2);

    // Key texts by machine, with ScanUtil's own lookup; the catch-all module is no module.
    ASSERT_EQ(util->put_MMCatalog(&catalog), S_OK);
    const std::pair<long, const wchar_t*> machines[] = {
        {332, L"translations.dll"}, {34404, L"translations.dll:x64"}, {512, L"translations.dll:i64"}, {452, L""}};
    for (const auto& [machine, key] : machines) {
        catalog.lookups.clear();
        com_ptr<IUnknown> module;
        VARIANT_BOOL yes = 7;
        EXPECT_EQ(
            util->InMergeModuleEx(qv::bstr(slashed(fixture(L"version\\translations.dll"))).get(), machine, module.put(), &yes),
            S_OK);
        ASSERT_EQ(catalog.lookups.size(), 1u);
        EXPECT_EQ(catalog.lookups[0], std::wstring(key) + L"|1.2.3.4|1033");
        EXPECT_EQ(yes, VARIANT_FALSE);
    }
    catalog.answers[L"translations.dll:x64"] = {&mondo, VARIANT_TRUE};
    com_ptr<IUnknown> module;
    VARIANT_BOOL yes = 7;
    EXPECT_EQ(util->InMergeModule(qv::bstr(fixture(L"version\\translations.dll")).get(), module.put(), &yes), S_OK);
    EXPECT_EQ(yes, VARIANT_FALSE);
    EXPECT_FALSE(module);
    catalog.answers[L"translations.dll:x64"] = {&gamma, VARIANT_TRUE};
    EXPECT_EQ(util->InMergeModule(qv::bstr(fixture(L"version\\translations.dll")).get(), module.put(), &yes), S_OK);
    EXPECT_EQ(yes, VARIANT_TRUE);
    EXPECT_EQ(module.get(), static_cast<IUnknown*>(&gamma));
    module.reset();
    util.reset();
}

TEST_F(Server, RecordsOfSingleFiles) {
    const std::wstring sys = system_dir();
    struct row {
        std::wstring path;
        const wchar_t* type; // QV_ACTIVE_PROJECT_TYPE
        long major, minor;
        std::vector<long> languages;
        VARIANT_BOOL selfReg, shared;
        std::wstring dest;
    };
    const row table[] = {
        {fixture(L"version\\translations.dll"), L"0", 0x00010002, 0x00030004, {0x0407}, 0, 0, fixture(L"version")},
        {fixture(L"version\\translations_reversed.dll"), L"0", 0x00010002, 0x00030004, {0x0409}, 0, 0, L""},
        {fixture(L"version\\translations32.dll"), L"0", 0x00010002, 0x00030004, {0x0407}, 0, 0, L""},
        {fixture(L"version\\no_translation.dll"), L"0", 0x00090008, 0x00070006, {}, 0, 0, L""},
        {fixture(L"version\\no_version.dll"), L"0", 0, 0, {}, 0, 0, L""},
        // The entry point of refuses_load.dll fails: only its export table tells that it registers itself.
        {fixture(L"scanutil\\refuses_load.dll"), L"0", 0, 0, {}, -1, 0, L""},
        {sys + L"\\ole32.dll", L"0", -2, -2, {}, 0, -1, L"[SystemFolder]"},
        {sys + L"\\ole32.dll", L"1", -2, -2, {}, 0, -1, L"<WINSYSDIR>"},
        {windows_dir() + L"\\notepad.exe", L"0", -2, -2, {}, 0, -1, L"[WindowsFolder]"},
        {slashed(sys + L"\\ole32.dll"), L"0", -2, -2, {}, 0, -1, L"[SystemFolder]"}, // a forward slash splits too
    };
    registry_override machine(HKEY_LOCAL_MACHINE);
    for (const auto& r : table) {
        SCOPED_TRACE(narrow(r.path) + " type " + narrow(r.type));
        env_scope type(L"QV_ACTIVE_PROJECT_TYPE", r.type);
        record g = pe(r.path);
        EXPECT_EQ(lower(g.name), lower(r.path.substr(r.path.find_last_of(L"\\/") + 1)));
        EXPECT_EQ(lower(g.path), lower(r.path.substr(0, r.path.find_last_of(L"\\/"))));
        if (r.major != -2) {
            EXPECT_EQ(g.major, r.major);
            EXPECT_EQ(g.minor, r.minor);
            EXPECT_EQ(g.languages, r.languages);
        }
        EXPECT_EQ(g.selfReg, r.selfReg);
        EXPECT_EQ(g.shared, r.shared);
        EXPECT_EQ(g.missing, VARIANT_FALSE);
        EXPECT_EQ(g.size, static_cast<long>(read_file(r.path).size()));
        EXPECT_TRUE(r.dest.empty() || lower(g.dest) == lower(r.dest)) << narrow(g.dest);
    }
    EXPECT_EQ(GetModuleHandleW(fixture(L"scanutil\\refuses_load.dll").c_str()), nullptr) << "never loaded";
    // Elsewhere a file is shared when a value of SharedDlls names a file of the same name.
    DWORD one = 1;
    registry_override::set_value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\SharedDlls",
                                 L"D:\\any\\TRANSLATIONS.DLL", REG_DWORD, &one, sizeof one);
    EXPECT_EQ(pe(fixture(L"version\\translations.dll")).shared, VARIANT_TRUE);
    EXPECT_EQ(pe(fixture(L"version\\no_version.dll")).shared, VARIANT_FALSE);

    // Anything but an image is no record, and no failure.
    temp_dir tmp;
    for (const std::wstring& path : {fixture(L"version\\not_an_image.dll"), tmp / L"absent.dll",
                                     tmp.write(L"empty.dll", ""), tmp.path(), std::wstring()}) {
        IDepFile* none = reinterpret_cast<IDepFile*>(1);
        EXPECT_EQ(util->get_PE(qv::bstr(path).get(), &none), S_OK);
        EXPECT_EQ(none, nullptr) << narrow(path);
    }

    // The modified time is local time to the two-second grain of DOS times.
    const std::wstring timed = tmp.write(L"timed.dll", read_file(fixture(L"version\\no_version.dll")));
    SYSTEMTIME local, utc{2021, 6, 0, 15, 13, 45, 31, 700};
    FILETIME written, localFile;
    HANDLE h = CreateFileW(timed.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    SystemTimeToFileTime(&utc, &written);
    SetFileTime(h, nullptr, nullptr, &written);
    CloseHandle(h);
    FileTimeToLocalFileTime(&written, &localFile);
    FileTimeToSystemTime(&localFile, &local);
    local.wSecond -= local.wSecond % 2;
    local.wMilliseconds = 0;
    DATE expected = 0;
    SystemTimeToVariantTime(&local, &expected);
    EXPECT_NEAR(pe(timed).modified, expected, 1e-7);
}

TEST_F(Server, RecordsMadeByTheClient) {
    com_ptr<IDepFileTarn> f;
    ASSERT_EQ(server().Create(CLSID_DepFile, nullptr, IID_IDepFileTarn, f.put_void()), S_OK);
    EXPECT_EQ(f->PutName(qv::bstr(L"x.dll").get()), S_OK);
    EXPECT_EQ(f->PutPath(qv::bstr(L"C:\\dir").get()), S_OK);
    EXPECT_EQ(f->PutDestPath(qv::bstr(L"[SystemFolder]").get()), S_OK);
    EXPECT_EQ(f->PutSelfReg(1), S_OK);
    record set = read(f.get());
    EXPECT_EQ(set.name + L"|" + set.path + L"|" + set.dest, L"x.dll|C:\\dir|[SystemFolder]");
    EXPECT_EQ(set.selfReg, VARIANT_TRUE);
    void* p = nullptr;
    EXPECT_EQ(server().Create(CLSID_DepFile, f.get(), IID_IUnknown, &p), CLASS_E_NOAGGREGATION);
}

TEST_F(Server, ShippedListsThroughScanFile) {
    const std::wstring notepad = system_dir() + L"\\notepad.exe";
    ASSERT_EQ(scan_file(notepad, VARIANT_TRUE), S_OK);
    EXPECT_THAT(names(dependencies().get()), IsEmpty()) << "every import of notepad is the system's own";
    ASSERT_EQ(scan_file(notepad, VARIANT_FALSE), S_OK);
    auto kept = records(dependencies().get());
    EXPECT_GT(kept.size(), 3u);
    for (const auto& [name, r] : kept)
        EXPECT_EQ(r.filterable, VARIANT_TRUE) << narrow(name);
    ASSERT_EQ(scan_file(walk(L"lib\\upper.exe"), 1), S_OK);
    EXPECT_EQ(names(dependencies().get()), (std::set<std::wstring>{L"gamma.dll"}));

    // Without well-formed lists the scan fails before it reads a file, and says which file and why.
    temp_dir tmp;
    tmp.write(L"broken\\filters.xml", "<Filters><Exclude><File name=\"x.dll\"></Exclude>");
    const std::pair<std::wstring, const wchar_t*> table[] = {
        {tmp.mkdir(L"empty"), L"does not exist"}, {tmp / L"broken", L"it is not a well-formed XML document ("}};
    for (const auto& [dir, why] : table) {
        env_scope support(L"QV_SUPPORT_DIR", dir.c_str());
        sink.found.clear();
        try {
            scan_file(walk(L"lib\\upper.exe"), VARIANT_FALSE);
            ADD_FAILURE() << "no lists in " << narrow(dir);
        } catch (const com_exception& e) {
            std::wstring text = qv::take_error_description();
            EXPECT_NE(lower(text).find(lower(dir + L"\\filters.xml: ")), std::wstring::npos) << narrow(text);
            EXPECT_NE(text.find(why), std::wstring::npos) << narrow(text);
            EXPECT_TRUE(text.back() != L'\n' && text.back() != L' ') << narrow(text);
        }
        EXPECT_THAT(sink.found, IsEmpty());
    }
    // Lists rewritten between two scans of the process are read again.
    env_scope rewritten(L"QV_SUPPORT_DIR", tmp.mkdir(L"lists").c_str());
    const std::pair<const char*, size_t> lists[] = {
        {"<Filters><Exclude><File name=\"gamma.dll\"/></Exclude></Filters>", 0}, {"<Filters/>", 1}};
    for (const auto& [text, records] : lists) {
        tmp.write(L"lists\\filters.xml", text);
        ASSERT_EQ(scan_file(walk(L"lib\\upper.exe"), VARIANT_TRUE), S_OK);
        EXPECT_EQ(names(dependencies().get()).size(), records) << text;
    }
    // A name with a double quote cannot go into the list query: the scan fails and names it.
    const std::wstring quote = tmp.write(L"quote.exe", image_writer().import("bad\"name.dll").build().str());
    EXPECT_THROW(scan_file(quote, VARIANT_TRUE), com_exception);
    EXPECT_NE(qv::take_error_description().find(L"bad\"name.dll"), std::wstring::npos);
}

TEST_F(Server, AggregationAndLateBinding) {
    struct outer_object : IUnknown {
        LONG refs = 1;
        IUnknown* inner = nullptr;
        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
            return IsEqualIID(iid, IID_IUnknown) ? (*ppv = this, AddRef(), S_OK) : inner->QueryInterface(iid, ppv);
        }
        ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
        ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    } outer;
    for (const CLSID* clsid : {&CLSID_StaticScan, &CLSID_ScanUtil}) {
        ASSERT_EQ(server().Create(*clsid, &outer, IID_IUnknown, reinterpret_cast<void**>(&outer.inner)), S_OK);
        com_ptr<IDispatch> through;
        com_ptr<IUnknown> back;
        ASSERT_EQ(outer.QueryInterface(IID_IDispatch, through.put_void()), S_OK);
        ASSERT_EQ(through->QueryInterface(IID_IUnknown, back.put_void()), S_OK);
        EXPECT_EQ(back.get(), static_cast<IUnknown*>(&outer)) << "the inner object's interfaces delegate";
        back.reset(), through.reset();
        EXPECT_EQ(outer.refs, 1);
        outer.inner->Release();
    }

    // A script's view of the results: the type library registered in a scratch HKEY_CLASSES_ROOT only.
    registry_override classes(HKEY_CLASSES_ROOT);
    std::wstring path = module_dir() + L"\\QVWIScanners.dll";
    com_ptr<ITypeLib> lib;
    ASSERT_EQ(LoadTypeLibEx(path.c_str(), REGKIND_NONE, lib.put()), S_OK);
    ASSERT_EQ(RegisterTypeLib(lib.get(), path.data(), nullptr), S_OK);
    run(walk(L"lib\\upper.exe"));
    auto invoke = [](IDispatch* d, const wchar_t* name, VARIANT* arg) {
        LPOLESTR text = const_cast<LPOLESTR>(name);
        DISPID id = 0;
        EXPECT_EQ(d->GetIDsOfNames(IID_NULL, &text, 1, LOCALE_USER_DEFAULT, &id), S_OK) << narrow(name);
        DISPPARAMS params = {arg, nullptr, arg ? 1u : 0u, 0};
        VARIANT result;
        VariantInit(&result);
        HRESULT hr = d->Invoke(id, IID_NULL, 0, DISPATCH_PROPERTYGET | DISPATCH_METHOD, &params, &result, nullptr, nullptr);
        EXPECT_EQ(hr, S_OK) << narrow(name);
        return result;
    };
    auto files = dependencies().query<IDispatch>(IID_IDispatch);
    VARIANT count = invoke(files.get(), L"Count", nullptr);
    EXPECT_TRUE(V_VT(&count) == VT_I4 && V_I4(&count) == 1);
    VARIANT one = index_of(1);
    VARIANT item = invoke(files.get(), L"Item", &one);
    ASSERT_EQ(V_VT(&item), VT_DISPATCH);
    VARIANT name = invoke(V_DISPATCH(&item), L"Name", nullptr);
    EXPECT_EQ(lower(V_BSTR(&name)), L"gamma.dll");
    VariantClear(&name);
    VariantClear(&item);
}

TEST(ServerFrame, SetupExportWaitsForTheChildTheSetupProgramLeaves) {
    using launch_fn = int(__stdcall*)(const char*);
    auto launch = reinterpret_cast<launch_fn>(reinterpret_cast<void (*)()>(
        GetProcAddress(server().module(), "LaunchSetupExeAppAndWaitForChildProcesses")));
    ASSERT_TRUE(launch);
    const std::string spawn = narrow(fixture(L"trace\\host.exe")) + " spawn";
    EXPECT_EQ(launch((spawn + " 0 1 " + spawn + " 700 7").c_str()), 0);
    for (const auto& [id, entry] : qv::detail::ReadProcessTree(false))
        EXPECT_NE(lower(entry.name), L"host.exe") << "the child was waited for";
    EXPECT_EQ(launch(""), -1);
}

TEST(ServerFrame, ClassesAsTheyAreBuilt) {
    com_apartment apartment;
    const std::pair<const CLSID*, HRESULT> table[] = {
        {&CLSID_StaticScan, S_OK}, {&CLSID_ScanUtil, S_OK}, {&CLSID_DepFile, S_OK},
        {&CLSID_DepChecker, S_OK}, {&CLSID_VBPScan, S_OK},
        {&CLSID_DotNetAssembly, S_OK}, {&IID_IUnknown, CLASS_E_CLASSNOTAVAILABLE}};
    for (const auto& [clsid, expected] : table) {
        void* factory = reinterpret_cast<void*>(1);
        EXPECT_EQ(server().GetClassObject(*clsid, IID_IClassFactory, &factory), expected);
        if (factory)
            static_cast<IClassFactory*>(factory)->Release();
    }
}

} // namespace

int main(int argc, char** argv) {
    std::wstring path = walk(L"lib") + L";;" + walk(L"path64") + L";" + walk(L"path32") + L";" + system_dir() + L";" +
                        windows_dir();
    SetEnvironmentVariableW(L"Path", path.c_str());
    ::testing::InitGoogleMock(&argc, argv);
    struct unload_check : ::testing::Environment {
        void TearDown() override {
            com_apartment apartment;
            EXPECT_EQ(server().CanUnloadNow(), S_OK) << "an object of the server is still alive";
        }
    };
    ::testing::AddGlobalTestEnvironment(new unload_check);
    return RUN_ALL_TESTS();
}
