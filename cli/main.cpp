// qvscan: the command-line host of the scanners. A plain COM client of QVWIScanners.dll, which it loads
// by path from its own folder (or QV_SERVER_DLL) and reaches through DllGetClassObject: no registration.
// This file only dispatches: the command line is read by options.cpp, each command lives in a file of its
// own, and what a command throws is told here, once.
//
// Exit codes: 0 done; 1 the scan or the server failed, or an assembly's metadata is corrupt; 2 wrong
// arguments; 3 the file does not exist, or a project scan stopped at a missing form or project; 4 the traced
// target was ended before it finished, or a project scan was cancelled; 5 a needed file is missing and
// --fail-on-missing was given.
#include "commands.h"
#include "error_text.h"
#include "options.h"
#include "server_dll.h"
#include "text_output.h"

#include "inc/com_exception.h"
#include "qv_version.h"

#include <windows.h>

#include <objbase.h>

#include <exception>
#include <string>

using namespace qvscan;

namespace {

// The thread's apartment while the owner lives.
class com_apartment {
public:
    explicit com_apartment(COINIT model) : m_initialized(SUCCEEDED(CoInitializeEx(nullptr, model))) {}
    ~com_apartment() {
        if (m_initialized)
            CoUninitialize();
    }
    com_apartment(const com_apartment&) = delete;
    com_apartment& operator=(const com_apartment&) = delete;

private:
    bool m_initialized;
};

// What a command needs before it runs: the server, and the support folder too for a scan that filters.
enum class needs { nothing, com, server, support };

// A command's apartment. Scans take the multithreaded one: it makes no window, and under Wine the first window
// of a process starts a desktop process that outlives ours by a second and holds our standard error open,
// so whoever reads it waits that long. Tracing takes a single-threaded one: the engine's events come as calls
// from its process, which the command's message loop hands to the library on its own thread.
struct command_entry {
    const wchar_t* name;
    needs what;
    int (*plain)(const options&);
    int (*served)(const server_dll&, const options&);
    COINIT apartment = COINIT_MULTITHREADED;
};

constexpr command_entry dispatch[] = {
    {L"ini", needs::nothing, run_ini, nullptr},
    {L"setup", needs::nothing, run_setup, nullptr},
    {L"msm", needs::com, run_msm, nullptr},
    {L"static", needs::support, nullptr, run_static},
    {L"why", needs::support, nullptr, run_why},
    {L"bundle", needs::support, nullptr, run_bundle},
    {L"pe", needs::server, nullptr, run_pe},
    {L"assembly", needs::server, nullptr, run_assembly},
    {L"vbp", needs::support, nullptr, run_vbp},
    {L"trace", needs::support, nullptr, run_trace, COINIT_APARTMENTTHREADED},
    {L"attach", needs::support, nullptr, run_trace, COINIT_APARTMENTTHREADED},
    {L"register", needs::server, nullptr, run_register},
    {L"unregister", needs::server, nullptr, run_register},
};

// The one boundary: a failure that leaves a command is told on standard error, and the exit code is 1.
// The merge-module listing has always told its failures by their type's own words alone (describeCom false).
template <class Body> int guarded(Body body, bool describeCom) {
    try {
        return body();
    } catch (const com_exception& e) {
        err("qvscan: " + (describeCom ? describe(e.Error()) : std::string(e.what())) + "\n");
    } catch (const qv::win32_exception& e) {
        err("qvscan: " + (describeCom ? describe(e.Result()) : std::string(e.what())) + "\n");
    } catch (const std::exception& e) {
        err(std::string("qvscan: ") + e.what() + "\n");
    }
    return ExitFailed;
}

// A scan without its support folder would fail on its first list: said once, naming the folder, before it starts.
void check_support_folder() {
    const std::wstring folder = server_dll::support_folder();
    const DWORD attributes = GetFileAttributesW(folder.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
        throw std::runtime_error("the support folder " + utf8(folder) +
                                 " is missing: it holds filters.xml, VBSystem.ini and the target profiles that a scan "
                                 "reads. Restore it from the release (or set QV_SUPPORT_DIR to a copy of it)");
}

int run(const command_entry& command, const options& o) {
    if (command.what == needs::nothing)
        return command.plain(o);
    const com_apartment apartment(command.apartment);
    if (command.what == needs::com)
        return guarded([&] { return command.plain(o); }, false);
    return guarded(
        [&] {
            if (command.what == needs::support)
                check_support_folder();
            const server_dll dll(server_dll::scanners_path());
            return command.served(dll, o);
        },
        true);
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    options o;
    try {
        o = parse(argc, argv);
    } catch (const usage_error& e) {
        err("qvscan: " + e.message + "\n");
        err(usage_text);
        return ExitUsage;
    } catch (const help_request& e) {
        out(help_text(e.command));
        return ExitOk;
    } catch (const version_request&) {
        out("qvscan " QV_VERSION_TEXT "\n");
        return ExitOk;
    }
    for (const command_entry& command : dispatch)
        if (o.command == command.name)
            return run(command, o);
    return ExitUsage; // parse knows no other command
}
