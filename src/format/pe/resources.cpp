#include "format/pe/resources.h"

#include <optional>
#include <string_view>

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

struct table_counts {
    std::uint32_t named = 0, ids = 0;
};

std::optional<table_counts> counts_of(format::byte_span section, std::uint64_t table) {
    auto named = section.u16(table + 12);
    auto ids = section.u16(table + 14);
    if (!named || !ids)
        return std::nullopt;
    return table_counts{*named, *ids};
}

// Whether a named entry of the table at `table` is called text (ASCII, compared without regard to case); nullopt
// when a name cannot be read.
std::optional<bool> has_named(format::byte_span section, std::uint64_t table, std::string_view text) {
    auto counts = counts_of(section, table);
    if (!counts)
        return std::nullopt;
    for (std::uint32_t i = 0; i < counts->named; ++i) {
        auto name = section.u32(table + table_header_size + std::uint64_t{i} * entry_size);
        if (!name || (*name & high_bit) == 0)
            return std::nullopt;
        const std::uint64_t at = *name & ~high_bit; // a length, then that many UTF-16 units
        auto length = section.u16(at);
        if (!length)
            return std::nullopt;
        if (*length != text.size())
            continue;
        bool same = true;
        for (std::uint64_t c = 0; c < text.size() && same; ++c) {
            auto unit = section.u16(at + 2 + 2 * c);
            if (!unit)
                return std::nullopt;
            const auto lower = [](std::uint32_t u) { return u >= 'A' && u <= 'Z' ? u + ('a' - 'A') : u; };
            same = lower(*unit) == lower(static_cast<unsigned char>(text[c]));
        }
        if (same)
            return true;
    }
    return false;
}

} // namespace

version_resource find_version_resource(const pe_image& image) {
    using kind = version_resource::kind;
    auto dir = image.directory(2);
    if (!dir || dir->rva == 0 || dir->size == 0)
        return {kind::none, {}};
    auto start = image.rva_to_file_offset(dir->rva);
    if (!start)
        return {};
    const format::byte_span section = image.bytes().from(*start);
    const auto mui = has_named(section, 0, "MUI");
    if (!mui || *mui)
        return {};
    if (!counts_of(section, 0))
        return {};
    auto byType = find_id(section, 0, resource_type_version);
    if (!byType)
        return {kind::none, {}};
    if ((byType->target & high_bit) == 0)
        return {};
    auto byName = find_id(section, byType->target & ~high_bit, version_resource_name);
    if (!byName) // a table that cannot be read is no answer; one without the name is no version
        return counts_of(section, byType->target & ~high_bit) ? version_resource{kind::none, {}} : version_resource{};
    if ((byName->target & high_bit) == 0)
        return {};
    const std::uint64_t languages = byName->target & ~high_bit;
    auto counts = counts_of(section, languages);
    if (!counts || counts->named + counts->ids != 1)
        return {};
    auto target = section.u32(languages + table_header_size + 4);
    if (!target || (*target & high_bit) != 0)
        return {};
    // The data entry: the resource's RVA and size, then its code page.
    auto rva = section.u32(*target);
    auto size = section.u32(*target + 4);
    if (!rva || !size || *size == 0)
        return {};
    auto offset = image.rva_to_file_offset(*rva);
    if (!offset)
        return {};
    const format::byte_span data = image.bytes().sub(*offset, *size);
    if (data.size() != *size || !data.readable(0, data.size()))
        return {};
    return {kind::one, data};
}

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
