// The project file reader over texts written into a scratch folder, with a host that records what it is told.
#include "test_support.h"
#include "vb/project_reader.h"
#include "vb/vbp_resolution.h"

#include <gtest/gtest.h>

#include <tuple>

using namespace qv::test;
using std::string, std::wstring, std::operator""s;
using lines = std::vector<wstring>;

struct recording_host : project_reader_host {
    explicit recording_host(int cancel = 0, int abort = 0) : cancelFrom(cancel), abortAt(abort) {}
    VBProjectInfo info; // with state, what the driver keeps
    project_reader_state state;
    int cancelFrom, abortAt, asks = 0; // the ask that starts cancelling, the scan that aborts
    std::vector<long> percents;
    lines events; // "project|missing forms" and the paths of ScanProject
    bool QueryCancel() override { return ++asks >= cancelFrom && cancelFrom > 0; }
    void PercentDone(long percent) override { percents.push_back(percent); }
    bool FileNotFound(const wstring& p, const wstring& f) override { return events.push_back(p + L"|" + f), false; }
    void ScanProject(const wstring& p) override { events.push_back(p), state.m_bAbort = int(events.size()) == abortAt; }
};

TEST(Lines, EndAtTheFirstEmptyLineAnOverlongLineOrCtrlZ) {
    temp_dir dir;
    const struct { string bytes; lines expected; } rows[] = {
        {"a\r\nb\nc\rd\r\n\r\ne\r\n", {L"a", L"b", L"c\rd"}}, {"a\0b\r\nc"s, {L"a", L"c"}}, {"\0a\r\nb"s, {}},
        {string(1023, 'x') + "\r\ny", {wstring(1023, L'x'), L"y"}}, {"a\x1a\r\nb", {L"a"}}, {"\xe9\x80", {L"\xe9\x80"}},
        {string(1024, 'x') + "\r\ny", {wstring(1023, L'x')}}};
    for (const auto& r : rows)
        EXPECT_EQ(ReadProjectLines(dir.write(L"t.txt", r.bytes)), r.expected) << r.bytes.substr(0, 20);
    EXPECT_EQ(ReadProjectLines(dir / L"absent.vbp"), lines{});
}

TEST(FirstReading, KeysValueCutsAndCompletion) {
    temp_dir dir;
    const struct { string vbp; int steps; EVBProjectKind kind; wstring exe, path, name; } rows[] = {
        {"Type=ExeX\r\nExeName32=\"\"\r\nName=xyz\r\n", 0, vbkStandardExe, L"a.EXE", L"@p\\", L"y"},
        {"Type=Exe\r\nExeName32=\"e\"\r\nPath32=\"..\\bin\"\r\n", 0, vbkStandardExe, L"e", L"@bin\\", L""},
        {"Type=OleDll\r\nClass=C\r\nPath32=\"\\\\srv\\out\"\r\n", 0, vbkActiveXDll, L"a.DLL", L"\\\\srv\\out", L""},
        {"Type=OleDll\r\nUserDocument=U\r\nClass=C\r\n", 0, vbkActiveXDllDocuments, L"a.DLL", L"@p\\", L""},
        {"Type=OleExe\r\nUserDocument=U\r\nPath32=\"o\\\\\"", 0, vbkActiveXExeDocuments, L"a.EXE", L"@p\\o\\", L""},
        {" Type=Exe\r\ntype=Exe\r\nType=OleDll\r\nName=\"n\"\r\n", 0, vbkUnknown, L"", L"@p\\", L"n"},
        {"Type=Control\r\nReference=r\r\nObject=o\r\nReference=", 3, vbkControl, L"a.OCX", L"@p\\", L""},
        {"Type=Exe\r\n\r\nExeName32=\"x\"\r\nReference=r\r\n", 0, vbkStandardExe, L"a.EXE", L"@p\\", L""},
        {"Name=\"" + string(2000, 'n') + "\"\r\nObject=o\r\n", 0, vbkUnknown, L"", L"@p\\", wstring(1016, L'n')},
        {"MZ\x90\0\3\0\xff\xff\r\n\x1b\x7fReference=\xcc\n"s + string(3000, '\xe8'), 0, vbkUnknown, L"", L"@p\\", L""}};
    for (const auto& r : rows) {
        recording_host host;
        const int steps = ReadProject(dir.write(L"p\\a.vbp", r.vbp), host.info, host.state, host);
        const wstring path = r.path[0] == L'@' ? dir.path() + L"\\" + r.path.substr(1) : r.path;
        const VBProjectInfo& i = host.info;
        EXPECT_EQ(std::tie(steps, i.eKind, i.sExeName, i.sPath, i.sName, i.sFolder, host.percents, host.events),
                  std::make_tuple(r.steps, r.kind, r.exe, path, r.name, dir / L"p\\", std::vector<long>{}, lines{}));
    }
}

TEST(Forms, ResolvedAgainstTheProjectFolderCountedAndAllMissingOnesInOneEvent) {
    temp_dir dir, elsewhere;
    dir.write(L"p\\f1.frm", "VERSION 5.00\r\nObject = \"{1}#1.0#0\"; \"a.ocx\"\r\nObject = b\r\nObject = c\r\n");
    dir.write(L"p\\sub\\f2.frm", "Object = a\r\nObject = b\r\n\r\nObject = c\r\n");
    cwd_scope cwd(elsewhere.path());
    const wstring a = dir.write(L"p\\a.vbp", "Form=f1.frm\r\nForm=sub\\f2.frm\r\nForm=a.frm\r\nObject=o\r\nForm=b.frm");
    const wstring b = dir.write(L"p\\b.vbp", "Form=c.frm\r\n");
    recording_host host;
    EXPECT_EQ(ReadProject(a, host.info, host.state, host), 6);
    EXPECT_EQ(host.percents, (std::vector<long>{10, 31, 53, 75, 97}));
    EXPECT_TRUE(host.state.m_bAbort && host.state.m_formFiles.size() == 4);
    EXPECT_EQ(host.state.m_formFiles[L"Form=sub\\f2.frm"], dir / L"p\\sub\\f2.frm");
    ReadProject(b, host.info, host.state, host); // the missing-forms list outlives a project
    EXPECT_EQ(host.events, (lines{a + L"|a.frm;b.frm", b + L"|a.frm;b.frm;c.frm"}));
    EXPECT_EQ(host.state.m_formFiles.size(), 1u);
}

TEST(Forms, CancellationEndsTheReadingWhereItIsAsked) {
    temp_dir dir;
    dir.write(L"f.frm", "Object = a\r\nObject = b\r\nObject = c\r\n");
    const wstring vbp = dir.write(L"a.vbp", "Type=Exe\r\nForm=f.frm\r\nForm=gone.frm\r\n");
    // Asks: 1-4 the first reading, 5-6 the second, 7-10 the form file, 11-12 the rest, then the missing form.
    const struct { int cancelFrom, steps; bool completed; std::vector<long> percents; } rows[] = {
        {1, 0, false, {}}, {4, 0, false, {}}, {5, 0, true, {10}}, {8, 1, true, {10, 53}},
        {12, 3, true, {10, 53, 97}}, {0, 3, true, {10, 53, 97}}};
    for (const auto& r : rows) {
        recording_host host(r.cancelFrom);
        const int steps = ReadProject(vbp, host.info, host.state, host);
        EXPECT_EQ(std::make_tuple(steps, !host.info.sFolder.empty(), host.percents, host.events.size()),
                  std::make_tuple(r.steps, r.completed, r.percents, r.cancelFrom == 0 ? 1u : 0u)) << r.cancelFrom;
    }
}

TEST(GroupWalk, ProjectsInFileOrderMissingOnesIncludedUntilAborted) {
    temp_dir dir;
    const wstring vbg = dir.write(L"g\\x.vbg", "VBGROUP 5.0\r\nProject=a\\one.vbp\r\nStartupProject=C:\\absent\\two.vbp"
                                               "\r\nProject=..\\three.vbp\r\n\r\nProject=hidden.vbp\r\n");
    const lines all = {dir / L"g\\a\\one.vbp", L"C:\\absent\\two.vbp", dir / L"three.vbp"};
    for (int abortAt : {0, 2}) {
        recording_host host(0, abortAt);
        WalkProjectGroup(vbg, host.state, host);
        EXPECT_EQ(host.events, lines(all.begin(), all.begin() + (abortAt ? abortAt : 3))) << abortAt;
        EXPECT_EQ(host.asks, 0);
    }
}

TEST(Resolution, FieldsAndTypeLibVersions) {
    const struct { wstring text; int n; wstring field; } fields[] = {
        {L"a#b#c", 1, L"a"}, {L"a#b#c", 2, L"b"}, {L"a#b#c", 3, L""}, {L"a#b#c#", 3, L"c"}, {L"", 1, L""},
        {L"*\\Aother.vbp", 1, L""}, {L"a##c#", 2, L""}, {L"x#y", 5, L""}};
    for (const auto& f : fields)
        EXPECT_EQ(GetDelimitedField(f.text, f.n, L"#"), f.field) << f.text << " " << f.n;
    const std::pair<wstring, wstring> versions[] = {
        {L"10.0", L"a.0"}, {L"2.0", L"2.0"}, {L"2.a", L"2.0"}, {L"255.16", L"ff.10"}, {L"", L"0.0"}, {L"7", L"7.0"}};
    for (const auto& [version, spelled] : versions)
        EXPECT_EQ(FormatTypeLibVersion(version), spelled) << version;
}

TEST(Resolution, ReferenceAndObjectLinesThroughTheRegistry) {
    temp_dir dir;
    registry_override classes(HKEY_CLASSES_ROOT);
    const wstring lib = L"{5C5E1A00-0000-4000-8000-00000000AB10}", found = dir.write(L"found.ocx", "x");
    auto set = [](const wstring& key, const wstring& value) {
        registry_override::set_value(HKEY_CLASSES_ROOT, key, nullptr, REG_SZ, value.c_str(),
                                     DWORD((value.size() + 1) * sizeof(wchar_t)));
    };
    set(L"TypeLib\\" + lib + L"\\a.0\\0\\win32", L"C:\\hex\\ten.dll");
    set(L"TypeLib\\" + lib + L"\\2.a\\0\\win32", L"C:\\written\\two.dll");
    set(L"Fixture.Server\\CLSID", L"{5C5E1A00-0000-4000-8000-00000000AB12}");
    set(L"CLSID\\{5C5E1A00-0000-4000-8000-00000000AB12}\\LocalServer32", L"C:\\srv\\server.exe");
    set(L"Relative.Server\\CLSID", L"{5C5E1A00-0000-4000-8000-00000000AB13}");
    set(L"CLSID\\{5C5E1A00-0000-4000-8000-00000000AB13}\\LocalServer32", L"server.exe /automation");
    const wstring folder = dir.path() + L"\\p\\";
    const std::pair<wstring, wstring> references[] = {
        {L"Reference=*\\G" + lib + L"#10.0#0#C:\\x\\y.dll#Y", L"C:\\hex\\ten.dll"},
        {L"Reference=*\\G" + lib + L"#2.a#0#C:\\x\\y.dll#Y", L"C:\\written\\two.dll"},
        {L"Reference=*\\G" + lib + L"#3.0#0#C:\\x\\y.dll#Y", L"C:\\x\\y.dll"},
        {L"Reference=*\\G" + lib + L"#3.0#0#..\\lib\\y.tlb#Y", dir.path() + L"\\lib\\y.tlb"},
        {L"Reference=*\\Aother.vbp", folder}, {L"Reference=*\\G" + lib + L"#3.0#0#", folder}};
    for (const auto& [line, file] : references)
        EXPECT_EQ(ResolveReferenceLine(line, folder), file) << line;
    cwd_scope here(dir.path()); // the search path starts in the current folder
    const std::pair<wstring, wstring> objects[] = {
        {L"Object=" + lib + L"#10.0#0; GRID.OCX", L"C:\\hex\\ten.dll"},
        {L"Object = \"" + lib + L"#2.a#0\"; \"GRID.OCX\"", L"C:\\written\\two.dll"},
        {L"Object={00000000-0000-0000-0000-000000000001}#1.0#0; found.ocx", found},
        {L"Object = \"{00000000-0000-0000-0000-000000000001}#1.0#0\"; \"nowhere.ocx\"", L"nowhere.ocx"},
        {L"Object = \"{00000000-0000-0000-0000-000000000001}#1.0#0\"", L""},
        {L"Object=Fixture.Server; server.exe", L"C:\\srv\\server.exe"},
        {L"Object=\"Relative.Server\"; found.ocx", found}, {L"Object=Unknown.Server; plain.exe", L"plain.exe"},
        {L"Object=no separators", L""}};
    for (const auto& [line, file] : objects)
        EXPECT_EQ(lower(ResolveObjectLine(line)), lower(file)) << line;
}
