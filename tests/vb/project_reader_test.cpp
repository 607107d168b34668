// The project file reader over texts written into a scratch folder, with a host that records what it is told.
#include "test_support.h"
#include "vb/project_reader.h"

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
