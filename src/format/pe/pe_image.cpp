// The PE reader over a byte span. Trusts nothing in the file: every field goes through byte_span's
// checked loads, offsets are added in 64 bits, and every walk is bounded by the end of the file.
#include "format/pe/pe_image.h"

#include "format/pe/pe_layout.h"

#include <cstring>
#include <string_view>

namespace qv::pe {

namespace {

// The kind of the header at `offset`, by the rows of the kind table, in order.
image_kind kind_at(format::byte_span file, std::uint64_t offset) {
    // All 8 bytes count, not just the two signature bytes: a real NE or LE header, whose other
    // fields follow the signature at once, is kind 0.
    if (auto eight = file.u64(offset)) {
        if (*eight == layout::signature::ne)
            return image_kind::ne;
        if (*eight == layout::signature::vxd)
            return image_kind::vxd;
        if (*eight == layout::signature::lx)
            return image_kind::lx;
    }
    if (file.u32(offset) != layout::signature::pe)
        return image_kind::invalid;
    const auto machine = file.u16(offset + layout::nt::machine_offset);
    const auto magic = file.u16(offset + layout::nt::magic_offset);
    if (machine == layout::machine::amd64 && magic == layout::optional_header::magic_pe32plus)
        return image_kind::pe64;
    if (machine == layout::machine::ia64 && magic == layout::optional_header::magic_pe32plus)
        return image_kind::peia64;
    if (machine == layout::machine::armnt)
        return image_kind::pearm;
    return image_kind::pe;
}

constexpr std::string_view register_server_name{"DllRegisterServer"};

} // namespace

const char* kind_name(image_kind kind) {
    switch (kind) {
    case image_kind::dos:
        return "DOS";
    case image_kind::ne:
        return "NE";
    case image_kind::vxd:
        return "VXD";
    case image_kind::lx:
        return "LX";
    case image_kind::pe:
        return "PE";
    case image_kind::pe64:
        return "PE64";
    case image_kind::peia64:
        return "PEIA64";
    case image_kind::pearm:
        return "PEARM";
    case image_kind::invalid:
        break;
    }
    return "Invalid";
}

classification classify(format::byte_span file) {
    classification result;
    result.status = image_status::unknown_kind;
    if (file.size() < layout::dos::header_size || file.u16(layout::dos::magic_offset) != layout::dos::magic)
        return result;

    result.status = image_status::usable;
    // The DOS header is whole from here on: both loads below lie inside its 64 bytes.
    if (*file.u16(layout::dos::relocation_table_offset) < layout::dos::min_new_header_relocation_offset) {
        result.kind = image_kind::dos;
        return result;
    }
    const std::int32_t header = *file.i32(layout::dos::new_header_offset);
    // An offset equal to the size passes this test; no row of the kind table then finds its bytes.
    if (header < 0 || static_cast<std::uint64_t>(header) > file.size())
        return result;
    result.header_offset = header;
    result.kind = kind_at(file, static_cast<std::uint64_t>(header));
    return result;
}

std::optional<pe_image> pe_image::open(format::byte_span file) {
    const classification c = classify(file);
    if (c.status != image_status::usable || (c.kind != image_kind::pe && c.kind != image_kind::pe64))
        return std::nullopt;

    pe_image image(file, static_cast<std::uint32_t>(c.header_offset), c.kind);
    const std::uint64_t nt = image.nt_;
    const std::uint16_t count = file.u16(nt + layout::nt::number_of_sections_offset).value_or(0);
    const auto optional_size = file.u16(nt + layout::nt::size_of_optional_header_offset);
    section_map::builder sections;
    if (optional_size) {
        const std::uint64_t table = nt + layout::nt::optional_header_offset + *optional_size;
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t at = table + i * layout::section::header_size;
            if (!file.fits(at, layout::section::header_size))
                break;
            const std::uint32_t virtual_size = *file.u32(at + layout::section::virtual_size_offset);
            const std::uint32_t raw_size = *file.u32(at + layout::section::size_of_raw_data_offset);
            // The smaller size: a section's uninitialised tail has no bytes in the file.
            sections.add(*file.u32(at + layout::section::virtual_address_offset),
                         virtual_size < raw_size ? virtual_size : raw_size,
                         *file.u32(at + layout::section::pointer_to_raw_data_offset));
        }
    }
    image.sections_ = std::move(sections).finish();
    return image;
}

std::uint16_t pe_image::machine() const {
    return file_.u16(std::uint64_t{nt_} + layout::nt::machine_offset).value_or(0);
}

std::uint64_t pe_image::directory_offset() const {
    return kind_ == image_kind::pe64 ? layout::nt::data_directory_offset_pe64 : layout::nt::data_directory_offset_pe32;
}

std::optional<directory_entry> pe_image::directory(std::uint32_t index) const {
    if (index >= layout::directory::count)
        return std::nullopt;
    const std::uint64_t at = std::uint64_t{nt_} + directory_offset() + index * layout::directory::entry_size;
    if (!file_.fits(at, layout::directory::entry_size))
        return directory_entry{};
    return directory_entry{*file_.u32(at + layout::directory::rva_offset),
                           *file_.u32(at + layout::directory::size_offset)};
}

std::optional<std::uint64_t> pe_image::rva_to_offset(std::uint32_t rva) const {
    return sections_.offset_of(rva);
}

std::optional<std::uint64_t> pe_image::rva_to_file_offset(std::uint32_t rva) const {
    auto offset = rva_to_offset(rva);
    if (!offset || *offset >= file_.size())
        return std::nullopt;
    return offset;
}

std::vector<std::string_view> pe_image::import_names() const {
    std::vector<std::string_view> names;
    const directory_entry imports = directory(layout::directory::imports).value_or(directory_entry{});
    if (imports.size == 0 || imports.rva == 0)
        return names;
    const auto table = rva_to_offset(imports.rva);
    if (!table)
        return names;
    // Each step moves 20 bytes further and the loop ends at the end of the file.
    for (std::uint64_t at = *table; file_.fits(at, layout::import_descriptor::size);
         at += layout::import_descriptor::size) {
        const std::uint32_t name_rva = *file_.u32(at + layout::import_descriptor::name_offset);
        if (name_rva == 0)
            break;
        const auto name_offset = rva_to_offset(name_rva);
        if (!name_offset)
            break;
        const auto name = file_.c_string(*name_offset, max_name_length + 1);
        if (!name)
            break;
        names.push_back(*name);
    }
    return names;
}

bool pe_image::exports_dll_register_server() const {
    const directory_entry exports = directory(layout::directory::exports).value_or(directory_entry{});
    if (exports.size == 0 || exports.rva == 0)
        return false;
    const auto directory_at = rva_to_offset(exports.rva);
    if (!directory_at)
        return false;
    const auto names_rva = file_.u32(*directory_at + layout::export_directory::address_of_names_offset);
    const auto count = file_.i32(*directory_at + layout::export_directory::number_of_names_offset);
    if (!names_rva || !count)
        return false;
    const auto table = rva_to_offset(*names_rva);
    if (!table)
        return false;

    // The stride of 8 is deliberate and stays: the table holds 4-byte RVAs, and the test looks at
    // every other one, past the table's end in the upper half of the count. Which DLLs the walk marks
    // as self-registering depends on exactly this. A negative count reads nothing; a huge one ends at
    // the end of the file, so the loop runs at most size / 8 + 1 times.
    constexpr std::uint64_t stride = 2 * layout::export_directory::name_pointer_size;
    for (std::int64_t i = 0; i < *count; ++i) {
        const auto name_rva = file_.u32(*table + static_cast<std::uint64_t>(i) * stride);
        if (!name_rva)
            return false;
        const auto name_offset = rva_to_offset(*name_rva);
        if (!name_offset)
            continue; // an empty name: no match
        // The name and its terminator; bytes past the end of the file match nothing.
        if (!file_.readable(*name_offset, register_server_name.size() + 1))
            continue;
        const auto* name = file_.data() + *name_offset;
        if (std::memcmp(name, register_server_name.data(), register_server_name.size()) == 0 &&
            name[register_server_name.size()] == 0)
            return true;
    }
    return false;
}

} // namespace qv::pe
