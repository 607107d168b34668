// The toolkit's process launcher: start a program (CreateProcessW, or ShellExecuteExW), wait for it, and
// then for the children it left behind, found in a snapshot of the process tree. One launcher at a time:
// the last error, exit code, process information and message are kept module-wide. The handles of the
// started process stay open in the kept process information until the next launch begins.
#pragma once

#include <windows.h>

#include <map>
#include <string>

namespace qv {

// Flags of LaunchAndWait.
inline constexpr DWORD LaunchWait = 1;            // wait for the started process
inline constexpr DWORD LaunchWaitChildren = 2;    // then for its direct children
inline constexpr DWORD LaunchWaitDescendants = 4; // as 2, every descendant counting as a child
inline constexpr DWORD LaunchThroughShell = 8;    // ShellExecuteExW rather than CreateProcessW

// Results: 0 started and waited for, -1 not started, -2 a wait failed, -3 a wait timed out.
int LaunchAndWait(const std::wstring& application, const std::wstring& commandLine,
                  const std::wstring& workingDirectory, DWORD flags, DWORD timeout, int showMode, DWORD creationFlags,
                  const std::wstring& verb);

// The setup launch of the library's export: the command line alone, flags 2, no time-out, shown normally.
int LaunchSetupAndWait(const std::wstring& commandLine);

// What the last launch kept.
struct launch_state {
    DWORD lastError = 0;
    DWORD exitCode = 0; // of the last process waited for
    PROCESS_INFORMATION process{};
    std::wstring message; // the command line of the last failure
};
const launch_state& LastLaunch();

namespace detail {

struct process_entry {
    DWORD parent = 0;
    std::wstring name; // the executable's name; empty from the fallback reading
};
// All processes by ID but 0: from a Toolhelp snapshot, or (fallback true, or no snapshot to be had) from
// EnumProcesses and NtQueryInformationProcess.
std::map<DWORD, process_entry> ReadProcessTree(bool fallback);
// The first child of process, by the rules of the launcher (descendants with flag 4; pstores.exe never;
// none created before process), or 0.
DWORD FindChild(DWORD process, DWORD flags, const std::map<DWORD, process_entry>& tree);

} // namespace detail

} // namespace qv
