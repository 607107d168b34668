// On-disk layout of the Windows executable headers that the PE reader looks at: offsets, sizes and
// magic numbers only, no logic. Offsets are relative to the start of the structure they belong to.
// Platform-free.
#pragma once

#include <cstdint>

namespace qv::pe::layout {

// DOS header ("MZ" header) at offset 0 of the file.
namespace dos {
inline constexpr std::uint64_t header_size = 64;
inline constexpr std::uint16_t magic = 0x5A4D; // "MZ"
inline constexpr std::uint64_t magic_offset = 0;
// Offset of the relocation table; below 64 marks a plain DOS program.
inline constexpr std::uint64_t relocation_table_offset = 24;
inline constexpr std::uint16_t min_new_header_relocation_offset = 64;
// Signed 32-bit offset of the new (NE, LE/LX, PE) header.
inline constexpr std::uint64_t new_header_offset = 60;
} // namespace dos

// Signatures of the new header. The NE, LE and LX tests compare 8 bytes, so these are the 64-bit
// little-endian numbers whose first two bytes are the signature and whose other six are zero.
namespace signature {
inline constexpr std::uint64_t ne = 0x454E;  // "NE"
inline constexpr std::uint64_t vxd = 0x454C; // "LE"
// The bytes "XE", not "LX": the value the LX row tests, kept as it is. A real "LX" header does not
// match it and is kind 0; nothing depends on these three kinds except their name text.
inline constexpr std::uint64_t lx = 0x4558;
inline constexpr std::uint32_t pe = 0x00004550; // "PE\0\0"
inline constexpr std::uint64_t pe_size = 4;
} // namespace signature

// Machine words of the file header.
namespace machine {
inline constexpr std::uint16_t unknown = 0;
inline constexpr std::uint16_t i386 = 332;
inline constexpr std::uint16_t ia64 = 512;
inline constexpr std::uint16_t armnt = 452;
inline constexpr std::uint16_t amd64 = 34404;
inline constexpr std::uint16_t arm64 = 43620;
// The machine as people write it ("x86", "x64", "ia64", "arm", "arm64"); empty for an unknown word.
constexpr const char* name(std::uint16_t word) {
    switch (word) {
    case i386:
        return "x86";
    case amd64:
        return "x64";
    case ia64:
        return "ia64";
    case armnt:
        return "arm";
    case arm64:
        return "arm64";
    default:
        return "";
    }
}
} // namespace machine

// The NT headers: the signature, the 20-byte file header, then the optional header.
namespace nt {
inline constexpr std::uint64_t machine_offset = 4;
inline constexpr std::uint64_t number_of_sections_offset = 6;
inline constexpr std::uint64_t size_of_optional_header_offset = 20;
inline constexpr std::uint64_t characteristics_offset = 22;
inline constexpr std::uint64_t optional_header_offset = 24;
// The optional header's magic, read at the start of the optional header.
inline constexpr std::uint64_t magic_offset = optional_header_offset;
// Data directory, counted from the signature: after the 32-bit and the 64-bit optional-header fields.
inline constexpr std::uint64_t data_directory_offset_pe32 = 120;
inline constexpr std::uint64_t data_directory_offset_pe64 = 136;
} // namespace nt

namespace optional_header {
inline constexpr std::uint16_t magic_pe32 = 0x10B;     // 267
inline constexpr std::uint16_t magic_pe32plus = 0x20B; // 523
inline constexpr std::uint16_t magic_rom = 0x107;
// Field offsets within the optional header, for writers of images; the reader uses none of them.
inline constexpr std::uint64_t address_of_entry_point_offset = 16;
inline constexpr std::uint64_t image_base_offset_pe32 = 28;
inline constexpr std::uint64_t image_base_offset_pe64 = 24;
inline constexpr std::uint64_t section_alignment_offset = 32;
inline constexpr std::uint64_t file_alignment_offset = 36;
inline constexpr std::uint64_t major_subsystem_version_offset = 48;
inline constexpr std::uint64_t size_of_image_offset = 56;
inline constexpr std::uint64_t size_of_headers_offset = 60;
inline constexpr std::uint64_t subsystem_offset = 68;
inline constexpr std::uint64_t number_of_rva_and_sizes_offset_pe32 = 92;
inline constexpr std::uint64_t number_of_rva_and_sizes_offset_pe64 = 108;
// Size of the fixed part (before the data directory) and of the whole header with 16 entries.
inline constexpr std::uint64_t fixed_size_pe32 = 96;
inline constexpr std::uint64_t fixed_size_pe64 = 112;
inline constexpr std::uint64_t size_pe32 = 224;
inline constexpr std::uint64_t size_pe64 = 240;
} // namespace optional_header

namespace directory {
inline constexpr std::uint32_t count = 16;
inline constexpr std::uint64_t entry_size = 8;
inline constexpr std::uint64_t rva_offset = 0;
inline constexpr std::uint64_t size_offset = 4;
// Indexes of the entries the scanners use.
inline constexpr std::uint32_t exports = 0;
inline constexpr std::uint32_t imports = 1;
inline constexpr std::uint32_t delay_imports = 13;
inline constexpr std::uint32_t clr_header = 14;
} // namespace directory

namespace section {
inline constexpr std::uint64_t header_size = 40;
inline constexpr std::uint64_t name_size = 8;
inline constexpr std::uint64_t virtual_size_offset = 8;
inline constexpr std::uint64_t virtual_address_offset = 12;
inline constexpr std::uint64_t size_of_raw_data_offset = 16;
inline constexpr std::uint64_t pointer_to_raw_data_offset = 20;
inline constexpr std::uint64_t characteristics_offset = 36;
} // namespace section

// IMAGE_IMPORT_DESCRIPTOR: five 32-bit fields.
namespace import_descriptor {
inline constexpr std::uint64_t size = 20;
inline constexpr std::uint64_t original_first_thunk_offset = 0;
inline constexpr std::uint64_t name_offset = 12;
inline constexpr std::uint64_t first_thunk_offset = 16;
} // namespace import_descriptor

// IMAGE_EXPORT_DIRECTORY.
namespace export_directory {
inline constexpr std::uint64_t size = 40;
inline constexpr std::uint64_t name_offset = 12;
inline constexpr std::uint64_t ordinal_base_offset = 16;
inline constexpr std::uint64_t number_of_functions_offset = 20;
inline constexpr std::uint64_t number_of_names_offset = 24;
inline constexpr std::uint64_t address_of_functions_offset = 28;
inline constexpr std::uint64_t address_of_names_offset = 32;
inline constexpr std::uint64_t address_of_name_ordinals_offset = 36;
// Entries of the name-pointer table are 4-byte RVAs.
inline constexpr std::uint64_t name_pointer_size = 4;
} // namespace export_directory

} // namespace qv::pe::layout
