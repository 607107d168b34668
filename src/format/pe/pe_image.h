// Platform-free reader of Windows executable headers over a byte span (a mapped file).
// Trusts nothing in the bytes: every field is read through byte_span, so a corrupt or truncated
// file yields a clean outcome (kind 0, no directory, no name) and never a read outside the span.
// For well-formed files the answers are those the scanners expect of the image layers.
#pragma once

#include "format/byte_span.h"
#include "format/pe/section_map.h"

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

// Classifies the bytes of a file that was mapped. Never answers not_mapped: whether a file could be
// mapped is the caller's to say. An empty span (a file of size 0, which Windows cannot map) is
// shorter than a DOS header and so answers unknown_kind.
// Each test of the kind table reads only bytes inside the span; a test whose bytes are not there
// does not match. A header offset near the end of the file thus gives kind 0 (or kind pe when only
// the machine word or the optional-header magic is cut off), never a read past the end.
classification classify(format::byte_span file);

struct directory_entry {
    std::uint32_t rva = 0;
    std::uint32_t size = 0;
};

// A usable PE image (kind pe or pe64): the data directories, the section table and the two tables
// the scan reads, exports and imports.
class pe_image {
public:
    // Longest name, without its terminator, that the import walk reads. Import names are file
    // names, far shorter than this; a name with no terminator within the bound ends the walk.
    static constexpr std::uint64_t max_name_length = 32 * 1024;

    // nullopt unless classify() says usable and the kind is pe or pe64. An image whose headers the
    // end of the file cuts short opens all the same: what lies past the end reads as zero (machine
    // 0, empty directory entries, no sections), so it has no tables.
    static std::optional<pe_image> open(format::byte_span file);

    format::byte_span bytes() const { return file_; }
    image_kind kind() const { return kind_; }
    // Offset of the PE signature in the file.
    std::uint32_t nt_headers_offset() const { return nt_; }
    // The file header's machine word; 0 when it cannot be read.
    std::uint16_t machine() const;

    // Entry `index` of the data directory (120 bytes after the signature for kind pe, 136 for pe64).
    // nullopt for an index of 16 or over; an entry that does not lie wholly inside the file reads
    // as zeros. The count of entries in the optional header is not consulted.
    std::optional<directory_entry> directory(std::uint32_t index) const;

    // File offset of an RVA through the section table: the first section whose virtual range,
    // cut to the smaller of virtual and raw size, holds the RVA. nullopt when none does.
    // The offset is not checked against the file size: readers of what lies there check it.
    // The table is read once, when the image is opened; its walk ends at the first section header
    // that does not lie wholly inside the file.
    std::optional<std::uint64_t> rva_to_offset(std::uint32_t rva) const;

    // The RVA as an offset that lies inside the file, or nullopt.
    std::optional<std::uint64_t> rva_to_file_offset(std::uint32_t rva) const;

    // The names of the import descriptors (directory 1), in table order, viewing the file's bytes.
    // Empty when the directory's size or RVA is 0 or no section maps the RVA. The walk ends at the
    // descriptor with a zero name RVA, at a descriptor that does not lie wholly inside the file, at
    // a name RVA that no section maps, or at a name that does not end with a NUL inside the file
    // and within max_name_length bytes: names before that point stand. An empty name is a name.
    std::vector<std::string_view> import_names() const;

    // Whether "DllRegisterServer" is found by the self-registration test: the export name-pointer
    // table is read with a stride of 8 bytes (every other entry), up to the name count taken as
    // signed. Reads past the file end the test with false. A name RVA that no section maps, or a
    // name that does not lie inside the file, matches nothing and the test goes on. The match is
    // exact and case-sensitive.
    bool exports_dll_register_server() const;

private:
    pe_image(format::byte_span file, std::uint32_t nt, image_kind kind) : file_(file), nt_(nt), kind_(kind) {}

    // Byte offset of the data directory from the signature, by kind.
    std::uint64_t directory_offset() const;

    format::byte_span file_;
    std::uint32_t nt_ = 0;
    image_kind kind_ = image_kind::pe;
    section_map sections_;
};

} // namespace qv::pe
