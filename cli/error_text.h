// What goes wrong, for the person at the command line: the exit codes of every command, and failures in
// words (the system's, the server's, or ours for a path that is not a file).
#pragma once

#include <windows.h>

#include <string>

namespace qvscan {

// 0 done; 1 the work or the server failed; 2 wrong arguments; 3 the file does not exist (or a project
// scan stopped at a missing file); 4 the target was ended before it finished (time-out or Ctrl-C), or a
// project scan was cancelled.
constexpr int ExitOk = 0, ExitFailed = 1, ExitUsage = 2, ExitNoFile = 3, ExitEnded = 4, ExitMissing = 5;

// "0x80070002".
std::string hex(HRESULT hr);
// The system's words for hr, with the number; the number alone when the system has none.
std::string describe(HRESULT hr);
// The server's words for a failure where it left them in the thread's error object (taking them), else the
// system's; with the number.
std::string failure_text(HRESULT hr);
// Why a path that is not a file on disk cannot be used: a folder, a device, or what the system says of it
// (a link that leads nowhere, say); "no such file" when it simply is not there.
std::string not_a_file(const std::wstring& path);

} // namespace qvscan
