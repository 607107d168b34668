// The function-level PE tables over a byte span. Every field goes through byte_span's checked loads, offsets
// are added in 64 bits, and each walk is bounded by the end of the file and by the caps of the header.
#include "format/pe/pe_tables.h"

#include "format/pe/pe_layout.h"

#include <algorithm>

namespace qv::pe {

namespace {

namespace L = layout;

// IMAGE_DELAYLOAD_DESCRIPTOR: eight 32-bit fields.
constexpr std::uint64_t delay_descriptor_size = 32;
constexpr std::uint64_t delay_attributes_offset = 0, delay_name_offset = 4, delay_name_table_offset = 16;
constexpr std::uint32_t delay_rva_based = 1;
// The export table's own caps: an ordinal is 16 bits.
constexpr std::uint32_t max_export_entries = 1u << 16;

bool is_pe64(const pe_image& image) { return image.kind() == image_kind::pe64; }

std::uint64_t image_base(const pe_image& image) {
    const std::uint64_t optional = std::uint64_t{image.nt_headers_offset()} + L::nt::optional_header_offset;
    if (is_pe64(image))
        return image.bytes().u64(optional + L::optional_header::image_base_offset_pe64).value_or(0);
    return image.bytes().u32(optional + L::optional_header::image_base_offset_pe32).value_or(0);
}

// Reads one name table (import lookup entries of 4 or 8 bytes) into module, spending from budget.
// `bias` is taken from every name address (the image base for the old delay-load form, else 0).
void read_name_table(const pe_image& image, std::uint32_t table_rva, std::uint64_t bias, std::size_t& budget,
                     imported_module& module) {
    const format::byte_span file = image.bytes();
    const auto table = image.rva_to_offset(table_rva);
    if (!table) {
        module.complete = false;
        return;
    }
    const std::uint64_t step = is_pe64(image) ? 8 : 4;
    const std::uint64_t ordinal_flag = is_pe64(image) ? (std::uint64_t{1} << 63) : 0x80000000u;
    for (std::uint64_t at = *table;; at += step) {
        std::optional<std::uint64_t> entry = file.u64(at);
        if (!is_pe64(image))
            entry = file.u32(at);
        if (!entry || budget == 0) {
            module.complete = false;
            return;
        }
        if (*entry == 0)
            return;
        --budget;
        if (*entry & ordinal_flag) {
            module.functions.push_back({{}, static_cast<std::uint16_t>(*entry & 0xFFFF), true});
            continue;
        }
        // The name's address: an RVA, or an address in the old form (as wide as the entry); either fits 32 bits
        // once unbiased.
        const std::uint64_t address = (*entry & ~ordinal_flag) - (is_pe64(image) ? bias : bias & 0xFFFFFFFFu);
        const auto at_name = address <= 0xFFFFFFFFu ? image.rva_to_offset(static_cast<std::uint32_t>(address))
                                                    : std::nullopt;
        const auto hint = at_name ? file.u16(*at_name) : std::nullopt;
        const auto name = hint ? file.c_string(*at_name + 2, max_function_name_length + 1) : std::nullopt;
        if (!name) {
            module.complete = false;
            return;
        }
        module.functions.push_back({*name, *hint, false});
    }
}

// Where a directory's table starts in the file: when it has a size and its address maps into a section.
std::optional<std::uint64_t> table_at(const pe_image& image, std::uint32_t index) {
    const directory_entry entry = image.directory(index).value_or(directory_entry{});
    return entry.size && entry.rva ? image.rva_to_offset(entry.rva) : std::nullopt;
}

} // namespace

std::vector<imported_module> read_imports(const pe_image& image) {
    std::vector<imported_module> modules;
    const format::byte_span file = image.bytes();
    const auto table = table_at(image, L::directory::imports);
    if (!table)
        return modules;
    std::size_t budget = max_imported_functions;
    // The same descriptor walk as import_names(): it ends at the end of the file.
    for (std::uint64_t at = *table; file.fits(at, L::import_descriptor::size); at += L::import_descriptor::size) {
        const std::uint32_t name_rva = *file.u32(at + L::import_descriptor::name_offset);
        const auto name_at = name_rva ? image.rva_to_offset(name_rva) : std::nullopt;
        const auto name = name_at ? file.c_string(*name_at, pe_image::max_name_length + 1) : std::nullopt;
        if (!name)
            break;
        imported_module module{*name, {}, true};
        const std::uint32_t lookup = *file.u32(at + L::import_descriptor::original_first_thunk_offset);
        read_name_table(image, lookup ? lookup : *file.u32(at + L::import_descriptor::first_thunk_offset), 0, budget,
                        module);
        modules.push_back(std::move(module));
    }
    return modules;
}

std::vector<imported_module> read_delay_imports(const pe_image& image, bool functions) {
    std::vector<imported_module> modules;
    const format::byte_span file = image.bytes();
    const auto table = table_at(image, L::directory::delay_imports);
    if (!table)
        return modules;
    const std::uint64_t base = image_base(image);
    std::size_t budget = max_imported_functions;
    // Each step moves 32 bytes further and the loop ends at the end of the file, whatever count the directory's
    // size suggests.
    for (std::uint64_t at = *table; file.fits(at, delay_descriptor_size) && modules.size() < max_import_descriptors;
         at += delay_descriptor_size) {
        const std::uint32_t attributes = *file.u32(at + delay_attributes_offset);
        const std::uint64_t bias = (attributes & delay_rva_based) ? 0 : base;
        const std::uint32_t name_field = *file.u32(at + delay_name_offset);
        if (name_field == 0)
            break;
        // The descriptor's fields are 32 bits: in the old form they hold the address's low half, so the RVA is the
        // difference modulo 2^32 (an address below the base gives an RVA no section maps).
        const auto name_at = image.rva_to_offset(name_field - static_cast<std::uint32_t>(bias));
        const auto name = name_at ? file.c_string(*name_at, pe_image::max_name_length + 1) : std::nullopt;
        if (!name)
            break;
        imported_module module{*name, {}, true};
        // A descriptor without a name table tells no functions.
        if (!functions)
            module.complete = false;
        else if (const std::uint32_t lookup = *file.u32(at + delay_name_table_offset))
            read_name_table(image, lookup - static_cast<std::uint32_t>(bias), bias, budget, module);
        else
            module.complete = false;
        modules.push_back(std::move(module));
    }
    return modules;
}

const exported_function* export_table::find(std::string_view name) const {
    const auto it = std::lower_bound(names.begin(), names.end(), name,
                                     [](const auto& entry, std::string_view key) { return entry.first < key; });
    if (it == names.end() || it->first != name || it->second >= functions.size())
        return nullptr;
    const exported_function& f = functions[it->second];
    return f.rva ? &f : nullptr;
}

const exported_function* export_table::find_ordinal(std::uint32_t ordinal) const {
    if (ordinal < ordinal_base || ordinal - ordinal_base >= functions.size())
        return nullptr;
    const exported_function& f = functions[ordinal - ordinal_base];
    return f.rva ? &f : nullptr;
}

std::optional<export_table> read_exports(const pe_image& image) {
    const format::byte_span file = image.bytes();
    const directory_entry exports = image.directory(L::directory::exports).value_or(directory_entry{});
    const auto at = exports.size && exports.rva ? image.rva_to_offset(exports.rva) : std::nullopt;
    if (!at || !file.fits(*at, L::export_directory::size))
        return std::nullopt;
    namespace E = L::export_directory;
    export_table table;
    const auto field = [&](std::uint64_t offset) { return *file.u32(*at + offset); };
    if (const auto name_at = image.rva_to_offset(field(E::name_offset)))
        table.dll_name = file.c_string(*name_at, pe_image::max_name_length + 1).value_or(std::string_view{});
    table.ordinal_base = field(E::ordinal_base_offset);
    std::uint32_t functions = field(E::number_of_functions_offset), names = field(E::number_of_names_offset);
    if (functions > max_export_entries || names > max_export_entries)
        table.complete = false;
    functions = std::min(functions, max_export_entries), names = std::min(names, max_export_entries);

    const auto addresses = image.rva_to_offset(field(E::address_of_functions_offset));
    for (std::uint32_t i = 0; addresses && i < functions; ++i) {
        const auto rva = file.u32(*addresses + std::uint64_t{i} * 4);
        if (!rva) {
            table.complete = false;
            break;
        }
        exported_function f{*rva, {}};
        // An address inside the export directory's own range is the text of a forwarder.
        if (*rva >= exports.rva && *rva - exports.rva < exports.size) {
            const auto text_at = image.rva_to_offset(*rva);
            f.forwarder = text_at ? file.c_string(*text_at, max_function_name_length + 1).value_or(std::string_view{})
                                  : std::string_view{};
        }
        table.functions.push_back(f);
    }
    const auto name_table = image.rva_to_offset(field(E::address_of_names_offset));
    const auto ordinal_table = image.rva_to_offset(field(E::address_of_name_ordinals_offset));
    for (std::uint32_t i = 0; name_table && ordinal_table && i < names; ++i) {
        const auto name_rva = file.u32(*name_table + std::uint64_t{i} * 4);
        const auto index = file.u16(*ordinal_table + std::uint64_t{i} * 2);
        const auto name_at = name_rva ? image.rva_to_offset(*name_rva) : std::nullopt;
        const auto name = name_at ? file.c_string(*name_at, max_function_name_length + 1) : std::nullopt;
        if (!index || !name) {
            table.complete = false;
            break;
        }
        table.names.emplace_back(*name, *index);
    }
    std::stable_sort(table.names.begin(), table.names.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    return table;
}

std::optional<forwarder_target> split_forwarder(std::string_view text) {
    const std::size_t dot = text.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == text.size())
        return std::nullopt;
    forwarder_target target{text.substr(0, dot), text.substr(dot + 1), 0};
    if (target.name[0] != '#')
        return target;
    const std::string_view digits = target.name.substr(1);
    if (digits.empty() || digits.size() > 5)
        return std::nullopt;
    std::uint32_t value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + static_cast<std::uint32_t>(c - '0');
    }
    if (value > 0xFFFF)
        return std::nullopt;
    target.name = {};
    target.ordinal = static_cast<std::uint16_t>(value);
    return target;
}

} // namespace qv::pe
