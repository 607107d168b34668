// Conversions between the narrow texts of files and the wide texts of the interfaces.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace qv {

// Through an ANSI code page: the system's by default, CP_THREAD_ACP for the thread's.
inline std::wstring WidenAnsi(std::string_view text, UINT codePage = CP_ACP) {
    if (text.empty())
        return {};
    int n = MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(n > 0 ? n : 0), L'\0');
    if (n > 0)
        MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
    return out;
}

inline std::string NarrowAnsi(std::wstring_view text, UINT codePage = CP_ACP) {
    if (text.empty())
        return {};
    int n = WideCharToMultiByte(codePage, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                nullptr);
    std::string out(static_cast<size_t>(n > 0 ? n : 0), '\0');
    if (n > 0)
        WideCharToMultiByte(codePage, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr,
                            nullptr);
    return out;
}

// ASCII only: each byte becomes one code unit.
inline std::wstring WidenAscii(std::string_view text) { return std::wstring(text.begin(), text.end()); }

} // namespace qv
