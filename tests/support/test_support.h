// What the test programs share: fixture paths, scratch folders and registry keys, environment and
// folder scopes, child runs of a test program, and the server DLL loaded by path as a client loads it.
#pragma once

#include <windows.h>

#include <objbase.h>
#include <optional>
#include <string>
#include <vector>

namespace qv::test {

std::wstring program_path();                        // the test program's full path
std::wstring module_dir();                          // folder of the test program, no trailing backslash
std::wstring fixture(const std::wstring& relative); // <bin>\fixtures\<relative>
std::wstring system_dir();                          // e.g. C:\windows\system32

std::string read_file(const std::wstring& path); // empty when unreadable
std::string narrow(const std::wstring& text);    // UTF-16 -> UTF-8
std::wstring widen(const std::string& text);     // UTF-8 -> UTF-16
std::wstring lower(std::wstring text);

// A fresh folder below %TEMP%, removed with everything in it when the object dies.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    const std::wstring& path() const { return m_path; }
    std::wstring operator/(const std::wstring& name) const { return m_path + L"\\" + name; }
    // Each makes sub folders as needed and returns the full path.
    std::wstring write(const std::wstring& name, const std::string& bytes) const;
    std::wstring copy(const std::wstring& from, const std::wstring& name) const;
    std::wstring mkdir(const std::wstring& name) const;

private:
    std::wstring m_path;
};

// Sets (nullptr: removes) an environment variable for a scope.
class env_scope {
public:
    env_scope(const wchar_t* name, const wchar_t* value);
    ~env_scope();
    env_scope(const env_scope&) = delete;

private:
    std::wstring m_name, m_old;
    bool m_had = false;
};

// Changes the current folder for a scope.
class cwd_scope {
public:
    explicit cwd_scope(const std::wstring& dir);
    ~cwd_scope();
    cwd_scope(const cwd_scope&) = delete;

private:
    std::wstring m_old;
};

// A predefined key (HKEY_LOCAL_MACHINE, HKEY_CLASSES_ROOT, ...) redirected process-wide, companions
// included, to a scratch key below HKEY_CURRENT_USER\Software\QVWI-tests, removed afterwards.
class registry_override {
public:
    explicit registry_override(HKEY predefined);
    ~registry_override();
    registry_override(const registry_override&) = delete;
    HKEY key() const { return m_key; }
    // Creates root\subkey and sets a value (nullptr: the default one) to raw bytes.
    static void set_value(HKEY root, const std::wstring& subkey, const wchar_t* name, DWORD type, const void* data,
                          DWORD size);

private:
    HKEY m_predefined;
    HKEY m_key = nullptr;
    std::wstring m_path;
};

// Runs "exe" args in folder cwd (empty: ours) and waits; the exit code, or nullopt when the child did
// not start or end in time (it is then terminated).
std::optional<DWORD> run_child(const std::wstring& exe, const std::wstring& args, const std::wstring& cwd = {},
                               DWORD timeoutMs = 60000);
// The arguments after argv[0] when the first of them is flag: this program runs as a child.
std::optional<std::vector<std::wstring>> child_arguments(const wchar_t* flag);
std::vector<std::wstring> split_lines(const std::wstring& text); // at '\n', a '\r' before it dropped

// QVWIScanners.dll beside the test program, loaded on first use and kept.
class server_library {
public:
    server_library();
    HRESULT CanUnloadNow() const { return m_canUnload(); }
    HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** ppv) const { return m_getClassObject(clsid, iid, ppv); }
    HRESULT Create(REFCLSID clsid, IUnknown* outer, REFIID iid, void** ppv) const; // outer may be null
    HMODULE module() const { return m_module; }

private:
    HMODULE m_module = nullptr;
    HRESULT(STDAPICALLTYPE* m_canUnload)() = nullptr;
    HRESULT(STDAPICALLTYPE* m_getClassObject)(REFCLSID, REFIID, void**) = nullptr;
};
server_library& server();

class com_apartment {
public:
    explicit com_apartment(COINIT model = COINIT_APARTMENTTHREADED) : m_hr(CoInitializeEx(nullptr, model)) {}
    ~com_apartment() {
        if (SUCCEEDED(m_hr))
            CoUninitialize();
    }
    com_apartment(const com_apartment&) = delete;

private:
    HRESULT m_hr;
};

} // namespace qv::test
