// The function-level tables of a PE image: what each import descriptor and each delay-load descriptor asks
// for, and what the export table offers, forwarders included. Platform-free, over a pe_image's bytes.
//
// Trusts nothing: every read goes through the image's byte_span; descriptor walks end at the end of the file,
// string scans are bounded, and the counts an image states are capped (an ordinal is 16 bits, so no table holds
// more than 65536 useful entries), so a corrupt table costs at most time linear in the file's size and never a
// read outside it. A walk that meets a fault keeps what it read before it and says it stopped.
#pragma once

#include "format/pe/pe_image.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace qv::pe {

// One entry of an import name table: by name (with the loader's hint) or by ordinal.
struct imported_function {
    std::string_view name;     // empty for an import by ordinal
    std::uint16_t ordinal = 0; // the ordinal when by_ordinal, else the hint
    bool by_ordinal = false;
};

// One descriptor of the import table or of the delay-import table.
struct imported_module {
    std::string_view name;
    std::vector<imported_function> functions;
    bool complete = true; // false when the name table's walk stopped at a fault or at the cap
};

// The most entries read for one image's name tables together: far above any real image (a few thousand),
// and what bounds the work of descriptors that all point at one long table.
inline constexpr std::size_t max_imported_functions = 1u << 18;
// The most descriptors read of one table.
inline constexpr std::size_t max_import_descriptors = 1u << 16;
// Longest function or forwarder name read.
inline constexpr std::uint64_t max_function_name_length = 4096;

// The import descriptors (directory 1) with their functions, in table order. The descriptors are those
// pe_image::import_names() lists (the walk ends where that one ends). A descriptor's name table is its
// original first thunk, or its first thunk when that is 0.
std::vector<imported_module> read_imports(const pe_image& image);

// The delay-import descriptors (directory 13), in table order, up to the first with no name. The current
// form holds RVAs (attribute bit 0); the old form holds addresses, from which the image base is taken. The
// walk ends at a descriptor that does not lie in the file or whose name cannot be read, or after
// max_import_descriptors. Without functions only the names are read (each module then is not complete).
std::vector<imported_module> read_delay_imports(const pe_image& image, bool functions = true);

// One function of the export address table.
struct exported_function {
    std::uint32_t rva = 0;      // 0: no function at this ordinal
    std::string_view forwarder; // "OTHER.Name" or "OTHER.#12" when the entry forwards, else empty
};

// The export table (directory 0).
struct export_table {
    std::string_view dll_name;
    std::uint32_t ordinal_base = 0;
    std::vector<exported_function> functions; // by ordinal - ordinal_base
    bool complete = true;                     // false when a table was cut by the end of the file or the cap

    // The function a name or an ordinal reaches; null when the table has none (an empty slot counts as none).
    const exported_function* find(std::string_view name) const;
    const exported_function* find_ordinal(std::uint32_t ordinal) const;

    // Names with the index of their function, sorted by name (for find).
    std::vector<std::pair<std::string_view, std::uint32_t>> names;
};

// nullopt when the image has no export directory or it does not lie in the file.
std::optional<export_table> read_exports(const pe_image& image);

// A forwarder string split at its last dot: the module ("OTHER", to which ".dll" is added by the loader when it
// has no extension) and the function ("Name"), or the ordinal for "#12". nullopt when the text has no dot, an
// empty side, or a "#" followed by anything but a decimal number up to 65535.
struct forwarder_target {
    std::string_view module;
    std::string_view name;     // empty when by ordinal
    std::uint16_t ordinal = 0; // when name is empty
};
std::optional<forwarder_target> split_forwarder(std::string_view text);

} // namespace qv::pe
