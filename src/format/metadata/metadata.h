// Platform-free reader of .NET metadata (ECMA-335 partition II, sections 22 to 24) over a byte span.
// Opening reads the CLI header, the metadata root, the stream headers and the table header, and computes
// the layout of every table once (row sizes from the heap-size flags, the row counts and the coded-index
// widths), checking that the tables fit their stream. Rows are decoded only when asked for, through the
// table and column; nothing else is touched, so opening costs the same for a small and a large assembly.
//
// Trusts nothing in the bytes: every read goes through byte_span, offsets and sizes are 64-bit, heap
// strings must end inside their heap, blob lengths inside theirs, and an index past its table or heap is
// an absent value. Malformed metadata is "not an assembly" (open gives nullopt); a value that cannot be
// read in metadata that opened is absent (nullopt), never a guess.
#pragma once

#include "format/byte_span.h"
#include "format/pe/pe_image.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qv::metadata {

// The tables of II.22, by number.
enum class table : std::uint8_t {
    Module = 0x00,
    TypeRef = 0x01,
    TypeDef = 0x02,
    FieldPtr = 0x03,
    Field = 0x04,
    MethodPtr = 0x05,
    MethodDef = 0x06,
    ParamPtr = 0x07,
    Param = 0x08,
    InterfaceImpl = 0x09,
    MemberRef = 0x0A,
    Constant = 0x0B,
    CustomAttribute = 0x0C,
    FieldMarshal = 0x0D,
    DeclSecurity = 0x0E,
    ClassLayout = 0x0F,
    FieldLayout = 0x10,
    StandAloneSig = 0x11,
    EventMap = 0x12,
    EventPtr = 0x13,
    Event = 0x14,
    PropertyMap = 0x15,
    PropertyPtr = 0x16,
    Property = 0x17,
    MethodSemantics = 0x18,
    MethodImpl = 0x19,
    ModuleRef = 0x1A,
    TypeSpec = 0x1B,
    ImplMap = 0x1C,
    FieldRVA = 0x1D,
    EncLog = 0x1E,
    EncMap = 0x1F,
    Assembly = 0x20,
    AssemblyProcessor = 0x21,
    AssemblyOS = 0x22,
    AssemblyRef = 0x23,
    AssemblyRefProcessor = 0x24,
    AssemblyRefOS = 0x25,
    File = 0x26,
    ExportedType = 0x27,
    ManifestResource = 0x28,
    NestedClass = 0x29,
    GenericParam = 0x2A,
    MethodSpec = 0x2B,
    GenericParamConstraint = 0x2C,
};
inline constexpr std::uint32_t table_count = 0x2D;

// The CLI header (II.25.3.3), found through data directory 14.
struct cli_header {
    std::uint16_t major = 0, minor = 0;
    std::uint32_t flags = 0; // 1 IL only, 2 32-bit required, 8 strong-name signed, 0x20000 32-bit preferred
    std::uint32_t entry_point = 0;
    pe::directory_entry metadata, resources, strong_name_signature;
};
// nullopt when the image has no CLI header or it does not lie in the file.
std::optional<cli_header> read_cli_header(const pe::pe_image& image);

// A version as four numbers.
struct version {
    std::uint16_t major = 0, minor = 0, build = 0, revision = 0;
    bool operator==(const version&) const = default;
};

struct assembly_row {
    std::uint32_t hash_algorithm = 0, flags = 0;
    metadata::version version;
    format::byte_span public_key; // empty when none
    std::string name, culture;
};

struct assembly_ref_row {
    metadata::version version;
    std::uint32_t flags = 0;               // 1: public_key_or_token holds the whole key
    format::byte_span public_key_or_token; // empty when none
    std::string name, culture;
    format::byte_span hash_value;
};

struct impl_map_row {
    std::uint16_t flags = 0;
    std::uint32_t member = 0; // MemberForwarded coded index, as stored
    std::string import_name;
    std::uint32_t import_scope = 0; // ModuleRef row
};

struct file_row {
    std::uint32_t flags = 0; // 1: a file without metadata
    std::string name;
    format::byte_span hash_value;
};

struct custom_attribute_row {
    std::uint32_t parent = 0; // token of the owner (table << 24 | row)
    std::uint32_t type = 0;   // token of the constructor: a MethodDef or a MemberRef
    format::byte_span value;  // the attribute blob; empty when none
};

struct member_ref_row {
    std::uint32_t parent = 0; // token of the type or module that holds the member
    std::string name;
    format::byte_span signature;
};

struct type_ref_row {
    std::uint32_t scope = 0; // token of the resolution scope; 0 when none
    std::string name, name_space;
};

// The coded-index kinds (II.24.2.6) that callers decode into tokens.
enum class coded_index : std::uint8_t {
    HasCustomAttribute = 2,
    MemberRefParent = 5,
    CustomAttributeType = 10,
    ResolutionScope = 11,
};

// The token of a metadata row: table number in the high byte, one-based row below.
constexpr std::uint32_t token(table t, std::uint32_t row) {
    return static_cast<std::uint32_t>(static_cast<std::uint8_t>(t)) << 24 | (row & 0xFFFFFF);
}

class metadata_reader {
public:
    // The metadata of a PE image (its CLI header's directory), or of metadata bytes as they stand.
    static std::optional<metadata_reader> open(const pe::pe_image& image);
    static std::optional<metadata_reader> open(format::byte_span root);

    // The runtime version text of the metadata root ("v4.0.30319").
    const std::string& runtime_version() const { return version_; }
    std::uint32_t rows(table t) const { return static_cast<std::uint8_t>(t) < table_count ? rows_[idx(t)] : 0; }

    // The raw value of column `column` of row `row` (one-based) of table t: a number, a heap offset, a
    // table row or a coded index as stored. nullopt for a row, column or table that does not exist.
    std::optional<std::uint32_t> column(table t, std::uint32_t row, std::uint32_t column) const;
    // How many columns table t has.
    static std::uint32_t columns(table t);

    // Heap values; nullopt when the offset lies outside its heap or the value does not end inside it.
    std::optional<std::string> string(std::uint32_t offset) const;
    std::optional<format::byte_span> blob(std::uint32_t offset) const;
    std::optional<std::array<std::uint8_t, 16>> guid(std::uint32_t index) const; // one-based; 0 is none

    // Typed rows of the tables the scanner reads; nullopt for a row that does not exist or cannot be read.
    std::optional<assembly_row> assembly() const; // row 1 of Assembly
    std::optional<assembly_ref_row> assembly_ref(std::uint32_t row) const;
    std::optional<std::string> module_ref(std::uint32_t row) const;
    std::optional<std::string> module_name() const; // row 1 of Module
    std::optional<impl_map_row> impl_map(std::uint32_t row) const;
    std::optional<file_row> file(std::uint32_t row) const;
    std::optional<custom_attribute_row> custom_attribute(std::uint32_t row) const;
    std::optional<member_ref_row> member_ref(std::uint32_t row) const;
    std::optional<type_ref_row> type_ref(std::uint32_t row) const;
    // The name of a TypeRef, TypeDef, MethodDef, MemberRef, ModuleRef or Field row; nullopt for others.
    std::optional<std::string> name_of(std::uint32_t token) const;

    // The token a coded index names; nullopt for a tag that names no table, 0 for a null index.
    std::optional<std::uint32_t> decode(coded_index kind, std::uint32_t value) const;

private:
    static constexpr std::uint32_t idx(table t) { return static_cast<std::uint8_t>(t); }
    bool layout(format::byte_span tables);
    std::uint32_t coded_width(std::uint8_t kind) const;
    std::uint32_t column_width(std::uint8_t kind) const;

    format::byte_span strings_, blobs_, guids_, tables_;
    std::string version_;
    std::uint8_t heap_sizes_ = 0;
    std::array<std::uint32_t, table_count> rows_{};
    std::array<std::uint64_t, table_count> table_offset_{}; // from the start of the table data
    std::array<std::uint32_t, table_count> row_size_{};
};

// A compressed unsigned integer of a blob or signature (II.23.2) at offset: its value and its length in
// bytes; nullopt when the bytes are not there or the first byte has the form 111xxxxx.
struct compressed {
    std::uint32_t value = 0, length = 0;
};
std::optional<compressed> read_compressed(format::byte_span bytes, std::uint64_t offset);

} // namespace qv::metadata
