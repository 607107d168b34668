// Exception types of the server, and the checks that raise them.
// com_exception carries a failed HRESULT; qv::win32_exception carries a Win32 error code.
#pragma once

#include <windows.h>

#include <exception>

class com_exception : public std::exception {
public:
    explicit com_exception(HRESULT hr) noexcept : m_hr(hr) {}
    HRESULT Error() const noexcept { return m_hr; }
    const char* what() const noexcept override { return "com_exception"; }

private:
    HRESULT m_hr;
};

// Throws com_exception for a failed HRESULT; passes a success code through.
inline HRESULT check_hr(HRESULT hr) {
    if (FAILED(hr))
        throw com_exception(hr);
    return hr;
}

namespace qv {

class win32_exception : public std::exception {
public:
    explicit win32_exception(DWORD error) noexcept : m_error(error) {}
    DWORD Error() const noexcept { return m_error; }
    HRESULT Result() const noexcept { return HRESULT_FROM_WIN32(m_error); }
    const char* what() const noexcept override { return "qv::win32_exception"; }

private:
    DWORD m_error;
};

// Throws win32_exception with GetLastError() (or E_FAIL's code when the callee set none).
[[noreturn]] inline void throw_last_error() {
    DWORD error = GetLastError();
    throw win32_exception(error ? error : ERROR_GEN_FAILURE);
}

} // namespace qv
