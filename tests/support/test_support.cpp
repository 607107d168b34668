#include "test_support.h"

#include <algorithm>
#include <cwctype>
#include <fstream>
#include <iterator>
#include <shellapi.h>
#include <stdexcept>

namespace qv::test {

std::wstring module_dir() {
    wchar_t buffer[MAX_PATH * 4];
    DWORD n = GetModuleFileNameW(nullptr, buffer, static_cast<DWORD>(std::size(buffer)));
    std::wstring path(buffer, n);
    return path.substr(0, path.find_last_of(L'\\'));
}

std::wstring fixture(const std::wstring& relative) {
    std::wstring rel = relative;
    std::replace(rel.begin(), rel.end(), L'/', L'\\');
    return module_dir() + L"\\fixtures\\" + rel;
}

std::wstring system_dir() {
    wchar_t buffer[MAX_PATH];
    UINT n = GetSystemDirectoryW(buffer, MAX_PATH);
    return std::wstring(buffer, n);
}

static void make_dirs(const std::wstring& path) {
    for (size_t pos = path.find(L'\\', 3); pos != std::wstring::npos; pos = path.find(L'\\', pos + 1))
        CreateDirectoryW(path.substr(0, pos).c_str(), nullptr);
    CreateDirectoryW(path.c_str(), nullptr);
}

temp_dir::temp_dir() {
    wchar_t base[MAX_PATH];
    GetTempPathW(MAX_PATH, base);
    static LONG counter = 0;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        std::wstring candidate = std::wstring(base) + L"qvtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                 std::to_wstring(InterlockedIncrement(&counter));
        if (CreateDirectoryW(candidate.c_str(), nullptr)) {
            m_path = candidate;
            return;
        }
    }
    throw std::runtime_error("cannot make a temporary folder");
}

static void remove_tree(const std::wstring& dir) {
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((dir + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            std::wstring name = data.cFileName;
            if (name == L"." || name == L"..")
                continue;
            std::wstring full = dir + L"\\" + name;
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                remove_tree(full);
            } else {
                SetFileAttributesW(full.c_str(), FILE_ATTRIBUTE_NORMAL);
                DeleteFileW(full.c_str());
            }
        } while (FindNextFileW(find, &data));
        FindClose(find);
    }
    RemoveDirectoryW(dir.c_str());
}

temp_dir::~temp_dir() {
    if (!m_path.empty())
        remove_tree(m_path);
}

std::wstring temp_dir::write(const std::wstring& name, const std::string& bytes) const {
    std::wstring full = *this / name;
    make_dirs(full.substr(0, full.find_last_of(L'\\')));
    HANDLE h = CreateFileW(full.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        throw std::runtime_error("cannot write " + narrow(full));
    DWORD written = 0;
    BOOL ok = WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(h);
    if (!ok || written != bytes.size())
        throw std::runtime_error("short write to " + narrow(full));
    return full;
}

std::wstring temp_dir::copy(const std::wstring& from, const std::wstring& name) const {
    std::wstring full = *this / name;
    make_dirs(full.substr(0, full.find_last_of(L'\\')));
    if (!CopyFileW(from.c_str(), full.c_str(), FALSE))
        throw std::runtime_error("cannot copy " + narrow(from));
    return full;
}

std::wstring temp_dir::mkdir(const std::wstring& name) const {
    std::wstring full = *this / name;
    make_dirs(full);
    return full;
}

env_scope::env_scope(const wchar_t* name, const wchar_t* value) : m_name(name) {
    DWORD n = GetEnvironmentVariableW(name, nullptr, 0);
    if (n > 0) {
        m_old.resize(n);
        n = GetEnvironmentVariableW(name, m_old.data(), n);
        m_old.resize(n);
        m_had = true;
    }
    SetEnvironmentVariableW(name, value);
}

env_scope::~env_scope() { SetEnvironmentVariableW(m_name.c_str(), m_had ? m_old.c_str() : nullptr); }

cwd_scope::cwd_scope(const std::wstring& dir) {
    wchar_t buffer[MAX_PATH];
    DWORD n = GetCurrentDirectoryW(MAX_PATH, buffer);
    m_old.assign(buffer, n);
    SetCurrentDirectoryW(dir.c_str());
}

cwd_scope::~cwd_scope() { SetCurrentDirectoryW(m_old.c_str()); }

std::string read_file(const std::wstring& path) {
    HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return {};
    std::string bytes;
    char buffer[65536];
    DWORD got = 0;
    while (ReadFile(h, buffer, sizeof buffer, &got, nullptr) && got > 0)
        bytes.append(buffer, got);
    CloseHandle(h);
    return bytes;
}

std::string narrow(const std::wstring& text) {
    if (text.empty())
        return {};
    int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(n, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr, nullptr);
    return out;
}

std::wstring widen(const std::string& text) {
    if (text.empty())
        return {};
    int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(n, L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
    return out;
}

std::wstring lower(std::wstring text) {
    for (auto& c : text)
        c = static_cast<wchar_t>(std::towlower(c));
    return text;
}

} // namespace qv::test
