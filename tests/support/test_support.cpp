#include "test_support.h"

#include "inc/unique_handles.h"

#include <algorithm>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <shellapi.h>
#include <stdexcept>

namespace qv::test {

std::wstring program_path() {
    wchar_t buffer[MAX_PATH * 4];
    return std::wstring(buffer, GetModuleFileNameW(nullptr, buffer, MAX_PATH * 4));
}

std::wstring module_dir() {
    const std::wstring path = program_path();
    return path.substr(0, path.find_last_of(L'\\'));
}

std::wstring fixture(const std::wstring& relative) {
    std::wstring rel = relative;
    for (auto& c : rel)
        c = c == L'/' ? L'\\' : c;
    return module_dir() + L"\\fixtures\\" + rel;
}

std::wstring system_dir() {
    wchar_t buffer[MAX_PATH];
    return std::wstring(buffer, GetSystemDirectoryW(buffer, MAX_PATH));
}

std::string read_file(const std::wstring& path) {
    std::ifstream in(std::filesystem::path(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string narrow(const std::wstring& text) {
    int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(n, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr, nullptr);
    return out;
}

std::wstring widen(const std::string& text) {
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

static void make_dirs(const std::wstring& path) { std::error_code e; std::filesystem::create_directories(path, e); }

static void remove_tree(const std::wstring& path) {
    WIN32_FIND_DATAW d;
    const qv::unique_hfind find(FindFirstFileW((path + L"\\*").c_str(), &d));
    for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.get(), &d)) {
        const std::wstring name = d.cFileName, full = path + L"\\" + name;
        if (name != L"." && name != L"..")
            (d.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ? remove_tree(full) : void(DeleteFileW(full.c_str()));
    }
    RemoveDirectoryW(path.c_str());
}

temp_dir::temp_dir() { // a name that no file had, made a folder
    wchar_t base[MAX_PATH], name[MAX_PATH];
    if (!GetTempPathW(MAX_PATH, base) || !GetTempFileNameW(base, L"qvt", 0, name) || !DeleteFileW(name) ||
        !CreateDirectoryW(name, nullptr))
        throw std::runtime_error("cannot make a temporary folder");
    m_path = name;
}

temp_dir::~temp_dir() {
    remove_tree(L"\\\\?\\" + m_path); // the long form reaches folders of any depth
}

std::wstring temp_dir::write(const std::wstring& name, const std::string& bytes) const {
    std::wstring full = *this / name;
    make_dirs(full.substr(0, full.find_last_of(L'\\')));
    std::ofstream out(std::filesystem::path(full), std::ios::binary);
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush())
        throw std::runtime_error("cannot write " + narrow(full));
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
    make_dirs(*this / name);
    return *this / name;
}

env_scope::env_scope(const wchar_t* name, const wchar_t* value) : m_name(name) {
    DWORD n = GetEnvironmentVariableW(name, nullptr, 0);
    if (n > 0) {
        m_old.resize(n);
        m_old.resize(GetEnvironmentVariableW(name, m_old.data(), n));
        m_had = true;
    }
    SetEnvironmentVariableW(name, value);
}

env_scope::~env_scope() { SetEnvironmentVariableW(m_name.c_str(), m_had ? m_old.c_str() : nullptr); }

cwd_scope::cwd_scope(const std::wstring& dir) {
    wchar_t buffer[MAX_PATH];
    m_old.assign(buffer, GetCurrentDirectoryW(MAX_PATH, buffer));
    SetCurrentDirectoryW(dir.c_str());
}

cwd_scope::~cwd_scope() { SetCurrentDirectoryW(m_old.c_str()); }

registry_override::registry_override(HKEY predefined) : m_predefined(predefined) {
    static LONG counter = 0;
    m_path = L"Software\\QVWI-tests\\" + std::to_wstring(GetCurrentProcessId()) + L"-" +
             std::to_wstring(InterlockedIncrement(&counter));
    if (RegCreateKeyExW(HKEY_CURRENT_USER, m_path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &m_key, nullptr) !=
            ERROR_SUCCESS ||
        RegOverridePredefKey(m_predefined, m_key) != ERROR_SUCCESS)
        throw std::runtime_error("cannot redirect a predefined registry key");
}

registry_override::~registry_override() {
    RegOverridePredefKey(m_predefined, nullptr);
    RegCloseKey(m_key);
    RegDeleteTreeW(HKEY_CURRENT_USER, m_path.c_str());
    RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\QVWI-tests"); // only if no other scope still has one
}

void registry_override::set_value(HKEY root, const std::wstring& subkey, const wchar_t* name, DWORD type,
                                  const void* data, DWORD size) {
    qv::unique_hkey key;
    if (RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.put(), nullptr) != ERROR_SUCCESS)
        throw std::runtime_error("cannot create a test key");
    if (RegSetValueExW(key.get(), name, 0, type, static_cast<const BYTE*>(data), size) != ERROR_SUCCESS)
        throw std::runtime_error("cannot set a test value");
}

std::optional<DWORD> run_child(const std::wstring& exe, const std::wstring& args, const std::wstring& cwd,
                               DWORD timeoutMs) {
    std::wstring command = L"\"" + exe + L"\" " + args;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(exe.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                        cwd.empty() ? nullptr : cwd.c_str(), &startup, &process))
        return std::nullopt;
    const qv::unique_process_information child(process);
    const DWORD wait = WaitForSingleObject(child.process.get(), timeoutMs);
    if (wait != WAIT_OBJECT_0)
        TerminateProcess(child.process.get(), 99);
    DWORD code = 0;
    GetExitCodeProcess(child.process.get(), &code);
    return wait == WAIT_OBJECT_0 ? std::optional<DWORD>(code) : std::nullopt;
}

std::optional<std::vector<std::wstring>> child_arguments(const wchar_t* flag) {
    int argc = 0;
    LPWSTR* argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    std::optional<std::vector<std::wstring>> result;
    if (argv && argc >= 2 && std::wstring(argv[1]) == flag)
        result = std::vector<std::wstring>(argv + 2, argv + argc);
    LocalFree(argv);
    return result;
}

std::vector<std::wstring> split_lines(const std::wstring& text) {
    std::vector<std::wstring> lines;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = std::min(text.find(L'\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        if (!lines.back().empty() && lines.back().back() == L'\r')
            lines.back().pop_back();
    }
    return lines;
}

template <class F> static F export_of(HMODULE module, const char* name) {
    auto p = reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    if (!p)
        throw std::runtime_error(std::string("QVWIScanners.dll does not export ") + name);
    return p;
}

server_library::server_library() {
    std::wstring path = module_dir() + L"\\QVWIScanners.dll";
    m_module = LoadLibraryW(path.c_str());
    if (!m_module)
        throw std::runtime_error("cannot load " + narrow(path));
    m_canUnload = export_of<decltype(m_canUnload)>(m_module, "DllCanUnloadNow");
    m_getClassObject = export_of<decltype(m_getClassObject)>(m_module, "DllGetClassObject");
}

HRESULT server_library::Create(REFCLSID clsid, IUnknown* outer, REFIID iid, void** ppv) const {
    IClassFactory* factory = nullptr;
    HRESULT hr = GetClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(&factory));
    if (FAILED(hr))
        return hr;
    hr = factory->CreateInstance(outer, iid, ppv);
    factory->Release();
    return hr;
}

server_library& server() {
    static server_library library;
    return library;
}

} // namespace qv::test
