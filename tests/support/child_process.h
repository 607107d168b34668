// A test program run again as a child, for cases that need a fresh process (process-wide caches) or
// a program file somewhere else (the folders a program searches relative to itself). The child gets a
// command line and a current folder; the environment is the parent's at the time of the call.
#pragma once

#include "test_support.h"

#include <windows.h>

#include <shellapi.h>

#include <optional>
#include <string>
#include <vector>

namespace qv::test {

// Runs "exe" args in folder cwd and waits up to timeoutMs. The exit code, or nullopt (with the
// reason in *why) when the child could not start or did not end in time (it is then terminated).
inline std::optional<DWORD> run_child(const std::wstring& exe, const std::wstring& args, const std::wstring& cwd,
                                      std::string* why, DWORD timeoutMs = 60000) {
    std::wstring command = L"\"" + exe + L"\" " + args;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(exe.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                        cwd.empty() ? nullptr : cwd.c_str(), &startup, &process)) {
        if (why)
            *why = "CreateProcessW failed: " + std::to_string(GetLastError());
        return std::nullopt;
    }
    const DWORD wait = WaitForSingleObject(process.hProcess, timeoutMs);
    if (wait != WAIT_OBJECT_0)
        TerminateProcess(process.hProcess, 99);
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    if (wait != WAIT_OBJECT_0) {
        if (why)
            *why = "the child did not end in time";
        return std::nullopt;
    }
    return code;
}

// The arguments of this program after argv[0], when the first of them is flag.
inline std::optional<std::vector<std::wstring>> child_arguments(const wchar_t* flag) {
    int argc = 0;
    LPWSTR* argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    std::optional<std::vector<std::wstring>> result;
    if (argv && argc >= 2 && std::wstring(argv[1]) == flag)
        result = std::vector<std::wstring>(argv + 2, argv + argc);
    LocalFree(argv);
    return result;
}

// Splits text into lines at '\n', dropping a '\r' before it; a last line without '\n' counts.
inline std::vector<std::wstring> split_lines(const std::wstring& text) {
    std::vector<std::wstring> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(L'\n', start);
        if (end == std::wstring::npos)
            end = text.size();
        std::wstring line = text.substr(start, end - start);
        if (!line.empty() && line.back() == L'\r')
            line.pop_back();
        lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

} // namespace qv::test
