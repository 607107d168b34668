// The one writer of the tool's JSON documents. Documents are built as nlohmann::ordered_json (the order of
// the keys is part of what a pipeline reads); the library writes every scalar and escapes every string (UTF-8
// passes through, invalid UTF-8 becomes U+FFFD); this writer lays the containers out: those the layout names
// put each member on a line of its own, two spaces deeper than the line they start on; every other
// container is written on one line, with ", " and ": " between its parts.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace qvscan {

using json = nlohmann::ordered_json;

// The containers written a member per line, by path: "" is the document, "files" its member named files,
// "files/*" every element of that array, "files/*/dependencies" the member dependencies of each.
struct json_layout {
    std::vector<std::string_view> broken;
};

// The document as text, without a line end after it.
std::string json_text(const json& document, const json_layout& layout);
// The document on standard output, with a line end.
void print_json(const json& document, const json_layout& layout);

} // namespace qvscan
