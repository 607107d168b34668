#include "vb/vbp_resolution.h"

#include "toolkit/probes.h"
#include "vb/project_reader.h"

#include <windows.h>


#include <cstdio>
#include <cwchar>
#include <vector>

namespace {

// The text from its first "{" on, or all of it.
std::wstring FromBrace(const std::wstring& text) {
    const size_t brace = text.find(L'{');
    return brace == std::wstring::npos ? text : text.substr(brace);
}

// The 32-bit path registered for a type library, the version tried in hex and then as written.
std::wstring RegisteredTypeLib(const std::wstring& guid, const std::wstring& version) {
    for (const std::wstring& spelling : {FormatTypeLibVersion(version), version}) {
        std::wstring path =
            qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, L"TypeLib\\" + guid + L"\\" + spelling + L"\\0\\win32");
        if (!path.empty())
            return path;
    }
    return {};
}

// The text without its first and last character when it starts with a double quote.
std::wstring Unquoted(const std::wstring& text) {
    if (text.empty() || text.front() != L'"')
        return text;
    return text.size() < 2 ? std::wstring() : text.substr(1, text.size() - 2);
}

} // namespace

std::wstring GetDelimitedField(const std::wstring& text, int n, const std::wstring& delimiter) {
    if (delimiter.empty())
        return {};
    size_t start = 0;
    for (int i = 1; i < n; ++i) {
        const size_t at = text.find(delimiter, start);
        if (at == std::wstring::npos)
            return {};
        start = at + delimiter.size();
    }
    const size_t end = text.find(delimiter, start);
    return end == std::wstring::npos ? std::wstring() : text.substr(start, end - start);
}

std::wstring FormatTypeLibVersion(const std::wstring& version) {
    const size_t dot = version.find(L'.');
    const std::wstring major = version.substr(0, dot);
    const std::wstring minor = dot == std::wstring::npos ? std::wstring() : version.substr(dot + 1);
    wchar_t text[32];
    swprintf(text, std::size(text), L"%lx.%lx", static_cast<unsigned long>(wcstol(major.c_str(), nullptr, 10)),
             static_cast<unsigned long>(wcstol(minor.c_str(), nullptr, 10)));
    return text;
}

std::wstring SearchForFile(const std::wstring& file) {
    if (file.empty())
        return file;
    std::vector<wchar_t> found(MAX_PATH);
    for (;;) {
        const DWORD n =
            SearchPathW(nullptr, file.c_str(), nullptr, static_cast<DWORD>(found.size()), found.data(), nullptr);
        if (n == 0)
            return file;
        if (n < found.size())
            return std::wstring(found.data(), n);
        found.resize(n + 1);
    }
}

std::wstring ResolveReferenceLine(const std::wstring& line, const std::wstring& folder) {
    const std::wstring guid = FromBrace(GetDelimitedField(line, 1, L"#"));
    const std::wstring version = GetDelimitedField(line, 2, L"#");
    const std::wstring path = GetDelimitedField(line, 4, L"#");
    std::wstring registered = RegisteredTypeLib(guid, version);
    if (!registered.empty())
        return registered;
    return qv::IsAbsolutePath(path) ? path : Combine(folder, path);
}

std::wstring ResolveObjectLine(const std::wstring& line) {
    const size_t semicolon = line.find(L';');
    std::wstring left, result;
    if (semicolon != std::wstring::npos) {
        left = line.substr(0, semicolon);
        result = Unquoted(semicolon + 2 <= line.size() ? line.substr(semicolon + 2) : std::wstring());
    }
    if (line.find(L'#') != std::wstring::npos) {
        std::wstring registered =
            RegisteredTypeLib(FromBrace(GetDelimitedField(line, 1, L"#")), GetDelimitedField(line, 2, L"#"));
        return registered.empty() ? SearchForFile(result) : registered;
    }
    if (left.empty())
        return result;
    // No type library: an out-of-process class named by its ProgID, found through its LocalServer32.
    const std::wstring progId = Unquoted(left.size() > 7 ? left.substr(7) : std::wstring());
    const std::wstring clsid = qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, progId + L"\\CLSID");
    if (clsid.empty())
        return result;
    const std::wstring server =
        qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, L"CLSID\\" + clsid + L"\\LocalServer32");
    if (server.empty())
        return result;
    return qv::IsAbsolutePath(server) ? server : SearchForFile(result);
}
