// The entry-point check: whether a DLL exports what an importer calls of it, forwarders followed. What the
// check reads of an image (its import, delay-import and export tables) is read once and kept for the process.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The tables of one image as the check needs them, copied out of the file when it is made. Every name lies in
// one text of the object (the process keeps the tables of each image it met): views into it live as long as
// the object.
class CImageTables {
public:
    explicit CImageTables(const std::wstring& path);
    explicit CImageTables(const class CPEImage& image);
    CImageTables(const CImageTables&) = delete;
    CImageTables& operator=(const CImageTables&) = delete;

    struct call {
        std::string_view name;     // empty for a call by ordinal
        std::uint16_t ordinal = 0; // the ordinal of a call by ordinal
    };
    struct export_entry {
        bool present = false;       // false for an empty slot
        std::string_view forwarder; // "OTHER.Name" when the entry forwards
    };

    bool Usable() const { return m_usable; }
    // The calls of the import table (or the delay-import table) to dll, named without regard to case; null
    // when the table does not name it.
    const std::vector<call>* Calls(const std::wstring& dll, bool delay) const;
    // The export a name or an ordinal reaches; null when there is none.
    const export_entry* Find(const call& wanted) const;
    // Whether the export table was read whole (a cut table cannot tell that a name is absent).
    bool ExportsComplete() const { return m_exportsComplete; }

private:
    bool m_usable = false;
    std::vector<std::pair<std::wstring, std::vector<call>>> m_imports, m_delayImports;
    std::uint32_t m_ordinalBase = 0;
    std::vector<export_entry> m_functions;
    std::vector<std::pair<std::string_view, std::uint32_t>> m_names; // sorted, with the index of their function
    bool m_exportsComplete = true;
    std::string m_text; // every name above, reserved whole before the first is written
    std::string_view Keep(std::string_view name);
};

// The tables of the image at path. Kept for the process, by path without regard to case, while the file's
// size and last-write time stay the same; at most kImageTablesKept images, the oldest half forgotten beyond.
std::shared_ptr<const CImageTables> ImageTables(const std::wstring& path);
inline constexpr size_t kImageTablesKept = 4096;

// While one lives on a thread, reading an image's facts (ImageFacts) reads its tables too, from the same open of
// the file, and keeps them as ImageTables would: for a scan that will check the entry points of nearly every
// image it meets (one without lists, whose every image found is a record), so that no image is opened twice.
class image_tables_ahead {
public:
    image_tables_ahead() { ++depth(); }
    ~image_tables_ahead() { --depth(); }
    image_tables_ahead(const image_tables_ahead&) = delete;
    image_tables_ahead& operator=(const image_tables_ahead&) = delete;
    static bool Active() { return depth() > 0; }

private:
    static int& depth() {
        thread_local int d = 0;
        return d;
    }
};
// Keeps tables read by a reader of the image (see image_tables_ahead).
void KeepImageTables(const std::wstring& path, std::shared_ptr<const CImageTables> tables);

// How the module a forwarder names stands: provided without a look (an API-set contract, a system file),
// to be looked into at path, or not there at all.
struct forward_answer {
    enum class kind { present, look, absent } is = kind::absent;
    std::wstring path;
};
// Asked with the module's file name ("OTHER.dll"; ".dll" added when the forwarder has no extension).
using forward_resolver = std::function<forward_answer(const std::wstring& module)>;

// The most forwarders followed from one export: a longer chain, or one that comes back, is not there.
inline constexpr int kForwardHops = 16;

// The functions importer calls of dll ("#12" for an ordinal) that the DLL at dllPath does not export, in the
// importer's order, each once. A table cut short answers nothing: only what is known to be absent is told.
std::vector<std::wstring> MissingEntryPoints(const std::wstring& importer, const std::wstring& dll, bool delay,
                                             const std::wstring& dllPath, const forward_resolver& resolve);

// Whether a DLL name is an API-set contract ("api-..." or "ext-..."), which the loader resolves by its name
// and which is never a file to ship.
bool IsApiSetName(const std::wstring& name);
