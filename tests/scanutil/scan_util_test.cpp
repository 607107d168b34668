// ScanUtil as clients meet it: the records of single files, and its merge-module lookups by machine.
#include "inc/unique_handles.h"
#include "server_support.h"

#include <gtest/gtest.h>

using namespace qv::test;
using qv::com_ptr;

class ScanUtil : public scan_client {};

TEST_F(ScanUtil, RecordsOfSingleFiles) {
    const std::wstring sys = system_dir();
    const struct { // type: QV_ACTIVE_PROJECT_TYPE
        std::wstring path; const wchar_t* type; long major, minor; std::vector<long> languages;
        VARIANT_BOOL selfReg, shared; std::wstring dest;
    } table[] = {
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
    SystemTimeToFileTime(&utc, &written);
    SetFileTime(qv::unique_hfile(CreateFileW(timed.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0,
                                             nullptr)).get(), nullptr, nullptr, &written);
    FileTimeToLocalFileTime(&written, &localFile);
    FileTimeToSystemTime(&localFile, &local);
    local.wSecond -= local.wSecond % 2;
    local.wMilliseconds = 0;
    DATE expected = 0;
    SystemTimeToVariantTime(&local, &expected);
    EXPECT_NEAR(pe(timed).modified, expected, 1e-7);
}

// Key texts by machine, with ScanUtil's own lookup; the catch-all module is no module.
TEST_F(ScanUtil, MergeModulesOfTheCatalogByMachine) {
    fake_module gamma(L"Gamma.Module.1", L"gamma.msm", L"Gamma module");
    fake_module mondo(L"mondo.E4183BB4_18A8_11D5_A549_0090278A1BB8", L"mondo.msm", L"Catch-all");
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
    for (auto [answer, expected] : {std::pair{&mondo, static_cast<fake_module*>(nullptr)}, {&gamma, &gamma}}) {
        catalog.answers[L"translations.dll:x64"] = {answer, VARIANT_TRUE};
        com_ptr<IUnknown> module;
        VARIANT_BOOL yes = 7;
        EXPECT_EQ(util->InMergeModule(qv::bstr(fixture(L"version\\translations.dll")).get(), module.put(), &yes), S_OK);
        EXPECT_EQ(std::pair(yes, module.get()),
                  std::pair(VARIANT_BOOL(expected ? VARIANT_TRUE : VARIANT_FALSE), static_cast<IUnknown*>(expected)));
    }
    util.reset();
}
