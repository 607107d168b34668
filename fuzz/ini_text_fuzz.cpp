// libFuzzer target of the profile text reader: the marks, UTF-16 in both orders and the line rules on
// arbitrary bytes. The first byte picks the separator; the rest is the file. Besides the sanitizers'
// reports, it stops on an answer that breaks the reader's contracts.
#include "format/ini/ini_text.h"

#include <cstdio>
#include <cstdlib>

namespace {

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "ini_text_fuzz: %s\n", what);
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    static const std::u16string_view separators[] = {u"=", u" = ", u"xY", u""};
    const std::u16string_view separator = separators[data[0] % 4];
    const qv::format::byte_span file(data + 1, size - 1);
    const auto mark = qv::ini::find_mark(file);
    const auto body = file.from(mark.length);
    std::u16string text;
    if (mark.code_page == qv::ini::utf16_le || mark.code_page == qv::ini::utf16_be) {
        const bool big = mark.code_page == qv::ini::utf16_be;
        text = qv::ini::decode_utf16(body, big);
        check(text.size() == body.size() / 2, "a UTF-16 body of the wrong length");
        check(qv::ini::encode_utf16(text, big) == std::string(reinterpret_cast<const char*>(body.data()), text.size() * 2),
              "UTF-16 does not come back as it went");
    } else {
        text.assign(body.data(), body.data() + body.size()); // a one-byte code page, as the bytes stand
    }
    const auto result = qv::ini::parse(text, separator);
    check(result.ok == (result.bad_line == 0), "a failure without its line, or a line without a failure");
    for (std::size_t i = 0; i < result.sections.size(); ++i) {
        const auto& s = result.sections[i];
        for (std::size_t j = 0; j < i; ++j)
            check(!qv::ini::equal_no_case(result.sections[j].name, s.name), "one section twice");
        for (std::size_t k = 0; k < s.entries.size(); ++k) {
            const auto& key = s.entries[k].key;
            check(key.find_first_of(u"\r\n") == std::u16string::npos, "a key over a line end");
            for (std::size_t at = 0; !separator.empty() && at + separator.size() <= key.size(); ++at)
                check(!qv::ini::equal_no_case(key.substr(at, separator.size()), separator), "a separator in a key");
            for (std::size_t j = 0; j < k && s.entries.size() < 200; ++j)
                check(!qv::ini::equal_no_case(s.entries[j].key, key), "one key twice in a section");
        }
    }
    return 0;
}
