// The resource-directory lookup over written images: found and not found by type and name, named
// entries stepped over, and clean answers for tables that lie outside the file.
#include "format/pe/resources.h"
#include "image_writer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using qv::pe::has_resource;
using qv::pe::pe_image;
using qv::test::image_writer;
using qv::test::written_image;

void put16(std::string& b, std::size_t at, std::uint16_t v) {
    if (b.size() < at + 2)
        b.resize(at + 2);
    b[at] = static_cast<char>(v & 0xFF);
    b[at + 1] = static_cast<char>(v >> 8);
}
void put32(std::string& b, std::size_t at, std::uint32_t v) {
    if (b.size() < at + 4)
        b.resize(at + 4);
    for (int i = 0; i < 4; ++i)
        b[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

// A table at `at` with `named` named entries (pointing nowhere useful) and the given numbered entries.
void table(std::string& b, std::size_t at, std::uint16_t named,
           std::initializer_list<std::pair<std::uint32_t, std::uint32_t>> ids) {
    put16(b, at + 12, named);
    put16(b, at + 14, static_cast<std::uint16_t>(ids.size()));
    std::size_t e = at + 16;
    for (std::uint16_t i = 0; i < named; ++i, e += 8) {
        put32(b, e, 0x80000000u | 0x200); // a name string somewhere: never a numbered match
        put32(b, e + 4, 0x80000000u | 0x300);
    }
    for (const auto& [id, target] : ids) {
        put32(b, e, id);
        put32(b, e + 4, target);
        e += 8;
    }
}

// Types 24 (names 2 and 7) and 16 (name 1), with a named type entry before them.
std::string sample_resources() {
    std::string b(0x100, '\0');
    table(b, 0x00, 1, {{16, 0x80000000u | 0x40}, {24, 0x80000000u | 0x80}});
    table(b, 0x40, 0, {{1, 0x80000000u | 0xC0}});
    table(b, 0x80, 0, {{2, 0x80000000u | 0xC0}, {7, 0x80000000u | 0xC0}});
    table(b, 0xC0, 0, {{0x409, 0xE0}}); // language table: a data entry
    return b;
}

written_image with_resources(const std::string& resources) {
    written_image image = image_writer().section(".rsrc", resources).build();
    const auto& section = image.sections.back();
    std::string bytes = image.str();
    put32(bytes, image.directory_entry_offset(2), section.virtual_address);
    put32(bytes, image.directory_entry_offset(2) + 4, static_cast<std::uint32_t>(resources.size()));
    image.bytes.assign(bytes.begin(), bytes.end());
    return image;
}

TEST(PEResources, FindsNumberedTypesAndNames) {
    written_image written = with_resources(sample_resources());
    auto image = pe_image::open(written.span());
    ASSERT_TRUE(image);
    struct row {
        std::uint32_t type, name;
        bool found;
    };
    const row table[] = {
        {24, 2, true}, {24, 7, true}, {24, 0, true},  {24, 1, false}, {24, 3, false},
        {16, 1, true}, {16, 0, true}, {16, 2, false}, {3, 0, false},  {0, 0, true}, // type 0: the first numbered type
    };
    for (const auto& r : table)
        EXPECT_EQ(has_resource(*image, r.type, r.name), r.found) << r.type << "/" << r.name;
}

TEST(PEResources, NoResourceDirectory) {
    written_image written = image_writer().build();
    auto image = pe_image::open(written.span());
    ASSERT_TRUE(image);
    EXPECT_FALSE(has_resource(*image, 24, 0));
}

TEST(PEResources, EveryTruncationAnswersCleanly) {
    written_image full = with_resources(sample_resources());
    const std::uint64_t start = full.sections.back().raw_pointer;
    for (std::uint64_t size = start; size <= full.bytes.size(); ++size) {
        auto image = pe_image::open(qv::format::byte_span(full.bytes.data(), size));
        ASSERT_TRUE(image);
        // A name table cut short finds nothing past its end; nothing is read beyond `size`.
        const bool found = has_resource(*image, 24, 2);
        if (size >= start + 0x80 + 16 + 16)
            EXPECT_TRUE(found) << size;
        else if (size < start + 0x18 + 8)
            EXPECT_FALSE(found) << size;
    }
}

TEST(PEResources, CorruptTablesAreNotFound) {
    struct row {
        const char* what;
        void (*corrupt)(std::string&);
    };
    const row table[] = {
        {"type subtable past the end", [](std::string& b) { put32(b, 0x10 + 8 + 8 + 4, 0x80000000u | 0x7FFFFFF0); }},
        {"type entry without a subtable", [](std::string& b) { put32(b, 0x10 + 8 + 8 + 4, 0x80); }},
        {"huge counts",
         [](std::string& b) {
             put16(b, 0x80 + 14, 0xFFFF);
             put16(b, 0x80 + 12, 0xFFFF);
         }},
        {"name entry is named",
         [](std::string& b) {
             put32(b, 0x80 + 16, 0x80000002u);
             put32(b, 0x80 + 24, 0x80000007u);
         }},
    };
    for (const auto& r : table) {
        std::string res = sample_resources();
        r.corrupt(res);
        written_image written = with_resources(res);
        auto image = pe_image::open(written.span());
        ASSERT_TRUE(image) << r.what;
        EXPECT_FALSE(has_resource(*image, 24, 2)) << r.what;
        EXPECT_TRUE(has_resource(*image, 16, 1)) << r.what << ": the other type is untouched";
    }
}

} // namespace
