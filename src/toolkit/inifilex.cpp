#include "toolkit/inifilex.h"

#include "format/ini/ini_text.h"
#include "inc/unique_handles.h"
#include "toolkit/path_helpers.h"

#include <algorithm>
#include <cwchar>
#include <optional>

namespace qv {

namespace {

std::u16string_view U16(std::wstring_view text) {
    return {reinterpret_cast<const char16_t*>(text.data()), text.size()};
}
std::wstring Wide(std::u16string_view text) {
    return {reinterpret_cast<const wchar_t*>(text.data()), text.size()};
}

bool StartsWithFolded(std::wstring_view text, std::wstring_view prefix) {
    return prefix.size() <= text.size() && ini::equal_no_case(U16(text.substr(0, prefix.size())), U16(prefix));
}

// The format with its "%s"/"%ls" taking the texts in turn and "%d"/"%i"/"%u" the number.
std::wstring Format(std::wstring_view format, const std::vector<std::wstring>& texts, std::optional<long> number) {
    std::wstring out;
    size_t nextText = 0;
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] != L'%' || i + 1 == format.size()) {
            out += format[i];
            continue;
        }
        const wchar_t c = format[i + 1];
        const bool wide = c == L'l' && i + 2 < format.size() && format[i + 2] == L's';
        if (c == L'%') {
            out += L'%', ++i;
        } else if ((c == L's' || wide) && nextText < texts.size()) {
            out += texts[nextText++], i += wide ? 2 : 1;
        } else if ((c == L'd' || c == L'i' || c == L'u') && number) {
            out += std::to_wstring(*number), ++i;
        } else {
            out += L'%';
        }
    }
    return out;
}

// Makes the folders of a path that do not exist yet.
void PrepareFolder(const std::wstring& file) {
    const std::wstring folder = DirectoryPart(file);
    if (folder.empty() || GetFileAttributesW(folder.c_str()) != INVALID_FILE_ATTRIBUTES)
        return;
    PrepareFolder(folder);
    CreateDirectoryW(folder.c_str(), nullptr);
}

} // namespace

bool name_less::operator()(const std::wstring& a, const std::wstring& b) const {
    return ini::less_no_case(U16(a), U16(b));
}

inifileentryx* inifilesectionx::Find(const std::wstring& key) {
    auto it = m_index.find(key);
    return it == m_index.end() ? nullptr : &m_entries[it->second];
}

void inifilesectionx::Reindex() {
    m_index.clear();
    for (size_t i = 0; i < m_entries.size(); ++i)
        m_index.emplace(m_entries[i].m_sKey, i);
}

void inifilex::SetFile(std::wstring file, std::wstring separator) {
    m_sFile = std::move(file);
    m_sSeparator = std::move(separator);
}

bool inifilex::Load(std::wstring file, std::wstring separator, bool bareKeys) {
    Clear();
    m_nBadLine = 0;
    m_sBadLine.clear();
    m_bBareKeys = bareKeys;
    m_sSeparator = std::move(separator);
    m_sFile = std::move(file);

    unique_hfile handle(CreateFileW(m_sFile.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
    LARGE_INTEGER size{};
    if (!handle || GetFileType(handle.get()) != FILE_TYPE_DISK || !GetFileSizeEx(handle.get(), &size)) {
        m_nLastError = handle ? ERROR_INVALID_HANDLE : ::GetLastError();
        return false;
    }
    if (size.QuadPart > 0x10000000) { // a profile of more than 256 MiB is no profile
        m_nLastError = ERROR_FILE_TOO_LARGE;
        return false;
    }
    std::string bytes(static_cast<size_t>(size.QuadPart), '\0');
    DWORD got = 0;
    if (!bytes.empty() && !ReadFile(handle.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr)) {
        m_nLastError = ::GetLastError();
        return false;
    }
    bytes.resize(got);

    const format::byte_span span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    const ini::mark mark = ini::find_mark(span);
    const int cp = mark.code_page ? static_cast<int>(mark.code_page) : m_nCodePage != -1 ? m_nCodePage : int(GetACP());
    std::wstring text;
    const format::byte_span body = span.from(mark.length);
    if (cp == ini::utf16_le || cp == ini::utf16_be) {
        text = Wide(ini::decode_utf16(body, cp == ini::utf16_be));
    } else if (!body.empty()) {
        const char* from = reinterpret_cast<const char*>(body.data());
        const int n = MultiByteToWideChar(cp, 0, from, static_cast<int>(body.size()), nullptr, 0);
        text.resize(static_cast<size_t>(n));
        if (n == 0 || MultiByteToWideChar(cp, 0, from, static_cast<int>(body.size()), text.data(), n) != n) {
            m_nLastError = ::GetLastError();
            return false;
        }
    }
    m_nCodePage = cp;
    m_bWriteBom = mark.code_page != 0;

    ini::parse_result parsed = ini::parse(U16(text), U16(m_sSeparator));
    for (ini::section& s : parsed.sections) {
        inifilesectionx& section = m_sections.emplace_back();
        section.m_sName = Wide(s.name);
        for (ini::entry& e : s.entries)
            section.m_entries.push_back({Wide(e.key), Wide(e.value)});
        section.Reindex();
    }
    Reindex();
    m_bModified = false;
    if (!parsed.ok) {
        m_nLastError = ERROR_INVALID_DATA;
        m_nBadLine = parsed.bad_line;
        m_sBadLine.assign(parsed.problem, parsed.problem + std::char_traits<char>::length(parsed.problem));
    }
    return parsed.ok;
}

bool inifilex::Save(DWORD flags, int encoding, bool bom) {
    return SaveAs(m_sFile, flags, encoding, bom);
}

bool inifilex::SaveAs(std::wstring file, DWORD flags, int encoding, bool bom) {
    if ((flags & SaveNothingWhenEmpty) && m_sections.empty())
        return true;
    m_bSaving = true;
    if (flags & SaveWithEncoding) {
        SetCodePage(encoding);
        SetWriteBom(bom);
    }
    if (flags & SaveSorted)
        SortSections();
    if (file.empty()) {
        m_bSaving = false;
        return false;
    }
    m_sFile = file;

    std::wstring text;
    for (size_t i = 0; i < m_sections.size(); ++i) {
        if (i)
            text += L"\r\n";
        text += L"[" + m_sections[i].m_sName + L"]\r\n";
        for (const inifileentryx& e : m_sections[i].m_entries)
            text +=
                m_bBareKeys && e.m_sValue.empty() ? e.m_sKey + L"\r\n" : e.m_sKey + m_sSeparator + e.m_sValue + L"\r\n";
    }
    const int cp = m_nCodePage != -1 ? m_nCodePage : int(GetACP());
    std::string bytes;
    if (m_bWriteBom && cp == ini::utf8)
        bytes = "\xEF\xBB\xBF";
    else if (m_bWriteBom && cp == ini::utf16_le)
        bytes = "\xFF\xFE";
    else if (m_bWriteBom && cp == ini::utf16_be)
        bytes = "\xFE\xFF";
    bool converted = true;
    if (cp == ini::utf16_le || cp == ini::utf16_be) {
        bytes += ini::encode_utf16(U16(text), cp == ini::utf16_be);
    } else if (!text.empty()) {
        const int n =
            WideCharToMultiByte(cp, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
        const size_t at = bytes.size();
        bytes.resize(at + static_cast<size_t>(n));
        converted = n > 0 && WideCharToMultiByte(cp, 0, text.data(), static_cast<int>(text.size()), bytes.data() + at,
                                                 n, nullptr, nullptr) == n;
    }

    PrepareFolder(file);
    unique_hfile handle(converted ? CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                                FILE_ATTRIBUTE_NORMAL, nullptr)
                                  : INVALID_HANDLE_VALUE);
    DWORD written = 0;
    if (!handle || !WriteFile(handle.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ||
        written != bytes.size()) {
        m_nLastError = converted ? ::GetLastError() : ERROR_NO_UNICODE_TRANSLATION;
        m_sLastErrorFile = file;
        m_bSaving = false;
        return false;
    }
    m_bModified = false;
    m_bSaving = false;
    return true;
}

void inifilex::SetSeparator(std::wstring separator) {
    m_sSeparator = std::move(separator);
}
std::wstring inifilex::GetSeparator() {
    return m_sSeparator;
}
std::wstring inifilex::GetFile() {
    return m_sFile;
}

// Both copy first: other may be this file, whose sections move as sections are added.
void inifilex::CopySectionInto(std::wstring section, const inifilesectionx& other) {
    const std::vector<inifileentryx> entries = other.m_entries;
    for (const inifileentryx& e : entries)
        SetString(section, e.m_sKey, e.m_sValue);
}

void inifilex::CopySectionsFormatted(const inifilex& other, std::wstring text, std::wstring format) {
    const std::vector<inifilesectionx> sections = other.m_sections;
    for (const inifilesectionx& s : sections)
        CopySectionInto(Format(format, {text, s.m_sName}, std::nullopt), s);
}

inifilesectionx& inifilex::CreateSection(std::wstring name) {
    if (inifilesectionx* found = Find(name))
        return *found;
    m_index.emplace(name, m_sections.size());
    inifilesectionx& added = m_sections.emplace_back();
    added.m_sName = std::move(name);
    return added;
}

bool inifilex::MoveKey(std::wstring section, std::wstring key, std::wstring afterKey) {
    inifilesectionx* s = Find(section);
    if (!s)
        return false;
    SetModified(true);
    auto from = s->m_index.find(key);
    if (from == s->m_index.end() || !s->Find(afterKey))
        return false;
    inifileentryx moved = s->m_entries[from->second];
    s->m_entries.erase(s->m_entries.begin() + static_cast<ptrdiff_t>(from->second));
    s->Reindex();
    s->m_entries.insert(s->m_entries.begin() + static_cast<ptrdiff_t>(s->m_index[afterKey] + 1), std::move(moved));
    s->Reindex();
    return true;
}

std::wstring inifilex::GetString(std::wstring section, std::wstring key, std::wstring defaultValue) {
    inifilesectionx* s = Find(section);
    inifileentryx* e = s ? s->Find(key) : nullptr;
    return e ? e->m_sValue : defaultValue;
}

void inifilex::SetString(std::wstring section, std::wstring key, std::wstring value) {
    inifilesectionx& s = CreateSection(std::move(section));
    if (inifileentryx* e = s.Find(key)) {
        e->m_sValue = std::move(value);
    } else {
        s.m_index.emplace(key, s.m_entries.size());
        s.m_entries.push_back({std::move(key), std::move(value)});
    }
    SetModified(true);
}

long inifilex::GetInt(std::wstring section, std::wstring key, long defaultValue) {
    const std::wstring value = GetString(std::move(section), std::move(key), L"");
    if (value.empty())
        return defaultValue;
    return std::wcstol(value.c_str(), nullptr, StartsWithFolded(value, L"0x") ? 16 : 10);
}

void inifilex::SetInt(std::wstring section, std::wstring key, long value) {
    SetString(std::move(section), std::move(key), std::to_wstring(value));
}

bool inifilex::GetBool(std::wstring section, std::wstring key, bool defaultValue) {
    const std::wstring value = GetString(std::move(section), std::move(key), L"");
    if (value.empty())
        return defaultValue;
    for (const wchar_t* yes : {L"Yes", L"Y", L"1", L"True"})
        if (ini::equal_no_case(U16(value), U16(yes)))
            return true;
    return false;
}

void inifilex::SetBool(std::wstring section, std::wstring key, bool value) {
    SetString(std::move(section), std::move(key), value ? L"Yes" : L"No");
}

bool inifilex::IsModified() {
    return m_bModified;
}
void inifilex::SetModified(bool flag) {
    m_bModified = flag;
}
bool inifilex::HasSection(std::wstring name) {
    return Find(name) != nullptr;
}

bool inifilex::HasKey(std::wstring section, std::wstring key) {
    inifilesectionx* s = Find(section);
    return s && s->Find(key);
}

void inifilex::GetKeyNames(std::wstring section, std::vector<std::wstring>& names) {
    if (inifilesectionx* s = Find(section))
        for (const inifileentryx& e : s->m_entries)
            names.push_back(e.m_sKey);
}

void inifilex::GetSectionNames(std::vector<std::wstring>& names) {
    for (const inifilesectionx& s : m_sections)
        names.push_back(s.m_sName);
}

size_t inifilex::FindSectionNames(std::vector<std::wstring>& names, std::wstring pattern) {
    size_t count = 0;
    for (const inifilesectionx& s : m_sections)
        if (StartsWithFolded(s.m_sName, pattern))
            names.push_back(s.m_sName), ++count;
    return count;
}

void inifilex::GetNumberedValues(std::wstring section, std::vector<std::wstring>& values, std::wstring format) {
    inifilesectionx* s = Find(section);
    for (long i = 0; s; ++i) {
        inifileentryx* e = s->Find(Format(format, {}, i));
        if (e)
            values.push_back(e->m_sValue);
        else if (i > 0)
            break;
    }
}

bool inifilex::RenameSection(std::wstring name, std::wstring newName) {
    inifilesectionx* s = Find(name);
    if (!s)
        return false;
    if (ini::equal_no_case(U16(name), U16(newName)))
        return true;
    if (Find(newName))
        return false;
    s->m_sName = std::move(newName);
    Reindex();
    return true;
}

bool inifilex::RenameKey(std::wstring section, std::wstring key, std::wstring newKey) {
    inifilesectionx* s = Find(section);
    inifileentryx* e = s ? s->Find(key) : nullptr;
    if (!e)
        return false;
    if (!ini::equal_no_case(U16(key), U16(newKey))) {
        if (s->Find(newKey))
            return false;
        e->m_sKey = std::move(newKey);
        s->Reindex();
    }
    SetModified(true);
    return true;
}

void inifilex::ReplaceInSectionNames(std::wstring oldText, std::wstring newText) {
    std::vector<std::wstring> names;
    FindSectionNames(names, oldText);
    for (const std::wstring& name : names)
        RenameSection(name, newText + name.substr(oldText.size()));
}

bool inifilex::RemoveSection(std::wstring name) {
    auto it = m_index.find(name);
    if (it == m_index.end())
        return false;
    m_sections.erase(m_sections.begin() + static_cast<ptrdiff_t>(it->second));
    Reindex();
    SetModified(true);
    return true;
}

bool inifilex::RemoveKey(std::wstring section, std::wstring key) {
    inifilesectionx* s = Find(section);
    auto it = s ? s->m_index.find(key) : decltype(s->m_index.end()){};
    if (!s || it == s->m_index.end())
        return false;
    s->m_entries.erase(s->m_entries.begin() + static_cast<ptrdiff_t>(it->second));
    s->Reindex();
    SetModified(true);
    return true;
}

bool inifilex::ClearSection(std::wstring name) {
    inifilesectionx* s = Find(name);
    if (!s)
        return false;
    s->m_entries.clear();
    s->m_index.clear();
    return true;
}

void inifilex::Clear() {
    m_sections.clear();
    m_index.clear();
}

void inifilex::RemoveSectionsByPrefix(std::wstring prefix) {
    std::vector<std::wstring> names;
    FindSectionNames(names, prefix);
    for (const std::wstring& name : names)
        RemoveSection(name);
}

void inifilex::SortAll(bool, bool, bool) {
    SortSections();
    SortAllKeys();
}

void inifilex::SortSections() {
    std::stable_sort(m_sections.begin(), m_sections.end(), [](const inifilesectionx& a, const inifilesectionx& b) {
        return name_less()(a.m_sName, b.m_sName);
    });
    Reindex();
}

void inifilex::SortAllKeys() {
    for (inifilesectionx& s : m_sections)
        SortKeys(s);
}

void inifilex::SortKeys(inifilesectionx& section) {
    std::stable_sort(section.m_entries.begin(), section.m_entries.end(),
                     [](const inifileentryx& a, const inifileentryx& b) { return name_less()(a.m_sKey, b.m_sKey); });
    section.Reindex();
}

void inifilex::SortSectionKeys(std::wstring name) {
    SortKeys(CreateSection(std::move(name)));
}
void inifilex::SetCodePage(int code) {
    m_nCodePage = code;
}

bool inifilex::SetWriteBom(bool flag) {
    m_bWriteBom = flag;
    return flag;
}

DWORD inifilex::GetLastError() {
    return m_nLastError;
}
std::wstring inifilex::GetLastErrorFile() {
    return m_sLastErrorFile;
}

const inifilesectionx* inifilex::FindSection(const std::wstring& name) const {
    auto it = m_index.find(name);
    return it == m_index.end() ? nullptr : &m_sections[it->second];
}

inifilesectionx* inifilex::Find(const std::wstring& name) {
    auto it = m_index.find(name);
    return it == m_index.end() ? nullptr : &m_sections[it->second];
}

void inifilex::Reindex() {
    m_index.clear();
    for (size_t i = 0; i < m_sections.size(); ++i)
        m_index.emplace(m_sections[i].m_sName, i);
}

namespace {

template <typename Read> auto ReadOne(const std::wstring& file, Read read) {
    inifilex ini;
    return read(ini, ini.Load(file, L"=", false));
}

template <typename Write> bool WriteOne(const std::wstring& file, Write write) {
    inifilex ini;
    // A file that is not there yet starts empty; one that is there but cannot be read is left as it is.
    const DWORD error = ini.Load(file, L"=", false) ? 0 : ini.GetLastError();
    if (error && error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
        return false;
    write(ini);
    return ini.SaveAs(file, 0, 0, false);
}

} // namespace

std::wstring GetIniString(const std::wstring& file, const std::wstring& section, const std::wstring& key,
                          const std::wstring& defaultValue) {
    return ReadOne(
        file, [&](inifilex& ini, bool ok) { return ok ? ini.GetString(section, key, defaultValue) : defaultValue; });
}
long GetIniInt(const std::wstring& file, const std::wstring& section, const std::wstring& key, long defaultValue) {
    return ReadOne(file,
                   [&](inifilex& ini, bool ok) { return ok ? ini.GetInt(section, key, defaultValue) : defaultValue; });
}
bool GetIniBool(const std::wstring& file, const std::wstring& section, const std::wstring& key, bool defaultValue) {
    return ReadOne(file,
                   [&](inifilex& ini, bool ok) { return ok ? ini.GetBool(section, key, defaultValue) : defaultValue; });
}
bool SetIniString(const std::wstring& file, const std::wstring& section, const std::wstring& key,
                  const std::wstring& value) {
    return WriteOne(file, [&](inifilex& ini) { ini.SetString(section, key, value); });
}
bool SetIniInt(const std::wstring& file, const std::wstring& section, const std::wstring& key, long value) {
    return WriteOne(file, [&](inifilex& ini) { ini.SetInt(section, key, value); });
}
bool SetIniBool(const std::wstring& file, const std::wstring& section, const std::wstring& key, bool value) {
    return WriteOne(file, [&](inifilex& ini) { ini.SetBool(section, key, value); });
}

} // namespace qv
