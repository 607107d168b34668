#include "image/entry_points.h"

#include "toolkit/path_helpers.h"
#include "toolkit/string_convert.h"

#include <unordered_set>

CImageTables::CImageTables(const std::wstring& path) : m_image(path) {
    if (!m_image.Usable())
        return;
    const qv::pe::pe_image& image = *m_image.Reader();
    m_imports = qv::pe::read_imports(image);
    m_delayImports = qv::pe::read_delay_imports(image);
    m_exports = qv::pe::read_exports(image);
}

const qv::pe::imported_module* CImageTables::Imports(const std::wstring& dll, bool delay) const {
    for (const auto& module : delay ? m_delayImports : m_imports)
        if (lstrcmpiW(qv::WidenAnsi(module.name).c_str(), dll.c_str()) == 0)
            return &module;
    return nullptr;
}

bool IsApiSetName(const std::wstring& name) {
    return qv::StartsWithNoCase(name, L"api-") || qv::StartsWithNoCase(name, L"ext-");
}

namespace {

enum class verdict { present, absent, unknown };

// The export a name or an ordinal reaches in table, as a verdict: present, absent, or (a table cut short)
// unknown; a forwarder is given back in forwarder.
verdict LookUp(const qv::pe::export_table* table, std::string_view name, std::uint32_t ordinal,
               std::string_view& forwarder) {
    if (!table)
        return verdict::absent;
    const qv::pe::exported_function* f = name.empty() ? table->find_ordinal(ordinal) : table->find(name);
    if (!f)
        return table->complete ? verdict::absent : verdict::unknown;
    forwarder = f->forwarder;
    return verdict::present;
}

// Whether the function is there at the end of its forwarders.
bool Exported(const qv::pe::export_table* table, std::string_view name, std::uint32_t ordinal,
              const tables_source& tables, const forward_resolver& resolve) {
    std::shared_ptr<const CImageTables> hold; // the image the current table belongs to
    for (int hop = 0; hop <= kForwardHops; ++hop) {
        std::string_view forwarder;
        const verdict found = LookUp(table, name, ordinal, forwarder);
        if (found != verdict::present)
            return found == verdict::unknown;
        if (forwarder.empty())
            return true;
        const auto target = qv::pe::split_forwarder(forwarder);
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
        hold = tables(answer.path);
        if (!hold || !hold->Usable())
            return true; // a file that is there but no image: nothing known against it
        table = hold->Exports();
        name = target->name;
        ordinal = target->ordinal;
    }
    return false; // a chain that long comes back on itself, or ends nowhere the loader would go
}

} // namespace

std::vector<std::wstring> MissingEntryPoints(const CImageTables& importer, const std::wstring& dll, bool delay,
                                             const std::wstring& dllPath, const tables_source& tables,
                                             const forward_resolver& resolve) {
    std::vector<std::wstring> missing;
    const qv::pe::imported_module* module = importer.Imports(dll, delay);
    const std::shared_ptr<const CImageTables> target = module ? tables(dllPath) : nullptr;
    if (!target || !target->Usable())
        return missing;
    std::unordered_set<std::wstring> told;
    for (const qv::pe::imported_function& f : module->functions) {
        if (Exported(target->Exports(), f.by_ordinal ? std::string_view() : f.name, f.ordinal, tables, resolve))
            continue;
        std::wstring name = f.by_ordinal ? L"#" + std::to_wstring(f.ordinal) : qv::WidenAnsi(f.name);
        if (told.insert(name).second)
            missing.push_back(std::move(name));
    }
    return missing;
}
