// The byte and line forms of profile ("ini") files, platform-free: which byte-order mark a file
// starts with, UTF-16 bodies in either byte order, and the split of a text into sections and keys.
//
// The file form: a line ends in CR LF, CR or LF, and a last line without an end counts. A line starting
// with ";" is a comment, an empty line is nothing; a line starting with "[" is a section header named by
// the text up to the first "]" (no "]" fails the load); any other line is an entry, and one before any
// header fails the load. The key is the text before the first separator (compared without regard to
// ASCII case), and the value starts one character behind the separator's start, whatever its length: a
// separator of three characters leaves its last two at the head of the value. A line with no separator
// is all key. Nothing is trimmed or unquoted. A header met again continues its section; a key met again
// in a section is dropped, its first value stands. Section and key names match without regard to ASCII
// case and keep the spelling they were first given.
#pragma once

#include "format/byte_span.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qv::ini {

// Code pages of the marks.
inline constexpr std::uint32_t utf8 = 65001;
inline constexpr std::uint32_t utf16_le = 1200;
inline constexpr std::uint32_t utf16_be = 1201;

struct mark {
    std::uint32_t code_page = 0; // 0: no mark
    std::size_t length = 0;      // bytes to skip
};
// The byte-order mark at the start of a file: EF BB BF, FF FE or FE FF.
mark find_mark(format::byte_span bytes);

// A UTF-16 body in the given byte order; an odd last byte is no character and is dropped.
std::u16string decode_utf16(format::byte_span body, bool big_endian);
// Text as UTF-16 bytes in the given byte order, without a mark.
std::string encode_utf16(std::u16string_view text, bool big_endian);

// Equality and order of names without regard to ASCII case.
bool equal_no_case(std::u16string_view a, std::u16string_view b);
bool less_no_case(std::u16string_view a, std::u16string_view b);

struct entry {
    std::u16string key, value;
};
struct section {
    std::u16string name;
    std::vector<entry> entries;
};
struct parse_result {
    std::vector<section> sections; // what was read, up to a bad line
    bool ok = true;
    std::size_t bad_line = 0; // 1-based number of the line that failed the load; 0 when ok
    const char* problem = ""; // what was wrong with it, in words
};

// Splits text into sections and entries by the rules above; an empty separator makes every entry all key.
parse_result parse(std::u16string_view text, std::u16string_view separator);

} // namespace qv::ini
