// The search for a referenced assembly's file, over folders laid out here: the tree, cache-folder and
// framework-folder searches called directly, and the whole ladder in children, each with a SystemRoot, a
// current folder and a settings document of its own (the folder constants and the exclusion list are read
// once per process).
#include "dotnet/assembly_location.h"
#include "library_support.h"
#include "toolkit/probes.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>

using namespace qv::test;
using std::wstring;

namespace {

TEST(FolderTree, FilesBeforeSubfoldersDepthFirstToTheDepthAsked) {
    temp_dir dir;
    for (const wchar_t* file : {L"t\\Top.dll", L"t\\a\\Top.dll", L"t\\a\\b\\Twice.dll", L"t\\c\\Twice.dll",
                                L"t\\a\\One.dll", L"t\\a\\b\\Two.dll", L"t\\Dir.dll\\x.txt"})
        dir.write(file, "MZ");
    const wstring t = dir / L"t";
    // (folder, file, depth) -> the folder found, empty for none.
    const struct { wstring folder, file; int depth; wstring found; } rows[] = {
        {t, L"Top.dll", -2, t + L"\\"}, {t + L"\\", L"top.DLL", -2, t + L"\\"}, // one backslash, any case
        {t, L"Twice.dll", -2, t + L"\\a\\b\\"},                                 // depth-first, not breadth-first
        {t, L"One.dll", 0, L""}, {t, L"One.dll", 1, t + L"\\a\\"},
        {t, L"Two.dll", 1, L""}, {t, L"Two.dll", 2, t + L"\\a\\b\\"}, {t, L"Two.dll", -2, t + L"\\a\\b\\"},
        {t, L"Dir.dll", -2, L""}, // a folder of the name is no file
        {dir / L"absent", L"Top.dll", -2, L""}};
    for (const auto& r : rows) {
        wstring found = L"junk";
        EXPECT_EQ(FindInFolderTree(r.folder, L"*.*", r.file, found, r.depth), !r.found.empty()) << narrow(r.file);
        EXPECT_EQ(found, r.found) << narrow(r.folder) << " " << narrow(r.file) << " " << r.depth;
    }
    wstring probe = t + L"\\a"; // folder and output at once: a failure empties both
    EXPECT_FALSE(FindInFolderTree(probe, L"*.*", L"Absent.dll", probe, -2));
    EXPECT_EQ(probe, L"");
}

TEST(GacFolder, TheFolderNameIsSoughtWithinTheKeyAndTheFirstMatchEndsTheSearch) {
    temp_dir dir;
    dir.write(L"Foo\\1.2.3.4__0123456789abcdef\\Foo.dll", "MZ");
    dir.write(L"Foo\\Loose.dll", "MZ");
    dir.mkdir(L"Baz\\1");
    dir.write(L"Baz\\1.0.0.0__0123456789abcdef\\sub\\Baz.dll", "MZ");
    const wstring foo = dir / L"Foo\\", baz = dir / L"Baz\\";
    const struct { wstring folder, key, file, found; } rows[] = {
        {foo, L"1.2.3.4__0123456789abcdef", L"Foo.dll", foo + L"1.2.3.4__0123456789abcdef\\"},
        {foo, L"1.2.3.4__0123456789ABCDEF", L"foo.dll", foo + L"1.2.3.4__0123456789abcdef\\"},
        {foo, L"x1.2.3.4__0123456789abcdefx", L"Foo.dll", foo + L"1.2.3.4__0123456789abcdef\\"},
        {foo, L"1.2.3.4__0123", L"Foo.dll", L""}, // a key within the folder name is no match
        {foo, L"9.9.9.9__0123456789abcdef", L"Loose.dll", foo}, // a file beside the version folders
        {baz, L"1.0.0.0__0123456789abcdef", L"Baz.dll", L""},   // "1" comes first, matches, and ends it
        {baz, L"2.0.0.0__abcdef", L"Baz.dll", L""}, {dir / L"Absent\\", L"1", L"Foo.dll", L""}};
    for (const auto& r : rows) {
        wstring found = L"junk";
        EXPECT_EQ(FindInGacFolder(r.folder, L"*.*", r.key, r.file, found), !r.found.empty()) << narrow(r.key);
        EXPECT_EQ(found, r.found) << narrow(r.key);
    }
}

TEST(FrameworkFolders, VersionFoldersInTextOrderFromTheLast) {
    temp_dir dir;
    for (const wchar_t* file : {L"v1.1.4322\\Fw.dll", L"v10.0\\Fw.dll", L"v2.0.50727\\Fw.dll", L"v2.0.50727\\Gw.dll",
                                L"V3.5\\sub\\Gw.dll", L"v1.1.4322\\Old.dll", L"x9\\Other.dll", L"vfile.dll"})
        dir.write(file, "MZ");
    const wstring root = dir.path() + L"\\";
    const std::pair<wstring, wstring> rows[] = {
        {L"Fw.dll", root + L"v2.0.50727\\"}, // not v10.0: the order is that of text
        {L"Gw.dll", root + L"V3.5\\sub\\"},  // a capital V counts, and sorts without regard to case
        {L"Old.dll", root + L"v1.1.4322\\"},
        {L"Other.dll", L"untouched"}, // only folders beginning with v are searched
        {L"vfile.dll", L"untouched"}};
    for (const auto& [file, expected] : rows) {
        wstring found = L"untouched";
        EXPECT_EQ(FindInFrameworkFolders(root, file, found), expected != L"untouched") << narrow(file);
        EXPECT_EQ(found, expected) << narrow(file);
    }
}

TEST(AssemblyCache, DisplayNamesArchitecturesAndNoQuestionWithoutAMachine) {
    for (const auto& [culture, expected] :
         {std::pair<wstring, wstring>{L"", L"Foo, Version=1.2.3.4, PublicKeyToken=0123456789abcdef"},
          {L"neutral", L"Foo, Version=1.2.3.4, Culture=neutral, PublicKeyToken=0123456789abcdef"},
          {L"de", L"Foo, Version=1.2.3.4, Culture=de, PublicKeyToken=0123456789abcdef"}})
        EXPECT_EQ(qv::detail::AssemblyDisplayName(L"Foo", L"1.2.3.4", culture, L"0123456789abcdef"), expected);
    using enum qv::detail::native_processor;
    const lines x86Msil = {L"X86", L"MSIL"}, amd = {L"Amd64", L"MSIL"}, ia = {L"IA64", L"MSIL"}, msil = {L"MSIL"};
    const struct { qv::detail::native_processor native; wstring machine; lines expected; } rows[] = {
        {amd64, L"MSIL", amd}, {amd64, L"amd64", amd}, {amd64, L"X86", x86Msil}, {amd64, L"IA64", msil},
        {amd64, L"", msil},    {itanium, L"msil", ia}, {itanium, L"IA64", ia},   {itanium, L"x86", x86Msil},
        {itanium, L"Amd64", msil}, {x86, L"MSIL", x86Msil}, {x86, L"X86", x86Msil}, {x86, L"Amd64", msil},
        {x86, L"IA64", msil}};
    for (const auto& r : rows)
        EXPECT_EQ(qv::detail::CacheArchitectures(r.native, r.machine), r.expected)
            << static_cast<int>(r.native) << " " << narrow(r.machine);
    wstring folder = L"untouched", file = L"untouched";
    EXPECT_FALSE(FindInAssemblyCache(L"mscorlib", L"2.0.0.0", L"", L"b77a5c561934e089", L"", folder, file));
    EXPECT_EQ(folder + file, L"untoucheduntouched");
}

// "find|name|version|culture|token|machine|base": a line "<0|1> <folder>|<file>".
const child_command kFind(L"find", [](const wstring& query) -> std::wstring {
    lines f;
    for (size_t start = 0, end = 0; end != wstring::npos; start = end + 1)
        end = query.find(L'|', start), f.push_back(query.substr(start, end - start));
    if (f.size() != 6)
        return L"(a query of " + std::to_wstring(f.size()) + L" fields)\n";
    wstring folder = L"junk", file;
    const bool found = FindAssembly(f[0], f[1], f[2], f[3], f[4], f[5], folder, file);
    return (found ? L"1 " : L"0 ") + folder + L"|" + file + L"\n";
});

// The searches of rows (query, answer; {T} stands for dir) run in a child with SystemRoot dir\root, current
// folder dir\cwd and the settings document settings.
void ExpectFinds(const temp_dir& dir, const wstring& settings, const std::vector<std::pair<wstring, wstring>>& rows) {
    auto expand = [&](const wstring& text) { return std::regex_replace(text, std::wregex(L"\\{T\\}"), dir.path()); };
    const wstring out = dir / L"out.txt";
    DeleteFileW(out.c_str());
    wstring line = wstring(kChildFlag) + L" \"" + out + L"\" \"set|SystemRoot=" + (dir / L"root") +
                   L"\" \"set|QV_SETTINGS_PATH=" + settings + L"\"";
    for (const auto& row : rows)
        line += L" \"find|" + expand(row.first) + L"\"";
    ASSERT_EQ(run_child(program_path(), line, dir / L"cwd"), std::optional<DWORD>(0));
    const lines answers = split_lines(widen(read_file(out)));
    ASSERT_EQ(answers.size(), rows.size());
    for (size_t i = 0; i < rows.size(); ++i)
        EXPECT_EQ(answers[i], expand(rows[i].second)) << narrow(rows[i].first);
}

// The layout of a machine and of a referring assembly in {T}\app, shared by the children.
void LayOut(const temp_dir& dir) {
    const wstring net = L"root\\Microsoft.NET\\", gac = L"root\\Assembly\\GAC\\";
    for (const wstring& file : lines
         {gac + L"Foo\\1.2.3.4__0123456789abcdef\\Foo.dll", gac + L"Bar\\1\\Bar.dll",
          net + L"Framework\\v1.1.4322\\Fw.dll", net + L"Framework\\v10.0\\Fw.dll",
          net + L"Framework\\v2.0.50727\\Fw.dll", net + L"Framework\\v2.0.50727\\Only32.dll",
          net + L"Framework\\v2.0.50727\\Both.dll", net + L"Framework64\\v2.0.50727\\Fw.dll",
          net + L"Framework64\\v2.0.50727\\Only64.dll", L"app\\Near.dll", L"app\\Both.exe", L"app\\Tool.exe",
          L"app\\de\\Sat.dll", L"app\\deep\\er\\Deep.dll", L"app\\skip\\Hidden.dll", L"excluded\\Beside.dll",
          L"excluded\\sub\\Below.dll", L"cwd\\Quirk\\Quirk.dll", L"cwd\\Here.dll"})
        dir.write(file, "MZ");
}

const wstring kGac = L"{T}\\root\\Assembly\\GAC\\", kFramework = L"{T}\\root\\Microsoft.NET\\Framework\\",
              kFramework64 = L"{T}\\root\\Microsoft.NET\\Framework64\\",
              kFooInGac = L"1 " + kGac + L"Foo\\1.2.3.4__0123456789abcdef\\|Foo.dll";

// An absent settings document leaves nothing out, and the search goes on without it.
TEST(Ladder, CacheFolderFrameworkFoldersAndNeighbourhoodInTheirOrder) {
    ASSERT_TRUE(qv::IsAmd64()) << "the framework rows are those of an x64 machine";
    temp_dir dir;
    LayOut(dir);
    ExpectFinds(dir, dir / L"absent.xml", {
        // The cache folder by path: version, culture and token make the key that a folder name must lie within.
        {L"Foo|1.2.3.4||0123456789abcdef|X86|{T}\\app", kFooInGac},
        {L"Foo|1.2.3.4|Neutral|0123456789abcdef|X86|{T}\\app", kFooInGac},
        {L"Foo|1.2.3.4|de|0123456789abcdef|X86|{T}\\app", L"0 |Foo.exe"},
        {L"Foo|1.2.3.4|||X86|{T}\\app", L"0 |Foo.exe"}, // no token, no cache folder
        {L"Foo|2.0.0.0||0123456789abcdef|X86|{T}\\app", L"0 |Foo.exe"},
        {L"Bar|9.9.9.9||fedcba9876543210|X86|{T}\\app", L"1 " + kGac + L"Bar\\1\\|Bar.dll"}, // a 1 in the key
        {L"Bar|2.0.0.0||abcdef0000000000|X86|{T}\\app", L"0 |Bar.exe"},
        // Framework folders by the machine: 64-bit first for MSIL, never the other word's.
        {L"Fw||||MSIL|{T}\\app", L"1 " + kFramework64 + L"v2.0.50727\\|Fw.dll"},
        {L"Fw||||amd64|{T}\\app", L"1 " + kFramework64 + L"v2.0.50727\\|Fw.dll"},
        {L"Fw||||x86|{T}\\app", L"1 " + kFramework + L"v2.0.50727\\|Fw.dll"},
        {L"Fw|||||{T}\\app", L"1 " + kFramework + L"v2.0.50727\\|Fw.dll"},
        {L"Fw||||IA64|{T}\\app", L"0 |Fw.exe"},
        {L"Only32||||MSIL|{T}\\app", L"1 " + kFramework + L"v2.0.50727\\|Only32.dll"},
        {L"Only32||||Amd64|{T}\\app", L"0 |Only32.exe"},
        {L"Only64||||X86|{T}\\app", L"0 |Only64.exe"}, {L"Only64|||||{T}\\app", L"0 |Only64.exe"},
        // The neighbourhood: a culture narrows the tree search to its folder; the file beside still counts.
        {L"Sat|1.0.0.0|de||MSIL|{T}\\app", L"1 {T}\\app\\de\\|Sat.dll"},
        {L"Near|1.0.0.0|de||MSIL|{T}\\app", L"1 {T}\\app\\|Near.dll"},
        {L"Deep||||MSIL|{T}\\app", L"1 {T}\\app\\deep\\er\\|Deep.dll"},
        {L"Deep||de||MSIL|{T}\\app", L"0 |Deep.exe"}, // and the one-level search does not reach it
        {L"Hidden||||MSIL|{T}\\app", L"1 {T}\\app\\skip\\|Hidden.dll"},
        {L"Below||||MSIL|{T}\\excluded", L"1 {T}\\excluded\\sub\\|Below.dll"},
        {L"Quirk||||MSIL|{T}\\app", L"1 Quirk\\|Quirk.dll"}, // the name's folder below the current one
        {L"Here||||MSIL|", L"1 \\|Here.dll"},                // no base folder: the current one
        {L"Both||||X86|{T}\\app", L"1 " + kFramework + L"v2.0.50727\\|Both.dll"}, // .dll anywhere before .exe
        {L"Tool||||MSIL|{T}\\app", L"1 {T}\\app\\|Tool.exe"},
        {L"Missing||||MSIL|{T}\\app", L"0 |Missing.exe"}});
}

// An entry excludes every folder whose text holds it, at every level of a search; an entry without a path
// excludes nothing. Only the existence test beside the referring assembly ignores the list.
TEST(Ladder, ExclusionListLeavesFoldersOut) {
    temp_dir dir;
    LayOut(dir);
    const wstring settings = dir.write(L"settings.xml",
        "<Halyard><Scanners><DotNetExclusionList><E Path='\\EXCLUDED\\'/><E Path='\\skip'/><E/>"
        "<E Path='microsoft.net\\framework'/></DotNetExclusionList></Scanners></Halyard>");
    ExpectFinds(dir, settings, {
        {L"Beside||||MSIL|{T}\\excluded", L"1 {T}\\excluded\\|Beside.dll"},
        {L"Below||||MSIL|{T}\\excluded", L"0 |Below.exe"},
        {L"Hidden||||MSIL|{T}\\app", L"0 |Hidden.exe"},
        {L"Sat|1.0.0.0|de||MSIL|{T}\\app", L"1 {T}\\app\\de\\|Sat.dll"},
        {L"Fw||||MSIL|{T}\\app", L"0 |Fw.exe"}, // Framework64 holds the text too
        {L"Foo|1.2.3.4||0123456789abcdef|X86|{T}\\app", kFooInGac}});
}

} // namespace
