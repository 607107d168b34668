// libFuzzer target of the custom-attribute walk: the bytes as a PE image or as a bare metadata root,
// every CustomAttribute row (up to a cap) followed to its constructor, the constructor's owner and
// the string argument; and, for bytes that are no image, the bytes as one signature and blob: the
// first byte is the signature's length, the signature follows, the rest is the blob. Besides the
// sanitizers' reports, it stops when a text disagrees with a plain reading of its blob.
#include "format/metadata/attribute_blob.h"
#include "format/metadata/metadata.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace qv::metadata;
using qv::format::byte_span;

namespace {

constexpr std::uint32_t max_rows = 4096;

void check(bool ok, const char* what) {
    if (!ok)
        std::fprintf(stderr, "custom_attribute_fuzz: %s\n", what), std::abort();
}

bool inside(byte_span part, const std::uint8_t* data, std::size_t size) {
    return part.empty() || (part.data() >= data && part.size() <= size - static_cast<std::size_t>(part.data() - data));
}

// A text is a run of the blob right behind the prolog and a length of one, two or four bytes, and it
// ends the run the length names; an empty text says nothing.
void decode_and_check(byte_span signature, byte_span blob) {
    const auto text = decode_string_argument(signature, blob);
    if (!text)
        return;
    check(blob.size() >= 2 && blob.data()[0] == 1 && blob.data()[1] == 0, "a text without the prolog");
    check(signature.size() >= 4, "a text from a signature too short for four integers");
    if (text->empty())
        return;
    const std::uint8_t first = blob.data()[2];
    check(first < 0xE0, "a text behind a length of no form");
    const std::uint64_t width = first < 0x80 ? 1 : first < 0xC0 ? 2 : 4;
    check(text->size() + 2 + width <= blob.size(), "a text longer than its blob");
    std::uint64_t length = first & (width == 1 ? 0x7F : width == 2 ? 0x3F : 0x1F);
    for (std::uint64_t i = 1; i < width; ++i)
        length = length << 8 | blob.data()[2 + i];
    check(text->size() == length, "a text of another length than its blob says");
    check(std::memcmp(text->data(), blob.data() + 2 + width, text->size()) == 0, "a text other than its bytes");
}

void walk(const metadata_reader& md, const std::uint8_t* data, std::size_t size) {
    const std::uint32_t rows = md.rows(table::CustomAttribute);
    for (std::uint32_t row = 1; row <= rows && row <= max_rows; ++row) {
        const auto attribute = md.custom_attribute(row);
        if (!attribute)
            continue;
        check(inside(attribute->value, data, size), "an attribute blob outside the input");
        const std::uint32_t kind = attribute->type >> 24;
        check(attribute->type == 0 || kind == std::uint32_t(table::MethodDef) ||
                  kind == std::uint32_t(table::MemberRef),
              "a constructor neither a method nor a member reference");
        if (kind != std::uint32_t(table::MemberRef))
            continue;
        (void)md.name_of(attribute->type);
        const auto member = md.member_ref(attribute->type & 0xFFFFFF);
        if (!member)
            continue;
        check(inside(member->signature, data, size), "a signature outside the input");
        if (member->parent >> 24 == std::uint32_t(table::TypeRef))
            if (const auto type = md.type_ref(member->parent & 0xFFFFFF))
                (void)md.name_of(type->scope);
        decode_and_check(member->signature, attribute->value);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const byte_span bytes(data, size);
    const auto image = qv::pe::pe_image::open(bytes);
    if (image && read_cli_header(*image)) {
        if (const auto md = metadata_reader::open(*image))
            walk(*md, data, size);
    }
    if (const auto md = metadata_reader::open(bytes))
        walk(*md, data, size);
    if (!image && size > 0)
        decode_and_check(bytes.sub(1, std::min<std::uint64_t>(data[0], size - 1)), bytes.from(1 + data[0]));
    return 0;
}
