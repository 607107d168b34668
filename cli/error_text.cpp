#include "error_text.h"

#include "inc/com_error.h"
#include "text_output.h"
#include "toolkit/path_helpers.h"

#include <cstdio>

namespace qvscan {

std::string hex(HRESULT hr) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%08lX", static_cast<unsigned long>(hr));
    return buffer;
}

std::string describe(HRESULT hr) {
    std::wstring message = qv::system_message(hr);
    while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L'.'))
        message.pop_back();
    return message.empty() ? hex(hr) : utf8(message) + " (" + hex(hr) + ")";
}

std::string failure_text(HRESULT hr) {
    const std::wstring why = qv::take_error_description();
    return why.empty() ? describe(hr) : utf8(why) + " (" + hex(hr) + ")";
}

std::string not_a_file(const std::wstring& path) {
    if (qv::IsDeviceName(path))
        return "is a device, not a file";
    SetLastError(0);
    DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES)
        return "is a folder, not a file";
    DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == 0)
        return "no such file";
    return describe(HRESULT_FROM_WIN32(error));
}

} // namespace qvscan
