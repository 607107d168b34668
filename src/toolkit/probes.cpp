// Probes of the Windows machine. Trusts the system's answers; validates registry data, whose
// type and length any program may have set.
#include "toolkit/probes.h"

#include "inc/com_exception.h"
#include "inc/unique_handles.h"
#include "toolkit/inet_file.h"
#include "toolkit/path_helpers.h"
#include "toolkit/round_attributes.h"

#include <cwchar>
#include <iterator>

namespace qv {

namespace {

// GetProcAddress hands out a generic function pointer; going through void(*)() tells the compiler
// that the cast to the real type is meant.
template <typename Fn> Fn KernelFunction(const char* name) {
    HMODULE kernel = GetModuleHandleW(L"kernel32");
    FARPROC proc = kernel ? GetProcAddress(kernel, name) : nullptr;
    return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(proc));
}

// Asked once: the machine does not change under a process, and under Wine each question is a request to the server.
WORD NativeProcessorArchitecture() {
    static const WORD architecture = [] {
        SYSTEM_INFO info{};
        if (auto native = KernelFunction<void(WINAPI*)(LPSYSTEM_INFO)>("GetNativeSystemInfo"))
            native(&info);
        else
            GetSystemInfo(&info);
        return info.wProcessorArchitecture;
    }();
    return architecture;
}

// prefix's length of path replaced by replacement, when path starts with prefix.
bool ReplacePrefix(const std::wstring& path, const std::wstring& prefix, const std::wstring& replacement,
                   std::wstring& result) {
    if (!StartsWithNoCase(path, prefix))
        return false;
    result = replacement + path.substr(prefix.size());
    return true;
}

std::wstring WithBackslash(std::wstring folder) {
    if (!folder.empty() && folder.back() != L'\\')
        folder += L'\\';
    return folder;
}

detail::redirection_folders CurrentRedirectionFolders() {
    return {SystemFolder(), SysNativeFolder(), SysWow64Folder()};
}

// The text with %NAME% references expanded; as given when the expansion fails.
std::wstring ExpandEnvironment(const std::wstring& text) {
    DWORD size = ExpandEnvironmentStringsW(text.c_str(), nullptr, 0);
    while (size != 0) {
        std::wstring expanded(size, L'\0');
        DWORD n = ExpandEnvironmentStringsW(text.c_str(), expanded.data(), size);
        if (n == 0)
            break;
        if (n <= size) { // n counts the terminator
            expanded.resize(n - 1);
            return expanded;
        }
        size = n;
    }
    return text;
}

class system_path_probe final : public detail::path_probe {
public:
    DWORD Attributes(const std::wstring& path, DWORD& error) override {
        DWORD attributes = RoundFileAttributes(path); // within a scan round, the round's answer
        error = attributes == INVALID_FILE_ATTRIBUTES ? GetLastError() : ERROR_SUCCESS;
        return attributes;
    }

    bool FindAttributes(const std::wstring& path, DWORD& attributes, DWORD& error) override {
        WIN32_FIND_DATAW data;
        unique_hfind find(FindFirstFileW(path.c_str(), &data));
        if (!find) {
            error = GetLastError();
            return false;
        }
        attributes = data.dwFileAttributes;
        return true;
    }

    bool UrlOpens(const std::wstring& url, bool throwErrors) override {
        try {
            inet_session session;
            if (StartsWithNoCase(url, L"ftp://")) {
                inet_file file;
                return file.Open(session, url) && file.Exists();
            }
            http_file file;
            return file.Open(session, url) && file.Exists();
        } catch (const win32_exception&) {
            // No session at all is the one unexpected error here; a URL that does not open is a no.
            if (throwErrors)
                throw;
            return false;
        }
    }
};

} // namespace

std::wstring NormalisedPath(const std::wstring& path) {
    bool dotted = path.find(L'/') != std::wstring::npos;
    for (size_t start = 0; !dotted && start < path.size();) {
        size_t end = path.find(L'\\', start);
        std::wstring_view part = std::wstring_view(path).substr(start, end - start);
        dotted = part == L"." || part == L"..";
        start = end == std::wstring::npos ? end : end + 1;
    }
    return dotted ? FullPath(path) : path;
}

std::wstring FullPath(const std::wstring& path) {
    DWORD size = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    std::wstring full(size, L'\0');
    DWORD n = size ? GetFullPathNameW(path.c_str(), size, full.data(), nullptr) : 0;
    if (n == 0 || n >= size)
        return path;
    full.resize(n);
    return full;
}

std::wstring CurrentDirectory() {
    std::wstring dir(MAX_PATH, L'\0');
    for (int attempt = 0; attempt < 3; ++attempt) {
        DWORD n = GetCurrentDirectoryW(static_cast<DWORD>(dir.size()), dir.data());
        if (n < dir.size()) {
            dir.resize(n);
            return dir;
        }
        dir.resize(n);
    }
    return {};
}

bool IsAbsolutePath(std::wstring_view path) {
    if (path.size() >= 3 && path[0] == L'\\' && path[1] == L'\\')
        return true;
    return path.size() >= 2 && path[1] == L':';
}

bool FileExists(const std::wstring& path) {
    return !path.empty() && GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool PathExists(const std::wstring& path, unsigned flags) {
    system_path_probe probe;
    return detail::PathExists(path, flags, probe);
}

std::wstring ReadCommonFilesDir() {
    DWORD flags = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND;
    std::vector<wchar_t> buffer(MAX_PATH);
    for (int attempt = 0; attempt < 4; ++attempt) {
        DWORD size = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
        LONG status = RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion",
                                   L"CommonFilesDir", flags, nullptr, buffer.data(), &size);
        if (status == ERROR_SUCCESS)
            return std::wstring(buffer.data(), wcsnlen(buffer.data(), buffer.size()));
        if (status != ERROR_MORE_DATA)
            return {};
        buffer.resize(size / sizeof(wchar_t) + 1);
    }
    return {};
}

std::wstring ReadDefaultRegistryValue(HKEY root, const std::wstring& subkey) {
    unique_hkey key;
    if (RegOpenKeyExW(root, subkey.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS)
        return {};

    wchar_t buffer[130]; // 260 bytes
    DWORD type = REG_NONE;
    DWORD size = sizeof buffer;
    if (RegQueryValueExW(key.get(), nullptr, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size) != ERROR_SUCCESS)
        return {};

    // The system stores what the writer gave it: a string value may lack its terminator or have an
    // odd length. Such data, and every type that is not a string, is ERROR_INVALID_DATA here.
    const size_t count = size / sizeof(wchar_t);
    bool valid = false;
    switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
        valid = size % 2 == 0 && count >= 1 && buffer[count - 1] == L'\0';
        break;
    case REG_MULTI_SZ:
        valid = size % 2 == 0 && count >= 1 && buffer[count - 1] == L'\0' && (count < 2 || buffer[count - 2] == L'\0');
        break;
    default:
        break;
    }
    if (!valid) {
        SetLastError(ERROR_INVALID_DATA);
        return {};
    }
    return std::wstring(buffer, wcsnlen(buffer, count));
}

bool IsItanium() {
    return NativeProcessorArchitecture() == PROCESSOR_ARCHITECTURE_IA64;
}

bool IsAmd64() {
    return NativeProcessorArchitecture() == PROCESSOR_ARCHITECTURE_AMD64;
}

bool Is64BitOs() {
    return IsItanium() || IsAmd64();
}

bool IsWow64() {
    // Asked once, as the machine above.
    static const bool wow64 = [] {
        auto isWow64Process = KernelFunction<BOOL(WINAPI*)(HANDLE, PBOOL)>("IsWow64Process");
        BOOL is = FALSE;
        return isWow64Process && isWow64Process(GetCurrentProcess(), &is) && is;
    }();
    return wow64;
}

const std::wstring& SystemFolder() {
    static const std::wstring folder = detail::MakeFolder(GetSystemDirectoryW);
    return folder;
}

const std::wstring& WindowsFolder() {
    static const std::wstring folder = detail::MakeFolder(GetWindowsDirectoryW);
    return folder;
}

const std::wstring& SysNativeFolder() {
    static const std::wstring folder = IsWow64() ? WindowsFolder() + L"sysnative\\" : std::wstring();
    return folder;
}

const std::wstring& SysWow64Folder() {
    static const std::wstring folder = Is64BitOs() ? WindowsFolder() + L"syswow64\\" : std::wstring();
    return folder;
}

std::wstring MapToNativePath(const std::wstring& path) {
    if (!IsWow64())
        return path;
    return detail::MapToNativePath(path, true, CurrentRedirectionFolders());
}

std::wstring MapFromNativePath(const std::wstring& path) {
    if (!IsWow64())
        return path;
    return detail::MapFromNativePath(path, true, CurrentRedirectionFolders());
}

const std::vector<std::wstring>& GetSearchFolders() {
    static const std::vector<std::wstring> folders = [] {
        std::wstring path;
        if (!ReadEnvironment(L"Path", path))
            return std::vector<std::wstring>();
        return detail::SplitSearchPath(ExpandEnvironment(path));
    }();
    return folders;
}

namespace detail {

std::wstring MakeFolder(UINT(WINAPI* query)(LPWSTR, UINT)) {
    wchar_t buffer[MAX_PATH];
    UINT n = query(buffer, MAX_PATH);
    if (n == 0)
        throw_last_error();
    if (n >= MAX_PATH) // the size it would need: the folder does not fit
        throw win32_exception(ERROR_INSUFFICIENT_BUFFER);
    return WithBackslash(std::wstring(buffer, n));
}

std::wstring MapToNativePath(const std::wstring& path, bool wow64, const redirection_folders& folders) {
    std::wstring mapped;
    if (wow64 && (ReplacePrefix(path, folders.system, folders.sysnative, mapped) ||
                  ReplacePrefix(path, folders.syswow64, folders.system, mapped)))
        return mapped;
    return path;
}

std::wstring MapFromNativePath(const std::wstring& path, bool wow64, const redirection_folders& folders) {
    std::wstring mapped;
    if (wow64 && (ReplacePrefix(path, folders.sysnative, folders.system, mapped) ||
                  ReplacePrefix(path, folders.system, folders.syswow64, mapped)))
        return mapped;
    return path;
}

std::vector<std::wstring> SplitSearchPath(std::wstring_view text) {
    std::vector<std::wstring> folders;
    size_t start = 0;
    while (start < text.size()) { // a separator at the very end starts no entry
        size_t end = text.find(L';', start);
        if (end == std::wstring_view::npos)
            end = text.size();
        folders.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
    return folders;
}

bool IsInternetPath(std::wstring_view path) {
    for (std::wstring_view scheme : {L"http://", L"https://", L"ftp://"})
        if (StartsWithNoCase(path, scheme))
            return true;
    return false;
}

bool PathExists(const std::wstring& path, unsigned flags, path_probe& probe) {
    const bool throwErrors = (flags & path_throw_errors) != 0;
    if ((flags & path_allow_url) && IsInternetPath(path))
        return probe.UrlOpens(path, throwErrors);
    if (path.empty()) // names nothing; GetFileAttributesW would report an invalid name
        return false;

    DWORD error = ERROR_SUCCESS;
    DWORD attributes = probe.Attributes(path, error);
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)
            return false;
        bool found = error == ERROR_ACCESS_DENIED && probe.FindAttributes(path, attributes, error);
        if (!found) {
            if (throwErrors)
                throw win32_exception(error != ERROR_SUCCESS ? error : ERROR_GEN_FAILURE);
            return false;
        }
    }
    const bool folder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    return (flags & (folder ? path_accept_folder : path_accept_file)) != 0;
}

} // namespace detail

} // namespace qv
