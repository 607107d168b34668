// Small text helpers for Windows paths, shared by the scanners.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace qv {

// The file-name part of a path: the text after the last backslash, or the whole text.
inline std::wstring FileNamePart(std::wstring_view path) {
    auto pos = path.find_last_of(L'\\');
    return std::wstring(pos == std::wstring_view::npos ? path : path.substr(pos + 1));
}

// The text before the last backslash, or empty when there is none.
inline std::wstring DirectoryPart(std::wstring_view path) {
    auto pos = path.find_last_of(L'\\');
    return pos == std::wstring_view::npos ? std::wstring() : std::wstring(path.substr(0, pos));
}

// Joins a folder and a name with exactly one backslash between them.
inline std::wstring JoinPath(std::wstring_view dir, std::wstring_view name) {
    std::wstring r(dir);
    if (!r.empty() && r.back() != L'\\')
        r += L'\\';
    r += name;
    return r;
}

// Whether text begins with prefix, compared without regard to case (ordinal, as file names compare).
inline bool StartsWithNoCase(std::wstring_view text, std::wstring_view prefix) {
    if (prefix.size() > text.size())
        return false;
    if (prefix.empty())
        return true;
    return CompareStringOrdinal(text.data(), static_cast<int>(prefix.size()), prefix.data(),
                                static_cast<int>(prefix.size()), TRUE) == CSTR_EQUAL;
}

// The extension of a file name including its dot (".dll"), or empty.
inline std::wstring_view ExtensionPart(std::wstring_view path) {
    auto slash = path.find_last_of(L'\\');
    auto dot = path.find_last_of(L'.');
    if (dot == std::wstring_view::npos || (slash != std::wstring_view::npos && dot < slash))
        return {};
    return path.substr(dot);
}

// Whether the file-name part of a path names a device of the platform rather than a file: CON, PRN, AUX,
// NUL, COM0 to COM9, LPT0 to LPT9, CONIN$, CONOUT$, in any case, with any extension ("com1.dll") and
// trailing spaces. Such a name opens the device in every folder, so it is never a file on disk.
inline bool IsDeviceName(std::wstring_view path) {
    std::wstring_view name = path.substr(path.find_last_of(L"\\/") + 1);
    name = name.substr(0, name.find(L'.'));
    while (!name.empty() && (name.back() == L' ' || name.back() == L':'))
        name.remove_suffix(1);
    auto is = [&](std::wstring_view device) {
        return name.size() == device.size() &&
               CompareStringOrdinal(name.data(), static_cast<int>(name.size()), device.data(),
                                    static_cast<int>(device.size()), TRUE) == CSTR_EQUAL;
    };
    if (is(L"CON") || is(L"PRN") || is(L"AUX") || is(L"NUL") || is(L"CONIN$") || is(L"CONOUT$"))
        return true;
    return name.size() == 4 && (is(std::wstring(L"COM") + name[3]) || is(std::wstring(L"LPT") + name[3])) &&
           name[3] >= L'0' && name[3] <= L'9';
}

} // namespace qv
