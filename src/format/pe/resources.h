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

} // namespace qv::pe
