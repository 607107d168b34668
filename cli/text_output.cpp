#include "text_output.h"

#include <windows.h>

#include "toolkit/string_convert.h"

#include <algorithm>

namespace qvscan {

std::string utf8(std::wstring_view text) { return qv::NarrowAnsi(text, CP_UTF8); }

std::wstring wide(std::string_view text) { return qv::WidenAnsi(text, CP_UTF8); }

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
