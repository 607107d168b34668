// The entry-point check: whether a DLL exports what an importer calls of it, forwarders followed. What the
// check reads of an image (its import, delay-import and export tables) is read once and kept by the caller.
#pragma once

#include "format/pe/pe_tables.h"
#include "image/pe_images.h"

#include <windows.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// The tables of one image, read when it is made; the names point into the image's bytes, which it holds.
class CImageTables {
public:
    explicit CImageTables(const std::wstring& path);
    CImageTables(const CImageTables&) = delete;
    CImageTables& operator=(const CImageTables&) = delete;

    bool Usable() const { return m_image.Usable(); }
    // The descriptor of the import table (or the delay-import table) that names dll, without regard to case.
    const qv::pe::imported_module* Imports(const std::wstring& dll, bool delay) const;
    // Null when the image has no export table in the file.
    const qv::pe::export_table* Exports() const { return m_exports ? &*m_exports : nullptr; }

private:
    CPEImage m_image;
    std::vector<qv::pe::imported_module> m_imports, m_delayImports;
    std::optional<qv::pe::export_table> m_exports;
};

// How the module a forwarder names stands: provided without a look (an API-set contract, a system file),
// to be looked into at path, or not there at all.
struct forward_answer {
    enum class kind { present, look, absent } is = kind::absent;
    std::wstring path;
};
// Asked with the module's file name ("OTHER.dll"; ".dll" added when the forwarder has no extension).
using forward_resolver = std::function<forward_answer(const std::wstring& module)>;
using tables_source = std::function<std::shared_ptr<const CImageTables>(const std::wstring& path)>;

// The most forwarders followed from one export: a longer chain, or one that comes back, is not there.
inline constexpr int kForwardHops = 16;

// The functions importer calls of dll ("#12" for an ordinal) that the DLL at dllPath does not export, in the
// importer's order, each once. A table cut short answers nothing: only what is known to be absent is told.
std::vector<std::wstring> MissingEntryPoints(const CImageTables& importer, const std::wstring& dll, bool delay,
                                             const std::wstring& dllPath, const tables_source& tables,
                                             const forward_resolver& resolve);

// Whether a DLL name is an API-set contract ("api-..." or "ext-..."), which the loader resolves by its name
// and which is never a file to ship.
bool IsApiSetName(const std::wstring& name);
