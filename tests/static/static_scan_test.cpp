// StaticScan as clients meet it: the fixture tree, images written here, filters, merge modules, the shipped lists.
#include "image_writer.h"
#include "inc/com_error.h"
#include "inc/unique_handles.h"
#include "server_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

using namespace qv::test;
using qv::com_ptr;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class StaticScan : public scan_client {};

TEST_F(StaticScan, WalkOfTheFixtureTree) {
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
    const struct { const wchar_t* name; std::wstring path; VARIANT_BOOL selfReg, missing; } table[] = {
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

TEST_F(StaticScan, ScanTypesAndTopFilesThatAreNoImages) {
    temp_dir tmp;
    const struct { std::wstring file; long type; std::set<std::wstring> records; size_t events; } table[] = {
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
// The scan-type bits of the extensions: delay-loaded imports walked with their closure, entry points checked
// through forwarders, copies of another machine that the search passed over. Without the bits the records are
// those of a plain scan and tell nothing more.
TEST_F(StaticScan, ExtensionBitsTellDelayLoadsEntryPointsAndPassedOverCopies) {
    using qv::scan_type::delay_loads, qv::scan_type::details, qv::scan_type::extensions;
    const std::wstring delay = fixture(L"target\\delay"), entry = fixture(L"target\\entry"),
                       machine = fixture(L"target\\machine");
    struct row {
        std::wstring file;
        long type;
        std::map<std::wstring, long> delayOnly; // the records, and whether each is needed only through delay loads
        std::map<std::wstring, std::wstring> entries, passed; // the details' texts of the records that have them
    };
    const row table[] = {
        {delay + L"\\delayapp.exe", 0, {}, {}, {}},
        {delay + L"\\delayapp.exe", details, {}, {}, {}},
        {delay + L"\\delayapp.exe", delay_loads, {{L"absent.dll", 1}, {L"helper.dll", 1}, {L"shipped.dll", 1}}, {}, {}},
        {delay + L"\\delayapp.exe", extensions | 0x8000, {{L"absent.dll", 1}, {L"helper.dll", 1}, {L"shipped.dll", 1}}, {}, {}},
        {delay + L"\\delayapp.exe", extensions | 2, {}, {}, {}}, // mode 2 reads no import table of either kind
        // shipped.dll imports helper.dll at load time: once it is there by an import of its own, it is no
        // longer delay-only.
        {delay + L"\\shipped.dll", extensions, {{L"helper.dll", 0}}, {}, {}},
        {entry + L"\\entryapp.exe", 0, {{L"forwarding.dll", 0}, {L"lacking.dll", 0}}, {}, {}},
        {entry + L"\\entryapp.exe", extensions, {{L"forwarding.dll", 0}, {L"lacking.dll", 0}},
         {{L"lacking.dll", entry + L"\\entryapp.exe\tabsent_fn\n"},
          {L"forwarding.dll", entry + L"\\entryapp.exe\tbroken_fn\n"}},
         {}},
        {machine + L"\\wrongapp.exe", 0, {{L"only32.dll", 0}}, {}, {}},
        {machine + L"\\wrongapp.exe", details, {{L"only32.dll", 0}}, {}, {{L"only32.dll", machine + L"\\only32.dll\tx86\n"}}},
    };
    for (const row& r : table) {
        SCOPED_TRACE(narrow(r.file) + " type " + std::to_string(r.type));
        EXPECT_EQ(run(r.file, r.type), VARIANT_TRUE);
        auto got = records(dependencies().get());
        std::map<std::wstring, long> delayOnly;
        for (const auto& [name, record] : got) {
            delayOnly[name] = record.delayOnly;
            const auto entries = r.entries.find(name), passed = r.passed.find(name);
            EXPECT_EQ(lower(record.missingEntries), entries == r.entries.end() ? L"" : lower(entries->second)) << narrow(name);
            EXPECT_EQ(lower(record.passedOver), passed == r.passed.end() ? L"" : lower(passed->second)) << narrow(name);
        }
        EXPECT_EQ(delayOnly, r.delayOnly);
    }
    // The graph: every edge in the walk's order, of the last scan; empty after a scan without the bits.
    const auto graph = scan.query<IQvScanGraph>(IID_IQvScanGraph);
    qv::bstr edges;
    EXPECT_EQ(run(delay + L"\\delayapp.exe", delay_loads), VARIANT_TRUE);
    EXPECT_EQ(graph->get_Edges(edges.put()), S_OK);
    EXPECT_EQ(lower(edges.str()), L"delayapp.exe\tkernel32.dll\timport\n"
                                  L"delayapp.exe\tshipped.dll\tdelay\n"
                                  L"shipped.dll\thelper.dll\timport\n"
                                  L"delayapp.exe\tabsent.dll\tdelay\tmissing\n");
    EXPECT_EQ(run(delay + L"\\delayapp.exe", 0), VARIANT_TRUE);
    EXPECT_EQ(graph->get_Edges(edges.put()), S_OK);
    EXPECT_TRUE(edges.empty());
}

TEST_F(StaticScan, AFileChangedBetweenScansIsReadAgain) {
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
    // A DLL that appears between two scans in a folder searched before the one that held it (the program's
    // own, before the Path's lib), and then disappears again; a DLL of the program that disappears.
    put(top, image_writer().import("gamma.dll").import("dep.dll").build().str(), 10);
    put(dep, image_writer().build().str(), 11);
    const std::wstring earlier = tmp / L"gamma.dll";
    struct step { std::function<void()> change; std::set<std::wstring> records, missing; };
    const step steps[] = {
        {[] {}, {L"gamma.dll", L"dep.dll"}, {}},
        {[&] { put(earlier, image_writer().import("zeta.dll").build().str(), 12); },
         {L"gamma.dll", L"dep.dll", L"zeta.dll"}, {L"zeta.dll"}},
        {[&] { ASSERT_TRUE(DeleteFileW(earlier.c_str())); }, {L"gamma.dll", L"dep.dll"}, {}},
        {[&] { ASSERT_TRUE(DeleteFileW(dep.c_str())); }, {L"gamma.dll", L"dep.dll"}, {L"dep.dll"}},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        steps[i].change();
        run(top);
        std::set<std::wstring> missing;
        for (const auto& [name, record] : records(dependencies().get()))
            if (record.missing)
                missing.insert(name);
        EXPECT_EQ(names(dependencies().get()), steps[i].records) << "step " << i;
        EXPECT_EQ(missing, steps[i].missing) << "step " << i;
    }
}

// The folders of Path are looked at through the process's listings of them: a DLL that appears in a folder
// searched before the one that held it, or disappears from either, is seen by the next scan, though the folder
// was listed by an earlier one.
TEST_F(StaticScan, PathFoldersChangedBetweenScansAreSeen) {
    temp_dir tmp;
    const std::wstring top = tmp.write(L"top.exe", image_writer().import("qvtail.dll").build().str());
    const std::wstring first = path_tail_folder(0) + L"\\qvtail.dll", second = path_tail_folder(1) + L"\\qvtail.dll";
    const std::string plain = image_writer().build().str(), importing = image_writer().import("qvzeta.dll").build().str();
    auto put = [&](const std::wstring& path, const std::string& bytes) {
        std::ofstream(std::filesystem::path(path), std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    };
    const struct { std::function<void()> change; std::wstring folder; std::set<std::wstring> records; } steps[] = {
        {[] {}, L"", {L"qvtail.dll"}},                                                  // missing
        {[&] { put(second, plain); }, path_tail_folder(1), {L"qvtail.dll"}},           // appears in the later
        {[&] { put(first, importing); }, path_tail_folder(0), {L"qvtail.dll", L"qvzeta.dll"}}, // then the earlier
        {[&] { ASSERT_TRUE(DeleteFileW(first.c_str())); }, path_tail_folder(1), {L"qvtail.dll"}},
        {[&] { ASSERT_TRUE(DeleteFileW(second.c_str())); }, L"", {L"qvtail.dll"}},
    };
    // Each step leaves both folders an old write time of its own, as a change long ago would: only that the
    // time moved tells a scan to list them again.
    auto age = [](const std::wstring& folder, size_t step) {
        qv::unique_hfile handle(CreateFileW(folder.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                            nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
        const FILETIME old{static_cast<DWORD>(step * 10000000), 30000000};
        ASSERT_TRUE(SetFileTime(handle.get(), nullptr, nullptr, &old));
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        steps[i].change();
        age(path_tail_folder(0), i);
        age(path_tail_folder(1), i);
        run(top);
        const auto got = records(dependencies().get());
        EXPECT_EQ(names(dependencies().get()), steps[i].records) << "step " << i;
        ASSERT_TRUE(got.count(L"qvtail.dll")) << "step " << i;
        const record& tail = got.at(L"qvtail.dll");
        EXPECT_EQ(tail.missing, steps[i].folder.empty() ? VARIANT_TRUE : VARIANT_FALSE) << "step " << i;
        if (!steps[i].folder.empty())
            EXPECT_EQ(lower(tail.path), lower(steps[i].folder)) << "step " << i;
    }
}

// The shared mark of the records of one scan reads SharedDlls once; a value added between two scans is seen by
// the second, and one removed too.
TEST_F(StaticScan, SharedDllsAsTheScanFindsThem) {
    registry_override machine(HKEY_LOCAL_MACHINE);
    const wchar_t* key = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\SharedDlls";
    DWORD one = 1;
    auto shared = [&] {
        run(walk(L"app\\app.exe"));
        std::set<std::wstring> got;
        for (const auto& [name, record] : records(dependencies().get()))
            if (record.shared)
                got.insert(name);
        return got;
    };
    EXPECT_EQ(shared(), std::set<std::wstring>{});
    registry_override::set_value(HKEY_LOCAL_MACHINE, key, L"C:\\elsewhere\\ALPHA.DLL", REG_DWORD, &one, sizeof one);
    registry_override::set_value(HKEY_LOCAL_MACHINE, key, L"C:\\elsewhere\\beta.dll", REG_DWORD, &one, sizeof one);
    EXPECT_EQ(shared(), (std::set<std::wstring>{L"alpha.dll", L"beta.dll"}));
    qv::unique_hkey listed;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_SET_VALUE, listed.put()), ERROR_SUCCESS);
    ASSERT_EQ(RegDeleteValueW(listed.get(), L"C:\\elsewhere\\beta.dll"), ERROR_SUCCESS);
    EXPECT_EQ(shared(), std::set<std::wstring>{L"alpha.dll"});
}

TEST_F(StaticScan, FiltersDropAndMarkByFileName) {
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

TEST_F(StaticScan, FailuresLeaveAsExceptionsAndKeepTheLastCollection) {
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

TEST_F(StaticScan, MergeModulesOfTheHostsCatalog) {
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
}

TEST_F(StaticScan, ShippedListsThroughScanFile) {
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

} // namespace
