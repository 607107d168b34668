#include "toolkit/inet_file.h"

#include "inc/com_exception.h"

namespace qv {

inet_session::inet_session(DWORD timeoutMs)
    : m_handle(InternetOpenW(L"QVWI Scanners", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0)) {
    if (!m_handle)
        throw_last_error();
    for (DWORD option :
         {INTERNET_OPTION_CONNECT_TIMEOUT, INTERNET_OPTION_SEND_TIMEOUT, INTERNET_OPTION_RECEIVE_TIMEOUT})
        InternetSetOptionW(m_handle.get(), option, &timeoutMs, sizeof timeoutMs);
}

bool inet_file::Open(const inet_session& session, const std::wstring& url) {
    constexpr DWORD flags = INTERNET_FLAG_NO_UI | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_RELOAD |
                            INTERNET_FLAG_NO_COOKIES | INTERNET_FLAG_NO_AUTH;
    m_handle.reset(InternetOpenUrlW(session.Handle(), url.c_str(), nullptr, 0, flags, 0));
    m_error = m_handle ? ERROR_SUCCESS : GetLastError();
    return static_cast<bool>(m_handle);
}

DWORD http_file::StatusCode() const {
    if (!Handle())
        return 0;
    DWORD status = 0;
    DWORD size = sizeof status;
    if (!HttpQueryInfoW(Handle(), HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status, &size, nullptr))
        return 0;
    return status;
}

bool http_file::Exists() const {
    if (!inet_file::Exists())
        return false;
    DWORD status = StatusCode();
    return status != 0 && status < 400;
}

} // namespace qv
