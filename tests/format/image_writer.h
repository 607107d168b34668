// Test support of the PE reader, platform-free: a writer of PE32 and PE32+ images laid out as linkers
// do (a section at every next 0x1000 in memory and 0x200 in the file, exports in ".edata" and imports in
// ".idata" after the chosen sections) that tells where their parts lie; and the reader's walks written
// the plain way, one loop each over raw field offsets, as oracles for cut, corrupted and fuzzed files.
#pragma once

#include "format/byte_span.h"
#include "format/pe/pe_layout.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace qv::test {

inline void put_bytes(std::vector<std::uint8_t>& bytes, std::uint64_t offset, std::string_view text) {
    bytes.resize(std::max<std::uint64_t>(bytes.size(), offset + text.size()));
    std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}
inline void put16(std::vector<std::uint8_t>& bytes, std::uint64_t offset, std::uint16_t value) {
    put_bytes(bytes, offset, std::string{char(value & 0xFF), char(value >> 8)});
}
inline void put32(std::vector<std::uint8_t>& bytes, std::uint64_t offset, std::uint32_t value) {
    put16(bytes, offset, std::uint16_t(value & 0xFFFF)), put16(bytes, offset + 2, std::uint16_t(value >> 16));
}
inline std::vector<std::uint8_t> read_bytes(const std::string& path) { // empty when it cannot be read
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The bytes of an image and where its parts lie, as file offsets (0 for a table it does not have).
struct written_image {
    struct section_place { std::string name; std::uint32_t virtual_address, virtual_size, raw_pointer, raw_size; };
    std::vector<std::uint8_t> bytes;
    std::uint32_t nt_offset = 0;
    std::uint64_t data_directory_offset = 0, section_table_offset = 0;
    std::vector<section_place> sections;
    std::uint64_t import_table_offset = 0, export_directory_offset = 0, export_name_table_offset = 0;
    std::uint64_t delay_table_offset = 0;
    std::vector<std::uint64_t> import_name_offsets, export_name_offsets;

    format::byte_span span() const { return format::byte_span(bytes.data(), bytes.size()); }
    std::string str() const { return std::string(bytes.begin(), bytes.end()); }
    std::uint64_t section_header_offset(std::uint32_t index) const { return section_table_offset + 40ull * index; }
    std::uint64_t directory_entry_offset(std::uint32_t index) const { return data_directory_offset + 8ull * index; }
};

// By default: an x64 PE32+ DLL with one ".text" section, headers at 0x80, no imports or exports.
class image_writer {
public:
    image_writer& machine(std::uint16_t value) { return set(machine_, value); }
    image_writer& pe32plus(bool value) { return set(pe32plus_, value); }                    // layout and magic
    image_writer& header_offset(std::uint32_t value) { return set(header_offset_, value); } // 64 or more
    image_writer& dll(bool value) { return set(dll_, value); }
    // A section with these bytes, in the order given; virtual_size 0 means the size of the bytes.
    image_writer& section(std::string name, std::string data, std::uint32_t virtual_size = 0) {
        return sections_.push_back({std::move(name), std::move(data), virtual_size}), *this;
    }
    // An import descriptor naming the DLL, after those before; the export name-pointer table, in order.
    // Functions are "Name" or "#12" (by ordinal); a descriptor with none has no name table.
    image_writer& import(std::string dll_name, std::vector<std::string> functions = {}) {
        return imports_.push_back({std::move(dll_name), std::move(functions)}), *this;
    }
    // A delay-load descriptor in ".didat" (directory 13): of the current form holding RVAs, or of the old
    // form holding addresses (image base + RVA).
    image_writer& delay_import(std::string dll_name, std::vector<std::string> functions, bool rva_based = true) {
        delay_rva_based_ = rva_based;
        return delay_imports_.push_back({std::move(dll_name), std::move(functions)}), *this;
    }
    // An export "Name" points at the first section; "Name=OTHER.Func" forwards.
    image_writer& exports(std::vector<std::string> names) { return exports_ = names, set(has_exports_, true); }
    image_writer& image_base(std::uint64_t value) { return set(image_base_, value); }

    written_image build() const {
        written_image image;
        auto& b = image.bytes;
        auto all = sections_.empty() ? std::vector<pending>{{".text", "\xC3", 0}} : sections_;
        for (const char* table : {has_exports_ ? ".edata" : "", imports_.empty() ? "" : ".idata",
                                  delay_imports_.empty() ? "" : ".didat"})
            if (*table)
                all.push_back({table, {}, 0});
        const std::uint32_t nt = image.nt_offset = header_offset_, optional_size = pe32plus_ ? 240 : 224;
        const std::uint32_t headers = align(nt + 24 + optional_size + 40 * all.size());
        image.data_directory_offset = nt + optional_size - 104, image.section_table_offset = nt + 24 + optional_size;
        std::uint32_t va = 0x1000, raw = headers;
        for (std::uint32_t i = 0; i < all.size(); ++i) {
            const auto& [name, data, virtual_size] = all[i];
            const std::uint32_t size = name == ".edata"   ? put_exports(image, va, raw)
                                       : name == ".idata" ? put_imports(image, va, raw)
                                       : name == ".didat" ? put_delay_imports(image, va, raw)
                                                          : (put_bytes(b, raw, data), std::uint32_t(data.size()));
            const written_image::section_place s{name, va, virtual_size ? virtual_size : size, size ? raw : 0,
                                                 align(size)};
            const std::uint32_t fields[] = {s.virtual_size, va, s.raw_size, s.raw_pointer, 0, 0, 0, 0x60000020};
            put_bytes(b, image.section_header_offset(i), name.substr(0, 8));
            for (std::uint32_t f = 0; f < 8; ++f) // sizes and places, then code, execute, read
                put32(b, image.section_header_offset(i) + 8 + 4 * f, fields[f]);
            if (name == ".edata" || name == ".idata" || name == ".didat") { // directory entry 0, 1 or 13
                const std::uint32_t entry = name == ".edata" ? 0 : name == ".idata" ? 1 : 13;
                put32(b, image.directory_entry_offset(entry), va), put32(b, image.directory_entry_offset(entry) + 4, size);
            }
            image.sections.push_back(s);
            va += (std::max(s.virtual_size, s.raw_size) + 0xFFF) / 0x1000 * 0x1000;
            raw += s.raw_size;
        }
        b.resize(raw, 0);
        put16(b, 0, pe::layout::dos::magic), put16(b, 24, 0x40), put32(b, 60, nt); // MZ, a new-header program
        put32(b, nt, pe::layout::signature::pe);
        put16(b, nt + 4, machine_), put16(b, nt + 6, std::uint16_t(all.size()));
        put16(b, nt + 20, std::uint16_t(optional_size)), put16(b, nt + 24, pe32plus_ ? 0x20B : 0x10B); // magic
        put16(b, nt + 22, std::uint16_t((pe32plus_ ? 0x22 : 0x102) | (dll_ ? 0x2000 : 0))); // executable, ...
        put32(b, nt + 24 + 56, va), put32(b, nt + 24 + 60, headers); // sizes of the image and the headers
        put32(b, image.data_directory_offset - 4, 16);                // directory entries
        if (image_base_)
            pe32plus_ ? (put32(b, nt + 48, std::uint32_t(image_base_)), put32(b, nt + 52, std::uint32_t(image_base_ >> 32)))
                      : put32(b, nt + 52, std::uint32_t(image_base_));
        return image;
    }

private:
    struct pending { std::string name, data; std::uint32_t virtual_size; };
    struct module { std::string name; std::vector<std::string> functions; };
    template <typename T> image_writer& set(T& field, T value) { return field = value, *this; }
    static std::uint32_t align(std::uint64_t size) { return std::uint32_t((size + 0x1FF) / 0x200 * 0x200); }
    static std::uint32_t put_string(std::vector<std::uint8_t>& bytes, std::uint64_t offset, const std::string& text) {
        return put_bytes(bytes, offset, {text.c_str(), text.size() + 1}), std::uint32_t(text.size() + 1); // and NUL
    }
    // ".edata": directory, address, name-pointer and ordinal tables, DLL name, names; its size. Every
    // export points at the first section.
    std::uint32_t put_exports(written_image& image, std::uint32_t va, std::uint32_t at) const {
        const auto n = std::uint32_t(exports_.size());
        const std::uint32_t names = 40 + 4 * n, ordinals = names + 4 * n;
        std::uint32_t end = ordinals + 2 * n;
        const std::uint32_t fields[] = {va + end, 1, n, n, va + 40, va + names, va + ordinals};
        for (std::uint32_t i = 0; i < 7; ++i)
            put32(image.bytes, at + 12 + 4 * i, fields[i]); // DLL name, ordinal base, counts, tables
        end += put_string(image.bytes, at + end, "written.dll");
        image.export_directory_offset = at, image.export_name_table_offset = at + names;
        for (std::uint32_t i = 0; i < n; ++i) {
            const std::string& entry = exports_[i];
            const std::size_t eq = entry.find('=');
            put32(image.bytes, at + 40 + 4 * i, 0x1000), put16(image.bytes, at + ordinals + 2 * i, std::uint16_t(i));
            put32(image.bytes, at + names + 4 * i, va + end);
            image.export_name_offsets.push_back(at + end), end += put_string(image.bytes, at + end, entry.substr(0, eq));
            if (eq != std::string::npos) // the function's address is its forwarder text, inside the table
                put32(image.bytes, at + 40 + 4 * i, va + end), end += put_string(image.bytes, at + end, entry.substr(eq + 1));
        }
        return end;
    }
    // ".idata": the descriptors and a zero one, then each name, name table and hint/name entries; its size.
    std::uint32_t put_imports(written_image& image, std::uint32_t va, std::uint32_t at) const {
        std::uint32_t end = std::uint32_t(20 * (imports_.size() + 1));
        image.import_table_offset = at;
        for (std::uint32_t d = 0; d < imports_.size(); ++d) {
            put32(image.bytes, at + 20 * d + 12, va + end);
            image.import_name_offsets.push_back(at + end), end += put_string(image.bytes, at + end, imports_[d].name);
            if (!imports_[d].functions.empty())
                put32(image.bytes, at + 20 * d, va + end), end = put_name_table(image, imports_[d], va, at, end, 0);
        }
        return end;
    }
    // ".didat": 32-byte descriptors and a zero one (attributes, name, module handle, address table, name
    // table, ...), then each name and name table; its size.
    std::uint32_t put_delay_imports(written_image& image, std::uint32_t va, std::uint32_t at) const {
        std::uint32_t end = std::uint32_t(32 * (delay_imports_.size() + 1));
        const std::uint64_t bias = delay_rva_based_ ? 0 : image_base_;
        image.delay_table_offset = at;
        for (std::uint32_t d = 0; d < delay_imports_.size(); ++d) {
            put32(image.bytes, at + 32 * d, delay_rva_based_ ? 1 : 0);
            put32(image.bytes, at + 32 * d + 4, std::uint32_t(bias + va + end));
            end += put_string(image.bytes, at + end, delay_imports_[d].name);
            put32(image.bytes, at + 32 * d + 16, std::uint32_t(bias + va + end));
            end = put_name_table(image, delay_imports_[d], va, at, end, bias);
        }
        return end;
    }
    // A name table at `end` (entries of 4 or 8 bytes and a zero one) and its hint/name entries; the new end.
    std::uint32_t put_name_table(written_image& image, const module& m, std::uint32_t va, std::uint32_t at,
                                 std::uint32_t end, std::uint64_t bias) const {
        const std::uint32_t step = pe32plus_ ? 8 : 4, table = end;
        end += step * std::uint32_t(m.functions.size() + 1);
        for (std::uint32_t i = 0; i < m.functions.size(); ++i) {
            const std::string& f = m.functions[i];
            const std::uint64_t flag = pe32plus_ ? (std::uint64_t{1} << 63) : 0x80000000u;
            const std::uint64_t entry = f[0] == '#' ? flag | std::stoul(f.substr(1)) : bias + va + end;
            if (f[0] != '#')
                put16(image.bytes, at + end, std::uint16_t(i)), end += 2 + put_string(image.bytes, at + end + 2, f);
            put32(image.bytes, at + table + step * i, std::uint32_t(entry));
            if (pe32plus_)
                put32(image.bytes, at + table + step * i + 4, std::uint32_t(entry >> 32));
        }
        return end;
    }

    std::uint16_t machine_ = pe::layout::machine::amd64;
    bool pe32plus_ = true, dll_ = true, has_exports_ = false, delay_rva_based_ = true;
    std::uint32_t header_offset_ = 0x80;
    std::uint64_t image_base_ = 0;
    std::vector<pending> sections_;
    std::vector<module> imports_, delay_imports_;
    std::vector<std::string> exports_;
};

// The plain walks. `nt`: the signature's offset; `directory_at`: the data directory's from it (120, 136).
// The first section header, in table order and inside the file, whose range (up to the smaller of
// virtual and raw size) holds the RVA.
inline std::optional<std::uint64_t> reference_rva_to_offset(format::byte_span f, std::uint32_t nt,
                                                            std::uint32_t rva) {
    for (std::uint64_t h = nt + 24ull + f.u16(nt + 20ull).value_or(0), i = 0; i < f.u16(nt + 6ull); ++i, h += 40)
        if (!f.fits(h, 40) || (*f.u32(h + 12) <= rva && rva - *f.u32(h + 12) < std::min(*f.u32(h + 8), *f.u32(h + 16))))
            return f.fits(h, 40) ? std::optional(*f.u32(h + 20) + std::uint64_t{rva - *f.u32(h + 12)}) : std::nullopt;
    return std::nullopt;
}

// The table a directory entry points at, when the entry is whole and neither of its fields is 0.
inline std::optional<std::uint64_t> reference_table(format::byte_span f, std::uint32_t nt, std::uint64_t entry) {
    const bool used = f.fits(nt + entry, 8) && *f.u32(nt + entry) && *f.u32(nt + entry + 4);
    return used ? reference_rva_to_offset(f, nt, *f.u32(nt + entry)) : std::nullopt;
}

inline std::vector<std::string> reference_import_names(format::byte_span f, std::uint32_t nt,
                                                       std::uint64_t directory_at, std::uint64_t max_name) {
    std::vector<std::string> names;
    const auto table = reference_table(f, nt, directory_at + 8);
    for (std::uint64_t d = table.value_or(f.size()); f.fits(d, 20) && *f.u32(d + 12); d += 20) {
        const auto at = reference_rva_to_offset(f, nt, *f.u32(d + 12)).value_or(f.size());
        const std::string text(f.data() + std::min(at, f.size()), f.data() + std::min(f.size(), at + max_name + 1));
        if (text.find('\0') == std::string::npos)
            break;
        names.push_back(text.substr(0, text.find('\0')));
    }
    return names;
}

// Every other entry of the export name-pointer table, up to the signed name count.
inline bool reference_self_registration(format::byte_span f, std::uint32_t nt, std::uint64_t directory_at) {
    const auto dir = reference_table(f, nt, directory_at).value_or(f.size());
    const auto table = f.fits(dir + 32, 4) ? reference_rva_to_offset(f, nt, *f.u32(dir + 32)) : std::nullopt;
    for (std::int32_t i = 0; table && i < std::int32_t(*f.u32(dir + 24)); ++i) {
        if (!f.fits(*table + 8ull * i, 4))
            return false;
        const auto name = reference_rva_to_offset(f, nt, *f.u32(*table + 8ull * i));
        if (name && f.fits(*name, 18) && std::equal(f.data() + *name, f.data() + *name + 18, "DllRegisterServer"))
            return true;
    }
    return false;
}

} // namespace qv::test
