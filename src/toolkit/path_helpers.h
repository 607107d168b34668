// The one place where Windows paths are split and compared. A forward slash separates folders as a
// backslash does, as it does for the platform itself; text after an embedded null is not part of a path.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace qv {

inline bool IsPathSeparator(wchar_t c) {
    return c == L'\\' || c == L'/';
}

// Whether a path is named from the root of a drive or a share ("C:\\x", "\\\\server\\share"): one that is not
// ("x", "C:x", "\\x") stands on the current folder, or the drive's.
inline bool IsFullyQualified(std::wstring_view path) {
    return (path.size() >= 3 && path[1] == L':' && IsPathSeparator(path[2])) ||
           (path.size() >= 2 && IsPathSeparator(path[0]) && IsPathSeparator(path[1]));
}

// The text up to its first null.
inline std::wstring_view UpToNull(std::wstring_view path) {
    return path.substr(0, path.find(L'\0'));
}

// The last component of a path, as the shell reads it: the text after the last separator (or drive
// colon) that something follows. "C:\x" gives "x", "C:\" stays "C:\", "C:\dir\" gives "dir\".
inline std::wstring FileNamePart(std::wstring_view path) {
    path = UpToNull(path);
    size_t start = 0;
    for (size_t i = 0; i + 1 < path.size(); ++i) {
        if ((IsPathSeparator(path[i]) || path[i] == L':') && !IsPathSeparator(path[i + 1]))
            start = i + 1;
    }
    return std::wstring(path.substr(start));
}

// The path without its last component, as the shell cuts it: the separator before it goes too, except
// after a drive or at the front, so that a root keeps it ("C:\x" gives "C:\", "C:x" gives "C:", "\x" gives
// "\"). A leading "\\" of a UNC path is never a cut; a bare name gives the empty text.
inline std::wstring DirectoryPart(std::wstring_view path) {
    path = UpToNull(path);
    size_t i = 0;
    size_t cut = 0;
    for (int lead = 0; lead < 2 && i < path.size() && IsPathSeparator(path[i]); ++lead)
        cut = ++i;
    for (; i < path.size(); ++i) {
        if (IsPathSeparator(path[i])) {
            cut = i;
        } else if (path[i] == L':') {
            cut = i + 1;
            if (cut < path.size() && IsPathSeparator(path[cut]))
                ++cut, ++i;
        }
    }
    return std::wstring(path.substr(0, cut));
}

// Joins a folder and a name with exactly one separator between them.
inline std::wstring JoinPath(std::wstring_view dir, std::wstring_view name) {
    std::wstring r(dir);
    if (!r.empty() && !IsPathSeparator(r.back()))
        r += L'\\';
    r += name;
    return r;
}

// The text in lower case, as the system lowers it (CharLowerBuffW).
inline std::wstring LowerCase(std::wstring text) {
    if (!text.empty())
        CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

// The text with A to Z lowered and nothing else: how section and key names of a profile file compare.
inline std::wstring FoldAsciiCase(std::wstring text) {
    for (wchar_t& c : text)
        c = c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
    return text;
}

// Whether text begins with prefix, compared without regard to case (ordinal, as file names compare).
// An empty prefix begins nothing: an unknown folder is the prefix of no path.
inline bool StartsWithNoCase(std::wstring_view text, std::wstring_view prefix) {
    if (prefix.empty() || prefix.size() > text.size())
        return false;
    return CompareStringOrdinal(text.data(), static_cast<int>(prefix.size()), prefix.data(),
                                static_cast<int>(prefix.size()), TRUE) == CSTR_EQUAL;
}

// Whether a and b are the same text without regard to case (ordinal, as file names compare).
inline bool EqualNoCase(std::wstring_view a, std::wstring_view b) {
    if (a.size() != b.size())
        return false;
    return a.empty() || CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()),
                                             TRUE) == CSTR_EQUAL;
}

// Whether part occurs anywhere within text, without regard to case.
inline bool ContainsNoCase(std::wstring_view text, std::wstring_view part) {
    return FindStringOrdinal(FIND_FROMSTART, text.data(), static_cast<int>(text.size()), part.data(),
                             static_cast<int>(part.size()), TRUE) >= 0;
}

// The extension of a path's last component including its dot (".dll"), or empty.
inline std::wstring_view ExtensionPart(std::wstring_view path) {
    auto slash = path.find_last_of(L"\\/");
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

// The full, normalised form of a path ("." and ".." resolved, separators made backslashes) when it has
// anything to normalise; otherwise, or when the system cannot say, the path as it is.
std::wstring NormalisedPath(const std::wstring& path);
// The full form of a path, of any length; the path as it is when the system cannot say.
std::wstring FullPath(const std::wstring& path);
// The process's current directory, of any length; empty when it cannot be read.
std::wstring CurrentDirectory();

} // namespace qv
