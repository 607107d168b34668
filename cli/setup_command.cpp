// qvscan setup "COMMAND LINE": runs a setup program as the library's setup export does (waiting for it and
// then for the children it left), and prints the result and the exit code of the last process waited for.
#include "commands.h"

#include "error_text.h"
#include "text_output.h"
#include "toolkit/process_launcher.h"

namespace qvscan {

int run_setup(const options& o) {
    const int result = qv::LaunchSetupAndWait(o.file);
    const qv::launch_state& last = qv::LastLaunch();
    static const char* const words[] = {"done", "could not be started", "a wait failed", "a wait timed out"};
    out("result " + std::to_string(result) + " (" + words[result < 0 ? -result : 0] + "), exit code " +
        std::to_string(last.exitCode) + "\n");
    if (result == -1)
        err("qvscan: " + utf8(last.message) + ": " + describe(HRESULT_FROM_WIN32(last.lastError)) + "\n");
    return result == 0 ? ExitOk : ExitFailed;
}

} // namespace qvscan
