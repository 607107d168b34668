// Platform-free reader of Windows executable headers over a byte span (a mapped file).
// Trusts nothing in the bytes: every field is read through byte_span, so a corrupt or truncated
// file yields a clean outcome (kind 0, no directory, no name) and never a read outside the span.
// For well-formed files the answers are those the scanners expect of the image layers.
#pragma once

#include "format/byte_span.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace qv::pe {

// Image kinds, in the numbering clients see.
enum class image_kind : std::uint32_t {
    invalid = 0,
    dos = 1,
    ne = 2,
    vxd = 3,
    lx = 4,
    pe = 5,
    pe64 = 6,
    peia64 = 7,
    pearm = 8,
};

// "Invalid", "DOS", "NE", "VXD", "LX", "PE", "PE64", "PEIA64", "PEARM"; "Invalid" for an unknown value.
const char* kind_name(image_kind kind);

// Status of a classified file: 0 usable, 1 could not be mapped, 2 no such kind of file.
enum class image_status : std::uint32_t {
    usable = 0,
    not_mapped = 1,
    unknown_kind = 2,
};

// The outcome of classifying a mapped file by its headers.
struct classification {
    image_status status = image_status::not_mapped;
    std::int32_t header_offset = -1; // the DOS header's new-header field, -1 until known
    image_kind kind = image_kind::invalid;
};

// Classifies the bytes of a file that was mapped. An empty span is a file of size 0.
classification classify(format::byte_span file);

struct directory_entry {
    std::uint32_t rva = 0;
    std::uint32_t size = 0;
};

// A usable PE image (kind pe or pe64): the data directories, the section table and the two tables
// the scan reads, exports and imports.
class pe_image {
public:
    // nullopt unless classify() says usable and the kind is pe or pe64.
    static std::optional<pe_image> open(format::byte_span file);

    format::byte_span bytes() const { return file_; }
    image_kind kind() const { return kind_; }
    // Offset of the PE signature in the file.
    std::uint32_t nt_headers_offset() const { return nt_; }
    // The file header's machine word; 0 when it cannot be read.
    std::uint16_t machine() const;

    // Entry `index` of the data directory (120 bytes after the signature for kind pe, 136 for pe64).
    // nullopt for an index of 16 or over; an entry that lies outside the file reads as zeros.
    std::optional<directory_entry> directory(std::uint32_t index) const;

    // File offset of an RVA through the section table: the first section whose virtual range,
    // cut to the smaller of virtual and raw size, holds the RVA. nullopt when none does.
    // The offset is not checked against the file size: readers of what lies there check it.
    std::optional<std::uint64_t> rva_to_offset(std::uint32_t rva) const;

    // The RVA as an offset that lies inside the file, or nullopt.
    std::optional<std::uint64_t> rva_to_file_offset(std::uint32_t rva) const;

    // The names of the import descriptors (directory 1), in table order. The walk ends at the
    // descriptor with a zero name RVA, at a descriptor or name that lies outside the file, or at a
    // name RVA that no section maps: names before that point stand.
    std::vector<std::string_view> import_names() const;

    // Whether "DllRegisterServer" is found by the self-registration test: the export name-pointer
    // table is read with a stride of 8 bytes (every other entry), up to the name count taken as
    // signed. Reads past the file end the test with false.
    bool exports_dll_register_server() const;

private:
    pe_image(format::byte_span file, std::uint32_t nt, image_kind kind) : file_(file), nt_(nt), kind_(kind) {}

    format::byte_span file_;
    std::uint32_t nt_ = 0;
    image_kind kind_ = image_kind::pe;
};

} // namespace qv::pe
