// The launcher of setup programs: their children and grandchildren waited for, time-outs, and the climb
// through the process tree.
#include "test_support.h"
#include "toolkit/process_launcher.h"

#include <gtest/gtest.h>

#include <map>

using namespace qv::test;
using std::wstring;

namespace {

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

} // namespace
