#include "toolkit/process_launcher.h"

#include "inc/unique_handles.h"

#include <psapi.h>
#include <shellapi.h>
#include <tlhelp32.h>

#include <set>

namespace qv {

namespace {

launch_state g_launch;
// The handles of g_launch.process: kept open until the next launch begins (or the process ends).
unique_process_information g_launched;

template <typename Fn> Fn Function(const wchar_t* module, const char* name) {
    HMODULE handle = GetModuleHandleW(module);
    return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(handle ? GetProcAddress(handle, name) : nullptr));
}

std::wstring WithoutQuotes(std::wstring text) {
    if (text.size() >= 2 && text.front() == L'"' && text.back() == L'"')
        text = text.substr(1, text.size() - 2);
    return text;
}

bool CreationTime(DWORD id, HANDLE known, ULONGLONG& time) {
    unique_handle opened(known ? nullptr : OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, id));
    const HANDLE process = known ? known : opened.get();
    FILETIME created, exited, kernel, user;
    const bool ok = process && GetProcessTimes(process, &created, &exited, &kernel, &user);
    time = (ULONGLONG{created.dwHighDateTime} << 32) | created.dwLowDateTime;
    return ok;
}

// Waits for one process; its exit code is kept on success. Returns the wait's result when it is not
// WAIT_OBJECT_0.
DWORD WaitFor(HANDLE process, DWORD timeout) {
    const DWORD result = WaitForSingleObject(process, timeout);
    if (result != WAIT_OBJECT_0)
        return result;
    GetExitCodeProcess(process, &g_launch.exitCode);
    return 0;
}

DWORD WaitForTree(DWORD processId, HANDLE process, DWORD flags, DWORD timeout) {
    if (flags & LaunchWaitDescendants)
        flags |= LaunchWaitChildren;
    const bool children = (flags & LaunchWaitChildren) != 0;
    if (!(flags & (LaunchWait | LaunchWaitChildren)) || timeout == 0)
        return 0;
    if (processId == 0 && children)
        processId = GetProcessId(process);
    if (DWORD result = WaitFor(process, timeout))
        return result;
    if (!children || processId == 0)
        return 0;
    for (;;) {
        const DWORD child = detail::FindChild(processId, flags, detail::ReadProcessTree(false));
        if (child == 0)
            return 0;
        const unique_handle handle(OpenProcess(0x1F0FFF, TRUE, child));
        if (!handle)
            return 0;
        if (const DWORD result = WaitFor(handle.get(), timeout))
            return result;
    }
}

} // namespace

namespace detail {

std::map<DWORD, process_entry> ReadProcessTree(bool fallback) {
    std::map<DWORD, process_entry> tree;
    auto snapshot = Function<decltype(&CreateToolhelp32Snapshot)>(L"kernel32.dll", "CreateToolhelp32Snapshot");
    auto first = Function<decltype(&Process32FirstW)>(L"Kernel32.dll", "Process32FirstW");
    auto next = Function<decltype(&Process32NextW)>(L"Kernel32.dll", "Process32NextW");
    // A snapshot that failed is INVALID_HANDLE_VALUE, as a file handle's failure is.
    const unique_hfile all(!fallback && snapshot && first && next ? snapshot(TH32CS_SNAPPROCESS, 0)
                                                                  : INVALID_HANDLE_VALUE);
    if (all) {
        PROCESSENTRY32W entry{};
        entry.dwSize = sizeof entry;
        for (BOOL more = first(all.get(), &entry); more; more = next(all.get(), &entry))
            if (entry.th32ProcessID != 0)
                tree[entry.th32ProcessID] = {entry.th32ParentProcessID, entry.szExeFile};
        return tree;
    }
    // The fallback: the IDs, and each one's parent from its basic information (no names).
    using query_fn = LONG(WINAPI*)(HANDLE, int, void*, ULONG, ULONG*);
    auto query = Function<query_fn>(L"Ntdll.dll", "NtQueryInformationProcess");
    DWORD ids[256], bytes = 0;
    if (!query || !EnumProcesses(ids, sizeof ids, &bytes))
        return tree;
    for (DWORD i = 0; i < bytes / sizeof(DWORD); ++i) {
        const unique_handle process(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, ids[i]));
        if (!process)
            continue;
        ULONG_PTR basic[6] = {}; // PROCESS_BASIC_INFORMATION: the ID in the fifth word, the parent in the sixth
        if (query(process.get(), 0, basic, sizeof basic, nullptr) >= 0 && static_cast<DWORD>(basic[4]) != 0)
            tree[static_cast<DWORD>(basic[4])] = {static_cast<DWORD>(basic[5]), {}};
    }
    return tree;
}

DWORD FindChild(DWORD process, DWORD flags, const std::map<DWORD, process_entry>& tree) {
    ULONGLONG started = 0;
    const bool timed = CreationTime(process, nullptr, started);
    for (const auto& [id, entry] : tree) {
        bool candidate = entry.parent == process;
        std::set<DWORD> seen{id};
        for (DWORD up = entry.parent;
             !candidate && (flags & LaunchWaitDescendants) && up != 0 && seen.insert(up).second;) {
            auto it = tree.find(up);
            if (it == tree.end())
                break;
            up = it->second.parent;
            candidate = up == process;
        }
        std::wstring upper = entry.name;
        CharUpperBuffW(upper.data(), static_cast<DWORD>(upper.size()));
        if (!candidate || upper.find(L"PSTORES.EXE") != std::wstring::npos)
            continue;
        ULONGLONG created = 0;
        if (!timed || !CreationTime(id, nullptr, created) || created >= started)
            return id;
    }
    return 0;
}

} // namespace detail

int LaunchAndWait(const std::wstring& application, const std::wstring& commandLine,
                  const std::wstring& workingDirectory, DWORD flags, DWORD timeout, int showMode, DWORD creationFlags,
                  const std::wstring& verb) {
    g_launch.lastError = 0;
    g_launched = unique_process_information(); // the last launch's handles go
    DWORD processId = 0;
    HANDLE process = nullptr;
    const wchar_t* directory = workingDirectory.empty() ? nullptr : workingDirectory.c_str();
    std::wstring line = commandLine;
    if (!(flags & LaunchThroughShell)) {
        if (!application.empty())
            line = (application.find(L' ') != std::wstring::npos ? L"\"" + application + L"\"" : application) + L" " +
                   commandLine;
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESHOWWINDOW;
        startup.wShowWindow = static_cast<WORD>(showMode);
        std::wstring writable = line; // CreateProcessW may write into its command line
        if (!CreateProcessW(nullptr, writable.data(), nullptr, nullptr, FALSE, creationFlags, nullptr, directory,
                            &startup, &g_launch.process)) {
            g_launch.lastError = GetLastError();
            g_launch.message = WithoutQuotes(line);
            return -1;
        }
        g_launched = unique_process_information(g_launch.process);
        processId = g_launch.process.dwProcessId;
        process = g_launch.process.hProcess;
    } else {
        SHELLEXECUTEINFOW info{};
        info.cbSize = sizeof info;
        info.fMask = SEE_MASK_NOCLOSEPROCESS | creationFlags;
        info.lpVerb = verb.c_str();
        info.lpFile = application.c_str();
        info.lpParameters = commandLine.c_str();
        info.lpDirectory = directory;
        info.nShow = showMode;
        if (!ShellExecuteExW(&info) && reinterpret_cast<INT_PTR>(info.hInstApp) < 32) {
            g_launch.lastError = static_cast<DWORD>(reinterpret_cast<INT_PTR>(info.hInstApp));
            g_launch.message = L" " + application + commandLine;
            return -1;
        }
        g_launch.process = {};
        g_launch.process.hProcess = process = info.hProcess;
        g_launched.process.reset(info.hProcess);
        auto getId = Function<decltype(&GetProcessId)>(L"kernel32.dll", "GetProcessId");
        processId = getId && process ? getId(process) : 0;
        g_launch.process.dwProcessId = processId;
    }
    WaitForInputIdle(process, 1000);
    const DWORD result = WaitForTree(processId, process, flags, timeout);
    DWORD startedExit = 0; // the kept exit code stays the last waited for: a child's, when there was one
    GetExitCodeProcess(process, &startedExit);
    if (result == 0)
        return 0;
    g_launch.lastError = GetLastError();
    g_launch.message = WithoutQuotes(line);
    return result == WAIT_TIMEOUT ? -3 : -2;
}

int LaunchSetupAndWait(const std::wstring& commandLine) {
    return LaunchAndWait(L"", commandLine, L"", LaunchWaitChildren, INFINITE, SW_SHOWNORMAL, 0, L"open");
}

const launch_state& LastLaunch() {
    return g_launch;
}

} // namespace qv
