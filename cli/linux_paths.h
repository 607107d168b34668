// The paths a person gives: a Linux path ("/home/me/app.exe") while the tool runs under Wine is made the
// Windows path of the same file, of any length; any other path is taken as it is. Trusts Wine's own
// conversion for the plain head of a path and the folder's listing for names Windows cannot spell.
#pragma once

#include <string>

namespace qvscan {

// A FILE given as a Linux path, under Wine: the Windows path of the same file. Elsewhere, or for any other
// path, the path as it is.
std::wstring from_linux(const std::wstring& file);
// The Linux path of a Windows path, under Wine (for a Linux program that reads the file); elsewhere the path as
// it is.
std::wstring to_linux(const std::wstring& path);
// The full path of FILE (made from a Linux path first, under Wine), of any length.
std::wstring full_path(const std::wstring& given);
// Whether path names a file (not a folder) that is there.
bool exists(const std::wstring& path);
// Whether path names a folder that is there.
bool is_folder(const std::wstring& path);

} // namespace qvscan
