// The machine probes: path forms and existence (decided by the error, through a scripted probe), the default
// registry value, processor, system folders and redirection, and the search folders of a child's own Path.
#include "library_support.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

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


TEST(Probes, ProcessorFoldersAndRedirection) {
    EXPECT_TRUE(qv::Is64BitOs() && !qv::IsWow64()); // an x64 program runs on nothing else
    EXPECT_EQ(lower(qv::SystemFolder()), lower(system_dir() + L"\\"));
    EXPECT_EQ(lower(qv::SystemFolder()), lower(qv::WindowsFolder() + L"system32\\"));
    EXPECT_EQ(qv::SysWow64Folder(), qv::WindowsFolder() + L"syswow64\\");
    EXPECT_EQ(qv::SysNativeFolder(), L"");

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

// "folders": the search folders as <entry> lines, then whether they are kept after a change of Path.
wstring SearchFolderLines(const wstring&, const child_context&) {
    wstring out;
    const std::vector<wstring> first = qv::GetSearchFolders();
    for (const wstring& entry : first)
        out += L"<" + entry + L">\n";
    SetEnvironmentVariableW(L"Path", L"changed;later");
    return out + (qv::GetSearchFolders() == first ? L"kept\n" : L"changed\n");
}
const child_command kFolders(L"folders", &SearchFolderLines);

TEST(SearchFolders, OfTheirOwnPathExpandedAndKept) {
    env_scope qvx(L"QVX", L"C:\\qv x"), path(L"Path", L"a;;%QVX%;b;%QVX%\\bin;%QVX_UNSET%;");
    ExpectChild({}, {L"folders"}, {L"<a>", L"<>", L"<C:\\qv x>", L"<b>", L"<C:\\qv x\\bin>", L"<%QVX_UNSET%>", L"kept"});
}

} // namespace
