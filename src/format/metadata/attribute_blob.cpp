#include "format/metadata/attribute_blob.h"

#include "format/metadata/metadata.h"

#include <algorithm>

namespace qv::metadata {

namespace {

constexpr std::uint64_t max_signature = 255; // bytes of a signature that count; needing more is a bad one
constexpr std::uint32_t element_type_void = 0x01, element_type_string = 0x0E;
constexpr std::uint16_t prolog = 0x0001;

} // namespace

std::optional<std::string> decode_string_argument(format::byte_span signature, format::byte_span blob) {
    const format::byte_span sig = signature.sub(0, std::min(signature.size(), max_signature));
    // Calling convention, parameter count, return type, first parameter type.
    std::uint32_t values[4] = {};
    std::uint64_t at = 0;
    for (std::uint32_t& value : values) {
        const auto c = read_compressed(sig, at);
        if (!c)
            return std::nullopt;
        value = c->value, at += c->length;
    }
    if (values[2] != element_type_void || values[3] != element_type_string)
        return std::nullopt;

    if (blob.u16(0) != prolog)
        return std::nullopt;
    // The packed length has the form of a compressed integer. One that cannot be read (cut short, or a
    // first byte of 111xxxxx, among them the null string's 0xFF) counts as all ones: the null string.
    const auto length = read_compressed(blob, 2);
    if (!length)
        return std::string();
    const std::uint64_t start = 2 + length->length;
    if (!blob.readable(start, length->value))
        return std::string();
    return std::string(reinterpret_cast<const char*>(blob.data() + start), length->value);
}

} // namespace qv::metadata
