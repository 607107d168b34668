// The reads of a usable PE image: data directory, section table, import names and the
// self-registration test, on images from the test-side writer, well-formed and with one layout
// fault each.
#include "format/pe/pe_image.h"
#include "image_writer.h"
#include "pe_test_support.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qv::pe::directory_entry;
using qv::pe::pe_image;
using qv::test::image_writer;
using qv::test::put32;
using qv::test::written_image;
namespace L = qv::pe::layout;

pe_image open(const written_image& image) {
    auto opened = pe_image::open(image.span());
    if (!opened)
        throw std::runtime_error("the written image does not open");
    return *opened;
}

pe_image open(const std::vector<std::uint8_t>& bytes) {
    auto opened = pe_image::open(qv::test::span_of(bytes));
    if (!opened)
        throw std::runtime_error("the bytes do not open");
    return *opened;
}

std::vector<std::string> strings(const std::vector<std::string_view>& views) {
    return std::vector<std::string>(views.begin(), views.end());
}

// Appends bytes to the last section (raw and virtual size grow to hold them) and returns their RVA.
std::uint32_t append_to_last_section(written_image& image, std::string_view bytes) {
    auto& last = image.sections.back();
    const std::uint64_t header = image.section_header_offset(image.section_count - 1);
    const std::uint32_t rva = last.virtual_address + last.raw_size;
    qv::test::put_bytes(image.bytes, last.raw_pointer + last.raw_size, bytes);
    last.raw_size += static_cast<std::uint32_t>(bytes.size());
    last.virtual_size = last.raw_size;
    put32(image.bytes, header + L::section::size_of_raw_data_offset, last.raw_size);
    put32(image.bytes, header + L::section::virtual_size_offset, last.virtual_size);
    return rva;
}

// ---------------------------------------------------------------------------------------------
// Data directory

struct layout_case {
    const char* name;
    std::uint16_t machine;
    bool pe32plus;
    std::uint16_t magic;
    std::uint64_t directory_at; // from the signature
};

std::ostream& operator<<(std::ostream& os, const layout_case& c) {
    return os << c.name;
}

class PeDirectoryLayout : public testing::TestWithParam<layout_case> {};

TEST_P(PeDirectoryLayout, ReadsEverySixteenEntriesAtTheOffsetOfTheKind) {
    const auto& c = GetParam();
    auto image = image_writer().machine(c.machine).pe32plus(c.pe32plus).magic(c.magic).build();
    for (std::uint32_t i = 0; i < 16; ++i) {
        put32(image.bytes, image.nt_offset + c.directory_at + 8 * i, 0x1000 * i + 0x11);
        put32(image.bytes, image.nt_offset + c.directory_at + 8 * i + 4, 3 * i + 1);
    }
    const pe_image pe = open(image);
    for (std::uint32_t i = 0; i < 16; ++i) {
        const auto entry = pe.directory(i);
        ASSERT_TRUE(entry) << i;
        EXPECT_EQ(entry->rva, 0x1000 * i + 0x11) << i;
        EXPECT_EQ(entry->size, 3 * i + 1) << i;
    }
}

TEST_P(PeDirectoryLayout, IndexSixteenAndOverHasNoEntry) {
    const auto& c = GetParam();
    const pe_image pe = open(image_writer().machine(c.machine).pe32plus(c.pe32plus).magic(c.magic).build());
    for (std::uint32_t index : {16u, 17u, 255u, 0x80000000u, 0xFFFFFFFFu})
        EXPECT_FALSE(pe.directory(index)) << index;
}

TEST_P(PeDirectoryLayout, EntryCountOfTheOptionalHeaderIsNotConsulted) {
    const auto& c = GetParam();
    auto image = image_writer().machine(c.machine).pe32plus(c.pe32plus).magic(c.magic).import("a.dll").build();
    const std::uint64_t count_at = image.nt_offset + c.directory_at - 4;
    put32(image.bytes, count_at, 0);
    EXPECT_EQ(strings(open(image).import_names()), std::vector<std::string>{"a.dll"});
}

const layout_case layout_cases[] = {
    {"pe32", L::machine::i386, false, L::optional_header::magic_pe32, 120},
    {"pe32plus", L::machine::amd64, true, L::optional_header::magic_pe32plus, 136},
    {"x64_with_32bit_magic", L::machine::amd64, false, L::optional_header::magic_pe32, 120},
};

INSTANTIATE_TEST_SUITE_P(Kinds, PeDirectoryLayout, testing::ValuesIn(layout_cases),
                         [](const testing::TestParamInfo<layout_case>& info) { return std::string(info.param.name); });

TEST(PeDirectory, EntriesOutsideTheFileReadAsZeros) {
    auto image = image_writer().build();
    const std::uint64_t entry15 = image.directory_entry_offset(15);
    for (std::uint32_t i = 0; i < 16; ++i) {
        put32(image.bytes, image.directory_entry_offset(i), 0xAAAA0000 + i);
        put32(image.bytes, image.directory_entry_offset(i) + 4, 0xBBBB0000 + i);
    }
    // Cut the file in the middle of entry 15: its RVA is there, its size is not.
    image.bytes.resize(entry15 + 6);
    const pe_image pe = open(image);
    EXPECT_EQ(pe.directory(14)->rva, 0xAAAA000Eu);
    EXPECT_EQ(pe.directory(14)->size, 0xBBBB000Eu);
    EXPECT_EQ(pe.directory(15)->rva, 0u);
    EXPECT_EQ(pe.directory(15)->size, 0u);

    image.bytes.resize(entry15 - 8);
    const pe_image shorter = open(image);
    EXPECT_EQ(shorter.directory(13)->rva, 0xAAAA000Du);
    EXPECT_EQ(shorter.directory(14)->rva, 0u);
    EXPECT_EQ(shorter.directory(15)->size, 0u);
}

// ---------------------------------------------------------------------------------------------
// Section table

// Four sections: code whose raw size passes its virtual size, data with an uninitialised tail, a
// section with no raw bytes at all, and one whose virtual size is below its raw size.
written_image four_sections() {
    return image_writer()
        .section(".text", std::string(0x300, '\x90'))
        .section(".data", std::string(0x10, 'd'), 0x3000)
        .section(".bss", "", 0x2000)
        .section(".small", std::string(0x600, 's'), 0x100)
        .build();
}

TEST(PeRvaToOffset, WriterPlacesSectionsAsLinkersDo) {
    // The expectations below take the places from the writer; these pin the writer's layout.
    const auto image = four_sections();
    ASSERT_EQ(image.sections.size(), 4u);
    EXPECT_EQ(image.sections[0].virtual_address, 0x1000u);
    EXPECT_EQ(image.sections[0].raw_pointer, 0x400u); // 0x80 + 24 + 240 + 4 * 40, rounded up to 0x200
    EXPECT_EQ(image.sections[0].raw_size, 0x400u);
    EXPECT_EQ(image.sections[1].virtual_address, 0x2000u);
    EXPECT_EQ(image.sections[1].raw_pointer, 0x800u);
    EXPECT_EQ(image.sections[2].virtual_address, 0x5000u);
    EXPECT_EQ(image.sections[2].raw_size, 0u);
    EXPECT_EQ(image.sections[3].virtual_address, 0x7000u);
    EXPECT_EQ(image.sections[3].raw_pointer, 0xA00u);
}

struct rva_case {
    const char* what;
    std::uint32_t rva;
    std::optional<std::uint64_t> offset;
};

TEST(PeRvaToOffset, MapsThroughTheSmallerOfVirtualAndRawSize) {
    const auto image = four_sections();
    const pe_image pe = open(image);
    const rva_case cases[] = {
        {"rva 0, in the headers", 0, std::nullopt},
        {"headers before the first section", 0x200, std::nullopt},
        {"last byte before the first section", 0xFFF, std::nullopt},
        {"start of code", 0x1000, 0x400},
        {"last byte of code's virtual size", 0x12FF, 0x6FF},
        {"code's raw padding past its virtual size", 0x1300, std::nullopt},
        {"start of data", 0x2000, 0x800},
        {"data, last raw byte", 0x21FF, 0x9FF},
        {"data, uninitialised tail", 0x2200, std::nullopt},
        {"data, end of the tail", 0x4FFF, std::nullopt},
        {"raw size 0, start", 0x5000, std::nullopt},
        {"raw size 0, middle", 0x5800, std::nullopt},
        {"small, last byte of the virtual size", 0x70FF, 0xAFF},
        {"small, raw bytes past the virtual size", 0x7100, std::nullopt},
        {"past every section", 0x9000, std::nullopt},
        {"highest rva", 0xFFFFFFFF, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(pe.rva_to_offset(c.rva), c.offset) << c.what;
        EXPECT_EQ(pe.rva_to_offset(c.rva), qv::test::reference_rva_to_offset(image.span(), image.nt_offset, c.rva))
            << c.what;
    }
}

TEST(PeRvaToOffset, FirstSectionInTableOrderWins) {
    auto image = four_sections();
    // .small claims the range of .text, and .text is cut to half; the overlap stays with .text.
    const std::uint64_t text = image.section_header_offset(0);
    const std::uint64_t small = image.section_header_offset(3);
    put32(image.bytes, text + L::section::virtual_size_offset, 0x80);
    put32(image.bytes, small + L::section::virtual_address_offset, 0x1000);
    const pe_image pe = open(image);
    EXPECT_EQ(pe.rva_to_offset(0x1000), 0x400u);
    EXPECT_EQ(pe.rva_to_offset(0x107F), 0x47Fu);
    EXPECT_EQ(pe.rva_to_offset(0x1080), 0xA80u); // past .text's cut: .small's bytes
    EXPECT_EQ(pe.rva_to_offset(0x10FF), 0xAFFu);
    EXPECT_EQ(pe.rva_to_offset(0x1100), std::nullopt);
    EXPECT_EQ(pe.rva_to_offset(0x7000), std::nullopt); // .small no longer lies there
}

TEST(PeRvaToOffset, SectionTableFollowsTheOptionalHeaderSize) {
    auto image = four_sections();
    // Grow the optional header by one section header: the table starts at .data's header, and the
    // fourth header read is whatever follows the table (zeros).
    qv::test::put16(image.bytes, image.nt_offset + L::nt::size_of_optional_header_offset,
                    static_cast<std::uint16_t>(L::optional_header::size_pe64 + L::section::header_size));
    const pe_image pe = open(image);
    EXPECT_EQ(pe.rva_to_offset(0x1000), std::nullopt);
    EXPECT_EQ(pe.rva_to_offset(0x2000), 0x800u);
    EXPECT_EQ(pe.rva_to_offset(0x7000), 0xA00u);
}

TEST(PeRvaToOffset, NoSectionsMapsNothing) {
    auto image = four_sections();
    qv::test::put16(image.bytes, image.nt_offset + L::nt::number_of_sections_offset, 0);
    const pe_image pe = open(image);
    for (std::uint32_t rva : {0u, 0x1000u, 0x2000u, 0x7000u})
        EXPECT_EQ(pe.rva_to_offset(rva), std::nullopt) << rva;
}

TEST(PeRvaToOffset, HeadersOutsideTheFileEndTheWalk) {
    auto image = four_sections();
    // Cut the file in the third section header: the first two still map, the rest is gone.
    image.bytes.resize(image.section_header_offset(2) + 20);
    const pe_image pe = open(image);
    EXPECT_EQ(pe.rva_to_offset(0x1000), 0x400u);
    EXPECT_EQ(pe.rva_to_offset(0x2000), 0x800u);
    EXPECT_EQ(pe.rva_to_offset(0x7000), std::nullopt);
}

TEST(PeRvaToOffset, MoreSectionsThanTheFileHoldsAreReadUpToItsEnd) {
    auto image = four_sections();
    qv::test::put16(image.bytes, image.nt_offset + L::nt::number_of_sections_offset, 0xFFFF);
    const pe_image pe = open(image);
    // The four real headers come first and keep their ranges; the rest read section bytes as headers.
    EXPECT_EQ(pe.rva_to_offset(0x1000), 0x400u);
    EXPECT_EQ(pe.rva_to_offset(0x70FF), 0xAFFu);
}

TEST(PeRvaToOffset, OffsetsAreComputedInSixtyFourBits) {
    auto image = four_sections();
    const std::uint64_t data = image.section_header_offset(1);
    put32(image.bytes, data + L::section::pointer_to_raw_data_offset, 0xFFFFFF00);
    const std::uint64_t small = image.section_header_offset(3);
    put32(image.bytes, small + L::section::virtual_address_offset, 0xFFFFF000);
    put32(image.bytes, small + L::section::virtual_size_offset, 0x2000);
    put32(image.bytes, small + L::section::size_of_raw_data_offset, 0x2000);
    const pe_image pe = open(image);
    EXPECT_EQ(pe.rva_to_offset(0x21FF), 0x1000000FFull); // past 4 GiB, not wrapped round
    EXPECT_EQ(pe.rva_to_file_offset(0x21FF), std::nullopt);
    // A range that runs past the top of the RVA space holds up to 0xFFFFFFFF and does not wrap to 0.
    EXPECT_EQ(pe.rva_to_offset(0xFFFFFFFF), 0xA00u + 0xFFF);
    EXPECT_EQ(pe.rva_to_offset(0), std::nullopt);
    EXPECT_EQ(pe.rva_to_offset(0xFFF), std::nullopt);
}

TEST(PeRvaToFileOffset, OnlyOffsetsInsideTheFile) {
    auto image = four_sections();
    const std::uint64_t small = image.section_header_offset(3);
    put32(image.bytes, small + L::section::pointer_to_raw_data_offset,
          static_cast<std::uint32_t>(image.bytes.size()) - 0x10);
    const pe_image pe = open(image);
    EXPECT_EQ(pe.rva_to_file_offset(0x1000), 0x400u);
    const std::uint64_t last = image.bytes.size() - 1;
    EXPECT_EQ(pe.rva_to_file_offset(0x700F), last);
    EXPECT_EQ(pe.rva_to_offset(0x7010), last + 1);
    EXPECT_EQ(pe.rva_to_file_offset(0x7010), std::nullopt);
    EXPECT_EQ(pe.rva_to_file_offset(0x5000), std::nullopt);
}

// ---------------------------------------------------------------------------------------------
// Import names

TEST(PeImportNames, InDescriptorOrderForBothLayouts) {
    for (bool plus : {false, true}) {
        const auto image = image_writer()
                               .machine(plus ? L::machine::amd64 : L::machine::i386)
                               .pe32plus(plus)
                               .import("KERNEL32.dll", {"GetProcAddress", "LoadLibraryW"})
                               .import("msvcrt.dll", {"malloc"})
                               .import("user32.dll")
                               .exports({"DllRegisterServer"})
                               .build();
        EXPECT_EQ(strings(open(image).import_names()),
                  (std::vector<std::string>{"KERNEL32.dll", "msvcrt.dll", "user32.dll"}))
            << plus;
    }
}

TEST(PeImportNames, NamesViewTheFileBytes) {
    const auto image = image_writer().import("one.dll").import("two.dll").build();
    const auto names = open(image).import_names();
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(reinterpret_cast<const std::uint8_t*>(names[1].data()),
              image.bytes.data() + image.import_name_offsets[1]);
}

TEST(PeImportNames, NoImportTable) {
    EXPECT_TRUE(open(image_writer().build()).import_names().empty());
    EXPECT_TRUE(open(image_writer().exports({"DllRegisterServer"}).build()).import_names().empty());
}

struct import_fault {
    const char* what;
    void (*apply)(written_image&);
    std::vector<std::string> names;
};

written_image three_imports() {
    return image_writer()
        .section(".text", std::string(0x20, '\xC3'))
        .section(".bss", "", 0x1000)
        .import("first.dll")
        .import("second.dll", {"a", "b"})
        .import("third.dll")
        .build();
}

void set_name_rva(written_image& image, int descriptor, std::uint32_t rva) {
    put32(image.bytes, image.import_table_offset + 20 * descriptor + 12, rva);
}

const import_fault import_faults[] = {
    {"well formed", [](written_image&) {}, {"first.dll", "second.dll", "third.dll"}},
    {"directory size 0", [](written_image& i) { put32(i.bytes, i.directory_entry_offset(1) + 4, 0); }, {}},
    {"directory rva 0", [](written_image& i) { put32(i.bytes, i.directory_entry_offset(1), 0); }, {}},
    {"directory rva in no section",
     [](written_image& i) { put32(i.bytes, i.directory_entry_offset(1), 0x7FFF0000); },
     {}},
    {"directory rva in the raw-size-0 section",
     [](written_image& i) { put32(i.bytes, i.directory_entry_offset(1), i.sections[1].virtual_address); },
     {}},
    // A size that is too small does not matter: the walk goes to the zero descriptor.
    {"directory size 1",
     [](written_image& i) { put32(i.bytes, i.directory_entry_offset(1) + 4, 1); },
     {"first.dll", "second.dll", "third.dll"}},
    {"first name rva 0 ends the table", [](written_image& i) { set_name_rva(i, 0, 0); }, {}},
    {"second name rva 0 ends the table", [](written_image& i) { set_name_rva(i, 1, 0); }, {"first.dll"}},
    {"third name in an invalid rva",
     [](written_image& i) { set_name_rva(i, 2, 0xFFFF0000); },
     {"first.dll", "second.dll"}},
    {"second name in the headers", [](written_image& i) { set_name_rva(i, 1, 0x80); }, {"first.dll"}},
    {"second name in the raw-size-0 section",
     [](written_image& i) { set_name_rva(i, 1, i.sections[1].virtual_address + 4); },
     {"first.dll"}},
    {"third name in a section whose bytes lie past the end of the file",
     [](written_image& i) {
         put32(i.bytes, i.section_header_offset(1) + L::section::size_of_raw_data_offset, 0x200);
         put32(i.bytes, i.section_header_offset(1) + L::section::pointer_to_raw_data_offset, 0x7FFFF000);
         set_name_rva(i, 2, i.sections[1].virtual_address);
     },
     {"first.dll", "second.dll"}},
    {"first name is empty",
     [](written_image& i) { i.bytes[i.import_name_offsets[0]] = 0; },
     {"", "second.dll", "third.dll"}},
    {"a name may point at another descriptor's name",
     [](written_image& i) { set_name_rva(i, 2, i.import_name_rvas[0]); },
     {"first.dll", "second.dll", "first.dll"}},
    {"the import section cut from the table",
     [](written_image& i) { put32(i.bytes, i.section_header_offset(2) + L::section::virtual_size_offset, 0); },
     {}},
    {"the import section's bytes moved past the end of the file",
     [](written_image& i) {
         put32(i.bytes, i.section_header_offset(2) + L::section::pointer_to_raw_data_offset, 0x7FFFF000);
     },
     {}},
};

std::ostream& operator<<(std::ostream& os, const import_fault& c) {
    return os << c.what;
}

class PeImportFaults : public testing::TestWithParam<import_fault> {};

TEST_P(PeImportFaults, NamesBeforeTheFaultStand) {
    auto image = three_imports();
    GetParam().apply(image);
    EXPECT_EQ(strings(open(image).import_names()), GetParam().names);
}

INSTANTIATE_TEST_SUITE_P(Table, PeImportFaults, testing::ValuesIn(import_faults),
                         [](const auto& info) { return qv::test::case_name(info.param.what); });

TEST(PeImportNames, LastNameWithoutTerminatorEndsTheWalk) {
    auto image = three_imports();
    const std::uint64_t third = image.import_name_offsets[2];
    image.bytes.resize(third + std::string("third.dll").size());
    EXPECT_EQ(strings(open(image).import_names()), (std::vector<std::string>{"first.dll", "second.dll"}));
    image.bytes.push_back(0);
    EXPECT_EQ(strings(open(image).import_names()), (std::vector<std::string>{"first.dll", "second.dll", "third.dll"}));
}

TEST(PeImportNames, TableWithoutAZeroDescriptorEndsAtTheEndOfTheFile) {
    auto image = three_imports();
    // A copy of the first two descriptors at the end of the file, without the zero one after them.
    std::string copy(image.bytes.begin() + static_cast<std::ptrdiff_t>(image.import_table_offset),
                     image.bytes.begin() + static_cast<std::ptrdiff_t>(image.import_table_offset + 40));
    const std::uint32_t rva = append_to_last_section(image, copy);
    image.bytes.resize(image.sections.back().raw_pointer + image.sections.back().raw_size);
    put32(image.bytes, image.directory_entry_offset(1), rva);
    EXPECT_EQ(strings(open(image).import_names()), (std::vector<std::string>{"first.dll", "second.dll"}));

    // With a descriptor cut after its name field, the cut one does not count.
    append_to_last_section(image, copy.substr(0, 16));
    image.bytes.resize(image.sections.back().raw_pointer + image.sections.back().raw_size);
    EXPECT_EQ(strings(open(image).import_names()), (std::vector<std::string>{"first.dll", "second.dll"}));
}

TEST(PeImportNames, NameLengthBound) {
    const std::string longest(pe_image::max_name_length, 'n');
    const std::string too_long(pe_image::max_name_length + 1, 'n');
    const auto at_bound = image_writer().import("first.dll").import(longest).import("third.dll").build();
    const auto names = open(at_bound).import_names();
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(names[1].size(), longest.size());
    const auto past_bound = image_writer().import("first.dll").import(too_long).import("third.dll").build();
    EXPECT_EQ(strings(open(past_bound).import_names()), std::vector<std::string>{"first.dll"});
}

// ---------------------------------------------------------------------------------------------
// The self-registration test

struct export_case {
    const char* what;
    std::vector<std::string> names;
    bool registers;
};

const export_case export_cases[] = {
    {"alone", {"DllRegisterServer"}, true},
    {"first of two", {"DllRegisterServer", "DllUnregisterServer"}, true},
    {"second place", {"DllCanUnloadNow", "DllRegisterServer"}, false},
    {"third place", {"DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer"}, true},
    {"fourth place", {"A", "B", "C", "DllRegisterServer"}, false},
    {"fifth place", {"A", "B", "C", "D", "DllRegisterServer"}, true},
    {"second of three", {"A", "DllRegisterServer", "B"}, false},
    {"lower case", {"dllregisterserver"}, false},
    {"upper case", {"DLLREGISTERSERVER"}, false},
    {"longer name", {"DllRegisterServerEx"}, false},
    {"shorter name", {"DllRegisterServe"}, false},
    {"leading space", {" DllRegisterServer"}, false},
    {"unregister only", {"DllUnregisterServer"}, false},
    {"no names", {}, false},
};

std::ostream& operator<<(std::ostream& os, const export_case& c) {
    return os << c.what;
}

class PeSelfRegistration : public testing::TestWithParam<export_case> {};

TEST_P(PeSelfRegistration, EveryOtherNameIsLookedAt) {
    for (bool plus : {false, true}) {
        const auto image = image_writer()
                               .machine(plus ? L::machine::amd64 : L::machine::i386)
                               .pe32plus(plus)
                               .exports(GetParam().names)
                               .import("kernel32.dll")
                               .build();
        EXPECT_EQ(open(image).exports_dll_register_server(), GetParam().registers) << plus;
    }
}

INSTANTIATE_TEST_SUITE_P(Names, PeSelfRegistration, testing::ValuesIn(export_cases),
                         [](const auto& info) { return qv::test::case_name(info.param.what); });

written_image third_place() {
    return image_writer().exports({"A", "B", "DllRegisterServer"}).build();
}

void set_count(written_image& image, std::uint32_t count) {
    put32(image.bytes, image.export_directory_offset + L::export_directory::number_of_names_offset, count);
}

struct export_fault {
    const char* what;
    void (*apply)(written_image&);
    bool registers;
};

const export_fault export_faults[] = {
    {"well formed", [](written_image&) {}, true},
    {"directory size 0", [](written_image& i) { put32(i.bytes, i.directory_entry_offset(0) + 4, 0); }, false},
    {"directory rva 0", [](written_image& i) { put32(i.bytes, i.directory_entry_offset(0), 0); }, false},
    {"directory rva in no section", [](written_image& i) { put32(i.bytes, i.directory_entry_offset(0), 0x00F00000); },
     false},
    {"count 0", [](written_image& i) { set_count(i, 0); }, false},
    {"count 2 still reaches the third name", [](written_image& i) { set_count(i, 2); }, true},
    {"count 1 stops before the third name", [](written_image& i) { set_count(i, 1); }, false},
    {"negative count", [](written_image& i) { set_count(i, 0xFFFFFFFF); }, false},
    {"most negative count", [](written_image& i) { set_count(i, 0x80000000); }, false},
    {"huge count", [](written_image& i) { set_count(i, 0x7FFFFFFF); }, true},
    {"name table rva in no section",
     [](written_image& i) {
         put32(i.bytes, i.export_directory_offset + L::export_directory::address_of_names_offset, 0x00F00000);
     },
     false},
    {"name table rva 0",
     [](written_image& i) {
         put32(i.bytes, i.export_directory_offset + L::export_directory::address_of_names_offset, 0);
     },
     false},
    {"a name rva before the match maps nowhere",
     [](written_image& i) { put32(i.bytes, i.export_name_table_offset, 0xFFFFFF00); }, true},
    {"the matching name rva maps nowhere",
     [](written_image& i) { put32(i.bytes, i.export_name_table_offset + 8, 0xFFFFFF00); }, false},
    {"the matching name moved to the second entry",
     [](written_image& i) {
         put32(i.bytes, i.export_name_table_offset + 4, i.export_name_rvas[2]);
         put32(i.bytes, i.export_name_table_offset + 8, i.export_name_rvas[1]);
     },
     false},
    {"the first entry names the match",
     [](written_image& i) { put32(i.bytes, i.export_name_table_offset, i.export_name_rvas[2]); }, true},
    {"the name's last letter changed",
     [](written_image& i) { i.bytes[i.offset_of_rva(i.export_name_rvas[2]) + 16] = 'R'; }, false},
    {"the name's terminator changed",
     [](written_image& i) { i.bytes[i.offset_of_rva(i.export_name_rvas[2]) + 17] = 'x'; }, false},
};

std::ostream& operator<<(std::ostream& os, const export_fault& c) {
    return os << c.what;
}

class PeSelfRegistrationFaults : public testing::TestWithParam<export_fault> {};

TEST_P(PeSelfRegistrationFaults, OneFieldChanged) {
    auto image = third_place();
    GetParam().apply(image);
    EXPECT_EQ(open(image).exports_dll_register_server(), GetParam().registers);
}

INSTANTIATE_TEST_SUITE_P(Table, PeSelfRegistrationFaults, testing::ValuesIn(export_faults),
                         [](const auto& info) { return qv::test::case_name(info.param.what); });

TEST(PeSelfRegistration, HugeCountWithATinyTableReadsOnlyToTheEndOfTheFile) {
    auto image = image_writer().exports({"A"}).build();
    set_count(image, 0x7FFFFFFF);
    // The file must end at the last byte the walk may touch: a copy of exactly that size lets the
    // sanitizers see a read past it.
    const std::vector<std::uint8_t> exact(image.bytes.begin(), image.bytes.end());
    EXPECT_FALSE(open(exact).exports_dll_register_server());
}

TEST(PeSelfRegistration, NameCutByTheEndOfTheFile) {
    auto image = third_place();
    const std::uint64_t name = image.offset_of_rva(image.export_name_rvas[2]);
    image.bytes.resize(name + 17); // the letters, not the terminator
    EXPECT_FALSE(open(image).exports_dll_register_server());
    image.bytes.push_back(0);
    EXPECT_TRUE(open(image).exports_dll_register_server());
}

TEST(PeSelfRegistration, NameTableCutByTheEndOfTheFile) {
    auto image = image_writer().exports({"A", "B", "DllRegisterServer"}).build();
    // Move the name-pointer table to the end of the file, with its third entry cut in half.
    std::string table(image.bytes.begin() + static_cast<std::ptrdiff_t>(image.export_name_table_offset),
                      image.bytes.begin() + static_cast<std::ptrdiff_t>(image.export_name_table_offset + 10));
    const std::uint32_t rva = append_to_last_section(image, table);
    image.bytes.resize(image.sections.back().raw_pointer + image.sections.back().raw_size);
    put32(image.bytes, image.export_directory_offset + L::export_directory::address_of_names_offset, rva);
    EXPECT_FALSE(open(image).exports_dll_register_server());
}

TEST(PeSelfRegistration, ExportDirectoryCutByTheEndOfTheFile) {
    auto image = third_place();
    // Point the directory at the last 30 bytes of the file: its count (offset 24) is there, its
    // name-table RVA (offset 32) is not.
    const auto& last = image.sections.back();
    const std::uint32_t rva = last.virtual_address + last.raw_size - 30;
    put32(image.bytes, image.directory_entry_offset(0), rva);
    image.bytes.resize(last.raw_pointer + last.raw_size);
    EXPECT_FALSE(open(image).exports_dll_register_server());
}

} // namespace
