#include "text_output.h"

#include <windows.h>

#include <cstdio>

namespace qvscan {

std::string utf8(std::wstring_view text) {
    if (text.empty())
        return {};
    int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string s(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), s.data(), n, nullptr, nullptr);
    return s;
}

std::wstring wide(std::string_view text) {
    if (text.empty())
        return {};
    int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring s(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), s.data(), n);
    return s;
}

static void write_to(DWORD which, std::string_view text) {
    HANDLE h = GetStdHandle(which);
    if (h == INVALID_HANDLE_VALUE || !h)
        return;
    while (!text.empty()) {
        DWORD written = 0;
        if (!WriteFile(h, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) || written == 0)
            return;
        text.remove_prefix(written);
    }
}

void out(std::string_view text) { write_to(STD_OUTPUT_HANDLE, text); }
void err(std::string_view text) { write_to(STD_ERROR_HANDLE, text); }

bool err_is_terminal() { return GetFileType(GetStdHandle(STD_ERROR_HANDLE)) == FILE_TYPE_CHAR; }

std::string json_string(std::wstring_view text) {
    std::string s = "\"";
    for (char c : utf8(text)) {
        switch (c) {
        case '"':
            s += "\\\"";
            break;
        case '\\':
            s += "\\\\";
            break;
        case '\n':
            s += "\\n";
            break;
        case '\r':
            s += "\\r";
            break;
        case '\t':
            s += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char buffer[8];
                std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned char>(c));
                s += buffer;
            } else {
                s += c;
            }
        }
    }
    return s + "\"";
}

static size_t code_points(const std::string& s) {
    size_t n = 0;
    for (char c : s)
        n += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    return n;
}

std::string table::render() const {
    std::vector<size_t> widths;
    for (const auto& row : m_rows) {
        if (widths.size() < row.size())
            widths.resize(row.size(), 0);
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], code_points(row[i]));
    }
    std::string text;
    for (const auto& row : m_rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size())
                line.append(widths[i] - code_points(row[i]) + 2, ' ');
        }
        while (!line.empty() && line.back() == ' ')
            line.pop_back();
        text += line + "\n";
    }
    return text;
}

} // namespace qvscan
