// Helpers of the PE reader tests: files as bytes, and the reader's walks written the plain way, one
// loop each with no index: the oracles against which the reader is checked on corrupted and fuzzed
// images. Platform-free.
#pragma once

#include "format/byte_span.h"
#include "format/pe/pe_layout.h"

#include <cstdint>
#include <fstream>
#include <cctype>
#include <optional>
#include <string>
#include <vector>

namespace qv::test {

// A whole file; empty when it cannot be read.
inline std::vector<std::uint8_t> read_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in)
        return {};
    const std::streamoff size = in.tellg();
    if (size <= 0)
        return {};
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    in.seekg(0);
    if (!in.read(reinterpret_cast<char*>(bytes.data()), size))
        return {};
    return bytes;
}

// A test-case name for GoogleTest from a description: letters and digits, the rest as '_'.
inline std::string case_name(const char* what) {
    std::string name;
    for (const char* p = what; *p; ++p)
        name += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
    return name;
}

inline format::byte_span span_of(const std::vector<std::uint8_t>& bytes) {
    return format::byte_span(bytes.data(), bytes.size());
}

// The first section, in table order, whose range cut to the smaller of virtual and raw size holds
// the RVA; the walk ends at a section header that does not lie wholly inside the file.
inline std::optional<std::uint64_t> reference_rva_to_offset(format::byte_span file, std::uint32_t nt,
                                                            std::uint32_t rva) {
    namespace L = pe::layout;
    const auto count = file.u16(std::uint64_t{nt} + L::nt::number_of_sections_offset);
    const auto optional_size = file.u16(std::uint64_t{nt} + L::nt::size_of_optional_header_offset);
    if (!count || !optional_size)
        return std::nullopt;
    const std::uint64_t table = std::uint64_t{nt} + L::nt::optional_header_offset + *optional_size;
    for (std::uint32_t i = 0; i < *count; ++i) {
        const std::uint64_t h = table + std::uint64_t{i} * L::section::header_size;
        if (!file.fits(h, L::section::header_size))
            return std::nullopt;
        const std::uint32_t va = *file.u32(h + L::section::virtual_address_offset);
        const std::uint32_t vsize = *file.u32(h + L::section::virtual_size_offset);
        const std::uint32_t raw = *file.u32(h + L::section::size_of_raw_data_offset);
        const std::uint64_t end = std::uint64_t{va} + (vsize < raw ? vsize : raw);
        if (va <= rva && rva < end)
            return *file.u32(h + L::section::pointer_to_raw_data_offset) + std::uint64_t{rva - va};
    }
    return std::nullopt;
}

// The import walk written the plain way over the reference section walk. `directory_at` is the
// offset of the data directory from the signature (120 or 136).
inline std::vector<std::string> reference_import_names(format::byte_span file, std::uint32_t nt,
                                                       std::uint64_t directory_at, std::uint64_t max_name) {
    std::vector<std::string> names;
    const std::uint64_t entry = std::uint64_t{nt} + directory_at + 8;
    if (!file.fits(entry, 8) || *file.u32(entry) == 0 || *file.u32(entry + 4) == 0)
        return names;
    auto at = reference_rva_to_offset(file, nt, *file.u32(entry));
    if (!at)
        return names;
    for (std::uint64_t d = *at; file.fits(d, 20); d += 20) {
        const std::uint32_t name_rva = *file.u32(d + 12);
        if (name_rva == 0)
            break;
        const auto name_at = reference_rva_to_offset(file, nt, name_rva);
        if (!name_at || *name_at >= file.size())
            break;
        std::string name;
        std::uint64_t i = *name_at;
        while (i < file.size() && file.data()[i] != 0 && name.size() <= max_name)
            name += static_cast<char>(file.data()[i++]);
        if (i >= file.size() || name.size() > max_name)
            break;
        names.push_back(name);
    }
    return names;
}

// The self-registration test written the plain way over the reference section walk.
inline bool reference_self_registration(format::byte_span file, std::uint32_t nt, std::uint64_t directory_at) {
    const std::uint64_t entry = std::uint64_t{nt} + directory_at;
    if (!file.fits(entry, 8) || *file.u32(entry) == 0 || *file.u32(entry + 4) == 0)
        return false;
    const auto dir = reference_rva_to_offset(file, nt, *file.u32(entry));
    if (!dir || !file.fits(*dir + 24, 4) || !file.fits(*dir + 32, 4))
        return false;
    const auto count = static_cast<std::int32_t>(*file.u32(*dir + 24));
    const auto table = reference_rva_to_offset(file, nt, *file.u32(*dir + 32));
    if (!table)
        return false;
    const std::string wanted("DllRegisterServer", 18); // with its terminator
    for (std::int32_t i = 0; i < count; ++i) {
        const std::uint64_t slot = *table + 8 * static_cast<std::uint64_t>(i);
        if (!file.fits(slot, 4))
            return false;
        const auto name = reference_rva_to_offset(file, nt, *file.u32(slot));
        if (name && file.fits(*name, wanted.size()) &&
            std::string(reinterpret_cast<const char*>(file.data() + *name), wanted.size()) == wanted)
            return true;
    }
    return false;
}

} // namespace qv::test
