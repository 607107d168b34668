// The profile text forms as one table: text in, separator, the sections and keys out, where a load fails.
#include "format/ini/ini_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace qv::ini;

// "[a]k=v|w;" for sections a with k = v and w = "" (a bare key).
std::u16string flat(const parse_result& r) {
    std::u16string out;
    for (const auto& s : r.sections) {
        out += u"[" + s.name + u"]";
        for (const auto& e : s.entries)
            out += e.key + (e.value.empty() ? u"" : u"=" + e.value) + u";";
    }
    return out;
}

TEST(IniText, LinesHeadersSeparatorsRepeatsAndFailures) {
    const struct { std::u16string text, separator, sections; std::size_t bad; } rows[] = {
        {u"[A]\r\nk=v\rx=1\ny", u"=", u"[A]k=v;x=1;y;", 0},            // CR LF, CR and LF; a last line unended
        {u"[a]\n;k=v\n\n\nk==v=w", u"=", u"[a]k==v=w;", 0},              // comments and empty lines; first separator
        {u"[Sec]\nk=1\n[x]\n[sec]\nK=2\nj=3", u"=", u"[Sec]k=1;j=3;[x]", 0}, // one section, the first key wins
        {u"[ s ]]\n k = v ", u"=", u"[ s ] k = v ;", 0},                // no trimming; the name ends at the first ]
        {u"[s]\na=b\na = b", u" = ", u"[s]a=b;a== b;", 0},             // the value starts one behind the separator
        {u"[s]\naXYb", u"xy", u"[s]a=Yb;", 0},                          // the separator found without regard to case
        {u"[s]\na=b", u"", u"[s]a=b;", 0},                              // no separator: all key
        {u"[s]\nk=v\n[broken\nj=w", u"=", u"[s]k=v;", 3},              // a header without ]: what came before stays
        {u"\n;c\nk=v\n[s]", u"=", u"", 3},                              // an entry before any header
        {std::u16string(u"[]\n=v\n[\0]", 9), u"=", std::u16string(u"[]=v;[\0]", 8), 0}, // empty names, a NUL kept
    };
    for (const auto& r : rows) {
        const auto got = parse(r.text, r.separator);
        EXPECT_EQ(flat(got), r.sections) << std::string(r.text.begin(), r.text.end());
        EXPECT_EQ(got.ok, r.bad == 0);
        EXPECT_EQ(got.bad_line, r.bad);
    }
}

TEST(IniText, MarksAndUtf16InBothOrders) {
    const struct { std::string bytes; std::uint32_t code_page; std::size_t length; } marks[] = {
        {"\xEF\xBB\xBF[", utf8, 3}, {"\xFF\xFE[", utf16_le, 2}, {"\xFE\xFF", utf16_be, 2}, {"\xEF\xBB", 0, 0}, {"", 0, 0}};
    for (const auto& m : marks) {
        const auto got = find_mark({reinterpret_cast<const std::uint8_t*>(m.bytes.data()), m.bytes.size()});
        EXPECT_TRUE(got.code_page == m.code_page && got.length == m.length) << m.bytes.size();
    }
    const std::u16string text = u"[\u00e9]\u20ac=\U0001F600";
    for (bool big : {false, true}) {
        std::string bytes = encode_utf16(text, big) + "x"; // an odd last byte is no character
        EXPECT_EQ(bytes.substr(0, 2), big ? std::string("\0[", 2) : std::string("[\0", 2));
        EXPECT_EQ(decode_utf16({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, big), text);
    }
    EXPECT_TRUE(equal_no_case(u"Uses1", u"uSES1") && !equal_no_case(u"\u00e9", u"\u00c9") && less_no_case(u"a", u"B"));
}

} // namespace
