// The PE reader as tables, and every prefix and changed header or table byte of its images against the walks.
#include "format/pe/resources.h"
#include "image_writer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>

namespace {

using namespace qv::pe;
using namespace qv::test;
using namespace std::string_literals;
using bytes_t = std::vector<std::uint8_t>;
using edit = std::function<void(written_image&)>;
namespace M = layout::machine;
using K = image_kind;
const edit as_is = [](written_image&) {};

qv::format::byte_span span(const bytes_t& b) { return qv::format::byte_span(b.data(), b.size()); }
auto writer(bool plus) { return image_writer().machine(plus ? M::amd64 : M::i386).pe32plus(plus); }
std::vector<std::string> imports_of(const pe_image& i) { const auto n = i.import_names(); return {n.begin(), n.end()}; }
pe_image open_edited(written_image i, const edit& change) { return change(i), pe_image::open(i.span()).value(); }
edit field(std::uint64_t written_image::*base, std::uint64_t at, std::uint32_t value) {
    return [=](written_image& i) { put32(i.bytes, i.*base + at, value); };
}

TEST(ByteSpan, BoundsLoadsAndBoundedStrings) {
    const bytes_t b{1, 2, 3, 4, 5, 6, 7, 8, 0xFF, 'a', 'b', 0, 'c', 0}; // the view ends before the last 0
    const qv::format::byte_span s(b.data(), 13);
    constexpr std::uint64_t top = ~0ull;
    const struct { std::uint64_t offset, length; bool fits; } fits[] = {{0, 13, true}, {0, 14, false}, {13, 0, true},
        {13, 1, false}, {14, 0, false}, {1, top, false}, {top, 1, false}, {top - 3, 4, false}, {5, top - 4, false}};
    for (const auto& c : fits)
        EXPECT_EQ(s.fits(c.offset, c.length), c.fits) << c.offset << " + " << c.length;
    EXPECT_TRUE(s.u16(0) == 0x0201 && s.u32(9) == 0x63006261u && s.u64(5) == 0x63006261FF080706ull);
    EXPECT_TRUE(s.i32(5) == std::int32_t(0xFF080706u) && s.sub(12, 2).empty() && s.from(12).size() == 1);
    EXPECT_FALSE(s.u32(10) || s.u64(6) || s.u64(top - 4) || s.u8(13) || qv::format::byte_span(nullptr, 9).u8(0));
    // (offset, bound) -> the string: its terminator lies within the bound and inside the view, or none.
    const struct { std::uint64_t offset, bound; std::optional<std::string_view> text; } strings[] = {{9, 100, "ab"},
        {9, 3, "ab"}, {9, 2, {}}, {11, 1, ""}, {11, 0, {}}, {12, 100, {}}, {12, 1, {}}, {13, 1, {}}, {top, 1, {}}};
    for (const auto& c : strings)
        EXPECT_EQ(s.c_string(c.offset, c.bound), c.text) << c.offset << " within " << c.bound;
}

// "MZ", a new-header program (or not, by `relocations`), `header` at offset `at`, `size` bytes in all.
bytes_t mz(std::int32_t at, const std::string& header, std::size_t size, std::uint16_t relocations = 0x40) {
    bytes_t b;
    put16(b, 0, 0x5A4D), put16(b, 24, relocations), put32(b, 60, static_cast<std::uint32_t>(at));
    put_bytes(b, header.empty() ? 0 : static_cast<std::uint64_t>(at), header);
    b.resize(size);
    return b;
}

TEST(PeClassify, StatusKindHeaderOffsetAndWhichOpen) {
    const auto pe = [](std::uint16_t machine, bool plus, std::uint32_t at = 0x80) {
        return image_writer().machine(machine).pe32plus(plus).header_offset(at).build().bytes;
    };
    const auto none = image_status::unknown_kind;
    const struct { const char* what; bytes_t bytes; K kind; std::int32_t at; image_status status = {}; } rows[] = {
        {"pe32 x86", pe(M::i386, false), K::pe, 0x80}, {"pe32+ x64", pe(M::amd64, true), K::pe64, 0x80},
        {"x64, 32-bit magic", pe(M::amd64, false), K::pe, 0x80}, {"ia64", pe(M::ia64, true), K::peia64, 0x80},
        {"ia64, 32-bit magic", pe(M::ia64, false), K::pe, 0x80}, {"arm", pe(M::armnt, false), K::pearm, 0x80},
        {"arm64: no row", pe(M::arm64, true), K::pe, 0x80}, {"0x40", pe(M::amd64, true, 0x40), K::pe64, 0x40},
        {"ne", mz(0x40, "NE\0\0\0\0\0\0"s, 0x80), K::ne, 0x40}, {"le", mz(0x40, "LE\0\0\0\0\0\0"s, 0x80), K::vxd, 0x40},
        {"lx row", mz(0x40, "XE\0\0\0\0\0\0"s, 0x80), K::lx, 0x40}, {"PEXX", mz(0x40, "PEXX", 0x80), K::invalid, 0x40},
        {"real lx", mz(0x40, "LX\0\0\0\0\0\0"s, 0x80), K::invalid, 0x40},
        {"real ne", mz(0x40, "NE\x05\x0A\x90\x01", 0x80), K::invalid, 0x40},
        {"dos", mz(0x40, "PE\0\0"s, 0x80, 63), K::dos, -1}, {"offset -4", mz(-4, "", 0x100), K::invalid, -1},
        {"int min", mz(INT32_MIN, "", 0x100), K::invalid, -1}, {"past the end", mz(0x101, "", 0x100), K::invalid, -1},
        {"at the end", mz(0x100, "", 0x100), K::invalid, 0x100}, {"at 0: mz", mz(0, "", 0x100), K::invalid, 0},
        {"ne cut", mz(0x79, "NE\0\0\0\0\0"s, 0x80), K::invalid, 0x79}, {"cut", mz(0x7E, "PE", 0x80), K::invalid, 0x7E},
        {"PE ends", mz(0x7C, "PE\0\0"s, 0x80), K::pe, 0x7C}, {"no magic", mz(0x60, "PE\0\0d\x86"s, 0x79), K::pe, 0x60},
        {"arm, nothing after", mz(0x7A, "PE\0\0\xC4\x01"s, 0x80), K::pearm, 0x7A}, {"empty", {}, K::invalid, -1, none},
        {"63 bytes", mz(0, "", 63), K::invalid, -1, none}, {"no mz", bytes_t(0x100, 'Z'), K::invalid, -1, none}};
    for (const auto& r : rows) {
        const auto c = classify(span(r.bytes));
        const auto image = pe_image::open(span(r.bytes));
        EXPECT_TRUE(c.status == r.status && c.kind == r.kind && c.header_offset == r.at)
            << r.what << ": " << kind_name(c.kind) << " at " << c.header_offset;
        EXPECT_EQ(image.has_value(), r.kind == K::pe || r.kind == K::pe64) << r.what;
        EXPECT_TRUE(!image || (image->kind() == r.kind && image->nt_headers_offset() == std::uint32_t(r.at))) << r.what;
    }
    const char* names[] = {"Invalid", "DOS", "NE", "VXD", "LX", "PE", "PE64", "PEIA64", "PEARM", "Invalid"};
    for (std::uint32_t i = 0; i < 10; ++i)
        EXPECT_STREQ(kind_name(static_cast<image_kind>(i)), names[i]);
}

TEST(PeImage, RvaToOffsetThroughTheFirstSectionThatHoldsIt) {
    // .text 0x300 at 0x1000 (file 0x400); .data 0x200 of 0x3000 at 0x2000 (0x800); .bss at 0x5000; .small at 0x7000
    const auto image = writer(true).section(".text", std::string(0x300, 't')).section(".data", "d", 0x3000)
                           .section(".bss", "", 0x2000).section(".small", std::string(0x600, 's'), 0x100).build();
    const auto header = [](std::uint32_t section, std::uint32_t at, std::uint32_t value) {
        return field(&written_image::section_table_offset, 40 * section + at, value);
    };
    edit top = [&](written_image& i) { header(3, 12, ~0xFFFu)(i), header(3, 8, 8192)(i), header(3, 16, 8192)(i); };
    edit overlap = [&](written_image& i) { header(3, 12, 0x1000)(i), header(0, 8, 0x80)(i); };
    const struct { edit change; std::uint32_t rva; std::optional<std::uint64_t> offset; } rows[] = {
        {as_is, 0xFFF, {}}, {as_is, 0x1000, 0x400}, {as_is, 0x12FF, 0x6FF}, {as_is, 0x1300, {}}, // raw past virtual
        {as_is, 0x21FF, 0x9FF}, {as_is, 0x2200, {}}, {as_is, 0x5000, {}}, {as_is, 0x70FF, 0xAFF}, {as_is, ~0u, {}},
        {header(3, 12, 0x1000), 0x10FF, 0x4FF}, {overlap, 0x1080, 0xA80}, // the earlier section keeps an overlap
        {header(1, 20, 0xFFFFFF00), 0x21FF, 0x1000000FFull}, {top, ~0u, 0xA00 + 0xFFF}, {top, 0, {}}}; // no wrap
    for (const auto& r : rows) {
        const auto pe = open_edited(image, r.change);
        EXPECT_EQ(pe.rva_to_offset(r.rva), r.offset) << std::hex << r.rva;
        EXPECT_EQ(pe.rva_to_file_offset(r.rva), r.offset < pe.bytes().size() ? r.offset : std::nullopt) << r.rva;
    }
}

// Resources: types 16 (name 1) and 24 (names 2 and 7), after a named type entry that is stepped over.
bytes_t resources() {
    bytes_t b(0x100, 0);
    const auto table = [&](std::uint32_t at, std::uint16_t named, std::vector<std::pair<std::uint32_t, int>> ids) {
        put16(b, at + 12, named), put16(b, at + 14, static_cast<std::uint16_t>(ids.size()));
        ids.insert(ids.begin(), named, {0x80000030, 0x80}); // a named entry
        for (std::uint32_t i = 0; i < ids.size(); ++i)
            put32(b, at + 16 + 8 * i, ids[i].first), put32(b, at + 20 + 8 * i, ids[i].second ^ 0x80000000);
    };
    table(0x00, 1, {{16, 0x40}, {24, 0x80}}), table(0x40, 0, {{1, 0xC0}}), table(0x80, 0, {{2, 0xC0}, {7, 0xC0}});
    table(0xC0, 0, {{0x409, 0x800000E0}}); // languages: a data entry, no subtable
    return b;
}

// The image of the sweeps: code, a section with no bytes, resources, three imports and four exports.
written_image dll(bool plus, const bytes_t& rsrc = resources()) {
    auto w = writer(plus).section(".text", "\xC3").section(".bss", "", 0x800)
                 .section(".rsrc", {rsrc.begin(), rsrc.end()}).import("kernel32.dll").import("ole32.dll")
                 .import("oleaut32.dll").exports({"A", "B", "DllRegisterServer", "DllUnregisterServer"}).build();
    put32(w.bytes, w.directory_entry_offset(2), w.sections[2].virtual_address);
    put32(w.bytes, w.directory_entry_offset(2) + 4, w.sections[2].virtual_size);
    return w;
}

TEST(PeImage, ImportNamesInTableOrderUpToTheFirstFault) {
    const std::vector<std::string> all{"kernel32.dll", "ole32.dll", "oleaut32.dll"};
    auto name = [](int d, std::uint32_t to) { return field(&written_image::import_table_offset, 20 * d + 12, to); };
    auto entry = [](int at, std::uint32_t to) { return field(&written_image::data_directory_offset, 8 + at, to); };
    const edit no_zero_descriptor = [](written_image& i) { // the last of them cut by the end of the file
        put32(i.bytes, i.section_header_offset(4) + 8, i.sections[4].raw_size); // the section's padding maps too
        std::copy_n(i.bytes.begin() + i.import_table_offset, 56, i.bytes.end() - 56);
        put32(i.bytes, i.directory_entry_offset(1), i.sections[4].virtual_address + i.sections[4].raw_size - 56);
    };
    const struct { const char* what; edit change; std::vector<std::string> names; } rows[] = {
        {"well formed", as_is, all}, {"directory size 0", entry(4, 0), {}}, {"directory rva 0", entry(0, 0), {}},
        {"directory in no section", entry(0, 0x7FFF0000), {}}, {"name rva 0 ends the table", name(1, 0), {all[0]}},
        {"name in no section", name(2, ~0u), {all[0], all[1]}}, {"name in no bytes", name(1, 0x2004), {all[0]}},
        {"an empty name", [](written_image& i) { i.bytes[i.import_name_offsets[0]] = 0; }, {"", all[1], all[2]}},
        {"no terminator", [](written_image& i) { i.bytes.resize(i.import_name_offsets[2] + 12); }, {all[0], all[1]}},
        {"no zero descriptor", no_zero_descriptor, {all[0], all[1]}}};
    for (bool plus : {false, true})
        for (const auto& r : rows)
            EXPECT_EQ(imports_of(open_edited(dll(plus), r.change)), r.names) << r.what << (plus ? " pe32+" : " pe32");
    for (std::uint64_t length : {pe_image::max_name_length, pe_image::max_name_length + 1})
        EXPECT_EQ(open_edited(writer(true).import("a").import(std::string(length, 'n')).import("c").build(), as_is)
                      .import_names().size(), length == pe_image::max_name_length ? 3u : 1u);
}

TEST(PeImage, SelfRegistrationLooksAtEveryOtherNameUpToTheCount) {
    const auto count = [](std::uint32_t n) { return field(&written_image::export_directory_offset, 24, n); };
    auto cut = [](std::uint64_t n) { return [=](written_image& i) { i.bytes.resize(i.export_name_offsets[2] + n); }; };
    const std::vector<std::string> third{"A", "B", "DllRegisterServer"};
    const struct { const char* what; std::vector<std::string> names; edit change; bool found; } rows[] = {
        {"alone", {"DllRegisterServer"}, as_is, true}, {"second", {"A", "DllRegisterServer"}, as_is, false},
        {"third", third, as_is, true}, {"fourth", {"A", "B", "C", "DllRegisterServer"}, as_is, false},
        {"fifth", {"A", "B", "C", "D", "DllRegisterServer"}, as_is, true}, {"case", {"dllRegisterServer"}, as_is, 0},
        {"longer", {"DllRegisterServerEx"}, as_is, false}, {"shorter", {"DllRegisterServe"}, as_is, false},
        {"no names", {}, as_is, false}, {"count 2 reaches the third entry", third, count(2), true},
        {"count 1 stops before it", third, count(1), false}, {"negative count", third, count(0x80000000), false},
        {"count past the table", third, count(0x7FFFFFFF), true}, {"and without it", {"A"}, count(0x7FFFFFFF), false},
        {"a name in no section first", third, field(&written_image::export_name_table_offset, 0, ~0u), true},
        {"name table in no section", third, field(&written_image::export_directory_offset, 32, ~0u), false},
        {"directory size 0", third, field(&written_image::data_directory_offset, 4, 0), false},
        {"the name ends the file", third, cut(18), true}, {"its terminator cut off", third, cut(17), false}};
    for (bool plus : {false, true})
        for (const auto& r : rows)
            EXPECT_EQ(open_edited(writer(plus).exports(r.names).build(), r.change).exports_dll_register_server(),
                      r.found) << r.what << (plus ? " pe32+" : " pe32");
}

TEST(PeImage, ResourcesByNumberedTypeAndName) {
    const struct { std::uint32_t at, value, type, name; bool found; } rows[] = { // resource bytes changed: at, value
        {0, 0, 24, 2, true}, {0, 0, 24, 7, true}, {0, 0, 24, 0, true}, {0, 0, 24, 3, false}, {0, 0, 16, 1, true},
        {0, 0, 16, 2, false}, {0, 0, 3, 0, false}, {0, 0, 0, 0, true}, // type 0: the first numbered one
        {0x24, 0x8FFFFFF0, 24, 2, false}, {0x24, 0x80, 24, 2, false}, {0x24, 0x80, 16, 1, true}, // 24's subtable
        {0x8C, 0xFFFFFFFF, 24, 2, false}, {0x90, 0x80000002, 24, 2, false}}; // huge counts; a named name
    for (const auto& r : rows) {
        bytes_t rsrc = resources();
        put32(rsrc, r.at, r.value);
        EXPECT_EQ(has_resource(*pe_image::open(dll(true, rsrc).span()), r.type, r.name), r.found) << r.type << r.name;
    }
    EXPECT_FALSE(has_resource(*pe_image::open(writer(true).build().span()), 24, 0));
}

// Which version resource the system would read: the fixture's type 16, name 1, one language, its data entry
// pointed at eight bytes of the section; each row changes the resource bytes (at, value) or the whole.
TEST(PeImage, VersionResourceWhenTheDirectoryTellsWhichOne) {
    using kind = version_resource::kind;
    const auto with_data = [](bytes_t b) {
        put32(b, 0xE0, 0x3000 + 0xF0), put32(b, 0xE4, 8); // the data entry: RVA (the section's), size
        for (std::uint32_t i = 0; i < 8; ++i)
            b[0xF0 + i] = static_cast<std::uint8_t>('a' + i);
        return b;
    };
    const auto named = [](const char* text) { // the named type entry's name
        return [=](bytes_t& b) {
            put16(b, 0x30, static_cast<std::uint16_t>(std::strlen(text)));
            for (size_t i = 0; text[i]; ++i)
                put16(b, static_cast<std::uint32_t>(0x32 + 2 * i), static_cast<std::uint8_t>(text[i]));
        };
    };
    const auto set = [](std::uint32_t at, std::uint32_t value) { return [=](bytes_t& b) { put32(b, at, value); }; };
    const auto none = [](bytes_t&) {};
    const struct { const char* what; std::function<void(bytes_t&)> change; kind is; } rows[] = {
        {"one language", none, kind::one}, {"another named type", named("TYPELIB"), kind::one},
        {"a MUI type", named("MUI"), kind::ask}, {"a mui type", named("mui"), kind::ask},
        {"MUIX", named("MUIX"), kind::one}, {"no type 16", set(0x18, 17), kind::none},
        {"no name 1", set(0x50, 2), kind::none}, {"two languages", set(0xCC, 0x00020000), kind::ask},
        {"a language subtable", set(0xD4, 0x800000E0), kind::ask}, {"size 0", set(0xE4, 0), kind::ask},
        {"data in no section", set(0xE0, 0x7FFF0000), kind::ask}, {"past the file", set(0xE4, 0x100000), kind::ask},
        {"type 16 a leaf", set(0x1C, 0x40), kind::ask}, {"name 1 a leaf", set(0x54, 0xC0), kind::ask},
        {"a huge type count, 16 first", set(0x0C, 0xFFFF0001), kind::one}};
    for (bool plus : {false, true})
        for (const auto& r : rows) {
            bytes_t rsrc = with_data(resources());
            r.change(rsrc);
            const written_image image = dll(plus, rsrc);
            ASSERT_EQ(image.sections[2].virtual_address, 0x3000u);
            const auto found = find_version_resource(*pe_image::open(image.span()));
            EXPECT_EQ(found.is, r.is) << r.what << (plus ? " pe32+" : " pe32");
            if (found.is == kind::one)
                EXPECT_EQ(std::string(found.data.data(), found.data.data() + found.data.size()), "abcdefgh") << r.what;
        }
    EXPECT_EQ(find_version_resource(*pe_image::open(writer(true).build().span())).is, kind::none); // no directory
}

// Every answer on `bytes` is the plain walk's, and every import name views the bytes with its terminator.
void expect_walks(const bytes_t& bytes, const std::vector<std::uint32_t>& rvas, const std::string& where) {
    const auto c = classify(span(bytes));
    const auto image = pe_image::open(span(bytes));
    ASSERT_EQ(image.has_value(), c.status == image_status{} && (c.kind == K::pe || c.kind == K::pe64)) << where;
    if (!image)
        return;
    const std::uint32_t nt = image->nt_headers_offset();
    const std::uint64_t at = image->kind() == image_kind::pe64 ? 136 : 120;
    for (std::uint32_t rva : rvas)
        ASSERT_EQ(image->rva_to_offset(rva), reference_rva_to_offset(span(bytes), nt, rva)) << where << " " << rva;
    const auto *first = reinterpret_cast<const char*>(bytes.data()), *last = first + bytes.size();
    for (const auto& name : image->import_names())
        ASSERT_TRUE(name.data() >= first && name.data() + name.size() < last && !name.data()[name.size()]) << where;
    ASSERT_EQ(imports_of(*image), reference_import_names(span(bytes), nt, at, pe_image::max_name_length)) << where;
    ASSERT_EQ(image->exports_dll_register_server(), reference_self_registration(span(bytes), nt, at)) << where;
}

// A file that ends after its first `size` bytes, seen through a view that spans more.
struct shrunk final : qv::format::byte_source {
    shrunk(const std::uint8_t* base, std::uint64_t size) : base(base), size(size) {}
    bool fill(const std::uint8_t* p, std::uint64_t n) const override { return p >= base && p - base + n <= size; }
    const std::uint8_t* base;
    std::uint64_t size;
};

// Every prefix gives the walks' answers and shows a part of what the whole file shows: the same directory
// entries or zeros, the first of its import names, self-registration and resources only if the whole has them.
void expect_prefixes(const bytes_t& full, const std::vector<std::uint32_t>& rvas, const std::string& what) {
    const auto whole = pe_image::open(span(full)).value();
    for (std::size_t n = 0; n <= full.size(); ++n) {
        const bytes_t prefix(full.begin(), full.begin() + n); // a read past it is past the allocation
        const std::string where = what + " prefix " + std::to_string(n);
        ASSERT_NO_FATAL_FAILURE(expect_walks(prefix, rvas, where));
        const auto image = pe_image::open(span(prefix));
        // The whole file's view over a source that shrank to the prefix: no read passes the source, and the
        // answers are the prefix's.
        const shrunk source(prefix.data(), n);
        const auto cut = pe_image::open(qv::format::byte_span(prefix.data(), full.size(), &source));
        ASSERT_EQ(cut.has_value(), image.has_value()) << where;
        ASSERT_TRUE(!cut || (imports_of(*cut) == imports_of(*image) &&
                             cut->exports_dll_register_server() == image->exports_dll_register_server())) << where;
        if (!image || image->kind() != whole.kind())
            continue;
        for (std::uint32_t i = 0; i < 17; ++i) {
            const auto e = image->directory(i), f = whole.directory(i);
            ASSERT_TRUE(e ? (e->rva == f->rva && e->size == f->size) || (!e->rva && !e->size) : i == 16) << where;
        }
        const auto names = imports_of(*image), all = imports_of(whole);
        ASSERT_TRUE(names.size() <= all.size() && std::equal(names.begin(), names.end(), all.begin())) << where;
        ASSERT_TRUE(!image->exports_dll_register_server() || whole.exports_dll_register_server()) << where;
        for (std::uint32_t type : {16u, 24u})
            ASSERT_TRUE(!has_resource(*image, type, 0) || has_resource(whole, type, 0)) << where;
    }
}

TEST(PeImage, EveryPrefixAndEveryChangedHeaderOrTableByteGivesTheWalksAnswers) {
    for (bool plus : {false, true}) {
        const auto full = dll(plus);
        std::vector<std::uint32_t> rvas{0, ~0u}; // section edges, either side
        for (const auto& [name, va, virtual_size, raw, raw_size] : full.sections)
            for (std::uint32_t edge : {va, va + virtual_size, va + raw_size})
                rvas.insert(rvas.end(), {edge - 1, edge});
        ASSERT_NO_FATAL_FAILURE(expect_prefixes(full.bytes, rvas, plus ? "pe32+" : "pe32"));
        for (std::uint64_t at = 0; at < full.bytes.size(); ++at) {
            at += at == full.sections[0].raw_pointer ? full.sections[0].raw_size : 0; // the code is never read
            for (std::uint8_t value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
                bytes_t bytes = full.bytes;
                bytes[at] = value;
                ASSERT_NO_FATAL_FAILURE(expect_walks(bytes, rvas, std::to_string(at) + " := " + std::to_string(value)));
            }
        }
    }
}

#ifdef _WIN32
TEST(PeLinkedImages, KindMachineImportsSelfRegistrationAndEveryPrefix) {
    const std::vector<std::string> dll{"pefix_one.dll", "pefix_two.dll"};
    const std::vector<std::string> exe{"pefix_one.dll", "pefix_three.dll", "pefix_two.dll"}; // ld sorts by name
    const struct { const char* file; image_kind kind; std::vector<std::string> imports; bool registers; } rows[] = {
        {"selfreg_only.dll", K::pe64, dll, true}, {"selfreg_second.dll", K::pe64, dll, false}, // exports sorted
        {"selfreg_third.dll", K::pe64, dll, true}, {"selfreg_lower.dll", K::pe64, dll, false},
        {"selfreg_only32.dll", K::pe, dll, true}, {"app.exe", K::pe64, exe, false}, {"app32.exe", K::pe, exe, false}};
    ASSERT_TRUE(std::getenv("QV_FIXTURES"));
    for (const auto& r : rows) {
        const auto bytes = read_bytes(std::getenv("QV_FIXTURES") + "/pe/"s + r.file);
        const auto image = pe_image::open(span(bytes)).value();
        EXPECT_TRUE(image.kind() == r.kind && image.machine() == (r.kind == K::pe64 ? M::amd64 : M::i386)) << r.file;
        EXPECT_EQ(imports_of(image), r.imports) << r.file;
        EXPECT_EQ(image.exports_dll_register_server(), r.registers) << r.file;
        ASSERT_NO_FATAL_FAILURE(expect_prefixes(bytes, {0, 0xFFF, 0x1000, 0x1FFF, 0x2000, 0x3000, 0x4000}, r.file));
    }
}
#endif

} // namespace
