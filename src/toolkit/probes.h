// Probes of the Windows machine that the scanners share: path forms, existence of files and
// folders, default registry values, the processor word, the system folders and how 32-bit
// redirection maps them, and the folders of the "Path" variable.
//
// Only PathExists (with path_throw_errors) and the first call of a folder constant throw; every
// other probe answers false or an empty string on failure.
#pragma once

#include "environment.h"

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

namespace qv {

// Flag bits of PathExists.
inline constexpr unsigned path_accept_file = 4;   // an existing file is a yes
inline constexpr unsigned path_accept_folder = 8; // an existing folder is a yes
inline constexpr unsigned path_allow_url = 16;    // http://, https:// and ftp:// paths are opened as URLs
inline constexpr unsigned path_throw_errors = 32; // unexpected errors throw qv::win32_exception
inline constexpr unsigned path_accept_any = path_accept_file | path_accept_folder;

// True for "\\x..." (two backslashes and at least one more character) and for any path whose
// second character is ':' ("C:", "C:x", "C:\x"). "\foo", "foo" and a bare "\\" are not absolute.
bool IsAbsolutePath(std::wstring_view path);

// Whether the path has attributes: a folder counts as existing. False for an empty path.
bool FileExists(const std::wstring& path);

// Whether the path names a file (path_accept_file) or a folder (path_accept_folder) that exists.
// Not found (errors 2 and 3) is false. Access denied asks FindFirstFileW instead. Any other error
// is false, or throws qv::win32_exception under path_throw_errors. With path_allow_url, a URL is
// a yes when it can be opened; the two accept bits do not apply to it.
bool PathExists(const std::wstring& path, unsigned flags);

// The default value of root\subkey as text, or empty on any failure. At most 260 bytes are read;
// a longer value is a failure. REG_SZ/REG_EXPAND_SZ need an even length ending in a terminator,
// REG_MULTI_SZ an even length ending in two (one when only two bytes long); other types fail.
// For REG_MULTI_SZ the first string is the result.
std::wstring ReadDefaultRegistryValue(HKEY root, const std::wstring& subkey);

// HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion, CommonFilesDir as stored (not expanded), of any length;
// empty when it is missing, not a string, or cannot be read.
std::wstring ReadCommonFilesDir();

// The native processor (GetNativeSystemInfo, GetSystemInfo where it is absent).
bool Is64BitOs(); // IsItanium() || IsAmd64()
bool IsItanium();
bool IsAmd64();
// Whether this process runs under 32-bit emulation: always false in a 64-bit build.
bool IsWow64();

// Process-wide folder constants, made on first use and kept: each ends in a backslash when not
// empty. The first call throws qv::win32_exception if the system cannot tell the folder.
const std::wstring& SystemFolder();    // GetSystemDirectoryW, e.g. C:\windows\system32\ .
const std::wstring& WindowsFolder();   // GetWindowsDirectoryW, e.g. C:\windows\ .
const std::wstring& SysNativeFolder(); // <windows>sysnative\ under WOW64 only, else empty.
const std::wstring& SysWow64Folder();  // <windows>syswow64\ on a 64-bit system only, else empty.

// Redirection between the 32-bit view of the system folder and the native one; both give the
// path unchanged unless IsWow64(). Prefixes match without regard to case.
// To native: SystemFolder -> SysNativeFolder, else SysWow64Folder -> SystemFolder.
std::wstring MapToNativePath(const std::wstring& path);
// From native: SysNativeFolder -> SystemFolder, else SystemFolder -> SysWow64Folder.
std::wstring MapFromNativePath(const std::wstring& path);

// The folders of the "Path" variable, expanded and split at ';', read on the first call and kept
// for the process: later changes of the environment have no effect. Empty entries between two
// separators stay as empty strings; an empty last entry is dropped. Not guarded: make the first
// call before threads share it.
const std::vector<std::wstring>& GetSearchFolders();

namespace detail {

// The folder values the redirection works with, so that the mapping can be exercised without a
// 32-bit process.
struct redirection_folders {
    std::wstring system;
    std::wstring sysnative;
    std::wstring syswow64;
};
std::wstring MapToNativePath(const std::wstring& path, bool wow64, const redirection_folders& folders);
std::wstring MapFromNativePath(const std::wstring& path, bool wow64, const redirection_folders& folders);

// How a folder constant is made from GetSystemDirectoryW or GetWindowsDirectoryW (260 characters):
// with a trailing backslash. Throws qv::win32_exception when the call fails or the folder does not fit.
std::wstring MakeFolder(UINT(WINAPI* query)(LPWSTR, UINT));

// How GetSearchFolders splits an expanded "Path".
std::vector<std::wstring> SplitSearchPath(std::wstring_view text);

// Whether PathExists treats the path as a URL when path_allow_url is set.
bool IsInternetPath(std::wstring_view path);

// What PathExists asks of the system, so that its decisions can be checked error by error.
class path_probe {
public:
    virtual ~path_probe() = default;
    // GetFileAttributesW: the attributes, or INVALID_FILE_ATTRIBUTES with the error.
    virtual DWORD Attributes(const std::wstring& path, DWORD& error) = 0;
    // FindFirstFileW: true with the attributes of the first match, or false with the error.
    virtual bool FindAttributes(const std::wstring& path, DWORD& attributes, DWORD& error) = 0;
    // Whether the URL can be opened.
    virtual bool UrlOpens(const std::wstring& url, bool throwErrors) = 0;
};
bool PathExists(const std::wstring& path, unsigned flags, path_probe& probe);

} // namespace detail

} // namespace qv
