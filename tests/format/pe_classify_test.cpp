// Classification of a file by its headers: status, kind and header offset for every row of the kind
// table, the DOS-header gates before it, and header offsets at and past the end of the file.
#include "format/pe/pe_image.h"
#include "image_writer.h"
#include "pe_test_support.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using qv::pe::classify;
using qv::pe::image_kind;
using qv::pe::image_status;
using qv::test::image_writer;
namespace L = qv::pe::layout;

// A DOS header that points at a new header: "MZ", relocation table at 0x40, new header at `offset`,
// the `header` bytes there, and the file padded with zeros to at least `size` bytes.
std::vector<std::uint8_t> mz(std::int32_t offset, std::string_view header = {}, std::size_t size = 64) {
    std::vector<std::uint8_t> b(size, 0);
    qv::test::put16(b, 0, L::dos::magic);
    qv::test::put16(b, L::dos::relocation_table_offset, 0x40);
    qv::test::put32(b, L::dos::new_header_offset, static_cast<std::uint32_t>(offset));
    if (!header.empty())
        qv::test::put_bytes(b, static_cast<std::uint64_t>(offset), header);
    return b;
}

std::vector<std::uint8_t> pe_bytes(std::uint16_t machine, bool pe32plus, std::uint16_t magic) {
    return image_writer().machine(machine).pe32plus(pe32plus).magic(magic).build().bytes;
}

constexpr std::uint16_t m32 = L::optional_header::magic_pe32;
constexpr std::uint16_t m64 = L::optional_header::magic_pe32plus;

struct classify_case {
    const char* name;
    std::function<std::vector<std::uint8_t>()> bytes;
    image_status status;
    image_kind kind;
    std::int32_t header_offset; // -2: the file size
    bool opens;
};

std::ostream& operator<<(std::ostream& os, const classify_case& c) {
    return os << c.name;
}

const classify_case classify_cases[] = {
    // The rows of the kind table.
    {"pe32_x86", [] { return pe_bytes(L::machine::i386, false, m32); }, image_status::usable, image_kind::pe, 0x80,
     true},
    {"pe32plus_x64", [] { return pe_bytes(L::machine::amd64, true, m64); }, image_status::usable, image_kind::pe64,
     0x80, true},
    {"x64_with_32bit_magic", [] { return pe_bytes(L::machine::amd64, false, m32); }, image_status::usable,
     image_kind::pe, 0x80, true},
    {"itanium_64bit", [] { return pe_bytes(L::machine::ia64, true, m64); }, image_status::usable, image_kind::peia64,
     0x80, false},
    {"itanium_32bit_magic", [] { return pe_bytes(L::machine::ia64, false, m32); }, image_status::usable, image_kind::pe,
     0x80, true},
    {"arm_32bit", [] { return pe_bytes(L::machine::armnt, false, m32); }, image_status::usable, image_kind::pearm, 0x80,
     false},
    {"arm_64bit_magic", [] { return pe_bytes(L::machine::armnt, true, m64); }, image_status::usable, image_kind::pearm,
     0x80, false},
    {"arm64_has_no_row", [] { return pe_bytes(L::machine::arm64, true, m64); }, image_status::usable, image_kind::pe,
     0x80, true},
    {"machine_zero", [] { return pe_bytes(0, false, m32); }, image_status::usable, image_kind::pe, 0x80, true},
    {"rom_magic", [] { return pe_bytes(L::machine::amd64, true, L::optional_header::magic_rom); }, image_status::usable,
     image_kind::pe, 0x80, true},
    {"ne_eight_bytes", [] { return mz(0x40, std::string_view("NE\0\0\0\0\0\0", 8), 0x80); }, image_status::usable,
     image_kind::ne, 0x40, false},
    {"vxd_eight_bytes", [] { return mz(0x40, std::string_view("LE\0\0\0\0\0\0", 8), 0x80); }, image_status::usable,
     image_kind::vxd, 0x40, false},
    {"lx_row_value", [] { return mz(0x40, std::string_view("XE\0\0\0\0\0\0", 8), 0x80); }, image_status::usable,
     image_kind::lx, 0x40, false},
    // The NE, LE and LX rows compare all 8 bytes: a real header, with fields after its signature, is
    // not of these kinds.
    {"real_ne_header", [] { return mz(0x40, std::string_view("NE\x05\x0A\x90\x01\0\0", 8), 0x80); },
     image_status::usable, image_kind::invalid, 0x40, false},
    {"real_le_header", [] { return mz(0x40, std::string_view("LE\0\0\0\0\0\1", 8), 0x80); }, image_status::usable,
     image_kind::invalid, 0x40, false},
    {"real_lx_signature", [] { return mz(0x40, std::string_view("LX\0\0\0\0\0\0", 8), 0x80); }, image_status::usable,
     image_kind::invalid, 0x40, false},
    {"pe_signature_without_zeros", [] { return mz(0x40, "PEXX", 0x80); }, image_status::usable, image_kind::invalid,
     0x40, false},
    {"unknown_signature", [] { return mz(0x40, "ZZ", 0x80); }, image_status::usable, image_kind::invalid, 0x40, false},

    // The gates of the DOS header.
    {"empty_file", [] { return std::vector<std::uint8_t>(); }, image_status::unknown_kind, image_kind::invalid, -1,
     false},
    {"file_of_63_bytes",
     [] {
         auto b = pe_bytes(L::machine::amd64, true, m64);
         b.resize(63);
         return b;
     },
     image_status::unknown_kind, image_kind::invalid, -1, false},
    {"no_mz",
     [] {
         auto b = pe_bytes(L::machine::amd64, true, m64);
         b[0] = 'Z';
         b[1] = 'M';
         return b;
     },
     image_status::unknown_kind, image_kind::invalid, -1, false},
    {"mz_64_bytes_zero_relocation_field",
     [] {
         std::vector<std::uint8_t> b(64, 0);
         b[0] = 'M';
         b[1] = 'Z';
         return b;
     },
     image_status::usable, image_kind::dos, -1, false},
    {"relocation_field_63",
     [] {
         auto b = mz(0x40, "PE", 0x80);
         qv::test::put16(b, 24, 63);
         return b;
     },
     image_status::usable, image_kind::dos, -1, false},
    {"relocation_field_64_is_enough",
     [] {
         auto b = mz(0x40, "QQ", 0x80);
         qv::test::put16(b, 24, 64);
         return b;
     },
     image_status::usable, image_kind::invalid, 0x40, false},

    // The new-header offset.
    {"header_offset_negative", [] { return mz(-4, {}, 0x100); }, image_status::usable, image_kind::invalid, -1, false},
    {"header_offset_int_min", [] { return mz(INT32_MIN, {}, 0x100); }, image_status::usable, image_kind::invalid, -1,
     false},
    {"header_offset_past_size", [] { return mz(0x101, {}, 0x100); }, image_status::usable, image_kind::invalid, -1,
     false},
    {"header_offset_int_max", [] { return mz(INT32_MAX, {}, 0x100); }, image_status::usable, image_kind::invalid, -1,
     false},
    {"header_offset_equal_to_size", [] { return mz(0x100, {}, 0x100); }, image_status::usable, image_kind::invalid, -2,
     false},
    {"header_offset_zero_reads_mz", [] { return mz(0, {}, 0x100); }, image_status::usable, image_kind::invalid, 0,
     false},
    // A header cut by the end of the file: a test whose bytes are missing does not match.
    {"ne_with_seven_bytes_left", [] { return mz(0x79, std::string_view("NE\0\0\0\0\0", 7), 0x80); },
     image_status::usable, image_kind::invalid, 0x79, false},
    {"pe_signature_at_the_very_end", [] { return mz(0x7C, std::string_view("PE\0\0", 4), 0x80); }, image_status::usable,
     image_kind::pe, 0x7C, true},
    {"pe_signature_cut", [] { return mz(0x7E, std::string_view("PE", 2), 0x80); }, image_status::usable,
     image_kind::invalid, 0x7E, false},
    {"x64_machine_but_magic_cut",
     [] { return mz(0x60, std::string_view("PE\0\0\x64\x86\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x0B", 25), 0x79); },
     image_status::usable, image_kind::pe, 0x60, true},
    {"x64_machine_and_magic_at_the_end",
     [] { return mz(0x60, std::string_view("PE\0\0\x64\x86\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x0B\x02", 26), 0x7A); },
     image_status::usable, image_kind::pe64, 0x60, true},
    {"arm_machine_with_nothing_after", [] { return mz(0x7A, std::string_view("PE\0\0\xC4\x01", 6), 0x80); },
     image_status::usable, image_kind::pearm, 0x7A, false},
};

class PeClassifyTable : public testing::TestWithParam<classify_case> {};

TEST_P(PeClassifyTable, StatusKindAndHeaderOffset) {
    const classify_case& c = GetParam();
    const auto bytes = c.bytes();
    const auto result = classify(qv::test::span_of(bytes));
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.kind, c.kind) << qv::pe::kind_name(result.kind);
    const std::int32_t offset = c.header_offset == -2 ? static_cast<std::int32_t>(bytes.size()) : c.header_offset;
    EXPECT_EQ(result.header_offset, offset);
}

TEST_P(PeClassifyTable, OpensExactlyTheUsableKinds) {
    const classify_case& c = GetParam();
    const auto bytes = c.bytes();
    const auto image = qv::pe::pe_image::open(qv::test::span_of(bytes));
    ASSERT_EQ(image.has_value(), c.opens);
    if (image) {
        EXPECT_EQ(image->kind(), c.kind);
        EXPECT_EQ(image->nt_headers_offset(), static_cast<std::uint32_t>(c.header_offset));
        EXPECT_EQ(image->bytes().data(), bytes.data());
        EXPECT_EQ(image->bytes().size(), bytes.size());
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, PeClassifyTable, testing::ValuesIn(classify_cases),
                         [](const testing::TestParamInfo<classify_case>& info) {
                             return std::string(info.param.name);
                         });

TEST(PeClassify, NeverSaysNotMapped) {
    // Whether a file could be mapped is the caller's to say; a null view is a file of no bytes.
    EXPECT_EQ(classify(qv::format::byte_span()).status, image_status::unknown_kind);
    EXPECT_EQ(classify(qv::format::byte_span(nullptr, 4096)).status, image_status::unknown_kind);
}

TEST(PeClassify, MachineWordOfAnOpenedImage) {
    for (std::uint16_t machine : {L::machine::i386, L::machine::amd64, L::machine::arm64, std::uint16_t{0x1234}}) {
        const auto image = image_writer().machine(machine).pe32plus(machine != L::machine::i386).build();
        const auto opened = qv::pe::pe_image::open(image.span());
        ASSERT_TRUE(opened) << machine;
        EXPECT_EQ(opened->machine(), machine);
    }
}

TEST(PeClassify, HeaderOffsetIsWhereTheWriterPutIt) {
    for (std::uint32_t offset : {0x40u, 0x80u, 0xE8u, 0x400u}) {
        const auto image = image_writer().header_offset(offset).build();
        const auto result = classify(image.span());
        EXPECT_EQ(result.header_offset, static_cast<std::int32_t>(offset));
        EXPECT_EQ(result.kind, image_kind::pe64);
    }
}

struct kind_name_case {
    std::uint32_t value;
    const char* text;
};

TEST(PeKindName, EveryKindAndUnknownValues) {
    const kind_name_case cases[] = {{0, "Invalid"},
                                    {1, "DOS"},
                                    {2, "NE"},
                                    {3, "VXD"},
                                    {4, "LX"},
                                    {5, "PE"},
                                    {6, "PE64"},
                                    {7, "PEIA64"},
                                    {8, "PEARM"},
                                    {9, "Invalid"},
                                    {0xFFFFFFFF, "Invalid"}};
    for (const auto& c : cases)
        EXPECT_STREQ(qv::pe::kind_name(static_cast<image_kind>(c.value)), c.text) << c.value;
}

} // namespace
