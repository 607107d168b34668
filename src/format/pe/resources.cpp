#include "format/pe/resources.h"

#include <optional>

namespace qv::pe {

namespace {

// A resource directory table: 16 bytes of header (named-entry count at 12, id-entry count at 14),
// then 8-byte entries, named ones first: name or id, then the offset of the data or, with the high
// bit set, of a further table. Offsets count from the start of the resource section.
constexpr std::uint64_t table_header_size = 16;
constexpr std::uint64_t entry_size = 8;
constexpr std::uint32_t high_bit = 0x80000000u;

struct entry {
    std::uint32_t name;
    std::uint32_t target;
};

// The entry for a numbered name in the table at `table` (0 takes the first numbered entry).
std::optional<entry> find_id(format::byte_span section, std::uint64_t table, std::uint32_t id) {
    auto named = section.u16(table + 12);
    auto ids = section.u16(table + 14);
    if (!named || !ids)
        return std::nullopt;
    const std::uint64_t first = table + table_header_size + std::uint64_t{*named} * entry_size;
    for (std::uint32_t i = 0; i < *ids; ++i) {
        const std::uint64_t at = first + std::uint64_t{i} * entry_size;
        auto name = section.u32(at);
        auto target = section.u32(at + 4);
        if (!name || !target)
            return std::nullopt;
        if ((*name & high_bit) == 0 && (id == 0 || *name == id))
            return entry{*name, *target};
    }
    return std::nullopt;
}

} // namespace

bool has_resource(const pe_image& image, std::uint32_t type, std::uint32_t name) {
    auto dir = image.directory(2);
    if (!dir || dir->rva == 0 || dir->size == 0)
        return false;
    auto start = image.rva_to_file_offset(dir->rva);
    if (!start)
        return false;
    // The whole section as far as the file holds it: table offsets may point anywhere inside it.
    const format::byte_span section = image.bytes().from(*start);
    auto byType = find_id(section, 0, type);
    if (!byType || (byType->target & high_bit) == 0)
        return false;
    return find_id(section, byType->target & ~high_bit, name).has_value();
}

} // namespace qv::pe
