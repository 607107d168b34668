// A small writer of PE images for tests: valid PE32 or PE32+ bytes with chosen sections, import
// descriptors, an export table, machine word and optional-header magic, together with the file
// offsets of the fields that tests corrupt. The layout is the one linkers make: headers, then each
// section at the next 0x1000 in memory and the next 0x200 in the file; imports go in an ".idata"
// section and exports in an ".edata" section after the chosen ones. Header-only and platform-free,
// so that the Windows-side tests can write its output to files.
#pragma once

#include "format/byte_span.h"
#include "format/pe/pe_layout.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qv::test {

inline void put16(std::vector<std::uint8_t>& bytes, std::uint64_t offset, std::uint16_t value) {
    if (bytes.size() < offset + 2)
        bytes.resize(offset + 2);
    bytes[offset] = static_cast<std::uint8_t>(value);
    bytes[offset + 1] = static_cast<std::uint8_t>(value >> 8);
}

inline void put32(std::vector<std::uint8_t>& bytes, std::uint64_t offset, std::uint32_t value) {
    put16(bytes, offset, static_cast<std::uint16_t>(value));
    put16(bytes, offset + 2, static_cast<std::uint16_t>(value >> 16));
}

inline void put64(std::vector<std::uint8_t>& bytes, std::uint64_t offset, std::uint64_t value) {
    put32(bytes, offset, static_cast<std::uint32_t>(value));
    put32(bytes, offset + 4, static_cast<std::uint32_t>(value >> 32));
}

inline void put_bytes(std::vector<std::uint8_t>& bytes, std::uint64_t offset, std::string_view text) {
    if (bytes.size() < offset + text.size())
        bytes.resize(offset + text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
        bytes[offset + i] = static_cast<std::uint8_t>(text[i]);
}

// The bytes of an image and where its parts lie. All offsets are file offsets.
struct written_image {
    std::vector<std::uint8_t> bytes;

    std::uint32_t nt_offset = 0;
    std::uint64_t data_directory_offset = 0; // entry 0 of the data directory
    std::uint64_t section_table_offset = 0;
    std::uint32_t section_count = 0;

    struct section_place {
        std::string name;
        std::uint32_t virtual_address = 0;
        std::uint32_t virtual_size = 0;
        std::uint32_t raw_pointer = 0;
        std::uint32_t raw_size = 0;
    };
    std::vector<section_place> sections;

    std::uint32_t import_table_rva = 0;
    std::uint64_t import_table_offset = 0;          // the first descriptor; 0 without imports
    std::vector<std::uint64_t> import_name_offsets; // each DLL name string
    std::vector<std::uint32_t> import_name_rvas;    // the same, as RVAs
    std::uint32_t export_directory_rva = 0;
    std::uint64_t export_directory_offset = 0;   // 0 without exports
    std::uint64_t export_name_table_offset = 0;  // the name-pointer table
    std::vector<std::uint32_t> export_name_rvas; // each exported name string

    format::byte_span span() const { return format::byte_span(bytes.data(), bytes.size()); }
    std::string str() const { return std::string(bytes.begin(), bytes.end()); }

    std::uint64_t section_header_offset(std::uint32_t index) const {
        return section_table_offset + index * pe::layout::section::header_size;
    }
    std::uint64_t directory_entry_offset(std::uint32_t index) const {
        return data_directory_offset + index * pe::layout::directory::entry_size;
    }
    // The file offset of an RVA in one of the written sections (tests use it to place bytes).
    std::uint64_t offset_of_rva(std::uint32_t rva) const {
        for (const auto& s : sections) {
            if (rva >= s.virtual_address && rva - s.virtual_address < s.raw_size)
                return s.raw_pointer + (rva - s.virtual_address);
        }
        return 0;
    }
};

class image_writer {
public:
    static constexpr std::uint32_t section_alignment = 0x1000;
    static constexpr std::uint32_t file_alignment = 0x200;

    // By default: a 64-bit x64 DLL with one ".text" section and no imports or exports.
    image_writer() = default;

    image_writer& machine(std::uint16_t value) {
        machine_ = value;
        return *this;
    }
    // The optional-header layout, 32-bit (PE32) or 64-bit (PE32+); also sets the magic to match.
    image_writer& pe32plus(bool value) {
        pe32plus_ = value;
        magic_ = value ? pe::layout::optional_header::magic_pe32plus : pe::layout::optional_header::magic_pe32;
        return *this;
    }
    // The magic written, without changing the layout (for images whose magic and machine disagree).
    image_writer& magic(std::uint16_t value) {
        magic_ = value;
        return *this;
    }
    // The DOS header's new-header field; where the PE signature goes. At least 64.
    image_writer& header_offset(std::uint32_t value) {
        header_offset_ = value;
        return *this;
    }
    image_writer& dll(bool value) {
        dll_ = value;
        return *this;
    }
    // A section with these bytes; virtual_size 0 means the size of the bytes. Sections are laid out
    // in the order given, before the import and export sections.
    image_writer& section(std::string name, std::string_view data, std::uint32_t virtual_size = 0,
                          std::uint32_t characteristics = 0x60000020 /* code, execute, read */) {
        sections_.push_back({std::move(name), std::string(data), virtual_size, characteristics});
        return *this;
    }
    // An import descriptor for `dll_name`, importing the named functions. Descriptors keep this order.
    image_writer& import(std::string dll_name, std::vector<std::string> functions = {"function"}) {
        imports_.push_back({std::move(dll_name), std::move(functions)});
        return *this;
    }
    // An export table whose name-pointer table lists the names in this order (linkers sort them;
    // here the test chooses).
    image_writer& exports(std::vector<std::string> names, std::string dll_name = "written.dll") {
        exports_ = std::move(names);
        export_dll_name_ = std::move(dll_name);
        has_exports_ = true;
        return *this;
    }

    written_image build() const {
        namespace L = pe::layout;
        written_image image;
        auto& b = image.bytes;

        std::vector<pending_section> all = sections_;
        if (all.empty())
            all.push_back({".text", std::string("\xC3", 1), 0, 0x60000020});
        const std::size_t edata_index = all.size();
        if (has_exports_)
            all.push_back({".edata", {}, 0, 0x40000040});
        const std::size_t idata_index = all.size();
        if (!imports_.empty())
            all.push_back({".idata", {}, 0, 0xC0000040});

        const std::uint64_t optional_size = pe32plus_ ? L::optional_header::size_pe64 : L::optional_header::size_pe32;
        image.nt_offset = header_offset_;
        image.section_table_offset = header_offset_ + L::nt::optional_header_offset + optional_size;
        image.section_count = static_cast<std::uint32_t>(all.size());
        const std::uint32_t headers_size =
            align(static_cast<std::uint32_t>(image.section_table_offset + all.size() * L::section::header_size),
                  file_alignment);

        // Places: virtual addresses and raw pointers, in order. The export and import sections are
        // filled once their own address is known.
        std::uint32_t next_va = section_alignment;
        std::uint32_t next_raw = headers_size;
        for (std::size_t i = 0; i < all.size(); ++i) {
            auto& s = all[i];
            if (i == edata_index && has_exports_)
                s.data = export_bytes(next_va, image);
            if (i == idata_index && !imports_.empty())
                s.data = import_bytes(next_va, image);
            written_image::section_place place;
            place.name = s.name;
            place.virtual_address = next_va;
            place.virtual_size = s.virtual_size ? s.virtual_size : static_cast<std::uint32_t>(s.data.size());
            place.raw_size = align(static_cast<std::uint32_t>(s.data.size()), file_alignment);
            place.raw_pointer = place.raw_size ? next_raw : 0;
            image.sections.push_back(place);
            next_va = align(next_va + std::max(place.virtual_size, place.raw_size), section_alignment);
            next_raw += place.raw_size;
        }
        const std::uint32_t image_size = next_va;
        b.assign(next_raw, 0);

        // DOS header.
        put16(b, L::dos::magic_offset, L::dos::magic);
        put16(b, 2, 0x90); // bytes on the last page
        put16(b, 4, 3);    // pages
        put16(b, 8, 4);    // header paragraphs
        put16(b, L::dos::relocation_table_offset, 0x40);
        put32(b, L::dos::new_header_offset, header_offset_);

        // File header.
        const std::uint64_t nt = header_offset_;
        put32(b, nt, L::signature::pe);
        put16(b, nt + L::nt::machine_offset, machine_);
        put16(b, nt + L::nt::number_of_sections_offset, static_cast<std::uint16_t>(all.size()));
        put16(b, nt + L::nt::size_of_optional_header_offset, static_cast<std::uint16_t>(optional_size));
        std::uint16_t characteristics = 0x0002 | 0x0020; // executable, large-address aware
        if (!pe32plus_)
            characteristics = 0x0002 | 0x0100; // executable, 32-bit machine
        if (dll_)
            characteristics |= 0x2000;
        put16(b, nt + L::nt::characteristics_offset, characteristics);

        // Optional header.
        const std::uint64_t opt = nt + L::nt::optional_header_offset;
        put16(b, opt, magic_);
        b[opt + 2] = 2; // linker version
        put32(b, opt + L::optional_header::address_of_entry_point_offset, 0);
        put32(b, opt + 20, image.sections.front().virtual_address); // base of code
        if (pe32plus_) {
            put64(b, opt + L::optional_header::image_base_offset_pe64, 0x180000000ull);
        } else {
            put32(b, opt + 24, image.sections.back().virtual_address); // base of data
            put32(b, opt + L::optional_header::image_base_offset_pe32, 0x10000000u);
        }
        put32(b, opt + L::optional_header::section_alignment_offset, section_alignment);
        put32(b, opt + L::optional_header::file_alignment_offset, file_alignment);
        put16(b, opt + 40, 6); // operating-system version
        put16(b, opt + L::optional_header::major_subsystem_version_offset, 6);
        put32(b, opt + L::optional_header::size_of_image_offset, image_size);
        put32(b, opt + L::optional_header::size_of_headers_offset, headers_size);
        put16(b, opt + L::optional_header::subsystem_offset, 2); // GUI
        put16(b, opt + 70, 0x0140);                              // dynamic base, NX compatible
        if (pe32plus_) {
            put64(b, opt + 72, 0x200000); // stack reserve, commit, heap reserve, commit
            put64(b, opt + 80, 0x1000);
            put64(b, opt + 88, 0x100000);
            put64(b, opt + 96, 0x1000);
            put32(b, opt + L::optional_header::number_of_rva_and_sizes_offset_pe64, L::directory::count);
            image.data_directory_offset = opt + L::optional_header::fixed_size_pe64;
        } else {
            put32(b, opt + 72, 0x200000);
            put32(b, opt + 76, 0x1000);
            put32(b, opt + 80, 0x100000);
            put32(b, opt + 84, 0x1000);
            put32(b, opt + L::optional_header::number_of_rva_and_sizes_offset_pe32, L::directory::count);
            image.data_directory_offset = opt + L::optional_header::fixed_size_pe32;
        }

        // Section table and section bytes.
        for (std::size_t i = 0; i < all.size(); ++i) {
            const auto& place = image.sections[i];
            const std::uint64_t h = image.section_header_offset(static_cast<std::uint32_t>(i));
            put_bytes(b, h, all[i].name.substr(0, L::section::name_size));
            put32(b, h + L::section::virtual_size_offset, place.virtual_size);
            put32(b, h + L::section::virtual_address_offset, place.virtual_address);
            put32(b, h + L::section::size_of_raw_data_offset, place.raw_size);
            put32(b, h + L::section::pointer_to_raw_data_offset, place.raw_pointer);
            put32(b, h + L::section::characteristics_offset, all[i].characteristics);
            put_bytes(b, place.raw_pointer, all[i].data);
        }

        if (has_exports_) {
            const auto& place = image.sections[edata_index];
            put32(b, image.directory_entry_offset(L::directory::exports), place.virtual_address);
            put32(b, image.directory_entry_offset(L::directory::exports) + 4, place.virtual_size);
            image.export_directory_rva = place.virtual_address;
            image.export_directory_offset = place.raw_pointer;
            image.export_name_table_offset = place.raw_pointer + export_name_table_delta();
        }
        if (!imports_.empty()) {
            const auto& place = image.sections[idata_index];
            const auto descriptors_size =
                static_cast<std::uint32_t>((imports_.size() + 1) * L::import_descriptor::size);
            put32(b, image.directory_entry_offset(L::directory::imports), place.virtual_address);
            put32(b, image.directory_entry_offset(L::directory::imports) + 4, descriptors_size);
            image.import_table_rva = place.virtual_address;
            image.import_table_offset = place.raw_pointer;
            for (std::uint32_t rva : image.import_name_rvas)
                image.import_name_offsets.push_back(place.raw_pointer + (rva - place.virtual_address));
        }
        return image;
    }

private:
    struct pending_section {
        std::string name;
        std::string data;
        std::uint32_t virtual_size = 0;
        std::uint32_t characteristics = 0;
    };
    struct pending_import {
        std::string dll_name;
        std::vector<std::string> functions;
    };

    static std::uint32_t align(std::uint32_t value, std::uint32_t alignment) {
        return (value + alignment - 1) / alignment * alignment;
    }

    // Directory, address table, then the name-pointer table.
    std::uint32_t export_name_table_delta() const {
        return static_cast<std::uint32_t>(pe::layout::export_directory::size + 4 * exports_.size());
    }

    // The ".edata" section at `va`: directory, address table, name-pointer table, ordinal table,
    // DLL name, names. Every export points at the start of the first section.
    std::string export_bytes(std::uint32_t va, written_image& image) const {
        namespace E = pe::layout::export_directory;
        std::vector<std::uint8_t> s;
        const auto n = static_cast<std::uint32_t>(exports_.size());
        const std::uint32_t functions = static_cast<std::uint32_t>(E::size);
        const std::uint32_t names = functions + 4 * n;
        const std::uint32_t ordinals = names + 4 * n;
        std::uint32_t strings = ordinals + 2 * n;
        s.assign(strings, 0);
        put32(s, E::name_offset, va + strings);
        put_bytes(s, strings, export_dll_name_);
        s.push_back(0);
        put32(s, E::ordinal_base_offset, 1);
        put32(s, E::number_of_functions_offset, n);
        put32(s, E::number_of_names_offset, n);
        put32(s, E::address_of_functions_offset, va + functions);
        put32(s, E::address_of_names_offset, va + names);
        put32(s, E::address_of_name_ordinals_offset, va + ordinals);
        for (std::uint32_t i = 0; i < n; ++i) {
            put32(s, functions + 4 * i, section_alignment);
            put16(s, ordinals + 2 * i, static_cast<std::uint16_t>(i));
            const auto at = static_cast<std::uint32_t>(s.size());
            put32(s, names + 4 * i, va + at);
            image.export_name_rvas.push_back(va + at);
            put_bytes(s, at, exports_[i]);
            s.push_back(0);
        }
        return std::string(s.begin(), s.end());
    }

    // The ".idata" section at `va`: descriptors with a zero one at the end, then per DLL its lookup
    // table, address table, hint/name entries and name.
    std::string import_bytes(std::uint32_t va, written_image& image) const {
        namespace D = pe::layout::import_descriptor;
        const std::uint32_t thunk = pe32plus_ ? 8 : 4;
        std::vector<std::uint8_t> s((imports_.size() + 1) * D::size, 0);
        for (std::size_t d = 0; d < imports_.size(); ++d) {
            const auto& imp = imports_[d];
            const std::size_t count = imp.functions.size() + 1;
            const auto lookup = static_cast<std::uint32_t>(s.size());
            const auto address = static_cast<std::uint32_t>(lookup + count * thunk);
            s.resize(address + count * thunk, 0);
            for (std::size_t f = 0; f < imp.functions.size(); ++f) {
                const auto hint_name = static_cast<std::uint32_t>(s.size());
                put16(s, hint_name, static_cast<std::uint16_t>(f));
                put_bytes(s, hint_name + 2, imp.functions[f]);
                s.push_back(0);
                if (s.size() % 2)
                    s.push_back(0);
                if (pe32plus_) {
                    put64(s, lookup + f * thunk, va + hint_name);
                    put64(s, address + f * thunk, va + hint_name);
                } else {
                    put32(s, lookup + f * thunk, va + hint_name);
                    put32(s, address + f * thunk, va + hint_name);
                }
            }
            const auto name = static_cast<std::uint32_t>(s.size());
            put_bytes(s, name, imp.dll_name);
            s.push_back(0);
            image.import_name_rvas.push_back(va + name);
            put32(s, d * D::size + D::original_first_thunk_offset, va + lookup);
            put32(s, d * D::size + D::name_offset, va + name);
            put32(s, d * D::size + D::first_thunk_offset, va + address);
        }
        return std::string(s.begin(), s.end());
    }

    std::uint16_t machine_ = pe::layout::machine::amd64;
    bool pe32plus_ = true;
    std::uint16_t magic_ = pe::layout::optional_header::magic_pe32plus;
    std::uint32_t header_offset_ = 0x80;
    bool dll_ = true;
    std::vector<pending_section> sections_;
    std::vector<pending_import> imports_;
    std::vector<std::string> exports_;
    std::string export_dll_name_;
    bool has_exports_ = false;
};

} // namespace qv::test
