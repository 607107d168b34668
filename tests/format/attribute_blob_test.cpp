// The string argument of a custom attribute: the constructor signatures that have one, the packed
// length in its three forms, the null string, and blobs cut or lying about their length.
#include "format/metadata/attribute_blob.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<std::uint8_t>;
using qv::metadata::decode_string_argument;

bytes cat(std::initializer_list<bytes> parts) {
    bytes out;
    for (const bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}
bytes text(const std::string& s) { return bytes(s.begin(), s.end()); }

std::optional<std::string> decode(const bytes& signature, const bytes& blob) {
    return decode_string_argument(qv::format::byte_span(signature.data(), signature.size()),
                                  qv::format::byte_span(blob.data(), blob.size()));
}

const std::string guid = "2c7e2b5b-5ba5-4e3e-a3e1-6d3e7b2f0a41";
const bytes ctorOfString = {0x20, 0x01, 0x01, 0x0E}; // instance void .ctor(string)
const bytes prolog = {0x01, 0x00};
const bytes guidBlob = cat({prolog, {36}, text(guid), {0x00, 0x00}}); // no named arguments after it

TEST(AttributeBlob, StringArgument) {
    const std::string wide(128, 'w'), huge(0x4000, 'h');
    const struct {
        const char* what;
        bytes signature, blob;
        std::optional<std::string> text;
    } rows[] = {
        {"GuidAttribute", ctorOfString, guidBlob, guid},
        {"static, two parameters", {0x00, 0x02, 0x01, 0x0E, 0x08}, guidBlob, guid},
        {"parameter count in two bytes", {0x20, 0x80, 0x01, 0x01, 0x0E}, guidBlob, guid},
        {"UTF-8 and a NUL kept as bytes", ctorOfString, cat({prolog, {4, 0xC2, 0xA9, 0x00, 'x'}}),
         "\xC2\xA9" + std::string(1, '\0') + "x"},
        {"two-byte length", ctorOfString, cat({prolog, {0x80, 0x80}, text(wide)}), wide},
        {"four-byte length", ctorOfString, cat({prolog, {0xC0, 0x00, 0x40, 0x00}, text(huge)}), huge},
        {"empty string", ctorOfString, cat({prolog, {0x00}}), ""},
        {"null string", ctorOfString, cat({prolog, {0xFF}, text(guid)}), ""},
        {"length of no form", ctorOfString, cat({prolog, {0xE0, 0, 0, 1}, text("a")}), ""},
        {"two-byte length cut", ctorOfString, cat({prolog, {0x80}}), ""},
        {"no length", ctorOfString, prolog, ""},
        {"length past the end", ctorOfString, cat({prolog, {5}, text("abcd")}), ""},
        {"prolog 0x0100", ctorOfString, cat({{0x00, 0x01, 36}, text(guid)}), std::nullopt},
        {"empty blob", ctorOfString, {}, std::nullopt},
        {"returns int32", {0x20, 0x01, 0x08, 0x0E}, guidBlob, std::nullopt},
        {"first parameter int32", {0x20, 0x01, 0x01, 0x08}, guidBlob, std::nullopt},
        {"first parameter a string array", {0x20, 0x01, 0x01, 0x1D, 0x0E}, guidBlob, std::nullopt},
        {"empty signature", {}, guidBlob, std::nullopt},
        {"return type of no form", {0x20, 0x01, 0xE0, 0x01, 0x0E}, guidBlob, std::nullopt},
        {"parameter type cut", {0x20, 0x01, 0x01, 0x80}, guidBlob, std::nullopt},
    };
    for (const auto& r : rows)
        EXPECT_EQ(decode(r.signature, r.blob), r.text) << r.what;
}

// Every cut of a good blob and signature: no text before the prolog or the fourth integer is whole,
// the null string until the string's last byte is there.
TEST(AttributeBlob, EveryCutIsCleanlyRefused) {
    for (std::size_t n = 0; n < guidBlob.size(); ++n) {
        const auto expected = n < 2 ? std::nullopt : n < 3 + guid.size() ? std::optional<std::string>("") : guid;
        EXPECT_EQ(decode(ctorOfString, bytes(guidBlob.begin(), guidBlob.begin() + n)), expected) << n;
    }
    for (std::size_t n = 0; n < ctorOfString.size(); ++n)
        EXPECT_EQ(decode(bytes(ctorOfString.begin(), ctorOfString.begin() + n), guidBlob), std::nullopt) << n;
}

} // namespace
