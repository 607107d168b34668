#include "format/ini/ini_text.h"

#include <algorithm>
#include <map>

namespace qv::ini {

namespace {

char16_t fold(char16_t c) {
    return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + (u'a' - u'A')) : c;
}

// Where needle first occurs in text without regard to ASCII case, or npos.
std::size_t find_no_case(std::u16string_view text, std::u16string_view needle) {
    if (needle.empty() || needle.size() > text.size())
        return std::u16string_view::npos;
    for (std::size_t at = 0; at + needle.size() <= text.size(); ++at) {
        if (equal_no_case(text.substr(at, needle.size()), needle))
            return at;
    }
    return std::u16string_view::npos;
}

struct name_order {
    bool operator()(const std::u16string& a, const std::u16string& b) const { return less_no_case(a, b); }
};

} // namespace

mark find_mark(format::byte_span bytes) {
    const auto b0 = bytes.u8(0), b1 = bytes.u8(1), b2 = bytes.u8(2);
    if (b0 == 0xEF && b1 == 0xBB && b2 == 0xBF)
        return {utf8, 3};
    if (b0 == 0xFF && b1 == 0xFE)
        return {utf16_le, 2};
    if (b0 == 0xFE && b1 == 0xFF)
        return {utf16_be, 2};
    return {};
}

std::u16string decode_utf16(format::byte_span body, bool big_endian) {
    std::u16string text;
    text.reserve(body.size() / 2);
    for (std::uint64_t at = 0; at + 1 < body.size(); at += 2) {
        const std::uint16_t unit = *body.u16(at);
        text.push_back(
            static_cast<char16_t>(big_endian ? static_cast<std::uint16_t>((unit >> 8) | (unit << 8)) : unit));
    }
    return text;
}

std::string encode_utf16(std::u16string_view text, bool big_endian) {
    std::string bytes;
    bytes.reserve(text.size() * 2);
    for (char16_t c : text) {
        const char lo = static_cast<char>(c & 0xFF), hi = static_cast<char>(c >> 8);
        bytes += big_endian ? hi : lo;
        bytes += big_endian ? lo : hi;
    }
    return bytes;
}

bool equal_no_case(std::u16string_view a, std::u16string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char16_t x, char16_t y) { return fold(x) == fold(y); });
}

bool less_no_case(std::u16string_view a, std::u16string_view b) {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](char16_t x, char16_t y) { return fold(x) < fold(y); });
}

parse_result parse(std::u16string_view text, std::u16string_view separator) {
    parse_result result;
    std::map<std::u16string, std::size_t, name_order> sections;   // name -> place
    std::vector<std::map<std::u16string, bool, name_order>> keys; // per section: the keys it has
    std::size_t current = 0;
    bool inSection = false;
    std::size_t number = 0;
    for (std::size_t start = 0; start < text.size();) {
        std::size_t end = text.find_first_of(u"\r\n", start);
        if (end == std::u16string_view::npos)
            end = text.size();
        const std::u16string_view line = text.substr(start, end - start);
        start = end + (end + 1 < text.size() && text[end] == u'\r' && text[end + 1] == u'\n' ? 2 : 1);
        ++number;
        if (line.empty() || line[0] == u';')
            continue;
        if (line[0] == u'[') {
            const std::size_t close = line.find(u']');
            if (close == std::u16string_view::npos) {
                result.ok = false;
                result.bad_line = number;
                result.problem = "a section header without ']'";
                return result;
            }
            std::u16string name(line.substr(1, close - 1));
            auto [it, added] = sections.emplace(name, result.sections.size());
            if (added) {
                result.sections.push_back({std::move(name), {}});
                keys.emplace_back();
            }
            current = it->second;
            inSection = true;
            continue;
        }
        if (!inSection) {
            result.ok = false;
            result.bad_line = number;
            result.problem = "an entry before any section header";
            return result;
        }
        const std::size_t at = find_no_case(line, separator);
        std::u16string key(line.substr(0, at));
        std::u16string value(at == std::u16string_view::npos ? std::u16string_view() : line.substr(at + 1));
        if (keys[current].emplace(key, true).second)
            result.sections[current].entries.push_back({std::move(key), std::move(value)});
    }
    return result;
}

} // namespace qv::ini
