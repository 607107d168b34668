// Helpers shared by the test binaries: where the fixtures are, scratch folders, environment scopes.
#pragma once

#include <windows.h>

#include <string>

namespace qv::test {

// Folder of the running test binary, without a trailing backslash.
std::wstring module_dir();

// Full path of a built fixture: <bin>\fixtures\<relative>.
std::wstring fixture(const std::wstring& relative);

// The Windows system folder of the running prefix, e.g. C:\windows\system32 (no trailing backslash).
std::wstring system_dir();

// A fresh folder below %TEMP%, removed with everything in it when the object dies.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    const std::wstring& path() const { return m_path; }
    std::wstring operator/(const std::wstring& name) const { return m_path + L"\\" + name; }

    // Writes bytes to <dir>\<name>, making sub folders as needed; returns the full path.
    std::wstring write(const std::wstring& name, const std::string& bytes) const;
    // Copies a file into the folder under a name; returns the full path.
    std::wstring copy(const std::wstring& from, const std::wstring& name) const;
    // Makes a sub folder; returns its full path.
    std::wstring mkdir(const std::wstring& name) const;

private:
    std::wstring m_path;
};

// Sets (or with nullptr removes) an environment variable, and restores the old state on exit.
class env_scope {
public:
    env_scope(const wchar_t* name, const wchar_t* value);
    ~env_scope();
    env_scope(const env_scope&) = delete;
    env_scope& operator=(const env_scope&) = delete;

private:
    std::wstring m_name;
    std::wstring m_old;
    bool m_had = false;
};

// Changes the current directory, and restores it on exit.
class cwd_scope {
public:
    explicit cwd_scope(const std::wstring& dir);
    ~cwd_scope();
    cwd_scope(const cwd_scope&) = delete;
    cwd_scope& operator=(const cwd_scope&) = delete;

private:
    std::wstring m_old;
};

// Reads a whole file; empty when it cannot be read.
std::string read_file(const std::wstring& path);

// UTF-8 <-> UTF-16 for messages and comparisons.
std::string narrow(const std::wstring& text);
std::wstring widen(const std::string& text);

// Lower-cases a path for comparisons that ignore case.
std::wstring lower(std::wstring text);

} // namespace qv::test
