// The platform toolkit: the machine probes (path forms and existence, the registry, folders and redirection, a
// child's search folders), the profile files (inifilex, qvmapfilex), version resources, the setup launcher.
#include "inc/unique_handles.h"
#include "library_support.h"
#include "toolkit/folder_listing.h"
#include "toolkit/inifilex.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"
#include "toolkit/process_launcher.h"
#include "toolkit/qvmapfilex.h"
#include "toolkit/round_attributes.h"
#include "toolkit/scan_round.h"
#include "toolkit/version_info.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>

using namespace qv::test;
using std::wstring;

namespace {

constexpr unsigned F = qv::path_accept_file, D = qv::path_accept_folder, T = qv::path_throw_errors;

// "folders": the search folders as <entry> lines, then whether they are kept after a change of Path.
const child_command kFolders(L"folders", [](const wstring&) -> std::wstring {
    wstring out;
    const std::vector<wstring> first = qv::GetSearchFolders();
    for (const wstring& entry : first)
        out += L"<" + entry + L">\n";
    SetEnvironmentVariableW(L"Path", L"changed;later");
    return out + (qv::GetSearchFolders() == first ? L"kept\n" : L"changed\n");
});

TEST(Probes, PathFormsRealFilesAndSearchPathSplit) {
    for (auto [path, absolute] : {std::pair{L"C:", true}, {L"z:rel\\x", true}, {L"\\\\a", true}, {L"\\\\", false},
                                  {L"\\foo", false}, {L"..\\x", false}, {L"C", false}, {L"", false}, {L":C", false}})
        EXPECT_EQ(qv::IsAbsolutePath(path), absolute) << narrow(path);
    // (path, name part, folder part), split as the shell splits, at either separator.
    for (auto [path, name, folder] : {std::tuple{L"C:\\x", L"x", L"C:\\"}, {L"C:\\", L"C:\\", L"C:\\"}, {L"x", L"x", L""},
             {L"C:\\dir\\", L"dir\\", L"C:\\dir"}, {L"C:/a/b.dll", L"b.dll", L"C:/a"}, {L"C:x", L"x", L"C:"}, {L"\\x", L"x", L"\\"},
             {L"\\\\srv\\share\\f", L"f", L"\\\\srv\\share"}, {L"\\\\srv", L"srv", L"\\\\"}, {L"a\\b/c", L"c", L"a\\b"}}) {
        EXPECT_EQ(qv::FileNamePart(path), name) << narrow(path);
        EXPECT_EQ(qv::DirectoryPart(path), folder) << narrow(path);
    }
    EXPECT_EQ(qv::FileNamePart(wstring(L"C:\\a.dll\0\\b", 11)), L"a.dll"); // a path ends at its first null
    EXPECT_FALSE(qv::StartsWithNoCase(L"C:\\x", L"")); // an unknown folder is the prefix of nothing
    EXPECT_EQ(qv::NormalisedPath(L"C:\\a\\b\\..\\.\\c/d.dll"), L"C:\\a\\c\\d.dll");
    EXPECT_EQ(qv::NormalisedPath(L"rel\\x..y.dll"), L"rel\\x..y.dll"); // nothing to normalise: as it is
    temp_dir dir;
    const wstring file = dir.write(L"present.dll", "MZ"), folder = dir.mkdir(L"sub"), wild = dir / L"wild*.dll";
    for (auto [path, flags, expected] : {std::tuple{file, F, true}, {file, D, false}, {folder, F, false},
                                         {folder + L"\\", D, true}, {system_dir() + L"\\kernel32.dll", F | T, true},
                                         {wild, F | D, false}, {dir / L"absent\\deeper.dll", F | D | T, false}}) // a plain no
        EXPECT_EQ(qv::PathExists(path, flags), expected) << narrow(path) << " flags " << flags;
    EXPECT_THROW(qv::PathExists(wild, F | D | T), qv::win32_exception); // neither not found nor access denied
    for (const auto& [text, expected] : {std::pair<const wchar_t*, lines>{L"a;;b", {L"a", L"", L"b"}},
                                         {L";a", {L"", L"a"}}, {L"a;;", {L"a", L""}}, {L"a;", {L"a"}}, {L"a", {L"a"}}})
        ASSERT_EQ(qv::detail::SplitSearchPath(text), expected) << narrow(text); // a wrong split may never end
    // The search folders of a child's own Path, expanded, and kept when the Path changes.
    env_scope qvx(L"QVX", L"C:\\qv x"), path(L"Path", L"a;;%QVX%;b;%QVX%\\bin;%QVX_UNSET%;");
    ExpectChild({}, {L"folders"}, {L"<a>", L"<>", L"<C:\\qv x>", L"<b>", L"<C:\\qv x\\bin>", L"<%QVX_UNSET%>", L"kept"});
}

struct scripted_probe : qv::detail::path_probe {
    DWORD attributes = 0, error = 0, findError = 0, finds = 0;
    std::optional<DWORD> found;
    DWORD Attributes(const wstring&, DWORD& e) override { return e = error, attributes; }
    bool FindAttributes(const wstring&, DWORD& a, DWORD& e) override {
        return ++finds, e = findError, a = found.value_or(0), found.has_value();
    }
    bool UrlOpens(const wstring&, bool) override { return false; }
};

TEST(Probes, PathExistsDecidesByTheError) {
    constexpr DWORD no = INVALID_FILE_ATTRIBUTES, file = FILE_ATTRIBUTE_ARCHIVE, dir = FILE_ATTRIBUTE_DIRECTORY;
    constexpr DWORD denied = ERROR_ACCESS_DENIED, shared = ERROR_SHARING_VIOLATION, net = ERROR_BAD_NETPATH;
    // outcome: 0 no, 1 yes, else the error thrown; finds: how often FindFirstFileW was asked.
    const struct { DWORD attributes, error; std::optional<DWORD> found; DWORD findError, flags, outcome, finds; } rows[] = {
        {file, 0, {}, 0, F, 1, 0}, {file, 0, {}, 0, D, 0, 0}, {dir, 0, {}, 0, D | T, 1, 0},
        {no, ERROR_FILE_NOT_FOUND, {}, 0, F | T, 0, 0}, {no, ERROR_PATH_NOT_FOUND, {}, 0, F | T, 0, 0},
        {no, denied, file, 0, F, 1, 1}, {no, denied, dir, 0, F, 0, 1}, {no, denied, {}, denied, F, 0, 1},
        {no, denied, {}, shared, F | T, shared, 1}, {no, ERROR_INVALID_NAME, {}, 0, F, 0, 0}, {no, net, {}, 0, F | T, net, 0}};
    for (const auto& r : rows) {
        scripted_probe probe;
        probe.attributes = r.attributes, probe.error = r.error, probe.found = r.found, probe.findError = r.findError;
        const DWORD outcome = [&]() -> DWORD {
            try { return qv::detail::PathExists(L"C:\\x", r.flags, probe); } catch (const qv::win32_exception& e) { return e.Error(); }
        }();
        EXPECT_EQ(std::pair(outcome, probe.finds), std::pair(r.outcome, r.finds)) << "row " << &r - rows;
    }
}

TEST(Probes, DefaultRegistryValueChecksTypeAndTerminators) {
    using namespace std::string_literals;
    registry_override classes(HKEY_CLASSES_ROOT);
    const wstring full(129, L'a'); // with its terminator, the 260 bytes read
    // odd: one byte more stored than the text has.
    const struct { const wchar_t* key; DWORD type; wstring data; bool odd; wstring expected; } rows[] = {
        {L".vbp", REG_SZ, L"VisualBasic.Project\0"s, false, L"VisualBasic.Project"}, {L"odd", REG_SZ, L"hi\0"s, true, L""},
        {L"expand", REG_EXPAND_SZ, L"%X%\\y\0"s, false, L"%X%\\y"}, {L"unterminated", REG_SZ, L"hi"s, false, L""},
        {L"multi", REG_MULTI_SZ, L"one\0two\0\0"s, false, L"one"}, {L"multi1", REG_MULTI_SZ, L"one\0two\0"s, false, L""},
        {L"dword", REG_DWORD, L"ab"s, false, L""}, {L"full", REG_SZ, full + L'\0', false, full},
        {L"too-long", REG_SZ, full + L"b\0"s, false, L""}};
    for (const auto& r : rows) {
        const wstring padded = r.data + L"########"; // so that a missing terminator is not found by chance
        registry_override::set_value(HKEY_CLASSES_ROOT, r.key, nullptr, r.type, padded.data(),
                                     static_cast<DWORD>(r.data.size() * sizeof(wchar_t) + r.odd));
        EXPECT_EQ(qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, r.key), r.expected) << narrow(r.key);
    }
}


TEST(Probes, ProcessorFoldersAndRedirection) {
    EXPECT_TRUE(qv::Is64BitOs() && !qv::IsWow64()); // an x64 program runs on nothing else
    EXPECT_EQ(lower(qv::SystemFolder()), lower(system_dir() + L"\\"));
    EXPECT_EQ(lower(qv::SystemFolder()), lower(qv::WindowsFolder() + L"system32\\"));

    const qv::detail::redirection_folders folders{L"C:\\W\\system32\\", L"C:\\W\\sysnative\\", L"C:\\W\\SysWOW64\\"};
    const struct { const wchar_t *path, *toNative, *fromNative; } rows[] = { // nullptr: unchanged
        {L"c:\\w\\SYSTEM32\\x\\a.dll", L"C:\\W\\sysnative\\x\\a.dll", L"C:\\W\\SysWOW64\\x\\a.dll"},
        {L"C:\\W\\syswow64\\a.dll", L"C:\\W\\system32\\a.dll", nullptr},
        {L"C:\\W\\SysNative\\a.dll", nullptr, L"C:\\W\\system32\\a.dll"}, {L"D:\\C:\\W\\system32\\a", nullptr, nullptr}};
    for (const auto& r : rows) {
        EXPECT_EQ(qv::detail::MapToNativePath(r.path, true, folders), r.toNative ? r.toNative : r.path);
        EXPECT_EQ(qv::detail::MapFromNativePath(r.path, true, folders), r.fromNative ? r.fromNative : r.path);
        EXPECT_EQ(qv::detail::MapToNativePath(r.path, false, folders) + qv::detail::MapFromNativePath(r.path, false, folders),
                  wstring(r.path) + r.path);
    }
}



TEST(Inifilex, FileFormsEncodingsAndWhatASaveWrites) {
    temp_dir dir;
    const wstring file = dir / L"p.ini";
    // (bytes, code page set before the load, bare keys) -> k of [S], the code page and mark, the bytes saved.
    const struct { std::string in; int cp; bool bare; wstring k; int loaded; bool bom; std::string saved; } rows[] = {
        {"\xEF\xBB\xBF[S]\nk=\xC3\xA9", -1, false, L"\u00e9", 65001, true, "\xEF\xBB\xBF[S]\r\nk=\xC3\xA9\r\n"},
        {"\xEF\xBB\xBF[S]\nk=\xC3\xA9", 1252, false, L"\u00e9", 65001, true, "\xEF\xBB\xBF[S]\r\nk=\xC3\xA9\r\n"}, // the mark stands
        {std::string("\xFF\xFE[\0S\0]\0\n\0k\0=\0\xAC\x20", 16), -1, false, L"\u20ac", 1200, true,
         std::string("\xFF\xFE[\0S\0]\0\r\0\n\0k\0=\0\xAC\x20\r\0\n\0", 22)},
        {std::string("\xFE\xFF\0[\0S\0]\0\r\0k\0=\0v", 16), -1, false, L"v", 1201, true,
         std::string("\xFE\xFF\0[\0S\0]\0\r\0\n\0k\0=\0v\0\r\0\n", 22)},
        {"[S]\r\nk=\xE9", 1252, false, L"\u00e9", 1252, false, "[S]\r\nk=\xE9\r\n"},
        {"[S]\nk=1\n;gone\n[T]\nb\nc=", -1, true, L"1", int(GetACP()), false, "[S]\r\nk=1\r\n\r\n[T]\r\nb\r\nc\r\n"},
        {"[S]\nk=1\n[T]\nb", -1, false, L"1", int(GetACP()), false, "[S]\r\nk=1\r\n\r\n[T]\r\nb=\r\n"},
    };
    for (const auto& r : rows) {
        dir.write(L"p.ini", r.in);
        qv::inifilex ini;
        ini.SetCodePage(r.cp);
        ASSERT_TRUE(ini.Load(file, L"=", r.bare)) << r.in;
        EXPECT_EQ(ini.GetString(L"s", L"K", L"?"), r.k) << r.in;
        EXPECT_TRUE(ini.CodePage() == r.loaded && ini.WritesBom() == r.bom) << r.in;
        EXPECT_TRUE(ini.Save(0, 0, false)) << r.in;
        EXPECT_EQ(read_file(file), r.saved);
    }
    // Failures are results: what a failed load read stays; no file name, no save; a list of no sections, no file.
    dir.write(L"bad.ini", "[S]\nk=v\n[T");
    qv::inifilex bad;
    EXPECT_TRUE(!bad.Load(dir / L"bad.ini", L"=", false) && bad.GetString(L"S", L"k", L"") == L"v");
    EXPECT_TRUE(!bad.SaveAs(L"", 0, 0, false) && !qv::SetIniString(dir / L"bad.ini", L"S", L"k", L"w"));
    EXPECT_EQ(read_file(dir / L"bad.ini"), "[S]\nk=v\n[T") << "a file that cannot be read is not written over";
    EXPECT_TRUE(qv::inifilex().SaveAs(dir / L"none.ini", 2, 0, false) && GetFileAttributesW((dir / L"none.ini").c_str()) == INVALID_FILE_ATTRIBUTES);
    EXPECT_TRUE(!bad.Load(dir / L"absent.ini", L"=", false) && bad.GetLastError() == ERROR_FILE_NOT_FOUND);
}

TEST(Inifilex, ValuesNamesAndOperations) {
    temp_dir dir;
    const wstring file = dir.write(L"v.ini", "[N]\nh=0x10\nH2=0X1f\nd=10\nbad=z\ny=yes\nt=TRUE\nn=no\ne=\n"
                                             "[Files]\nUses1=a\nUses2=b\nUses4=d\n[Files <0409>]\nUses0=z\n");
    const struct { const wchar_t* key; long number; bool flag; } rows[] = {{L"h", 16, false}, {L"H2", 31, false},
        {L"d", 10, false}, {L"bad", 0, false}, {L"y", 0, true}, {L"t", 0, true}, {L"n", 0, false}, {L"e", -7, true}};
    for (const auto& r : rows) {
        EXPECT_EQ(qv::GetIniInt(file, L"n", r.key, -7), r.number) << narrow(r.key);
        EXPECT_EQ(qv::GetIniBool(file, L"N", r.key, true), r.flag) << narrow(r.key);
    }
    qv::inifilex ini;
    ASSERT_TRUE(ini.Load(file, L"=", false));
    lines values, names;
    ini.GetNumberedValues(L"files", values, L"Uses%d"); // Uses0 may be missing, Uses3 ends the walk
    ini.GetNumberedValues(L"Files <0409>", values, L"Uses%d");
    EXPECT_EQ(values, (lines{L"a", L"b", L"z"}));
    ini.CopySectionsFormatted(ini, L"copy", L"%s of %ls %d%%");
    EXPECT_TRUE(ini.MoveKey(L"files", L"Uses4", L"uses1") && ini.RenameKey(L"Files", L"uses2", L"Uses3"));
    EXPECT_TRUE(ini.RenameSection(L"n", L"Numbers") && !ini.RenameSection(L"numbers", L"FILES"));
    ini.RemoveSectionsByPrefix(L"files");
    ini.GetSectionNames(names);
    ini.GetKeyNames(L"copy of Files %d%", names);
    EXPECT_EQ(names, (lines{L"Numbers", L"copy of N %d%", L"copy of Files %d%", L"copy of Files <0409> %d%", L"Uses1",
                            L"Uses2", L"Uses4"}));
}

TEST(Qvmapfilex, ReadWriteAndTheHalfOpenState) {
    temp_dir dir;
    DWORD size = 100;
    qv::qvmapfilex out, in, empty;
    ASSERT_TRUE(out.Open(dir / L"m.bin", size, true) && out.Size() == 100);
    static_cast<char*>(out.View())[99] = 'z';
    out.Close(), out.Close(); // twice is harmless
    EXPECT_EQ(read_file(dir / L"m.bin"), std::string(99, '\0') + "z");
    size = 0;
    EXPECT_TRUE(in.Open(dir / L"m.bin", size, false) && size == 100 && static_cast<const char*>(in.View())[99] == 'z');
    size = 0; // an empty file cannot be mapped: the error and the file are kept
    EXPECT_FALSE(empty.Open(dir.write(L"empty.bin", ""), size, false));
    EXPECT_TRUE(qv::qvmapfilex::LastError() != 0 && qv::qvmapfilex::LastErrorFile() == dir / L"empty.bin");
}

wstring Version(const wchar_t* name) { return fixture(wstring(L"version\\") + name); }
wstring Text(const wchar_t* value) { return value ? value : L"(null)"; }

// The reader of a fixture, loaded by its constructor or by Load, and whether it found a resource (Load's
// answer, or a fixed record).
struct by_constructor {};
struct by_load {};
template <class How> std::pair<qv::version_info, bool> Read(const wchar_t* name) {
    if constexpr (std::is_same_v<How, by_constructor>) {
        qv::version_info info(Version(name));
        return {info, info.dwSignature == VS_FFI_SIGNATURE};
    } else {
        qv::version_info info;
        const bool loaded = info.Load(Version(name));
        return {info, loaded};
    }
}
std::vector<DWORD> Translations(const qv::version_info& info) { return info.m_translations; }

template <class How> class VersionInfo : public ::testing::Test {};
using Infos = ::testing::Types<by_constructor, by_load>;
TYPED_TEST_SUITE(VersionInfo, Infos);

TYPED_TEST(VersionInfo, FixedRecordTranslationsAndStrings) {
    const std::vector<DWORD> us{0x04B00409, 0x04E40407}, german{0x04E40407, 0x04B00409};
    const struct { const wchar_t* file; DWORD ms, ls; std::vector<DWORD> translations; } files[] = {
        {L"translations.dll", 0x10002, 0x30004, us}, {L"translations32.dll", 0x10002, 0x30004, us},
        {L"translations_reversed.dll", 0x10002, 0x30004, german}, {L"no_translation.dll", 0x90008, 0x70006, {}},
        {L"no_version.dll", 0, 0, {}}, {L"not_an_image.dll", 0, 0, {}}};
    for (const auto& f : files) {
        const auto [info, loaded] = Read<TypeParam>(f.file);
        EXPECT_EQ(std::tuple(loaded, info.dwFileVersionMS, info.dwFileVersionLS, Translations(info)),
                  std::tuple(f.ms != 0, f.ms, f.ls, f.translations)) << narrow(f.file);
    }
    // Each language of the list is paired with the code page of the FIRST entry, in list order.
    const wchar_t *us1 = L"translations.dll", *de1 = L"translations_reversed.dll", *bare = L"no_translation.dll";
    const struct { const wchar_t* file; const char* name; const wchar_t* expected; } lookups[] = {
        {us1, "fileDESCRIPTION", L"Version fixture (040904B0)"}, {us1, "Shared", L"from 040904B0"},
        {us1, "GermanUnicodeOnly", L"only under 040704B0"}, {us1, "GermanAnsiOnly", nullptr},
        {us1, "OLESelfRegister", L""}, {us1, "\\StringFileInfo\\040704E4\\GermanAnsiOnly", L"only under 040704E4"},
        {de1, "UsAnsiOnly", L"only under 040904E4"}, {de1, "FileDescription", nullptr},
        {bare, "FileDescription", nullptr}, {bare, "\\StringFileInfo\\040904B0\\FileDescription", L"no translation list"},
        {L"no_version.dll", "FileDescription", nullptr}};
    for (const auto& c : lookups)
        EXPECT_EQ(Text(Read<TypeParam>(c.file).first.GetString(c.name)), Text(c.expected)) << narrow(c.file) << c.name;
}

TYPED_TEST(VersionInfo, CopiesShareTheBlockAndOutliveTheOriginal) {
    auto original = std::make_unique<qv::version_info>(Read<TypeParam>(L"translations.dll").first);
    qv::version_info copy(*original), assigned = Read<TypeParam>(L"no_version.dll").first;
    assigned = *original;
    EXPECT_EQ(assigned.GetString("Shared"), original->GetString("Shared")); // the very same block
    original.reset();
    // Fresh blocks of the same size, scribbled over, take the place of a block freed too early.
    DWORD handle = 0, size = GetFileVersionInfoSizeW(Version(L"translations.dll").c_str(), &handle);
    std::vector<std::unique_ptr<BYTE[]>> scribbles;
    for (int i = 0; i < 16; ++i)
        FillMemory(scribbles.emplace_back(new BYTE[size]).get(), size, 0x5A);
    EXPECT_EQ(Text(copy.GetString("GermanUnicodeOnly")), L"only under 040704B0");
    EXPECT_EQ(Text(assigned.GetString("GermanUnicodeOnly")), L"only under 040704B0");
}


TEST(VersionText, FixturesSelfRegistrationAndWineDlls) {
    EXPECT_EQ(qv::GetFileVersionText(Version(L"translations.dll"), L", "), L"1, 2, 3, 4");
    EXPECT_TRUE(qv::IsOleSelfRegister(Version(L"translations.dll")));           // an empty value, but there
    EXPECT_FALSE(qv::IsOleSelfRegister(Version(L"translations_reversed.dll"))); // its block is not tried
    const auto lines = split_lines(widen(read_file(Version(L"system_versions.txt")))); // windres's "name=a.b.c.d"
    EXPECT_EQ(lines.size(), 5u);
    for (const wstring& line : lines) {
        const wstring name = line.substr(0, line.find(L'=')), path = qv::SystemFolder() + name;
        EXPECT_EQ(qv::GetFileVersionText(path, L"."), line.substr(name.size() + 1));
        EXPECT_EQ(lower(Text(qv::version_info(path).GetString("OriginalFilename"))), lower(name));
    }
}

// Ends every tree.exe and pstores.exe still running, so that no test leaves a process behind; their count.
int EndLeftProcesses() {
    int ended = 0;
    for (const auto& [id, entry] : qv::detail::ReadProcessTree(false)) {
        if (lower(entry.name) != L"tree.exe" && lower(entry.name) != L"pstores.exe")
            continue;
        const qv::unique_handle process(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id));
        ended += process && TerminateProcess(process.get(), 99) &&
                 WaitForSingleObject(process.get(), 5000) == WAIT_OBJECT_0;
    }
    return ended;
}

TEST(Launcher, SetupProgramsTheirChildrenGrandchildrenAndTimeOuts) {
    temp_dir dir;
    // host.exe under names of their own, apart from the dynamic scan's tests that may run meanwhile.
    const wstring spawn = dir.copy(fixture(L"trace\\host.exe"), L"tree.exe") + L" spawn",
                  pstores = dir.copy(fixture(L"trace\\host.exe"), L"pstores.exe") + L" spawn";
    // (command line, flags, time-out) -> result, exit code kept, processes left running.
    const struct { wstring line; DWORD flags, timeout; int result; DWORD code; int left; } rows[] = {
        {spawn + L" 0 1 " + spawn + L" 600 7", 2, INFINITE, 0, 7, 0},                      // the child's code
        {spawn + L" 0 1 " + spawn + L" 0 2 " + spawn + L" 3000 3", 2, INFINITE, 0, 2, 1}, // not the grandchild
        {spawn + L" 0 1 " + pstores + L" 3000 4", 2, INFINITE, 0, 1, 1},                  // pstores.exe never
        {spawn + L" 3000 5", 1, 100, -3, 1, 1}, {L"", 2, INFINITE, -1, 1, 0}};
    for (const auto& r : rows) {
        EXPECT_EQ(qv::LaunchAndWait(L"", r.line, L"", r.flags, r.timeout, SW_SHOWNORMAL, 0, L"open"), r.result) << narrow(r.line);
        if (r.result != -1 && r.flags) {
            EXPECT_EQ(qv::LastLaunch().exitCode, r.code) << narrow(r.line);
        }
        EXPECT_EQ(EndLeftProcesses(), r.left) << narrow(r.line);
    }
    // A child older than its parent (an ID used again) is no child; a circle of parents ends the climb.
    const DWORD self = GetCurrentProcessId();
    ASSERT_EQ(qv::LaunchAndWait(L"", spawn + L" 3000 0", L"", 0, 0, SW_HIDE, 0, L"open"), 0);
    const DWORD young = qv::LastLaunch().process.dwProcessId;
    using tree = std::map<DWORD, qv::detail::process_entry>;
    EXPECT_EQ(qv::detail::FindChild(young, 2, tree{{self, {young, L"old.exe"}}}), 0u);
    const DWORD up = young + 100000, upper = young + 100001; // parents met after young in the walk
    EXPECT_EQ(qv::detail::FindChild(self, 4, tree{{young, {up, L"x.exe"}}, {up, {upper, L""}}, {upper, {up, L""}}}), 0u);
    EXPECT_EQ(qv::detail::FindChild(self, 4, tree{{young, {up, L"x.exe"}}, {up, {self, L""}}}), young); // a descendant
    EXPECT_EQ(qv::detail::FindChild(self, 2, tree{{young, {up, L"x.exe"}}, {up, {self, L""}}}), up);
    EXPECT_EQ(qv::detail::FindChild(self, 2, tree{{young, {self, L"c:\\Pstores.EXE"}}}), 0u);
    EXPECT_EQ(qv::detail::ReadProcessTree(true).at(young).parent, self); // the fallback reading agrees
    EXPECT_EQ(qv::detail::ReadProcessTree(false).at(young).parent, self);
    EXPECT_EQ(EndLeftProcesses(), 1);
}

} // namespace

// A folder's listing: taken as it was for the rest of a scan round, listed again in a later round only when the
// folder's write time moved (an entry added, removed or renamed) or was too recent to trust.
TEST(FolderListing, HeldWithinARoundAndWhileTheFolderIsUnchanged) {
    temp_dir tmp;
    const std::wstring dir = tmp.mkdir(L"listed");
    tmp.write(L"listed\\a.dll", "a");
    tmp.mkdir(L"listed\\sub");
    auto age = [&] { // an old write time: a listing of it may be trusted in a later round
        qv::unique_hfile folder(CreateFileW(dir.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                            nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
        FILETIME old{0, 30000000};
        ASSERT_TRUE(SetFileTime(folder.get(), nullptr, nullptr, &old));
    };
    auto names = [](const auto& listing) {
        std::map<std::wstring, bool> got;
        for (const qv::folder_entry& e : *listing)
            got[lower(e.name)] = e.folder;
        return got;
    };
    age();
    std::shared_ptr<const qv::folder_listing> first;
    {
        const qv::scan_round round;
        first = qv::ListFolder(dir);
        ASSERT_TRUE(first);
        EXPECT_EQ(names(first), (std::map<std::wstring, bool>{{L"a.dll", false}, {L"sub", true}}));
        tmp.write(L"listed\\b.dll", "b");
        EXPECT_EQ(qv::ListFolder(dir), first) << "within the round the folder stays as first seen";
    }
    age(); // the write time as it was when listed: nothing tells the next round of b.dll
    {
        const qv::scan_round round;
        EXPECT_EQ(qv::ListFolder(dir), first) << "an unchanged folder is not listed again";
    }
    ASSERT_TRUE(DeleteFileW((dir + L"\\a.dll").c_str())); // the folder's time moves
    {
        const qv::scan_round round;
        const auto now = qv::ListFolder(dir);
        EXPECT_EQ(names(now), (std::map<std::wstring, bool>{{L"b.dll", false}, {L"sub", true}}));
        tmp.write(L"listed\\c.dll", "c"); // written now: too recent to trust, listed again by the next round
    }
    {
        const qv::scan_round outer;
        const qv::scan_round inner; // joins the outer round
        EXPECT_EQ(names(qv::ListFolder(dir)).count(L"c.dll"), 1u);
    }
    EXPECT_FALSE(qv::ListFolder(tmp / L"absent"));
    EXPECT_FALSE(qv::ListFolder(dir + L"\\*"));
}

// What the file system says of a path: the first answer of a round stands for the rest of it, found or not, under
// any case of the path; the next round, and every look outside a round, asks again.
TEST(RoundAttributes, FirstAnswerOfTheRoundStands) {
    temp_dir tmp;
    const std::wstring file = tmp.write(L"kept.dll", "four");
    const std::wstring later = tmp / L"later.dll";
    WIN32_FILE_ATTRIBUTE_DATA data{};
    {
        const qv::scan_round round;
        ASSERT_TRUE(qv::RoundAttributes(file, data));
        EXPECT_EQ(data.nFileSizeLow, 4u);
        EXPECT_EQ(qv::RoundFileAttributes(later), INVALID_FILE_ATTRIBUTES);
        tmp.write(L"kept.dll", "longer");
        tmp.write(L"later.dll", "x");
        std::wstring shouted = file;
        CharUpperBuffW(shouted.data(), static_cast<DWORD>(shouted.size()));
        ASSERT_TRUE(qv::RoundAttributes(shouted, data));
        EXPECT_EQ(data.nFileSizeLow, 4u) << "the size as first seen in the round";
        SetLastError(0xdeadbeef);
        EXPECT_FALSE(qv::RoundAttributes(later, data)) << "missing at the first look: missing for the round";
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    }
    {
        const qv::scan_round round;
        ASSERT_TRUE(qv::RoundAttributes(file, data));
        EXPECT_EQ(data.nFileSizeLow, 6u);
        EXPECT_NE(qv::RoundFileAttributes(later), INVALID_FILE_ATTRIBUTES);
    }
    {
        const qv::scan_round round; // a relative path is the file it names at each look
        const std::wstring other = tmp.mkdir(L"other");
        const qv::scope_exit back([saved = qv::CurrentDirectory()] { SetCurrentDirectoryW(saved.c_str()); });
        ASSERT_TRUE(SetCurrentDirectoryW(tmp.path().c_str()));
        EXPECT_NE(qv::RoundFileAttributes(L"later.dll"), INVALID_FILE_ATTRIBUTES);
        ASSERT_TRUE(SetCurrentDirectoryW(other.c_str()));
        EXPECT_EQ(qv::RoundFileAttributes(L"later.dll"), INVALID_FILE_ATTRIBUTES);
    }
    ASSERT_TRUE(DeleteFileW(later.c_str()));
    EXPECT_EQ(qv::RoundFileAttributes(later), INVALID_FILE_ATTRIBUTES) << "outside a round every look asks";
    EXPECT_FALSE(qv::RoundAttributes(tmp / L"no\\such\\folder.dll", data));
}
