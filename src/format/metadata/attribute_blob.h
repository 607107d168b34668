// The first fixed argument of a custom attribute (ECMA-335 II.23.3) when the constructor takes a
// string first: enough to read the identifier of an interop assembly's type library and its like.
// Trusts neither the signature nor the blob: both are byte spans, every read is checked against them,
// and a string whose length runs past its blob is never copied. Platform-free.
#pragma once

#include "format/byte_span.h"

#include <optional>
#include <string>

namespace qv::metadata {

// The string the attribute blob holds as the constructor's first argument, as its UTF-8 bytes (turning
// them into wide text is the caller's business).
// nullopt when the signature, read in its first 255 bytes only, is not that of a method returning void
// whose first parameter is a string, or when the blob does not begin with the prolog 0x0001.
// Empty for a null string, for a packed length of no known form or cut short by the end of the blob,
// and for a length that runs past the end of the blob.
std::optional<std::string> decode_string_argument(format::byte_span signature, format::byte_span blob);

} // namespace qv::metadata
