#include "format/metadata/metadata.h"

#include <algorithm>

namespace qv::metadata {

namespace {

// Column kinds: fixed sizes, heap offsets, a row of one table, or a coded index.
enum : std::uint8_t {
    U16 = 1,
    U32 = 2,
    U8 = 3,
    Str = 4,
    Guid = 5,
    Blob = 6,
    Row = 0x40,   // + table number: a row of that table
    Coded = 0x80, // + coded-index kind
};

// Coded-index kinds (II.24.2.6) and the tables each can name, in tag order; 0xFF marks a tag that
// names no table.
enum : std::uint8_t {
    TypeDefOrRef,
    HasConstant,
    HasCustomAttribute,
    HasFieldMarshal,
    HasDeclSecurity,
    MemberRefParent,
    HasSemantics,
    MethodDefOrRef,
    MemberForwarded,
    Implementation,
    CustomAttributeType,
    ResolutionScope,
    TypeOrMethodDef,
    CodedKinds
};
struct coded_kind {
    std::uint8_t tag_bits;
    std::uint8_t count;
    std::uint8_t tables[22];
};
constexpr std::uint8_t None = 0xFF;
constexpr coded_kind coded_kinds[CodedKinds] = {
    {2, 3, {0x02, 0x01, 0x1B}},
    {2, 3, {0x04, 0x08, 0x17}},
    {5, 22, {0x06, 0x04, 0x01, 0x02, 0x08, 0x09, 0x0A, 0x00, 0x0E, 0x17, 0x14,
             0x11, 0x1A, 0x1B, 0x20, 0x23, 0x26, 0x27, 0x28, 0x2A, 0x2C, 0x2B}},
    {1, 2, {0x04, 0x08}},
    {2, 3, {0x02, 0x06, 0x20}},
    {3, 5, {0x02, 0x01, 0x1A, 0x06, 0x1B}},
    {1, 2, {0x14, 0x17}},
    {1, 2, {0x06, 0x0A}},
    {1, 2, {0x04, 0x06}},
    {2, 3, {0x26, 0x23, 0x27}},
    {3, 5, {None, None, 0x06, 0x0A, None}},
    {2, 4, {0x00, 0x1A, 0x23, 0x01}},
    {1, 2, {0x02, 0x06}},
};

constexpr std::uint8_t R(table t) {
    return static_cast<std::uint8_t>(Row + static_cast<std::uint8_t>(t));
}
constexpr std::uint8_t C(std::uint8_t kind) {
    return static_cast<std::uint8_t>(Coded + kind);
}

// The columns of each table (II.22), first to last; 0 ends a table's list.
constexpr std::uint8_t schema[table_count][10] = {
    {U16, Str, Guid, Guid, Guid},                                           // Module
    {C(ResolutionScope), Str, Str},                                         // TypeRef
    {U32, Str, Str, C(TypeDefOrRef), R(table::Field), R(table::MethodDef)}, // TypeDef
    {R(table::Field)},                                                      // FieldPtr
    {U16, Str, Blob},                                                       // Field
    {R(table::MethodDef)},                                                  // MethodPtr
    {U32, U16, U16, Str, Blob, R(table::Param)},                            // MethodDef
    {R(table::Param)},                                                      // ParamPtr
    {U16, U16, Str},                                                        // Param
    {R(table::TypeDef), C(TypeDefOrRef)},                                   // InterfaceImpl
    {C(MemberRefParent), Str, Blob},                                        // MemberRef
    {U8, U8, C(HasConstant), Blob},                                         // Constant
    {C(HasCustomAttribute), C(CustomAttributeType), Blob},                  // CustomAttribute
    {C(HasFieldMarshal), Blob},                                             // FieldMarshal
    {U16, C(HasDeclSecurity), Blob},                                        // DeclSecurity
    {U16, U32, R(table::TypeDef)},                                          // ClassLayout
    {U32, R(table::Field)},                                                 // FieldLayout
    {Blob},                                                                 // StandAloneSig
    {R(table::TypeDef), R(table::Event)},                                   // EventMap
    {R(table::Event)},                                                      // EventPtr
    {U16, Str, C(TypeDefOrRef)},                                            // Event
    {R(table::TypeDef), R(table::Property)},                                // PropertyMap
    {R(table::Property)},                                                   // PropertyPtr
    {U16, Str, Blob},                                                       // Property
    {U16, R(table::MethodDef), C(HasSemantics)},                            // MethodSemantics
    {R(table::TypeDef), C(MethodDefOrRef), C(MethodDefOrRef)},              // MethodImpl
    {Str},                                                                  // ModuleRef
    {Blob},                                                                 // TypeSpec
    {U16, C(MemberForwarded), Str, R(table::ModuleRef)},                    // ImplMap
    {U32, R(table::Field)},                                                 // FieldRVA
    {U32, U32},                                                             // EncLog
    {U32},                                                                  // EncMap
    {U32, U16, U16, U16, U16, U32, Blob, Str, Str},                         // Assembly
    {U32},                                                                  // AssemblyProcessor
    {U32, U32, U32},                                                        // AssemblyOS
    {U16, U16, U16, U16, U32, Blob, Str, Str, Blob},                        // AssemblyRef
    {U32, R(table::AssemblyRef)},                                           // AssemblyRefProcessor
    {U32, U32, U32, R(table::AssemblyRef)},                                 // AssemblyRefOS
    {U32, Str, Blob},                                                       // File
    {U32, U32, Str, Str, C(Implementation)},                                // ExportedType
    {U32, U32, Str, C(Implementation)},                                     // ManifestResource
    {R(table::TypeDef), R(table::TypeDef)},                                 // NestedClass
    {U16, U16, C(TypeOrMethodDef), Str},                                    // GenericParam
    {C(MethodDefOrRef), Blob},                                              // MethodSpec
    {R(table::GenericParam), C(TypeDefOrRef)},                              // GenericParamConstraint
};

// Longest heap string read; names in metadata are far shorter.
constexpr std::uint64_t max_string = 64 * 1024;
constexpr std::uint32_t root_signature = 0x424A5342; // "BSJB"

} // namespace

std::optional<cli_header> read_cli_header(const pe::pe_image& image) {
    const auto entry = image.directory(14);
    if (!entry || entry->rva == 0 || entry->size < 72)
        return std::nullopt;
    const auto offset = image.rva_to_file_offset(entry->rva);
    const format::byte_span bytes = offset ? image.bytes().sub(*offset, 72) : format::byte_span();
    auto u16 = [&](std::uint64_t at) { return bytes.u16(at).value_or(0); };
    auto u32 = [&](std::uint64_t at) { return bytes.u32(at).value_or(0); };
    if (bytes.size() != 72 || !bytes.readable(0, 72) || u32(0) < 72)
        return std::nullopt;
    cli_header h;
    h.major = u16(4), h.minor = u16(6);
    h.metadata = {u32(8), u32(12)};
    h.flags = u32(16), h.entry_point = u32(20);
    h.resources = {u32(24), u32(28)};
    h.strong_name_signature = {u32(32), u32(36)};
    return h;
}

std::optional<metadata_reader> metadata_reader::open(const pe::pe_image& image) {
    const auto header = read_cli_header(image);
    if (!header || header->metadata.rva == 0)
        return std::nullopt;
    const auto offset = image.rva_to_file_offset(header->metadata.rva);
    if (!offset)
        return std::nullopt;
    // A size that runs past the end of the file is cut to it: the streams must still fit.
    return open(image.bytes().from(*offset).sub(
        0, std::min<std::uint64_t>(header->metadata.size, image.bytes().size() - *offset)));
}

std::optional<metadata_reader> metadata_reader::open(format::byte_span root) {
    if (root.u32(0) != root_signature)
        return std::nullopt;
    const auto length = root.u32(12);
    if (!length || *length > 255 || !root.fits(16, *length))
        return std::nullopt;
    metadata_reader r;
    if (const auto text = root.c_string(16, *length))
        r.version_ = std::string(*text);
    else if (root.readable(16, *length)) // padded to its length without a terminator
        r.version_.assign(reinterpret_cast<const char*>(root.data() + 16), *length);
    else
        return std::nullopt;

    std::uint64_t at = 16 + static_cast<std::uint64_t>(*length);
    const auto streams = root.u16(at + 2);
    if (!streams)
        return std::nullopt;
    at += 4;
    format::byte_span tables;
    for (std::uint32_t i = 0; i < *streams; ++i) {
        const auto offset = root.u32(at), size = root.u32(at + 4);
        const auto name = root.c_string(at + 8, 32);
        if (!offset || !size || !name || !root.fits(*offset, *size))
            return std::nullopt;
        const format::byte_span bytes = root.sub(*offset, *size);
        if (*name == "#~" || *name == "#-")
            tables = bytes;
        else if (*name == "#Strings")
            r.strings_ = bytes;
        else if (*name == "#Blob")
            r.blobs_ = bytes;
        else if (*name == "#GUID")
            r.guids_ = bytes;
        at += 8 + ((name->size() + 4) & ~std::uint64_t{3}); // the name with its NUL, padded to four bytes
    }
    if (tables.empty() || !r.layout(tables))
        return std::nullopt;
    return r;
}

std::uint32_t metadata_reader::coded_width(std::uint8_t kind) const {
    const coded_kind& k = coded_kinds[kind];
    std::uint32_t largest = 0;
    for (std::uint8_t i = 0; i < k.count; ++i) {
        if (k.tables[i] != None && rows_[k.tables[i]] > largest)
            largest = rows_[k.tables[i]];
    }
    return largest < (1u << (16 - k.tag_bits)) ? 2 : 4;
}

std::uint32_t metadata_reader::column_width(std::uint8_t kind) const {
    switch (kind) {
    case U8:
        return 1;
    case U16:
        return 2;
    case U32:
        return 4;
    case Str:
        return heap_sizes_ & 1 ? 4 : 2;
    case Guid:
        return heap_sizes_ & 2 ? 4 : 2;
    case Blob:
        return heap_sizes_ & 4 ? 4 : 2;
    default:
        if (kind & Coded)
            return coded_width(kind & 0x7F);
        return rows_[kind & 0x3F] < 0x10000 ? 2 : 4;
    }
}

bool metadata_reader::layout(format::byte_span tables) {
    const auto sizes = tables.u8(6);
    const auto valid = tables.u64(8);
    if (!sizes || !valid)
        return false;
    heap_sizes_ = *sizes;
    if (*valid >> table_count) // a table this reader does not know: its size, and all after it, is unknown
        return false;
    std::uint64_t at = 24;
    for (std::uint32_t t = 0; t < table_count; ++t) {
        if (!(*valid >> t & 1))
            continue;
        const auto count = tables.u32(at);
        if (!count || *count >= (1u << 24)) // a token holds a row number in 24 bits
            return false;
        rows_[t] = *count;
        at += 4;
    }
    if (heap_sizes_ & 0x40) // extra data after the row counts
        at += 4;
    for (std::uint32_t t = 0; t < table_count; ++t) {
        std::uint32_t size = 0;
        for (std::uint8_t kind : schema[t]) {
            if (kind)
                size += column_width(kind);
        }
        row_size_[t] = size;
        table_offset_[t] = at;
        // Rows times size in 64 bits: 2^24 rows of at most 40 bytes cannot overflow it.
        const std::uint64_t bytes = static_cast<std::uint64_t>(rows_[t]) * size;
        if (!tables.fits(at, bytes))
            return false;
        at += bytes;
    }
    tables_ = tables;
    return true;
}

std::uint32_t metadata_reader::columns(table t) {
    std::uint32_t n = 0;
    if (idx(t) < table_count) {
        for (std::uint8_t kind : schema[idx(t)])
            n += kind != 0;
    }
    return n;
}

std::optional<std::uint32_t> metadata_reader::column(table t, std::uint32_t row, std::uint32_t column) const {
    if (idx(t) >= table_count || row == 0 || row > rows_[idx(t)] || column >= columns(t))
        return std::nullopt;
    std::uint64_t at = table_offset_[idx(t)] + static_cast<std::uint64_t>(row - 1) * row_size_[idx(t)];
    for (std::uint32_t c = 0; c < column; ++c)
        at += column_width(schema[idx(t)][c]);
    switch (column_width(schema[idx(t)][column])) {
    case 1:
        return tables_.u8(at);
    case 2:
        return tables_.u16(at);
    default:
        return tables_.u32(at);
    }
}

std::optional<std::string> metadata_reader::string(std::uint32_t offset) const {
    const auto text = strings_.c_string(offset, max_string);
    return text ? std::optional<std::string>(std::string(*text)) : std::nullopt;
}

std::optional<format::byte_span> metadata_reader::blob(std::uint32_t offset) const {
    const auto length = read_compressed(blobs_, offset);
    if (!length || !blobs_.readable(offset + length->length, length->value))
        return std::nullopt;
    return blobs_.sub(offset + length->length, length->value);
}

std::optional<std::array<std::uint8_t, 16>> metadata_reader::guid(std::uint32_t index) const {
    if (index == 0 || !guids_.readable(static_cast<std::uint64_t>(index - 1) * 16, 16))
        return std::nullopt;
    std::array<std::uint8_t, 16> g{};
    for (std::uint32_t i = 0; i < 16; ++i)
        g[i] = guids_.data()[static_cast<std::uint64_t>(index - 1) * 16 + i];
    return g;
}

std::optional<assembly_row> metadata_reader::assembly() const {
    constexpr table t = table::Assembly;
    const auto c = [&](std::uint32_t i) { return column(t, 1, i); };
    const auto hash = c(0), major = c(1), minor = c(2), build = c(3), revision = c(4), flags = c(5), key = c(6),
               name = c(7), culture = c(8);
    if (!culture)
        return std::nullopt;
    assembly_row a;
    a.hash_algorithm = *hash, a.flags = *flags;
    a.version = {static_cast<std::uint16_t>(*major), static_cast<std::uint16_t>(*minor),
                 static_cast<std::uint16_t>(*build), static_cast<std::uint16_t>(*revision)};
    const auto publicKey = blob(*key);
    auto text = string(*name), cultureText = string(*culture);
    if (!publicKey || !text || !cultureText)
        return std::nullopt;
    a.public_key = *publicKey, a.name = std::move(*text), a.culture = std::move(*cultureText);
    return a;
}

std::optional<assembly_ref_row> metadata_reader::assembly_ref(std::uint32_t row) const {
    constexpr table t = table::AssemblyRef;
    const auto c = [&](std::uint32_t i) { return column(t, row, i); };
    const auto major = c(0), minor = c(1), build = c(2), revision = c(3), flags = c(4), key = c(5), name = c(6),
               culture = c(7), hash = c(8);
    if (!hash)
        return std::nullopt;
    assembly_ref_row a;
    a.version = {static_cast<std::uint16_t>(*major), static_cast<std::uint16_t>(*minor),
                 static_cast<std::uint16_t>(*build), static_cast<std::uint16_t>(*revision)};
    a.flags = *flags;
    const auto keyBytes = blob(*key), hashBytes = blob(*hash);
    auto text = string(*name), cultureText = string(*culture);
    if (!keyBytes || !hashBytes || !text || !cultureText)
        return std::nullopt;
    a.public_key_or_token = *keyBytes, a.hash_value = *hashBytes;
    a.name = std::move(*text), a.culture = std::move(*cultureText);
    return a;
}

std::optional<std::string> metadata_reader::module_ref(std::uint32_t row) const {
    const auto name = column(table::ModuleRef, row, 0);
    return name ? string(*name) : std::nullopt;
}

std::optional<std::string> metadata_reader::module_name() const {
    const auto name = column(table::Module, 1, 1);
    return name ? string(*name) : std::nullopt;
}

std::optional<impl_map_row> metadata_reader::impl_map(std::uint32_t row) const {
    const auto flags = column(table::ImplMap, row, 0), member = column(table::ImplMap, row, 1),
               name = column(table::ImplMap, row, 2), scope = column(table::ImplMap, row, 3);
    auto text = name ? string(*name) : std::nullopt;
    if (!flags || !member || !text || !scope)
        return std::nullopt;
    return impl_map_row{static_cast<std::uint16_t>(*flags), *member, std::move(*text), *scope};
}

std::optional<file_row> metadata_reader::file(std::uint32_t row) const {
    const auto flags = column(table::File, row, 0), name = column(table::File, row, 1),
               hash = column(table::File, row, 2);
    auto text = name ? string(*name) : std::nullopt;
    const auto hashBytes = hash ? blob(*hash) : std::nullopt;
    if (!flags || !text || !hashBytes)
        return std::nullopt;
    return file_row{*flags, std::move(*text), *hashBytes};
}

std::optional<custom_attribute_row> metadata_reader::custom_attribute(std::uint32_t row) const {
    constexpr table t = table::CustomAttribute;
    const auto parent = column(t, row, 0), type = column(t, row, 1), value = column(t, row, 2);
    if (!value)
        return std::nullopt;
    const auto owner = decode(coded_index::HasCustomAttribute, *parent);
    const auto constructor = decode(coded_index::CustomAttributeType, *type);
    const auto bytes = blob(*value);
    if (!owner || !constructor || !bytes)
        return std::nullopt;
    return custom_attribute_row{*owner, *constructor, *bytes};
}

std::optional<member_ref_row> metadata_reader::member_ref(std::uint32_t row) const {
    constexpr table t = table::MemberRef;
    const auto parent = column(t, row, 0), name = column(t, row, 1), signature = column(t, row, 2);
    if (!signature)
        return std::nullopt;
    const auto owner = decode(coded_index::MemberRefParent, *parent);
    auto text = string(*name);
    const auto bytes = blob(*signature);
    if (!owner || !text || !bytes)
        return std::nullopt;
    return member_ref_row{*owner, std::move(*text), *bytes};
}

std::optional<type_ref_row> metadata_reader::type_ref(std::uint32_t row) const {
    constexpr table t = table::TypeRef;
    const auto scope = column(t, row, 0), name = column(t, row, 1), name_space = column(t, row, 2);
    if (!name_space)
        return std::nullopt;
    const auto owner = decode(coded_index::ResolutionScope, *scope);
    auto text = string(*name), space = string(*name_space);
    if (!owner || !text || !space)
        return std::nullopt;
    return type_ref_row{*owner, std::move(*text), std::move(*space)};
}

std::optional<std::string> metadata_reader::name_of(std::uint32_t token) const {
    const std::uint32_t row = token & 0xFFFFFF;
    std::optional<std::uint32_t> name;
    switch (static_cast<table>(token >> 24)) {
    case table::TypeRef:
    case table::TypeDef:
    case table::Field:
    case table::MemberRef:
        name = column(static_cast<table>(token >> 24), row, 1);
        break;
    case table::MethodDef:
        name = column(table::MethodDef, row, 3);
        break;
    case table::ModuleRef:
        name = column(table::ModuleRef, row, 0);
        break;
    default:
        return std::nullopt;
    }
    return name ? string(*name) : std::nullopt;
}

std::optional<std::uint32_t> metadata_reader::decode(coded_index kind, std::uint32_t value) const {
    const coded_kind& k = coded_kinds[static_cast<std::uint8_t>(kind)];
    const std::uint32_t tag = value & ((1u << k.tag_bits) - 1);
    if (tag >= k.count || k.tables[tag] == None)
        return std::nullopt;
    const std::uint32_t row = value >> k.tag_bits;
    return row == 0 ? 0 : token(static_cast<table>(k.tables[tag]), row);
}

std::optional<compressed> read_compressed(format::byte_span bytes, std::uint64_t offset) {
    const auto first = bytes.u8(offset);
    if (!first)
        return std::nullopt;
    if ((*first & 0x80) == 0)
        return compressed{*first, 1};
    if ((*first & 0xC0) == 0x80) {
        const auto second = bytes.u8(offset + 1);
        if (!second)
            return std::nullopt;
        return compressed{(static_cast<std::uint32_t>(*first & 0x3F) << 8) | *second, 2};
    }
    if ((*first & 0xE0) == 0xC0) {
        if (!bytes.readable(offset, 4))
            return std::nullopt;
        const std::uint8_t* p = bytes.data() + offset;
        return compressed{(static_cast<std::uint32_t>(p[0] & 0x1F) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
                              (static_cast<std::uint32_t>(p[2]) << 8) | p[3],
                          4};
    }
    return std::nullopt;
}

} // namespace qv::metadata
