// qvscan static FILE|FOLDER...: the static scan of one file, or of several files and the Windows images of
// folders, a section each, through the server's StaticScan.
#include "commands.h"

#include "error_text.h"
#include "installer.h"
#include "json_writer.h"
#include "linux_paths.h"
#include "merge_modules.h"
#include "dependency_graph.h"
#include "inc/scan_extensions.h"
#include "progress.h"
#include "records.h"
#include "target_profile.h"
#include "text_output.h"
#include "toolkit/path_helpers.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace qvscan {

namespace {

// The outcome of one top-level file's scan.
struct static_result {
    std::wstring file;
    bool present = false;
    VARIANT_BOOL completed = VARIANT_FALSE;
    HRESULT hr = S_OK;
    std::string failure; // the words for a failed scan
    std::vector<record> records;
    long filesMet = 0;
    size_t missing = 0, filterable = 0, modules = 0;
    size_t delayMissing = 0; // missing files needed only through delay loads
    size_t provided = 0;     // records the target provides, left out of the list by the filter
    bool extended = false;
    std::wstring edges; // the walk's graph (IQvScanGraph), with the extensions
};

// How many chains of a missing file the JSON lists, and how many more are counted beyond them.
constexpr size_t chains_listed = 10, chains_counted = 1000;

// The chains that need each missing file.
void add_chains(static_result& r, const options& o) {
    if (r.edges.empty())
        return;
    const dependency_graph graph(r.edges, r.file, r.records, o.filter);
    for (record& x : r.records) {
        if (!x.missing)
            continue;
        const auto found = graph.chains(graph.find(x.name), chains_listed + chains_counted);
        for (size_t i = 0; i < found.chains.size(); ++i) {
            if (i == chains_listed) {
                x.neededByMore = found.chains.size() - chains_listed;
                break;
            }
            std::vector<std::wstring> names;
            for (const size_t node : found.chains[i])
                names.push_back(graph.nodes()[node].name);
            x.neededBy.push_back(std::move(names));
        }
        x.neededByAtLeast = !found.complete;
    }
}

HRESULT scan_file(IStaticScan* scan, const std::wstring& file, const options& o, progress_sink& sink,
                  VARIANT_BOOL* completed) {
    qv::bstr path(file), lang(o.lang);
    try {
        const long type = o.type | (o.extensions ? qv::scan_type::extensions : 0);
        return scan->ScanFile(path.get(), &sink, o.filter ? VARIANT_TRUE : VARIANT_FALSE, lang.get(),
                              static_cast<EScanType>(type), completed);
    } catch (const com_exception& e) {
        return e.Error();
    } catch (const qv::win32_exception& e) {
        return e.Result();
    }
}

static_result scan_static(IStaticScan* scan, const std::wstring& file, const options& o, IUnknown* catalog,
                          const target_profile& target) {
    static_result r;
    r.extended = o.extensions;
    r.file = file;
    r.present = exists(file);
    progress_sink sink;
    sink.catalog = catalog;
    r.hr = scan_file(scan, file, o, sink, &r.completed);
    sink.clear();
    r.filesMet = sink.files;
    if (FAILED(r.hr)) {
        // The server says in words what went wrong where it can (a list it cannot load, say).
        r.failure = failure_text(r.hr);
        return r;
    }
    qv::com_ptr<IDepFiles> files;
    check_hr(scan->get_Dependencies(files.put()));
    r.records = read_all(files.get());
    qv::bstr edges;
    if (const auto graph = qv::com_ptr<IStaticScan>(scan).query<IQvScanGraph>(IID_IQvScanGraph);
        o.extensions && graph && SUCCEEDED(graph->get_Edges(edges.put())))
        r.edges = edges.str();
    // The import walk announces every file it names; a record it never named came from a .dep file.
    for (record& x : r.records) {
        const std::wstring full = x.path.empty() ? x.name : x.path + (x.path.back() == L'\\' ? L"" : L"\\") + x.name;
        if (!x.mergeModule && !sink.named.count(qv::LowerCase(full)) && !sink.named.count(qv::LowerCase(x.name)) &&
            std::string(x.via) != "delay")
            x.via = "dep";
    }
    if (o.extensions) {
        r.provided = apply_target(r.records, target, o.filter);
        add_chains(r, o);
    }
    for (const record& x : r.records) {
        r.missing += x.missing;
        r.delayMissing += x.missing && std::string(x.via) == "delay";
        r.filterable += x.filterable;
        r.modules += x.mergeModule;
    }
    return r;
}

json static_json(const static_result& r) {
    json summary = {{"files", r.records.size()},
                    {"missing", r.missing},
                    {"filterable", r.filterable},
                    {"mergeModules", r.modules},
                    {"filesMet", r.filesMet}};
    if (r.extended) {
        summary["delayLoadedMissing"] = r.delayMissing;
        summary["providedByTarget"] = r.provided;
    }
    return {{"file", utf8(r.file)},
            {"exists", r.present},
            {"completed", r.completed != VARIANT_FALSE},
            {"dependencies", records_json(r.records)},
            {"summary", summary}};
}

const json_layout one_file_layout{{"", "dependencies"}};
const json_layout files_layout{{"", "files", "files/*", "files/*/dependencies"}};

// The table, or with --tree the closure as a tree; the records' notes under either.
std::string static_text(const static_result& r, const options& o) {
    const std::string shown = o.tree && !r.edges.empty()
                                  ? dependency_graph(r.edges, r.file, r.records, o.filter).tree() + records_notes(r.records)
                                  : records_table(r.records);
    return shown + std::to_string(r.records.size()) + " files, " + std::to_string(r.missing) +
           " missing, " + (r.delayMissing ? std::to_string(r.delayMissing) + " of them delay-loaded, " : "") +
           std::to_string(r.filterable) + " filterable, " + std::to_string(r.modules) + " merge modules" +
           (r.provided ? ", " + std::to_string(r.provided) + " provided by the target" : "");
}

// The graph in Graphviz form, to the file --dot names.
void write_dot(const std::wstring& file, const std::string& text) {
    const std::wstring path = full_path(file);
    qv::unique_hfile out(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    DWORD written = 0;
    if (!out || !WriteFile(out.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
        written != text.size())
        throw std::runtime_error("cannot write the graph to " + utf8(path) + ": " +
                                 describe(HRESULT_FROM_WIN32(GetLastError())));
}

// The installer's plan of the scanned files and their records.
package_plan plan_of(const std::vector<const static_result*>& results, const options& o) {
    std::vector<std::wstring> mains;
    std::vector<record> all;
    for (const static_result* r : results) {
        if (FAILED(r->hr) || !r->present)
            continue;
        mains.push_back(r->file);
        all.insert(all.end(), r->records.begin(), r->records.end());
    }
    return plan_package(mains, all, o.keepDestinations);
}

// What is wrong with one scanned file, on standard error; the exit code it asks for.
int tell_static(const server_dll& dll, const static_result& r) {
    if (FAILED(r.hr)) {
        err("qvscan: scanning " + utf8(r.file) + " failed: " + r.failure + "\n");
        return ExitFailed;
    }
    if (!r.present) {
        err("qvscan: " + utf8(r.file) + ": " + not_a_file(r.file) + "\n");
        return ExitNoFile;
    }
    if (r.records.empty() && r.filesMet == 0) {
        qv::com_ptr<IDepFile> pe;
        auto util = dll.create<IScanUtil>(CLSID_ScanUtil, IID_IScanUtil);
        if (SUCCEEDED(util->get_PE(qv::bstr(r.file).get(), pe.put())) && !pe)
            err("qvscan: " + utf8(r.file) + " is not a Windows image, so nothing was scanned\n");
    }
    return ExitOk;
}

// The files a list of FILEs and folders names, in order: a FILE as given, a folder's files by name. Which of a
// folder's files are Windows images (they start "MZ") is told by a second thread that reads their first bytes
// while the first thread scans the images it has been told of: under Wine each of those reads is three requests
// to the server, and two threads overlap their waits.
class static_files {
public:
    explicit static_files(const options& o) {
        std::vector<std::wstring> given{o.file};
        given.insert(given.end(), o.names.begin(), o.names.end());
        for (const std::wstring& one : given) {
            const std::wstring path = full_path(one);
            if (!is_folder(path)) {
                m_files.push_back({path, true});
                continue;
            }
            std::vector<std::wstring> names;
            WIN32_FIND_DATAW data;
            qv::unique_hfind find(FindFirstFileW(qv::JoinPath(path, L"*").c_str(), &data));
            for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.get(), &data))
                if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                    names.push_back(qv::JoinPath(path, data.cFileName));
            std::sort(names.begin(), names.end(), [](const std::wstring& a, const std::wstring& b) {
                return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
            });
            for (std::wstring& name : names)
                m_files.push_back({std::move(name), false});
        }
        m_checked.assign(m_files.size(), false);
        m_checker = std::thread([this] { check(); });
    }
    ~static_files() {
        m_stop = true;
        m_checker.join();
    }
    static_files(const static_files&) = delete;
    static_files& operator=(const static_files&) = delete;

    // The next file to scan, waiting for its check; false after the last.
    bool next(std::wstring& file) {
        std::unique_lock<std::mutex> lock(m_lock);
        for (; m_next < m_files.size(); ++m_next) {
            m_ready.wait(lock, [&] { return m_checked[m_next]; });
            if (m_files[m_next].image) {
                file = m_files[m_next++].path;
                return true;
            }
        }
        return false;
    }
    // How many files there are to scan, as far as the checks have gone (the files not yet checked counted in).
    size_t count() {
        std::lock_guard<std::mutex> lock(m_lock);
        size_t n = 0;
        for (size_t i = 0; i < m_files.size(); ++i)
            n += !m_checked[i] || m_files[i].image;
        return n;
    }
    // Every file to scan, in order.
    std::vector<std::wstring> all() {
        std::vector<std::wstring> files;
        for (std::wstring file; next(file);)
            files.push_back(std::move(file));
        return files;
    }

private:
    struct entry {
        std::wstring path;
        bool image = false; // a FILE given is scanned whatever it holds
    };

    static bool starts_as_image(const std::wstring& file) {
        char head[2] = {};
        DWORD got = 0;
        qv::unique_hfile handle(CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                            OPEN_EXISTING, 0, nullptr));
        return handle && ReadFile(handle.get(), head, 2, &got, nullptr) && got == 2 && head[0] == 'M' &&
               head[1] == 'Z';
    }

    void check() {
        for (size_t i = 0; i < m_files.size() && !m_stop; ++i) {
            const bool image = m_files[i].image || starts_as_image(m_files[i].path);
            std::lock_guard<std::mutex> lock(m_lock);
            m_files[i].image = image;
            m_checked[i] = true;
            m_ready.notify_all();
        }
    }

    std::vector<entry> m_files;
    std::vector<bool> m_checked; // under m_lock, as the image marks
    size_t m_next = 0;
    std::mutex m_lock;
    std::condition_variable m_ready;
    std::atomic<bool> m_stop{false};
    std::thread m_checker;
};

int run_one(const server_dll& dll, IStaticScan* scan, const std::wstring& file, const options& o, IUnknown* catalog,
            const target_profile& target) {
    const static_result r = scan_static(scan, file, o, catalog, target);
    if (FAILED(r.hr))
        return tell_static(dll, r);
    if (o.json)
        print_json(static_json(r), one_file_layout);
    else
        out(static_text(r, o) + " " + marks_legend + "\n");
    if (!o.dotFile.empty() && !r.edges.empty())
        write_dot(o.dotFile, dependency_graph(r.edges, r.file, r.records, o.filter).dot());
    write_wxs(plan_of({&r}, o), o);
    const int rc = tell_static(dll, r);
    return std::max(rc, missing_verdict(o.failOnMissing, utf8(qv::FileNamePart(file)), r.records));
}

// Several files, or the images of a folder: a section for each, one after the other.
int run_several(const server_dll& dll, IStaticScan* scan, const options& o, IUnknown* catalog,
                const target_profile& target) {
    static_files files(o);
    progress_line progress;
    std::vector<static_result> results;
    int rc = ExitOk;
    size_t records = 0, missing = 0;
    for (std::wstring file; files.next(file);) {
        progress.draw("[" + std::to_string(results.size() + 1) + "/" + std::to_string(files.count()) + "] " +
                      utf8(file));
        results.push_back(scan_static(scan, file, o, catalog, target));
        progress.clear();
        rc = std::max(rc, tell_static(dll, results.back()));
        records += results.back().records.size();
        missing += results.back().missing;
    }
    if (o.json) {
        json list = json::array();
        for (const static_result& r : results)
            list.push_back(static_json(r));
        print_json(
            {{"files", list}, {"summary", {{"scanned", results.size()}, {"records", records}, {"missing", missing}}}},
            files_layout);
    } else {
        for (const auto& r : results)
            out(utf8(r.file) + ":\n" + (FAILED(r.hr) ? "  the scan failed: " + r.failure : static_text(r, o)) + "\n\n");
        out(std::to_string(results.size()) + " files scanned, " + std::to_string(records) + " records, " +
            std::to_string(missing) + " missing " + marks_legend + "\n");
    }
    if (results.empty())
        err("qvscan: no Windows image to scan\n");
    std::vector<const static_result*> scanned;
    for (const static_result& r : results)
        scanned.push_back(&r);
    write_wxs(plan_of(scanned, o), o);
    std::vector<record> all;
    for (const static_result& r : results)
        all.insert(all.end(), r.records.begin(), r.records.end());
    return std::max(rc, missing_verdict(o.failOnMissing, std::to_string(results.size()) + " files", all));
}

} // namespace

int run_static(const server_dll& dll, const options& o) {
    auto scan = dll.create<IStaticScan>(CLSID_StaticScan, IID_IStaticScan);
    const qv::com_ptr<IUnknown> catalog = load_merge_modules(o);
    const target_profile target = o.extensions ? load_target(o.target) : target_profile{};
    const std::wstring single = full_path(o.file);
    if (o.names.empty() && !is_folder(single))
        return run_one(dll, scan.get(), single, o, catalog.get(), target);
    return run_several(dll, scan.get(), o, catalog.get(), target);
}

// The chains are told shortest first, ten unless --all; --all still stops at this many, and says so.
constexpr size_t why_listed = 10, why_most = 100000;

int run_why(const server_dll& dll, const options& o) {
    auto scan = dll.create<IStaticScan>(CLSID_StaticScan, IID_IStaticScan);
    options asked = o; // the scan with its extensions, whatever else was given
    asked.extensions = true;
    const target_profile target = load_target(o.target);
    const static_result r = scan_static(scan.get(), full_path(o.file), asked, nullptr, target);
    if (FAILED(r.hr) || !r.present)
        return tell_static(dll, r);
    const std::wstring& name = o.names[0];
    const dependency_graph graph(r.edges, r.file, r.records, o.filter);
    const size_t node = graph.find(name);
    if (node == SIZE_MAX || !graph.nodes()[node].shown) {
        err("qvscan: " + utf8(name) + " is not in the closure of " + utf8(qv::FileNamePart(r.file)) +
            (node != SIZE_MAX ? " but as a file of the system, which --no-filter shows" : "") + "\n");
        return ExitNoFile;
    }
    const size_t limit = o.all ? why_most : why_listed;
    const auto found = graph.chains(node, limit + 1);
    const size_t told = std::min(found.chains.size(), limit);
    for (size_t i = 0; i < told; ++i) {
        const std::string chain = graph.chain_text(found.chains[i]);
        out(utf8(graph.nodes()[node].name) + (chain.empty() ? "" : " <- " + chain) + "\n");
    }
    if (found.chains.size() > limit || !found.complete)
        out(o.all ? "(the first " + std::to_string(told) + " chains; there are more)\n"
                  : "(more chains: --all lists them)\n");
    return ExitOk;
}

int run_bundle(const server_dll& dll, const options& o) {
    const std::wstring into = full_path(o.outDir);
    const std::vector<std::wstring> files = static_files(o).all();
    for (const std::wstring& file : files) {
        const std::wstring folder = qv::DirectoryPart(file);
        if (CompareStringOrdinal(into.c_str(), static_cast<int>(std::min(into.size(), folder.size())), folder.c_str(),
                                 static_cast<int>(folder.size()), TRUE) == CSTR_EQUAL &&
            (into.size() == folder.size() || into[folder.size()] == L'\\')) {
            err("qvscan: " + utf8(into) + " is inside the scanned folder " + utf8(folder) +
                ": the bundle would copy into itself; choose another OUTDIR\n");
            return ExitUsage;
        }
    }
    std::vector<static_result> results;
    int rc = ExitOk;
    package_plan plan;
    const std::wstring lower = qv::LowerCase(o.file);
    if (o.names.empty() && (lower.ends_with(L".vbp") || lower.ends_with(L".vbg"))) {
        std::vector<std::wstring> programs;
        results.emplace_back();
        if (const int scanned = project_closure(dll, o, programs, results.back().records); scanned != ExitOk)
            return scanned;
        plan = plan_package(programs, results.back().records, o.keepDestinations);
    } else {
        auto scan = dll.create<IStaticScan>(CLSID_StaticScan, IID_IStaticScan);
        const qv::com_ptr<IUnknown> catalog = load_merge_modules(o);
        const target_profile target = load_target(o.target);
        for (const std::wstring& file : files) {
            results.push_back(scan_static(scan.get(), file, o, catalog.get(), target));
            rc = std::max(rc, tell_static(dll, results.back()));
        }
        std::vector<const static_result*> scanned;
        for (const static_result& r : results)
            scanned.push_back(&r);
        plan = plan_of(scanned, o);
    }
    if (plan.mainFile.empty()) {
        err("qvscan: nothing to bundle\n");
        return std::max(rc, static_cast<int>(ExitNoFile));
    }
    const std::vector<std::wstring> left = copy_bundle(plan, into, o.force);
    write_wxs(plan, o);
    out("bundled " + std::to_string(plan.files.size()) + " files into " + utf8(into) + "\n");
    for (const auto& module : plan.mergeModules)
        out("  merge module to merge: " + utf8(module.name) + " (" + utf8(module.file) + ")\n");
    for (const std::wstring& name : plan.missing)
        out("  missing: " + utf8(name) + "\n");
    for (const std::wstring& file : left)
        err("qvscan: " + utf8(file) + " is there with other bytes and was left as it is (--force replaces it)\n");
    std::vector<record> all;
    for (const static_result& r : results)
        all.insert(all.end(), r.records.begin(), r.records.end());
    const int verdict = missing_verdict(o.failOnMissing, utf8(qv::FileNamePart(plan.mainFile)), all);
    return std::max({rc, verdict, left.empty() ? ExitOk : ExitFailed});
}

} // namespace qvscan
