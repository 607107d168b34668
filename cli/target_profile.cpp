#include "target_profile.h"

#include "inc/unique_handles.h"
#include "server_dll.h"
#include "text_output.h"
#include "toolkit/environment.h"
#include "toolkit/path_helpers.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <stdexcept>

namespace qvscan {

namespace {

std::wstring lower(std::wstring text) {
    return qv::LowerCase(std::move(text));
}

bool ends_with_no_case(const std::wstring& text, std::wstring_view end) {
    return text.size() >= end.size() && lstrcmpiW(text.c_str() + text.size() - end.size(), end.data()) == 0;
}

std::wstring profile_path(const std::wstring& name) {
    if (ends_with_no_case(name, L".json"))
        return name;
    return qv::JoinPath(qv::JoinPath(server_dll::support_folder(), L"targets"), name + L".json");
}

// The whole file, or nullopt when it cannot be read.
std::optional<std::string> read_file(const std::wstring& path) {
    qv::unique_hfile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size{};
    if (!file || !GetFileSizeEx(file.get(), &size) || size.QuadPart > (64 << 20))
        return std::nullopt;
    std::string text(static_cast<size_t>(size.QuadPart), '\0');
    DWORD got = 0;
    if (!text.empty() && (!ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &got, nullptr) ||
                          got != text.size()))
        return std::nullopt;
    return text;
}

// A record's name without an extension of an assembly (".dll", ".exe").
std::wstring assembly_name(const std::wstring& name) {
    if (ends_with_no_case(name, L".dll") || ends_with_no_case(name, L".exe"))
        return name.substr(0, name.size() - 4);
    return name;
}

} // namespace

target_profile parse_target(const std::string& text) {
    const nlohmann::json doc = nlohmann::json::parse(text); // throws parse_error with the place
    if (!doc.is_object() || !doc.value("name", nlohmann::json()).is_string())
        throw std::runtime_error("it is no target profile (an object with a \"name\")");
    target_profile target;
    target.name = wide(doc["name"].get<std::string>());
    for (const auto& file : doc.value("systemFiles", nlohmann::json::array()))
        target.systemFiles.insert(lower(wide(file.get<std::string>())));
    const nlohmann::json apiSets = doc.value("apiSets", nlohmann::json::object());
    for (const auto& [family, host] : apiSets.items())
        target.apiSets[lower(wide(family))] = host.is_string() ? wide(host.get<std::string>()) : std::wstring();
    for (const auto& assembly : doc.value("frameworkAssemblies", nlohmann::json::array()))
        target.frameworkAssemblies.insert(lower(wide(assembly.at("name").get<std::string>())));
    return target;
}

target_profile load_target(const std::wstring& name) {
    const std::wstring path = profile_path(name);
    const std::optional<std::string> text = read_file(path);
    if (!text) {
        err("qvscan: the target profile " + utf8(path) + " cannot be read; the scan goes on without it\n");
        return {};
    }
    try {
        return parse_target(*text);
    } catch (const std::exception& e) {
        err("qvscan: the target profile " + utf8(path) + " is malformed (" + e.what() +
            "); the scan goes on without it\n");
        return {};
    }
}

std::wstring api_set_family(const std::wstring& name) {
    std::wstring family = lower(name);
    if (!family.starts_with(L"api-") && !family.starts_with(L"ext-"))
        return {};
    if (ends_with_no_case(family, L".dll"))
        family.resize(family.size() - 4);
    const size_t hyphen = family.find_last_of(L'-');
    return family.substr(0, hyphen);
}

size_t apply_target(std::vector<record>& records, const target_profile& target, bool filter) {
    for (record& r : records) {
        if (const std::wstring family = api_set_family(r.name); !family.empty()) {
            r.providedBy = "os";
            const auto host = target.apiSets.find(family);
            if (host != target.apiSets.end())
                r.host = host->second;
        } else if (r.missing && !r.mergeModule &&
                   (target.systemFiles.count(lower(r.name)) || target.frameworkAssemblies.count(lower(assembly_name(r.name))))) {
            r.providedBy = "target";
        } else {
            continue;
        }
        r.missing = false;
        r.filterable = true;
    }
    if (!filter)
        return 0;
    const auto provided = std::remove_if(records.begin(), records.end(), [](const record& r) { return r.providedBy; });
    const size_t gone = static_cast<size_t>(records.end() - provided);
    records.erase(provided, records.end());
    return gone;
}

} // namespace qvscan
