#include "json_writer.h"

#include "text_output.h"

#include <algorithm>

namespace qvscan {

namespace {

std::string scalar(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string member_path(const std::string& path, std::string_view name) {
    return path.empty() ? std::string(name) : path + "/" + std::string(name);
}

// indent: the indent of the line the value starts on.
void write(std::string& text, const json& value, const json_layout& layout, const std::string& path, size_t indent) {
    if (!value.is_structured()) {
        text += scalar(value);
        return;
    }
    const bool object = value.is_object();
    const bool broken = std::find(layout.broken.begin(), layout.broken.end(), path) != layout.broken.end();
    const size_t inner = broken ? indent + 2 : indent;
    text += object ? '{' : '[';
    bool first = true;
    for (auto member = value.begin(); member != value.end(); ++member) {
        text += first ? "" : ",";
        text += broken ? "\n" + std::string(inner, ' ') : first ? "" : " ";
        first = false;
        if (object)
            text += scalar(json(member.key())) + ": ";
        write(text, *member, layout, member_path(path, object ? member.key() : "*"), inner);
    }
    if (broken && !value.empty())
        text += "\n" + std::string(indent, ' ');
    text += object ? '}' : ']';
}

} // namespace

std::string json_text(const json& document, const json_layout& layout) {
    std::string text;
    write(text, document, layout, "", 0);
    return text;
}

void print_json(const json& document, const json_layout& layout) {
    out(json_text(document, layout) + "\n");
}

} // namespace qvscan
