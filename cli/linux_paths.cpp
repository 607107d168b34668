#include "linux_paths.h"

#include "inc/unique_handles.h"
#include "text_output.h"
#include "toolkit/path_helpers.h"

#include <windows.h>

#include <algorithm>
#include <memory>

namespace qvscan {

namespace {

// The characters a Linux name may hold and a Windows name may not.
constexpr const wchar_t* unspellable = L"\"*:<>?|\\";

// The name of a Linux file's component as Windows programs see it under Wine: a name that Windows cannot
// hold is reachable only by the short name Wine makes for it, which the folder's listing gives.
std::wstring windows_component(const std::wstring& folder, const std::wstring& name) {
    if (name.find_first_of(unspellable) == std::wstring::npos)
        return name;
    WIN32_FIND_DATAW data{};
    qv::unique_hfind find(FindFirstFileW((folder + L"\\*").c_str(), &data));
    for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.get(), &data)) {
        if (name == data.cFileName && data.cAlternateFileName[0])
            return data.cAlternateFileName;
    }
    return name;
}

// Where the longest head of plain names ends: Wine converts that much; the rest goes a component at a time.
size_t plain_head(const std::wstring& file) {
    for (size_t start = 1; start < file.size();) {
        const size_t end = std::min(file.find(L'/', start), file.size());
        if (file.find_first_of(unspellable, start) < end)
            return start;
        start = end + 1;
    }
    return file.size();
}

using to_dos_fn = WCHAR*(CDECL*)(const char*);

// Wine's conversion of Linux paths; null where the tool does not run under Wine.
to_dos_fn wine_converter() {
    const HMODULE kernel = GetModuleHandleW(L"kernel32");
    return reinterpret_cast<to_dos_fn>(
        reinterpret_cast<void (*)()>(kernel ? GetProcAddress(kernel, "wine_get_dos_file_name") : nullptr));
}

// A text Wine allocated on the process heap.
struct heap_text_free {
    void operator()(void* text) const { HeapFree(GetProcessHeap(), 0, text); }
};

} // namespace

std::wstring to_linux(const std::wstring& path) {
    using to_unix_fn = char*(CDECL*)(const WCHAR*);
    const HMODULE kernel = GetModuleHandleW(L"kernel32");
    const auto convert = reinterpret_cast<to_unix_fn>(
        reinterpret_cast<void (*)()>(kernel ? GetProcAddress(kernel, "wine_get_unix_file_name") : nullptr));
    const std::unique_ptr<char, heap_text_free> converted(convert ? convert(path.c_str()) : nullptr);
    return converted ? wide(converted.get()) : path;
}

std::wstring from_linux(const std::wstring& file) {
    const to_dos_fn to_dos = wine_converter();
    if (!to_dos || file.empty() || file[0] != L'/')
        return file;
    const size_t head = plain_head(file);
    const std::unique_ptr<WCHAR, heap_text_free> converted(to_dos(utf8(file.substr(0, head)).c_str()));
    if (!converted)
        return file;
    std::wstring result = converted.get();
    for (size_t start = head; start < file.size();) {
        const size_t end = std::min(file.find(L'/', start), file.size());
        if (end > start) {
            if (!result.empty() && result.back() == L'\\')
                result.pop_back();
            result += L'\\' + windows_component(result, file.substr(start, end - start));
        }
        start = end + 1;
    }
    return result;
}

std::wstring full_path(const std::wstring& given) {
    return qv::FullPath(from_linux(given));
}

bool exists(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool is_folder(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

} // namespace qvscan
