// Lookups in the resource directory of a PE image (data directory 2). Bounded like every read of
// the reader: an entry or table that lies outside the file, or an offset that leaves the resource
// section, is simply not found. Platform-free.
#pragma once

#include "format/pe/pe_image.h"

#include <cstdint>

namespace qv::pe {

// The resource type of application manifests.
inline constexpr std::uint32_t resource_type_manifest = 24;

// Whether the image holds a resource of the numbered type with the numbered name (any language).
// A name of 0 matches any name of that type.
bool has_resource(const pe_image& image, std::uint32_t type, std::uint32_t name);

// The resource type of version resources, and the name the system reads them by.
inline constexpr std::uint32_t resource_type_version = 16;
inline constexpr std::uint32_t version_resource_name = 1;

// Where an image's version resource is, as far as its resource directory alone can tell which one the system
// would read: `none` when the image has no resource of type 16 named 1 (the system reads no version from it),
// `one` when it has exactly one such resource in one language (the system reads that one), and `ask` when the
// directory leaves the choice to the system: several languages of it, a "MUI" resource type (which sends the
// system to a language file), or a table or data entry that cannot be read.
struct version_resource {
    enum class kind { none, one, ask } is = kind::ask;
    format::byte_span data; // the resource's bytes, for `one`
};
version_resource find_version_resource(const pe_image& image);

} // namespace qv::pe
