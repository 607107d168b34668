// The machine probes, the version readers, the project traits with QVObjMgr.DLL, QvAppServices.dll reached as the
// library reaches it, the filter over filters.xml in the folder it names, and the sibling search, run in children.
#include "companions.h"
#include "dynamic/debug_engine.h"
#include "filter/qvwi_filter.h"
#include "filter/vb_filter.h"
#include "image_writer.h"
#include "inc/com_error.h"
#include "record/dep_file.h"
#include "recording_sink.h"
#include "siblings/sibling_module_cache.h"
#include "static/dep_walker.h"
#include "test_support.h"
#include "toolkit/inifilex.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"
#include "toolkit/process_launcher.h"
#include "toolkit/qvmapfilex.h"
#include "toolkit/version_info.h"
#include "toolkit/xml_loader.h"
#include "traits/project_traits.h"
#include "traits/settings_document.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <regex>

using namespace qv::test;
using std::wstring;
using lines = std::vector<wstring>;

namespace {

constexpr unsigned F = qv::path_accept_file, D = qv::path_accept_folder, T = qv::path_throw_errors;

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

TEST(Probes, ProcessorFoldersAndRedirection) {
    SYSTEM_INFO info;
    GetNativeSystemInfo(&info);
    EXPECT_EQ(qv::IsAmd64(), info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64);
    EXPECT_EQ(qv::IsItanium(), info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_IA64);
    EXPECT_TRUE(qv::Is64BitOs() && !qv::IsWow64()); // an x64 program runs on nothing else
    EXPECT_EQ(lower(qv::SystemFolder()), lower(system_dir() + L"\\"));
    EXPECT_EQ(lower(qv::SystemFolder()), lower(qv::WindowsFolder() + L"system32\\"));
    EXPECT_EQ(qv::SysWow64Folder(), qv::WindowsFolder() + L"syswow64\\");
    EXPECT_EQ(qv::SysNativeFolder(), L"");
    // Under WOW64 the SharedDlls entry of a 64-bit image lives in the registry's 64-bit view.
    using qv::dep_file_detail::SharedDllsAccess;
    EXPECT_EQ(SharedDllsAccess(true, IMAGE_FILE_MACHINE_AMD64), KEY_READ | KEY_WOW64_64KEY);
    EXPECT_EQ(SharedDllsAccess(true, IMAGE_FILE_MACHINE_I386) | SharedDllsAccess(false, IMAGE_FILE_MACHINE_IA64), KEY_READ);

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

// An x64 program importing name; of size bytes (sparse past the image) when a size is given.
wstring program(const temp_dir& dir, const wstring& file, const std::string& name, ULONGLONG size = 0) {
    const wstring path = dir.write(file, qv::test::image_writer().dll(false).import(name).build().str());
    HANDLE h = size ? CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr) : nullptr;
    const LARGE_INTEGER at{{static_cast<DWORD>(size), static_cast<LONG>(size >> 32)}};
    EXPECT_TRUE(!h || (SetFilePointerEx(h, at, nullptr, FILE_BEGIN) && SetEndOfFile(h) && CloseHandle(h)));
    return path;
}

TEST(Walker, DeepChainsClimbingNamesLongFoldersAndHugeFiles) {
    // 5,000 DLLs, each importing the next, come back in the order of a short chain: the deepest first.
    temp_dir dir;
    constexpr int depth = 5000;
    auto link = [](int i) { return "c" + std::to_string(i) + ".dll"; };
    for (int i = 0; i < depth; ++i)
        dir.write(widen(link(i)), (i + 1 < depth ? qv::test::image_writer().import(link(i + 1)) : qv::test::image_writer()).build().str());
    // Names that climb or use forward slashes, a folder far past 260 characters, files of about 4 GiB.
    const wstring deep = wstring(120, L'd') + L"\\" + wstring(120, L'e'), last = widen(link(depth - 1));
    dir.write(L"up\\x_up.dll", ""), dir.write(L"up\\app\\sub\\y.dll", ""), dir.write(deep + L"\\z.dll", "");
    const std::pair<wstring, wstring> rows[] = { // the program, and where its one import is found
        {program(dir, L"chain.exe", link(0)), dir / widen(link(0))}, {program(dir, L"up\\app\\a.exe", "../x_up.dll"), dir / L"up\\x_up.dll"},
        {program(dir, L"up\\app\\b.exe", "..\\app\\sub/y.dll"), dir / L"up\\app\\sub\\y.dll"},
        {program(dir, deep + L"\\c.exe", "z.dll"), dir / deep + L"\\z.dll"}, {program(dir, L"4g.exe", link(depth - 1), 1ull << 32), dir / last}};
    for (const auto& [top, found] : rows) {
        recording_sink sink;
        CDepWalker walker;
        walker.Scan(top, &sink, nullptr, L"", 0);
        const auto record = walker.FoundFiles.find(qv::bstr(qv::FileNamePart(found)));
        ASSERT_NE(record, walker.FoundFiles.end()) << narrow(top);
        EXPECT_EQ(lower(record->second.FullPath), lower(found)) << narrow(top);
        EXPECT_TRUE(walker.MissingFiles.empty()) << narrow(top);
        for (size_t i = 0; &top == &rows[0].first && i < depth; ++i)
            ASSERT_EQ(lower(sink.found.at(i)), lower(dir / widen(link(depth - 1 - static_cast<int>(i))))) << i;
    }
}

TEST(Walker, DepFilesTheirLanguageSectionsCirclesAndLongChains) {
    temp_dir dir;
    for (const wchar_t* name : {L"a.dll", L"b.dll", L"c.dll", L"enu.dll", L"noext"})
        dir.write(name, qv::test::image_writer().build().str());
    dir.write(L"comp.ocx", qv::test::image_writer().import("a.dll").build().str());
    dir.write(L"loop.ocx", qv::test::image_writer().build().str()), dir.write(L"chain.ocx", qv::test::image_writer().build().str());
    // Uses2 empty is passed over, Uses4 missing ends the list; a bare name not found names a section of its own.
    dir.write(L"comp.dep", "[comp.ocx]\r\nUses1=b.dll\r\nUses2=\r\nUses3=c.dll\r\nUses5=a.dll\r\n[comp.ocx <0409>]\r\n"
                           "Uses1=enu.dll\r\n[comp.ocx <>]\r\nUses1=nolang.dll\r\n[nolang.dll]\r\nUses1=deeper.dll\r\n");
    dir.write(L"loop.dep", "[loop.ocx]\nUses1=x.dll\n[X.DLL]\nUses1=y.dll\n[y.dll]\nUses1=x.dll\n");
    dir.write(L"noext.dep", "[noext]\nUses1=b.dll\n"); // a file without an extension has no .dep file
    std::string chain = "[chain.ocx]\nUses1=n0\n"; // 10,000 sections, each naming the next
    for (int i = 0; i < 10000; ++i)
        chain += "[n" + std::to_string(i) + "]\nUses1=n" + std::to_string(i + 1) + "\n";
    dir.write(L"chain.dep", chain);
    // (top, language) -> records as name:folder ("" when missing), the import events, the errors.
    const struct { const wchar_t *top, *lang; lines records; size_t events, errors; } rows[] = {
        {L"comp.ocx", L"0409", {L"a.dll:d", L"b.dll:d", L"c.dll:d", L"enu.dll:d"}, 1, 0},
        {L"comp.ocx", L"", {L"a.dll:d", L"b.dll:d", L"c.dll:d", L"deeper.dll:", L"nolang.dll:"}, 1, 0},
        {L"loop.ocx", L"", {L"x.dll:", L"y.dll:"}, 0, 1}, {L"noext", L"", {}, 0, 0}, {L"chain.ocx", L"", {}, 0, 0}};
    for (const auto& r : rows) {
        recording_sink sink;
        CDepWalker walker;
        walker.Scan(dir / r.top, &sink, nullptr, r.lang, 0);
        lines got;
        for (const auto& [key, record] : walker.FoundFiles)
            got.push_back(key.str() + L":" + (qv::DirectoryPart(record.FullPath).empty() ? L"" : L"d"));
        if (r.top == wstring(L"chain.ocx"))
            EXPECT_EQ(got.size(), 10001u); // n0 to n10000, each missing
        else
            EXPECT_EQ(got, r.records) << narrow(r.top);
        EXPECT_TRUE(sink.found.size() == r.events && sink.errors.size() == r.errors && walker.MissingFiles.empty()) << narrow(r.top);
    }
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

TEST(ProjectType, FromTheVariableElseTheRegistry) {
    env_scope unset(L"QV_ACTIVE_PROJECT_TYPE", nullptr);
    registry_override user(HKEY_CURRENT_USER);
    EXPECT_EQ(GetActiveProjectType(), 0);
    const ULONGLONG one = 1; // a REG_DWORD's 4 bytes, or a REG_QWORD's 8
    const struct { DWORD type; const void* data; DWORD size; const wchar_t* variable; int expected; } rows[] = {
        {REG_DWORD, &one, 4, nullptr, 1}, {REG_SZ, L"1", 4, nullptr, 0}, {REG_QWORD, &one, 8, nullptr, 0},
        {REG_DWORD, &one, 4, L"0", 0}, {REG_DWORD, &one, 4, L"5", 0}, {REG_SZ, L"1", 4, L" 1 ", 1}, {REG_SZ, L"1", 4, L"+01", 1},
        {REG_SZ, L"1", 4, L"1x", 0}, {REG_SZ, L"1", 4, L"4294967297", 0}, {REG_DWORD, &one, 4, L"", 1}}; // "": unset
    for (const auto& r : rows) {
        registry_override::set_value(HKEY_CURRENT_USER, L"Software\\QVWI\\QVObjMgr", L"ActiveProjectType", r.type,
                                     r.data, r.size);
        env_scope variable(L"QV_ACTIVE_PROJECT_TYPE", r.variable);
        EXPECT_EQ(GetActiveProjectType(), r.expected) << "row " << &r - rows;
    }
    CProjectTraitsManager& manager = CProjectTraitsManager::Instance();
    ASSERT_EQ(manager.m_traits.size(), 2u); // both kinds, and the current one follows every change
    for (auto [variable, kind, system] : {std::tuple{L"0", 2, L"[SystemFolder]"}, {L"1", 4, L"<WINSYSDIR>"},
                                          {L"", 4, L"<WINSYSDIR>"}}) { // "": the registry's 1
        env_scope set(L"QV_ACTIVE_PROJECT_TYPE", variable);
        EXPECT_EQ(std::pair(manager.Current().KindNumber(), qv::traits::SystemFolderToken()), std::pair(kind, wstring(system)));
    }
    const ProjectTraits &msi = *manager.m_traits[0], &pro = *manager.m_traits[1]; // words compare exactly
    EXPECT_TRUE(msi.KnowsPredefinedFolder(L"SystemFolder") && !pro.KnowsPredefinedFolder(L"SystemFolder"));
    EXPECT_TRUE(pro.KnowsPredefinedFolder(L"WINDIR") && !pro.KnowsPredefinedFolder(L"windir") &&
                msi.KnowsShortcutFolder(L"SendToFolder") && !pro.KnowsShortcutFolder(L"SendToFolder"));
}

constexpr wchar_t kChildFlag[] = L"--child", kCompanion[] = L"QvAppServices.dll";
const wstring kMissing = L"80040154"; // REGDB_E_CLASSNOTREG

wstring Hex(HRESULT hr) { wchar_t t[16]; return swprintf(t, 16, L"%08lX", static_cast<unsigned long>(hr)), t; }
template <class Fn> HRESULT Thrown(Fn&& fn) try { return fn(), S_OK; } catch (const com_exception& e) { return e.Error(); }
template <class T> T Export(const char* name) {
    return reinterpret_cast<T>(reinterpret_cast<void (*)()>(GetProcAddress(GetModuleHandleW(kCompanion), name)));
}

class Companion : public ::testing::Test { // an apartment, a support folder, and no object of the companion left
protected:
    void TearDown() override { EXPECT_EQ(CanUnloadNow(), S_OK) << "an object of the companion is alive"; }
    static HRESULT CanUnloadNow() { return Export<HRESULT(STDAPICALLTYPE*)()>("DllCanUnloadNow")(); }
    template <class T> qv::com_ptr<T> Create(REFCLSID clsid, REFIID iid) {
        qv::com_ptr<T> object;
        EXPECT_EQ(CoCreateFromLibrary(kCompanion, clsid, iid, object.put()), S_OK);
        return object;
    }
    com_apartment m_apartment;
    temp_dir m_support;
    env_scope m_supportDir{L"QV_SUPPORT_DIR", m_support.path().c_str()};
};

struct probe_filter : CQVWIFilter { using CQVWIFilter::Match; };

TEST_F(Companion, FilterListsAndTheirLoading) {
    m_support.write(L"filters.xml", R"(<Filters><Include><File name="both.dll"/><File name="keep.dll"/></Include>
  <Exclude><File name="both.dll"/><File name="foo.dll"/><File name="bar.ni.dll"/><File name="Upper.dll"/></Exclude>
</Filters>)");
    probe_filter filter;
    for (auto [name, filtering, inList] : {std::tuple{L"both.dll", true, false}, {L"keep.dll", true, false},
                                           {L"Foo.Dll", true, true}, {L"foo.dll", false, true}, {L"Upper.dll", true, false},
                                           {L"FOO.NI.DLL", true, true}, {L"both.ni.dll", true, false},
                                           {L"bar.ni.dll", true, true}, {L"foo.ni.dll.old", true, false}}) {
        filter.SetFiltering(filtering);
        bool listed = !inList, dropped = !inList;
        EXPECT_EQ(filter.Match(name, listed, dropped), inList) << narrow(name);
        EXPECT_EQ(std::tuple(listed, dropped, filter.Filter(name, listed)),
                  std::tuple(inList, inList && filtering, inList && filtering)) << narrow(name);
    }
    bool listed = true; // names go into the query unescaped: a double quote breaks it
    EXPECT_TRUE(FAILED(Thrown([&] { filter.Filter(L"a\"b.dll", listed); })) && !listed);
    const wstring start = L"cannot load " + m_support / L"filters.xml" + L": ";
    DeleteFileW((m_support / L"filters.xml").c_str()); // lists that cannot be loaded are thrown with the reason
    EXPECT_EQ(Thrown([&] { filter.SetFiltering(true); }), E_FAIL);
    EXPECT_EQ(qv::take_error_description(), start + L"the file does not exist");
    for (const char* text : {"", "kernel32.dll\n", "<Filters><Exclude/>", "<Filters/><Filters/>"}) {
        m_support.write(L"filters.xml", text);
        EXPECT_EQ(Thrown([&] { filter.SetFiltering(false); }), E_FAIL) << text;
        const wstring why = qv::take_error_description(), prefix = start + L"it is not a well-formed XML document (";
        const size_t end = why.rfind(L" at line ") == wstring::npos ? why.size() - 1 : why.rfind(L" at line ");
        ASSERT_TRUE(why.compare(0, prefix.size(), prefix) == 0 && end > prefix.size()) << narrow(why);
        EXPECT_TRUE(!iswspace(why[end - 1]) && why.back() == L')') << narrow(why); // the parser's reason, trimmed
    }
}


TEST_F(Companion, VbFilterChainsTheXmlListsVbSystemAndVb6dep) {
    m_support.write(L"filters.xml", R"(<Filters><Include><File name="both.dll"/></Include><Exclude><File name="x.dll"/>
                                       <File name="both.dll"/></Exclude></Filters>)");
    m_support.write(L"VBSystem.ini", "; the runtime\r\n[System]\r\nMSVBVM60.DLL\r\nboth.dll=\r\n=no name\r\n[Other]\r\nother.dll\r\n");
    registry_override classes(HKEY_CLASSES_ROOT);
    EXPECT_EQ(FindVbDir(), L""); // no .vbp association: the list is read from a relative path, and is empty
    temp_dir vb;
    vb.write(L"Wizards\\PDWizard\\Vb6dep.ini", "[Do Not Redistribute]\nDnr.dll=\n");
    const wstring progId = L"VisualBasic.Project\0", command = vb.path() + L"\\vb6.exe /make %1\0";
    registry_override::set_value(HKEY_CLASSES_ROOT, L".vbp", nullptr, REG_SZ, progId.data(), DWORD(progId.size() * 2));
    registry_override::set_value(HKEY_CLASSES_ROOT, L"VisualBasic.Project\\shell\\Make\\command", nullptr, REG_SZ,
                                 command.data(), DWORD(command.size() * 2));
    wstring upper = vb.path() + L"\\";
    CharUpperW(upper.data());
    EXPECT_EQ(FindVbDir(), upper);
    CQVWIVBFilter filter;
    for (bool filtering : {true, false}) {
        filter.SetFiltering(filtering);
        // An Include entry keeps a name off the Exclude list only; the ini lists take names in any case.
        for (auto [name, listed] : {std::pair{L"msvbvm60.dll", true}, {L"BOTH.DLL", true}, {L"x.dll", true},
                                    {L"dnr.DLL", true}, {L"other.dll", false}, {L"", false}, {L"no name", false}}) {
            bool inList = !listed;
            EXPECT_EQ(std::pair(filter.Filter(name, inList), inList), std::pair(listed && filtering, listed)) << narrow(name);
        }
    }
    DeleteFileW((m_support / L"VBSystem.ini").c_str()); // gone meanwhile: the names read before stay
    filter.SetFiltering(true);
    bool inList = false;
    EXPECT_TRUE(filter.Filter(L"MSVBVM60.dll", inList) && inList);
}

TEST_F(Companion, FilterShippedDataAndMsxmlVersions) {
    env_scope shipped(L"QV_SUPPORT_DIR", nullptr);
    CQVWIFilter filter;
    filter.SetFiltering(true);
    for (auto [name, dropped] : {std::pair{L"kernel32.dll", true}, {L"OLE32.DLL", true}, {L"kernel32.ni.dll", true},
                                 {L"api-ms-win-crt-runtime-l1-1-0.dll", true}, {L"msvcp140.dll", false}, {kCompanion, false}}) {
        bool inList = !dropped;
        EXPECT_EQ(std::pair(filter.Filter(name, inList), inList), std::pair(dropped, dropped)) << narrow(name);
    }
    CQVWIVBFilter vb; // the shipped VBSystem.ini holds the Visual Basic runtime
    vb.SetFiltering(true);
    bool inList = false;
    EXPECT_TRUE(vb.Filter(L"msvbvm60.dll", inList) && inList && !vb.Filter(L"msvcp140.dll", inList));
    // MSXML: the newest version the machine has, known by the name it registers; unknown classes passed over.
    auto classOf = [](std::span<const CLSID> classes) {
        qv::com_ptr<IPersistStreamInit> persist;
        CLSID clsid = {};
        detail::CreateXmlDocument(classes)->QueryInterface(IID_IPersistStreamInit, persist.put_void());
        return persist && SUCCEEDED(persist->GetClassID(&clsid)), clsid;
    };
    CLSID newest = {}, oldest = {};
    ASSERT_EQ(CLSIDFromProgID(L"Msxml2.DOMDocument.6.0", &newest) | CLSIDFromProgID(L"Msxml2.DOMDocument.3.0", &oldest), S_OK);
    EXPECT_EQ(classOf(kXmlDocumentClasses), newest);
    EXPECT_EQ(classOf(std::vector{CLSID_NULL, oldest, newest}), oldest);
    qv::com_ptr<IUnknown> object; // without a library name, CoCreateFromLibrary is plain CoCreateInstance
    EXPECT_EQ(CoCreateFromLibrary(L"", newest, IID_IUnknown, object.put()), S_OK);
    EXPECT_EQ(CoCreateFromLibrary(L"", CLSID_NULL, IID_IUnknown, object.put()), REGDB_E_CLASSNOTREG);
}

TEST_F(Companion, ServicesStrongNameAndResultGroups) {
    env_scope support(L"QV_SUPPORT_DIR", nullptr);
    auto services = Create<IQvAppServices>(CLSID_QvAppServices, IID_IQvAppServices);
    auto strong = Create<IQvStrongNameServices>(CLSID_QvAppServices, IID_IQvStrongNameServices);
    auto answers = [&] {
        qv::bstr a[4];
        EXPECT_EQ(services->GetSupportFolder(a[0].put()) | services->GetProgramsFolder(a[1].put()) |
                      services->GetPath(8, a[2].put()) | strong->GetStrongNameLibrary(a[3].put()), S_OK);
        return std::vector<wstring>{lower(a[0].str()), lower(a[1].str()), lower(a[2].str()), lower(a[3].str())};
    };
    const wstring here = lower(module_dir());
    const std::vector<wstring> defaults{here + L"\\support", here, here + L"\\qvsettings.xml", here + L"\\qvappservices.dll"};
    EXPECT_EQ(answers(), defaults);
    const wchar_t* variables[] = {L"QV_SUPPORT_DIR", L"QV_PROGRAMS_DIR", L"QV_SETTINGS_PATH", L"QV_STRONGNAME_LIBRARY"};
    for (size_t i = 0; i < 4; ++i) {
        env_scope set(variables[i], L"D:\\Tool Data\\x");
        std::vector<wstring> expected = defaults;
        expected[i] = L"d:\\tool data\\x";
        EXPECT_EQ(answers(), expected) << narrow(variables[i]);
        env_scope empty(variables[i], L""); // an empty variable does not count
        EXPECT_EQ(answers(), defaults) << narrow(variables[i]);
    }
    auto token = Export<BOOLEAN(__stdcall*)(BYTE*, ULONG, BYTE**, ULONG*)>("StrongNameTokenFromPublicKey");
    auto release = Export<void(__stdcall*)(BYTE*)>("StrongNameFreeBuffer");
    auto tokenOf = [&](std::string blob) {
        BYTE* out = nullptr;
        ULONG size = 0;
        std::string hex = token(reinterpret_cast<BYTE*>(blob.data()), ULONG(blob.size()), &out, &size) ? "" : "no";
        for (ULONG i = 0; i < size; ++i)
            hex += "0123456789abcdef"[out[i] >> 4], hex += "0123456789abcdef"[out[i] & 15];
        return release(out), hex;
    };
    const std::string key = read_file(fixture(L"appservices\\public_key.bin"));
    EXPECT_EQ(tokenOf(key), read_file(fixture(L"appservices\\public_key.token")).substr(0, 16));
    EXPECT_EQ(tokenOf(std::string("\0\0\0\0\0\0\0\0\4\0\0\0\0\0\0\0", 16)), "b77a5c561934e089"); // the published one
    EXPECT_EQ(tokenOf(key.substr(0, 159)), "no");


    auto group = Create<IQvDepFileGroup>(CLSID_QvDepFileGroup, IID_IQvDepFileGroup);
    auto groups = Create<IQvDepFileGroups>(CLSID_QvDepFileGroups, IID_IQvDepFileGroups);
    auto files = reinterpret_cast<IDepFiles*>(services.get()); // a group only holds its files and hands them back
    // The server calls Init by its slot, the seventh method after IUnknown's, and Add, the fourth.
    void* init = (*reinterpret_cast<void***>(group.get()))[3 + 6];
    void* add = (*reinterpret_cast<void***>(groups.get()))[3 + 3];
    qv::bstr name(L"C:\\app\\Project1.vbp");
    EXPECT_EQ(reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(void*, IDepFiles*, BSTR)>(init)(group.get(), files, name.get()) |
              reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(void*, void*)>(add)(groups.get(), group.get()), S_OK);
    group.reset();
    EXPECT_EQ(CanUnloadNow(), S_FALSE);
    long count = 0;
    qv::com_ptr<IQvDepFileGroup> item;
    qv::com_ptr<IDepFiles> back;
    ASSERT_EQ(groups->get_Count(&count) | groups->get_Item(1, item.put()), S_OK);
    EXPECT_EQ(item->get_Name(name.put()) | item->get_Files(back.put()), S_OK);
    EXPECT_EQ(std::tuple(count, name.str(), back.get()), std::tuple(1L, wstring(L"C:\\app\\Project1.vbp"), files));
}


// One output line (into the file args[0]) per command: "commonfiles|<folder>" (in the most bytes read), "get|<name>"
// (<hr> <its programs folder>), "filter" (<hr>), "folders" (<entry> lines, then whether kept after a change of Path),
// "exclusions|<settings text>" (the text made the settings document; <hr> and the exclusion set as <entry>s).
int RunChild(const std::vector<wstring>& args) {
    wstring out;
    com_apartment apartment;
    registry_override machine(HKEY_LOCAL_MACHINE);
    for (size_t i = 1; i < args.size(); ++i) {
        const wstring verb = args[i].substr(0, args[i].find(L'|')), name = args[i].substr(verb.size() + (verb != args[i]));
        qv::com_ptr<IQvAppServices> services;
        qv::bstr folder;
        HRESULT hr = verb == L"filter" ? Thrown([] { CQVWIFilter().SetFiltering(false); }) : S_OK;
        if (verb == L"commonfiles")
            registry_override::set_value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion",
                                         L"CommonFilesDir", REG_SZ, (name + wstring(MAX_PATH, L'\0')).data(), MAX_PATH * 2);
        if (verb == L"get" && SUCCEEDED(hr = CoCreateFromLibrary(name, CLSID_QvAppServices, IID_IQvAppServices, services.put())))
            hr = services->GetProgramsFolder(folder.put());
        if (verb == L"exclusions") {
            const wstring settings = qv::DirectoryPart(args[0]) + L"\\settings" + std::to_wstring(i) + L".xml";
            std::FILE* f = _wfopen(settings.c_str(), L"wb");
            const std::string text = narrow(name);
            fwrite(text.data(), 1, text.size(), f), fclose(f);
            SetEnvironmentVariableW(L"QV_SETTINGS_PATH", settings.c_str());
            out += Hex(Thrown([] { qv::LoadExclusionList(); }));
            for (const wstring& entry : qv::ExclusionList())
                out += L" <" + entry + L">";
            out += L"\n";
        } else if (verb == L"folders") {
            const std::vector<wstring> first = qv::GetSearchFolders();
            for (const wstring& entry : first)
                out += L"<" + entry + L">\n";
            SetEnvironmentVariableW(L"Path", L"changed;later");
            out += qv::GetSearchFolders() == first ? L"kept\n" : L"changed\n";
        } else
            out += Hex(hr) + (folder.str().empty() ? L"" : L" " + folder.str()) + L"\n";
    }
    const std::string bytes = narrow(out);
    FILE* file = args.empty() ? nullptr : _wfopen(args[0].c_str(), L"wb");
    return file && fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() && fclose(file) == 0 ? 0 : 3;
}

// Runs the commands in a child with the companion in the folders given; compares its lines without regard to case.
void ExpectChild(const lines& companions, const lines& commands, const lines& expected) {
    temp_dir dir;
    for (const wchar_t* file : {L"toolkit_tests.exe", L"QVObjMgr.DLL"})
        dir.copy(module_dir() + L"\\" + file, L"root\\one\\two\\app\\" + wstring(file));
    for (const wstring& to : companions) // a folder for QvAppServices.dll, or a file name of its own
        dir.copy(module_dir() + L"\\" + kCompanion, to.substr(4) + (to.ends_with(L".dll") ? L"" : wstring(L"\\") + kCompanion));
    wstring line = wstring(kChildFlag) + L" \"" + (dir / L"out.txt") + L"\"";
    for (const wstring& command : commands)
        line += L" \"" + std::regex_replace(command, std::wregex(L"\\{T\\}"), dir.path()) + L"\"";
    ASSERT_EQ(run_child(dir / L"root\\one\\two\\app\\toolkit_tests.exe", line, dir.path()), std::optional<DWORD>(0));
    wstring want;
    for (const wstring& text : expected)
        want += text + L"\n";
    EXPECT_EQ(lower(widen(read_file(dir / L"out.txt"))), lower(std::regex_replace(want, std::wregex(L"\\{T\\}"), dir.path())));
}

TEST(SectionLoader, SectionsAndEntriesByNameAndNumberThroughTheInterface) {
    com_apartment apartment;
    temp_dir dir;
    const wstring good = dir.write(L"comp.dep", "[comp.ocx]\r\nUses1=a.dll\r\nUses2=\r\n[comp.ocx <0409>]\r\nUses1=enu.dll\r\n");
    const wstring cut = dir.write(L"cut.dep", "[s]\nk=v\n[t\nj=w"), absent = dir / L"absent.dep";
    auto text = [](auto* object, HRESULT (STDMETHODCALLTYPE std::remove_pointer_t<decltype(object)>::*get)(BSTR*)) {
        qv::bstr out;
        return object && SUCCEEDED((object->*get)(out.put())) ? out.str() : L"(none)";
    };
    auto by = [](auto index) {
        VARIANT v;
        if constexpr (std::is_integral_v<decltype(index)>)
            V_VT(&v) = VT_I4, V_I4(&v) = index;
        else
            V_VT(&v) = VT_BSTR, V_BSTR(&v) = SysAllocString(index);
        return v;
    };
    {
        qv::com_ptr<IQvSectionLoader> loader;
        ASSERT_EQ(CoCreateFromLibrary(L"SectionLoader.dll", CLSID_QvSectionLoader, IID_IQvSectionLoader, loader.put()), S_OK);
        qv::com_ptr<IQvSections> root;
        qv::com_ptr<IQvSection> section, none;
        qv::com_ptr<IQvEntries> entries;
        qv::com_ptr<IQvEntry> first, second, missing;
        long sections = 0, count = 0;
        VARIANT name = by(L"COMP.OCX <0409>"), other = by(L"comp.dll"), bad = by(0);
        V_VT(&bad) = VT_UNKNOWN; // not a name nor a number
        ASSERT_EQ(loader->Load(qv::bstr(good).get()), S_OK);
        ASSERT_EQ(loader->get_Root(root.put()), S_OK);
        EXPECT_TRUE(root->get_Count(&sections) == S_OK && sections == 2);
        EXPECT_TRUE(root->Item(name, section.put()) == S_OK && root->Item(other, none.put()) == S_OK && !none);
        EXPECT_EQ(root->Item(bad, none.put()), E_INVALIDARG);
        EXPECT_EQ(text(section.get(), &IQvSection::get_Name), L"comp.ocx <0409>");
        ASSERT_TRUE(root->Item(by(1), section.put()) == S_OK && section->get_Entries(entries.put()) == S_OK);
        EXPECT_TRUE(entries->get_Count(&count) == S_OK && count == 2);
        VARIANT key = by(L"uses2");
        EXPECT_TRUE(entries->Item(by(1), first.put()) == S_OK && entries->Item(key, second.put()) == S_OK);
        EXPECT_TRUE(entries->Item(by(3), missing.put()) == S_OK && !missing);
        EXPECT_EQ(text(first.get(), &IQvEntry::get_Name) + L"=" + text(first.get(), &IQvEntry::get_Value), L"Uses1=a.dll");
        EXPECT_EQ(text(second.get(), &IQvEntry::get_Name) + L"=" + text(second.get(), &IQvEntry::get_Value), L"Uses2=");
        // A bad line ends the read: what came before stands, and the loader says what and where.
        EXPECT_EQ(loader->Load(qv::bstr(cut).get()), S_FALSE);
        EXPECT_EQ(text(loader.get(), &IQvSectionLoader::get_Problem), L"line 3: a section header without ']'");
        EXPECT_EQ(loader->Load(qv::bstr(absent).get()), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
        for (VARIANT* v : {&name, &other, &key})
            VariantClear(v);
    }
    using can_unload = HRESULT(STDAPICALLTYPE*)();
    EXPECT_EQ(reinterpret_cast<can_unload>(reinterpret_cast<void (*)()>(
                  GetProcAddress(GetModuleHandleW(L"SectionLoader.dll"), "DllCanUnloadNow")))(), S_OK);
}

// Ends every tree.exe and pstores.exe still running, so that no test leaves a process behind; their count.
int EndLeftProcesses() {
    int ended = 0;
    for (const auto& [id, entry] : qv::detail::ReadProcessTree(false)) {
        if (lower(entry.name) != L"tree.exe" && lower(entry.name) != L"pstores.exe")
            continue;
        HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id);
        ended += process && TerminateProcess(process, 99) && WaitForSingleObject(process, 5000) == WAIT_OBJECT_0;
        CloseHandle(process);
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

// The engine's wire end to end (launch, events, children, the end, its exit with the last client) is
// exercised through the dynamic scanner in server_test; here the choices made before any engine runs.
TEST(Engine, ChosenByTheMachineJoinedWithOneBackslashAndNeverMappedInA64BitHost) {
    bool use64 = false;
    for (auto [folder, path] : {std::pair{L"", L"TraceHost64.exe"}, {L"C:\\a b\\", L"C:\\a b\\TraceHost64.exe"},
                                {L"C:\\a", L"C:\\a\\TraceHost64.exe"}})
        EXPECT_TRUE(ChooseEngine(folder, use64) == path && use64) << narrow(folder); // by the machine, never the target
    const wstring inSystem = system_dir() + L"\\x.dll";
    EXPECT_TRUE(CDebugEngineHelper::MapToEngine(inSystem) == inSystem && CDebugEngineHelper::MapFromEngine(inSystem) == inSystem);
    CDebugEngineHelper missing;
    EXPECT_EQ(missing.Connect(L"C:\\no\\TraceHost64.exe"), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(missing.Terminate(), E_POINTER);
}

TEST(Children, SearchFoldersOfTheirOwnPathExpandedAndKept) {
    env_scope qvx(L"QVX", L"C:\\qv x"), path(L"Path", L"a;;%QVX%;b;%QVX%\\bin;%QVX_UNSET%;");
    ExpectChild({}, {L"folders"}, {L"<a>", L"<>", L"<C:\\qv x>", L"<b>", L"<C:\\qv x\\bin>", L"<%QVX_UNSET%>", L"kept"});
    ExpectChild({}, {L"filter"}, {kMissing}); // the filter without the services library
}

// The exclusion list: lists add up, a text is kept once whatever its case, an entry without Path is the empty
// text; a failed read is tried again, a successful one never (the next document is not read).
TEST(Children, ExclusionListReadOnceFromTheSettingsDocument) {
    const wstring lists = L"<Halyard><Scanners><DotNetExclusionList><F Path='C:\\A'/><F Path='c:\\a'/><F/>"
                          L"</DotNetExclusionList><DotNetExclusionList><F Path='D:\\B'/></DotNetExclusionList></Scanners></Halyard>";
    ExpectChild({L"{T}\\root\\one\\two\\app"}, {L"exclusions|<Halyard", L"exclusions|" + lists, L"exclusions|<Halyard/>"},
                {L"80004005", L"00000000 <> <C:\\A> <D:\\B>", L"00000000 <> <C:\\A> <D:\\B>"});
    ExpectChild({L"{T}\\root\\one\\two\\app"}, {L"exclusions|<Halyard><Scanners/></Halyard>"}, {L"00000000"});
}

TEST(Children, SiblingLadderFirstExistingFolderWins) {
    const std::vector<wstring> ladder = {L"{T}\\root\\one\\two\\app", L"{T}\\root\\one\\two\\app\\System",
                                         L"{T}\\common\\Qorvex", L"{T}\\common\\Qorvex\\Zephal",
                                         L"{T}\\root\\one\\two\\System\\x64", L"{T}\\root\\System\\x64"};
    for (size_t from = 0; from < ladder.size(); ++from)
        ExpectChild({ladder.begin() + from, ladder.end()}, {L"commonfiles|{T}\\common", L"get|QvAppServices.dll"},
                    {L"00000000", L"00000000 " + ladder[from]});
    ExpectChild({ladder[2], ladder[5]}, {L"get|QvAppServices.dll"}, {L"00000000 " + ladder[5]}); // no CommonFilesDir
    ExpectChild({ladder[0] + L"\\System\\x64"}, {L"get|QvAppServices.dll"}, {kMissing});
}

// A failed load is not entered; a name seen before is not searched again, even when the search would now find
// another file; another spelling is another entry.
TEST(Children, SiblingCacheKeyedByTheExactSpelling) {
    ExpectChild({L"{T}\\common\\Qorvex", L"{T}\\common\\Qorvex\\Other.dll", L"{T}\\root\\System\\x64"},
                {L"get|Other.dll", L"get|QvAppServices.dll", L"commonfiles|{T}\\common", L"get|Other.dll",
                 L"get|QvAppServices.dll", L"get|qvappservices.dll"},
                {kMissing, L"00000000 {T}\\root\\System\\x64", L"00000000", L"00000000 {T}\\common\\Qorvex",
                 L"00000000 {T}\\root\\System\\x64", L"00000000 {T}\\common\\Qorvex"});
}

} // namespace

int main(int argc, char** argv) {
    if (auto args = child_arguments(kChildFlag))
        return RunChild(*args);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
