// Minimal readers of files named by URL, over WinINet. PathExists uses them to tell whether a URL
// can be opened; nothing here trusts or parses what the server sends.
#pragma once

#include "inc/unique_handles.h"

#include <windows.h>
#include <wininet.h>

#include <string>

namespace qv {

// One WinINet session with bounded time-outs. Throws qv::win32_exception if WinINet refuses it.
class inet_session {
public:
    explicit inet_session(DWORD timeoutMs = 15000);
    HINTERNET Handle() const noexcept { return m_handle.get(); }

private:
    unique_hinternet m_handle;
};

// A URL opened for reading, of any scheme WinINet knows (ftp:// among them).
class inet_file {
public:
    virtual ~inet_file() = default;
    // Opens the URL; false (and Error()) when it cannot be opened.
    bool Open(const inet_session& session, const std::wstring& url);
    // Whether the opened URL stands for a file that is there.
    virtual bool Exists() const { return static_cast<bool>(m_handle); }
    DWORD Error() const noexcept { return m_error; }

protected:
    HINTERNET Handle() const noexcept { return m_handle.get(); }

private:
    unique_hinternet m_handle;
    DWORD m_error = ERROR_SUCCESS;
};

// An http:// or https:// URL: opening succeeds for any answer of the server, so an error status
// (400 and above) means the file is not there.
class http_file : public inet_file {
public:
    bool Exists() const override;
    // The HTTP status of the answer, 0 when there is none.
    DWORD StatusCode() const;
};

} // namespace qv
