// The metadata reader on metadata written here byte by byte: the layout from the heap-size flags, row
// counts and coded-index widths, the typed rows, and one fault at a time (cut streams, huge row counts,
// unknown tables, heaps without their ends). Real assemblies are compared with monodis natively.
#include "format/metadata/metadata.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace qv::metadata;
using bytes = std::vector<std::uint8_t>;

void add16(bytes& b, std::uint32_t v) { b.push_back(std::uint8_t(v)), b.push_back(std::uint8_t(v >> 8)); }
void add32(bytes& b, std::uint32_t v) { add16(b, v & 0xFFFF), add16(b, v >> 16); }

// A metadata root holding the streams, each padded to four bytes.
bytes root(const std::vector<std::pair<std::string, bytes>>& streams) {
    bytes h, body;
    add32(h, 0x424A5342), add32(h, 0x00010001), add32(h, 0), add32(h, 12), h.resize(h.size() + 12, 0);
    std::memcpy(h.data() + 16, "v4.0.30319", 10);
    add16(h, 0), add16(h, std::uint16_t(streams.size()));
    std::uint32_t at = std::uint32_t(h.size());
    for (const auto& stream : streams)
        at += 8 + ((std::uint32_t(stream.first.size()) + 4) & ~3u);
    for (const auto& [name, data] : streams) {
        add32(h, at + std::uint32_t(body.size())), add32(h, std::uint32_t(data.size()));
        h.insert(h.end(), name.begin(), name.end()), h.resize(h.size() + ((name.size() + 4) & ~std::size_t{3}) - name.size());
        body.insert(body.end(), data.begin(), data.end()), body.resize((body.size() + 3) & ~std::size_t{3});
    }
    return h.insert(h.end(), body.begin(), body.end()), h;
}

// A #~ stream: the header with the row counts, then the rows as given.
bytes tables(std::uint8_t heapSizes, const std::map<table, std::uint32_t>& counts, const bytes& rows) {
    bytes b = {0, 0, 0, 0, 2, 0, heapSizes, 1};
    std::uint64_t valid = 0;
    for (const auto& entry : counts)
        valid |= std::uint64_t{1} << std::uint8_t(entry.first);
    add32(b, std::uint32_t(valid)), add32(b, std::uint32_t(valid >> 32)), add32(b, 0), add32(b, 0);
    for (const auto& entry : counts)
        add32(b, entry.second);
    return b.insert(b.end(), rows.begin(), rows.end()), b;
}

const bytes strings = {0, 'm', 'a', 'i', 'n', '.', 'e', 'x', 'e', 0, 'l', 'i', 'b', 0, 'd', 'e', 0, 'k', '3', '2', 0};
const bytes blobs = {0, 8, 0xB7, 0x7A, 0x5C, 0x56, 0x19, 0x34, 0xE0, 0x89, 0x7F};

// Module "main.exe"; AssemblyRef lib 1.2.3.4 with a token and de 0.0.0.0 with none; ModuleRef k32.
bytes sample(std::uint8_t heapSizes = 0) {
    const auto idx = [&](bytes& b, std::uint32_t v, std::uint8_t flag) { heapSizes & flag ? add32(b, v) : add16(b, v); };
    bytes rows;
    add16(rows, 0), idx(rows, 1, 1), idx(rows, 0, 2), idx(rows, 0, 2), idx(rows, 0, 2);                 // Module
    idx(rows, 17, 1);                                                                                    // ModuleRef
    for (auto [v, flags, key, name, culture] : {std::tuple{1u, 0u, 1u, 10u, 0u}, {0u, 0u, 0u, 10u, 14u}}) { // AssemblyRef
        add16(rows, v), add16(rows, 2 * v), add16(rows, 3 * v), add16(rows, 4 * v), add32(rows, flags);
        idx(rows, key, 4), idx(rows, name, 1), idx(rows, culture, 1), idx(rows, 0, 4);
    }
    return root({{"#~", tables(heapSizes, {{table::Module, 1}, {table::ModuleRef, 1}, {table::AssemblyRef, 2}}, rows)},
                 {"#Strings", strings}, {"#Blob", blobs}, {"#GUID", bytes(16, 0xAB)}});
}

// A reader viewing b, which must outlive it.
std::optional<metadata_reader> open(const bytes& b) { return metadata_reader::open(qv::format::byte_span(b.data(), b.size())); }

TEST(Metadata, TypedRowsWithNarrowAndWideHeapIndices) {
    for (std::uint8_t heapSizes : {0, 7}) {
        SCOPED_TRACE(int(heapSizes));
        const bytes b = sample(heapSizes);
        const auto md = open(b);
        ASSERT_TRUE(md);
        EXPECT_TRUE(md->runtime_version() == "v4.0.30319" && md->module_name() == "main.exe" && md->module_ref(1) == "k32");
        EXPECT_EQ(md->rows(table::AssemblyRef), 2u);
        const auto lib = md->assembly_ref(1), de = md->assembly_ref(2);
        ASSERT_TRUE(lib && de);
        EXPECT_TRUE(lib->name == "lib" && lib->culture.empty() && lib->version == (version{1, 2, 3, 4}));
        EXPECT_TRUE(lib->public_key_or_token.size() == 8 && lib->public_key_or_token.u8(7) == 0x89);
        EXPECT_TRUE(de->name == "lib" && de->culture == "de" && de->public_key_or_token.empty());
        EXPECT_FALSE(md->assembly_ref(3) || md->assembly_ref(0) || md->assembly() || md->module_ref(2));
        EXPECT_TRUE(md->guid(1)->at(15) == 0xAB && !md->guid(2) && !md->guid(0));
        // Heap values end inside their heaps: the blob at 10 claims 127 bytes, the last string has its NUL.
        EXPECT_TRUE(!md->blob(10) && !md->blob(11) && !md->string(21) && md->string(17) == "k32");
    }
}

TEST(Metadata, EveryCutOfTheRootIsNotMetadata) {
    const bytes b = sample();
    for (std::size_t n = 0; n < b.size(); ++n)
        EXPECT_FALSE(open(bytes(b.begin(), b.begin() + n))) << n;
}

TEST(Metadata, LayoutFaultsAreNotMetadata) {
    const bytes heaps[] = {strings, blobs};
    auto with = [&](const bytes& tablesStream) {
        return open(root({{"#~", tablesStream}, {"#Strings", heaps[0]}, {"#Blob", heaps[1]}}));
    };
    EXPECT_TRUE(with(tables(0, {{table::ModuleRef, 1}}, {1, 0})));
    EXPECT_FALSE(with(tables(0, {{table::ModuleRef, 1u << 24}}, bytes(4096)))) << "2^24 rows";
    EXPECT_FALSE(with(tables(0, {{table::ModuleRef, (1u << 24) - 1}}, bytes(4096)))) << "rows past the stream";
    EXPECT_FALSE(with(tables(0, {{table::ModuleRef, 2}}, {1, 0}))) << "one row short";
    bytes unknown = tables(0, {{table::ModuleRef, 1}}, {1, 0});
    unknown[13] |= 1 << 5; // table 0x2D, after GenericParamConstraint
    EXPECT_FALSE(with(unknown));
    EXPECT_FALSE(open(root({{"#Strings", strings}}))) << "no tables";
    bytes badSignature = sample();
    badSignature[0] ^= 1;
    EXPECT_FALSE(open(badSignature));
}

// ResolutionScope has two tag bits: 2^14 rows of AssemblyRef make it four bytes wide; 2^14 - 1 keep two.
TEST(Metadata, CodedIndexWidthFollowsTheLargestTableItNames) {
    for (std::uint32_t refs : {(1u << 14) - 1, 1u << 14}) {
        const std::uint32_t width = refs < (1u << 14) ? 2 : 4;
        bytes rows;
        width == 4 ? add32(rows, 0x0001000E) : add16(rows, 0x000E); // TypeRef: scope, name, namespace
        add16(rows, 10), add16(rows, 0);
        rows.resize(rows.size() + std::size_t{refs} * 20);
        const bytes b = root({{"#~", tables(0, {{table::TypeRef, 1}, {table::AssemblyRef, refs}}, rows)},
                              {"#Strings", strings}, {"#Blob", blobs}});
        const auto md = open(b); // views b
        ASSERT_TRUE(md) << refs;
        EXPECT_EQ(md->column(table::TypeRef, 1, 0), width == 4 ? 0x0001000Eu : 0x000Eu);
        EXPECT_EQ(md->string(*md->column(table::TypeRef, 1, 1)), "lib");
    }
}

TEST(Metadata, CompressedIntegers) {
    const struct { bytes in; std::optional<std::uint32_t> value; std::uint32_t length; } rows[] = {
        {{0x03}, 3, 1}, {{0x7F}, 0x7F, 1}, {{0x80, 0x80}, 0x80, 2}, {{0xBF, 0xFF}, 0x3FFF, 2},
        {{0xC0, 0x00, 0x40, 0x00}, 0x4000, 4}, {{0xDF, 0xFF, 0xFF, 0xFF}, 0x1FFFFFFF, 4},
        {{0xE0, 0, 0, 0}, std::nullopt, 0}, {{0x80}, std::nullopt, 0}, {{0xC0, 0, 0}, std::nullopt, 0}, {{}, std::nullopt, 0}};
    for (const auto& r : rows) {
        const auto c = read_compressed(qv::format::byte_span(r.in.data(), r.in.size()), 0);
        EXPECT_EQ(c ? std::optional<std::uint32_t>(c->value) : std::nullopt, r.value) << r.in.size();
        EXPECT_EQ(c ? c->length : 0, r.length);
    }
}

} // namespace
