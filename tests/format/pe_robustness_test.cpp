// The reader on broken files: every prefix of a valid image, every byte of its headers and tables
// changed, and single header fields set to values that move or remove what the reader looks for.
// Each outcome must be clean: the answers the plain walks give, never a read outside the bytes
// (the native build runs these under the address and undefined-behaviour sanitizers).
#include "format/pe/pe_image.h"
#include "image_writer.h"
#include "pe_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace {

using qv::pe::classify;
using qv::pe::directory_entry;
using qv::pe::image_kind;
using qv::pe::image_status;
using qv::pe::pe_image;
using qv::test::image_writer;
using qv::test::put16;
using qv::test::put32;
using qv::test::written_image;
namespace L = qv::pe::layout;

// A DLL with code, a section with no raw bytes, three imports and an export table whose third name
// is "DllRegisterServer".
written_image full_image(bool pe32plus) {
    return image_writer()
        .machine(pe32plus ? L::machine::amd64 : L::machine::i386)
        .pe32plus(pe32plus)
        .section(".text", std::string(0x40, '\xC3'))
        .section(".bss", "", 0x800)
        .import("kernel32.dll", {"GetModuleHandleW"})
        .import("ole32.dll", {"CoCreateInstance", "CoInitialize"})
        .import("oleaut32.dll")
        .exports({"DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer"})
        .build();
}

// RVAs worth asking about: every section's edges, every directory entry, every name.
std::vector<std::uint32_t> probe_rvas(const written_image& image) {
    std::set<std::uint32_t> rvas{0, 1, 0xFFF, 0xFFFFFFFF};
    for (const auto& s : image.sections) {
        for (std::uint32_t edge :
             {s.virtual_address, s.virtual_address + s.virtual_size, s.virtual_address + s.raw_size}) {
            rvas.insert(edge - 1);
            rvas.insert(edge);
        }
    }
    rvas.insert(image.import_table_rva);
    rvas.insert(image.export_directory_rva);
    rvas.insert(image.import_name_rvas.begin(), image.import_name_rvas.end());
    rvas.insert(image.export_name_rvas.begin(), image.export_name_rvas.end());
    return std::vector<std::uint32_t>(rvas.begin(), rvas.end());
}

std::uint64_t directory_at(image_kind kind) {
    return kind == image_kind::pe64 ? L::nt::data_directory_offset_pe64 : L::nt::data_directory_offset_pe32;
}

// Every answer of the reader on `bytes` agrees with the plain walks, and every name lies inside the
// bytes with its terminator.
void expect_matches_reference(const std::vector<std::uint8_t>& bytes, const std::vector<std::uint32_t>& rvas,
                              const std::string& where) {
    const auto span = qv::test::span_of(bytes);
    const auto c = classify(span);
    const auto image = pe_image::open(span);
    ASSERT_EQ(image.has_value(),
              c.status == image_status::usable && (c.kind == image_kind::pe || c.kind == image_kind::pe64))
        << where;
    if (!image)
        return;
    const std::uint32_t nt = image->nt_headers_offset();
    for (std::uint32_t rva : rvas)
        ASSERT_EQ(image->rva_to_offset(rva), qv::test::reference_rva_to_offset(span, nt, rva))
            << where << " rva " << rva;
    const auto names = image->import_names();
    for (const auto& name : names) {
        const auto* begin = reinterpret_cast<const std::uint8_t*>(name.data());
        ASSERT_GE(begin, bytes.data()) << where;
        ASSERT_LT(begin + name.size(), bytes.data() + bytes.size()) << where;
        ASSERT_EQ(begin[name.size()], 0) << where;
        ASSERT_EQ(name.find('\0'), std::string_view::npos) << where;
    }
    ASSERT_EQ(std::vector<std::string>(names.begin(), names.end()),
              qv::test::reference_import_names(span, nt, directory_at(image->kind()), pe_image::max_name_length))
        << where;
    ASSERT_EQ(image->exports_dll_register_server(),
              qv::test::reference_self_registration(span, nt, directory_at(image->kind())))
        << where;
    for (std::uint32_t i = 0; i < 17; ++i)
        (void)image->directory(i);
}

class PeTruncation : public testing::TestWithParam<bool> {};

TEST_P(PeTruncation, EveryPrefixGivesACleanOutcome) {
    const auto full = full_image(GetParam());
    const auto whole = pe_image::open(full.span());
    ASSERT_TRUE(whole);
    const auto full_names = whole->import_names();
    ASSERT_EQ(full_names.size(), 3u);
    ASSERT_TRUE(whole->exports_dll_register_server());
    const auto full_class = classify(full.span());
    const auto rvas = probe_rvas(full);

    for (std::size_t n = 0; n <= full.bytes.size(); ++n) {
        // An exact copy, so that a read one byte past the prefix is a read past the allocation.
        const std::vector<std::uint8_t> prefix(full.bytes.begin(), full.bytes.begin() + static_cast<std::ptrdiff_t>(n));
        const std::string where = "prefix " + std::to_string(n);
        const auto c = classify(qv::test::span_of(prefix));
        if (n < 64) {
            ASSERT_EQ(c.status, image_status::unknown_kind) << where;
            ASSERT_EQ(c.kind, image_kind::invalid) << where;
            continue;
        }
        ASSERT_EQ(c.status, image_status::usable) << where;
        if (n < full.nt_offset) {
            ASSERT_EQ(c.kind, image_kind::invalid) << where;
            ASSERT_EQ(c.header_offset, -1) << where;
            continue;
        }
        ASSERT_EQ(c.header_offset, full_class.header_offset) << where;
        if (n >= full.nt_offset + L::nt::magic_offset + 2) {
            ASSERT_EQ(c.kind, full_class.kind) << where;
        } else if (n >= full.nt_offset + 4) {
            ASSERT_EQ(c.kind, image_kind::pe) << where; // the signature is there, machine or magic is not
        } else {
            ASSERT_EQ(c.kind, image_kind::invalid) << where;
        }

        expect_matches_reference(prefix, rvas, where);
        const auto image = pe_image::open(qv::test::span_of(prefix));
        if (!image)
            continue;
        // What a prefix shows is a part of what the whole file shows.
        for (std::uint32_t i = 0; i < 16; ++i) {
            const directory_entry e = *image->directory(i);
            const directory_entry f = *whole->directory(i);
            if (c.kind == full_class.kind) {
                ASSERT_TRUE((e.rva == f.rva && e.size == f.size) || (e.rva == 0 && e.size == 0)) << where << " " << i;
            }
        }
        for (std::uint32_t rva : rvas) {
            const auto part = image->rva_to_offset(rva);
            if (c.kind == full_class.kind && part) {
                ASSERT_EQ(part, whole->rva_to_offset(rva)) << where << " rva " << rva;
            }
        }
        const auto names = image->import_names();
        ASSERT_LE(names.size(), full_names.size()) << where;
        if (c.kind == full_class.kind) {
            ASSERT_TRUE(std::equal(names.begin(), names.end(), full_names.begin())) << where;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, PeTruncation, testing::Values(false, true),
                         [](const auto& info) { return std::string(info.param ? "pe32plus" : "pe32"); });

class PeByteSweep : public testing::TestWithParam<bool> {};

TEST_P(PeByteSweep, EveryByteOfHeadersAndTablesChanged) {
    const auto full = full_image(GetParam());
    const auto rvas = probe_rvas(full);
    // The headers, and the import and export sections whole; the code bytes are never read.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges{{0, full.sections.front().raw_pointer}};
    for (const auto& s : full.sections) {
        if (s.name == ".idata" || s.name == ".edata")
            ranges.emplace_back(s.raw_pointer, s.raw_pointer + s.raw_size);
    }
    for (const auto& [begin, end] : ranges) {
        for (std::uint64_t at = begin; at < end; ++at) {
            for (std::uint8_t value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
                std::vector<std::uint8_t> bytes = full.bytes;
                if (bytes[at] == value)
                    continue;
                bytes[at] = value;
                expect_matches_reference(bytes, rvas, "byte " + std::to_string(at) + " := " + std::to_string(value));
                if (testing::Test::HasFatalFailure())
                    return;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, PeByteSweep, testing::Values(false, true),
                         [](const auto& info) { return std::string(info.param ? "pe32plus" : "pe32"); });

// One header field set to a value, and what the reader makes of the file then.
struct field_case {
    const char* what;
    void (*apply)(written_image&);
    image_status status;
    image_kind kind;
    // For images that still open:
    std::vector<std::string> imports;
    bool registers;
};

const std::vector<std::string> all_imports{"kernel32.dll", "ole32.dll", "oleaut32.dll"};

const field_case field_cases[] = {
    {"unchanged", [](written_image&) {}, image_status::usable, image_kind::pe64, all_imports, true},
    {"dos magic",
     [](written_image& i) { put16(i.bytes, 0, 0x4D5A); },
     image_status::unknown_kind,
     image_kind::invalid,
     {},
     false},
    {"dos relocation field 0",
     [](written_image& i) { put16(i.bytes, 24, 0); },
     image_status::usable,
     image_kind::dos,
     {},
     false},
    {"header offset -1",
     [](written_image& i) { put32(i.bytes, 60, 0xFFFFFFFF); },
     image_status::usable,
     image_kind::invalid,
     {},
     false},
    {"header offset int max",
     [](written_image& i) { put32(i.bytes, 60, 0x7FFFFFFF); },
     image_status::usable,
     image_kind::invalid,
     {},
     false},
    {"header offset the file size",
     [](written_image& i) { put32(i.bytes, 60, static_cast<std::uint32_t>(i.bytes.size())); },
     image_status::usable,
     image_kind::invalid,
     {},
     false},
    {"header offset at the stub",
     [](written_image& i) { put32(i.bytes, 60, 0x40); },
     image_status::usable,
     image_kind::invalid,
     {},
     false},
    {"signature PE01",
     [](written_image& i) { put32(i.bytes, i.nt_offset, 0x01004550); },
     image_status::usable,
     image_kind::invalid,
     {},
     false},
    {"machine itanium",
     [](written_image& i) { put16(i.bytes, i.nt_offset + 4, L::machine::ia64); },
     image_status::usable,
     image_kind::peia64,
     {},
     false},
    {"machine arm",
     [](written_image& i) { put16(i.bytes, i.nt_offset + 4, L::machine::armnt); },
     image_status::usable,
     image_kind::pearm,
     {},
     false},
    // The 64-bit headers read by the 32-bit layout: entry 1 falls on the loader flags and the entry
    // count (RVA 0), entry 0 on the heap commit size (RVA 0x1000, size 0: no table).
    {"machine x86 on 64-bit headers",
     [](written_image& i) { put16(i.bytes, i.nt_offset + 4, L::machine::i386); },
     image_status::usable,
     image_kind::pe,
     {},
     false},
    {"magic 267 on 64-bit headers",
     [](written_image& i) { put16(i.bytes, i.nt_offset + 24, 267); },
     image_status::usable,
     image_kind::pe,
     {},
     false},
    {"no sections",
     [](written_image& i) { put16(i.bytes, i.nt_offset + 6, 0); },
     image_status::usable,
     image_kind::pe64,
     {},
     false},
    {"section count past the file", [](written_image& i) { put16(i.bytes, i.nt_offset + 6, 0xFFFF); },
     image_status::usable, image_kind::pe64, all_imports, true},
    {"optional header size past the file",
     [](written_image& i) { put16(i.bytes, i.nt_offset + 20, 0xFFFF); },
     image_status::usable,
     image_kind::pe64,
     {},
     false},
    {"import directory size 0",
     [](written_image& i) { put32(i.bytes, i.directory_entry_offset(1) + 4, 0); },
     image_status::usable,
     image_kind::pe64,
     {},
     true},
    {"export directory rva 0", [](written_image& i) { put32(i.bytes, i.directory_entry_offset(0), 0); },
     image_status::usable, image_kind::pe64, all_imports, false},
};

std::ostream& operator<<(std::ostream& os, const field_case& c) {
    return os << c.what;
}

class PeHeaderFields : public testing::TestWithParam<field_case> {};

TEST_P(PeHeaderFields, OneFieldChanged) {
    const auto& c = GetParam();
    auto image = full_image(true);
    c.apply(image);
    const auto result = classify(image.span());
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.kind, c.kind);
    const auto opened = pe_image::open(image.span());
    ASSERT_EQ(opened.has_value(), c.kind == image_kind::pe || c.kind == image_kind::pe64);
    if (opened) {
        const auto names = opened->import_names();
        EXPECT_EQ(std::vector<std::string>(names.begin(), names.end()), c.imports);
        EXPECT_EQ(opened->exports_dll_register_server(), c.registers);
    }
}

INSTANTIATE_TEST_SUITE_P(Table, PeHeaderFields, testing::ValuesIn(field_cases),
                         [](const auto& info) { return qv::test::case_name(info.param.what); });

TEST(PeHeaderFields, SixtyFourBitHeadersReadByTheThirtyTwoBitLayout) {
    auto image = full_image(true);
    put16(image.bytes, image.nt_offset + 24, 267);
    const auto opened = pe_image::open(image.span());
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->directory(0)->rva, 0x1000u); // low half of the heap commit size
    EXPECT_EQ(opened->directory(0)->size, 0u);
    EXPECT_EQ(opened->directory(1)->rva, 0u);   // loader flags
    EXPECT_EQ(opened->directory(1)->size, 16u); // the entry count
}

} // namespace
