#include "image/entry_points.h"

#include "format/pe/pe_tables.h"
#include "image/file_cache.h"
#include "image/pe_images.h"
#include "toolkit/path_helpers.h"
#include "toolkit/string_convert.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

std::string_view CImageTables::Keep(std::string_view name) {
    if (name.empty())
        return {};
    const size_t at = m_text.size();
    m_text.append(name); // within the reserved size: the views taken before stay valid
    return std::string_view(m_text).substr(at, name.size());
}

CImageTables::CImageTables(const std::wstring& path) : CImageTables(CPEImage(path)) {}

CImageTables::CImageTables(const CPEImage& image) {
    m_usable = image.Usable();
    if (!m_usable)
        return;
    const qv::pe::pe_image& reader = *image.Reader();
    const auto imports = qv::pe::read_imports(reader), delayImports = qv::pe::read_delay_imports(reader);
    const auto exports = qv::pe::read_exports(reader);
    size_t total = 0;
    for (const auto* modules : {&imports, &delayImports})
        for (const auto& module : *modules)
            for (const auto& f : module.functions)
                total += f.by_ordinal ? 0 : f.name.size();
    if (exports) {
        for (const auto& f : exports->functions)
            total += f.forwarder.size();
        for (const auto& entry : exports->names)
            total += entry.first.size();
    }
    m_text.reserve(total);
    auto copy = [&](const std::vector<qv::pe::imported_module>& modules,
                    std::vector<std::pair<std::wstring, std::vector<call>>>& into) {
        for (const auto& module : modules) {
            std::vector<call> calls;
            calls.reserve(module.functions.size());
            for (const auto& f : module.functions)
                calls.push_back(f.by_ordinal ? call{{}, f.ordinal} : call{Keep(f.name), 0});
            into.emplace_back(qv::WidenAnsi(module.name), std::move(calls));
        }
    };
    copy(imports, m_imports);
    copy(delayImports, m_delayImports);
    if (!exports)
        return;
    m_ordinalBase = exports->ordinal_base;
    m_exportsComplete = exports->complete;
    m_functions.reserve(exports->functions.size());
    for (const auto& f : exports->functions)
        m_functions.push_back({f.rva != 0, Keep(f.forwarder)});
    m_names.reserve(exports->names.size());
    for (const auto& [name, index] : exports->names)
        m_names.emplace_back(Keep(name), index);
}

const std::vector<CImageTables::call>* CImageTables::Calls(const std::wstring& dll, bool delay) const {
    for (const auto& [name, calls] : delay ? m_delayImports : m_imports)
        if (lstrcmpiW(name.c_str(), dll.c_str()) == 0)
            return &calls;
    return nullptr;
}

const CImageTables::export_entry* CImageTables::Find(const call& wanted) const {
    std::uint32_t index = 0;
    if (wanted.name.empty()) {
        if (wanted.ordinal < m_ordinalBase)
            return nullptr;
        index = wanted.ordinal - m_ordinalBase;
    } else {
        const auto it = std::lower_bound(m_names.begin(), m_names.end(), wanted.name,
                                         [](const auto& entry, std::string_view key) { return entry.first < key; });
        if (it == m_names.end() || it->first != wanted.name)
            return nullptr;
        index = it->second;
    }
    return index < m_functions.size() && m_functions[index].present ? &m_functions[index] : nullptr;
}

namespace {

file_cache<CImageTables>& KeptTables() {
    static file_cache<CImageTables> kept(kImageTablesKept);
    return kept;
}

} // namespace

std::shared_ptr<const CImageTables> ImageTables(const std::wstring& path) {
    return KeptTables().get(
        path, [](const std::wstring& file) { return std::make_shared<const CImageTables>(file); },
        [](const CImageTables&) { return true; });
}

void KeepImageTables(const std::wstring& path, std::shared_ptr<const CImageTables> tables) {
    KeptTables().put(path, std::move(tables));
}

bool IsApiSetName(const std::wstring& name) {
    return qv::StartsWithNoCase(name, L"api-") || qv::StartsWithNoCase(name, L"ext-");
}

namespace {

// Whether the function is there at the end of its forwarders; a table cut short counts as having it.
bool Exported(std::shared_ptr<const CImageTables> tables, CImageTables::call wanted, const forward_resolver& resolve) {
    std::shared_ptr<const CImageTables> holder; // the tables whose text the name asked for lies in
    for (int hop = 0; hop <= kForwardHops; ++hop) {
        if (!tables->Usable())
            return true; // a file that is there but no image: nothing known against it
        const CImageTables::export_entry* found = tables->Find(wanted);
        if (!found)
            return !tables->ExportsComplete();
        if (found->forwarder.empty())
            return true;
        const auto target = qv::pe::split_forwarder(found->forwarder);
        if (!target)
            return false;
        std::wstring module = qv::WidenAnsi(target->module);
        if (IsApiSetName(module))
            return true;
        if (module.find(L'.') == std::wstring::npos)
            module += L".dll";
        const forward_answer answer = resolve(module);
        if (answer.is != forward_answer::kind::look)
            return answer.is == forward_answer::kind::present;
        holder = tables; // target->name views the forwarder's text in these tables
        tables = ImageTables(answer.path);
        wanted = {target->name, target->ordinal};
    }
    return false; // a chain that long comes back on itself, or ends nowhere the loader would go
}

} // namespace

std::vector<std::wstring> MissingEntryPoints(const std::wstring& importer, const std::wstring& dll, bool delay,
                                             const std::wstring& dllPath, const forward_resolver& resolve) {
    std::vector<std::wstring> missing;
    const auto importerTables = ImageTables(importer);
    const std::vector<CImageTables::call>* calls = importerTables->Calls(dll, delay);
    if (!calls || calls->empty())
        return missing;
    const auto target = ImageTables(dllPath);
    if (!target->Usable())
        return missing;
    std::unordered_set<std::wstring> told;
    for (const CImageTables::call& c : *calls) {
        if (Exported(target, c, resolve))
            continue;
        std::wstring name = c.name.empty() ? L"#" + std::to_wstring(c.ordinal) : qv::WidenAnsi(c.name);
        if (told.insert(name).second)
            missing.push_back(std::move(name));
    }
    return missing;
}
