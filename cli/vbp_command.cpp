// qvscan vbp PROJECT.vbp|GROUP.vbg: the scan of a Visual Basic project or project group through the
// server's VBPScan. The tool is the scan's event sink: it draws the progress, answers the server's
// questions (past a missing form or project, or a failed build, it goes on only when told to; after Ctrl-C
// it asks to cancel), and at the end lists the project's group and the group of each file with imports.
// Trusts the server for what the project names; reads no project file itself.
#include "commands.h"

#include "companions.h"
#include "error_text.h"
#include "inc/com_error.h"
#include "inc/com_exception.h"
#include "json_writer.h"
#include "linux_paths.h"
#include "merge_modules.h"
#include "progress.h"
#include "installer.h"
#include "records.h"
#include "text_output.h"
#include "toolkit/path_helpers.h"

#include <windows.h>

#include <oleauto.h>

#include <algorithm>
#include <string>
#include <vector>

namespace qvscan {

namespace {

// A file that is not there: a form as its project names it, or a project or .dep file (project empty).
struct missing_file {
    std::wstring file, project;
};

// Everything the command reports, whichever way it ends.
struct vbp_result {
    std::wstring project;
    bool completed = false, cancelled = false, stopped = false;
    std::vector<missing_file> missing;
    bool buildFailed = false;
    std::wstring buildCommand, compilerSays; // of a failed build: the command line and the compiler's last line
    struct group {
        std::wstring name;
        bool isProject = false;
        std::vector<record> records;
    };
    std::vector<group> groups; // the project's first
};

// The scan's events. The project scan's own come here; those of the static scans the server runs on the way
// go through progress_sink, which has no catalog, other references or component to offer.
class vbp_sink : public IScanEventsTarn, public progress_sink {
public:
    vbp_sink(vbp_result& result, bool keepGoing) : m_result(result), m_keepGoing(keepGoing) {}

    const console_interrupt* interrupt = nullptr; // Ctrl-C while the scan runs

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        if (ppv && (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IScanEvents) ||
                    IsEqualIID(iid, IID_IScanEventsTarn))) {
            *ppv = static_cast<IScanEventsTarn*>(this);
            return S_OK;
        }
        return progress_sink::QueryInterface(iid, ppv);
    }
    // Lives on the stack of the command, longer than the scanner.
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE get_MMCatalog(IUnknown** out) override { return progress_sink::get_MMCatalog(out); }

    HRESULT STDMETHODCALLTYPE PercentDone(long percent) override {
        m_percent = std::clamp(percent, 0L, 100L);
        draw();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE QueryCancel(VARIANT_BOOL* cancel) override {
        if (!cancel)
            return E_POINTER;
        const bool interrupted = interrupt && interrupt->raised();
        *cancel = interrupted ? VARIANT_TRUE : VARIANT_FALSE;
        m_result.cancelled = m_result.cancelled || interrupted;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Status(BSTR text) override {
        m_status = text ? text : L"";
        // On a terminal the progress words stand beside the bar; anything else the server says (the end, a
        // circle in a .dep file) is a line of its own, as every status is where there is no terminal.
        if (!m_line.terminal() || !is_progress(m_status))
            line(utf8(m_status) + "\n");
        draw();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE VBBuildFailed(BSTR commandLine, VARIANT_BOOL* continueScan) override {
        if (!continueScan)
            return E_POINTER;
        // The server leaves the compiler's last line in the thread's error object just before it asks.
        m_result.buildFailed = true;
        m_result.buildCommand = commandLine ? commandLine : L"";
        m_result.compilerSays = qv::take_error_description();
        line(
            "qvscan: " + std::string(m_keepGoing ? "warning: " : "stopped: ") +
            "the build failed: " + utf8(m_result.buildCommand) + "\n" +
            (m_result.compilerSays.empty() ? "" : "  the compiler's last line: " + utf8(m_result.compilerSays) + "\n"));
        return answer(continueScan);
    }
    HRESULT STDMETHODCALLTYPE FileNotFound(BSTR project, BSTR missingForms, VARIANT_BOOL* continueScan) override {
        if (!continueScan)
            return E_POINTER;
        const std::wstring owner = project ? project : L"", forms = missingForms ? missingForms : L"";
        std::string named;
        if (forms.empty()) {
            m_result.missing.push_back({owner, L""});
            named = "the project " + utf8(owner) + " does not exist";
        } else {
            // The server's list keeps growing over the projects of a group: a form is told once.
            for (size_t start = 0; start < forms.size();) {
                const size_t end = std::min(forms.find(L';', start), forms.size());
                const std::wstring form = forms.substr(start, end - start);
                start = end + 1;
                auto known = [&](const missing_file& m) { return qv::LowerCase(m.file) == qv::LowerCase(form); };
                if (form.empty() || std::any_of(m_result.missing.begin(), m_result.missing.end(), known))
                    continue;
                m_result.missing.push_back({form, owner});
                named += (named.empty() ? "" : ", ") + utf8(form);
            }
            if (named.empty())
                return answer(continueScan); // a project of the group named again
            named = utf8(owner) + " names forms that do not exist: " + named;
        }
        line("qvscan: " + std::string(m_keepGoing ? "warning: " : "stopped: ") + named + "\n");
        return answer(continueScan);
    }

private:
    // The server's words for the steps of a scan.
    static bool is_progress(const std::wstring& text) {
        for (const wchar_t* word : {L"Reading ", L"Rebuilding ", L"Scanning "})
            if (text.starts_with(word))
                return true;
        return false;
    }
    void line(const std::string& text) {
        m_line.clear();
        err(text);
    }
    // Go on only when told to; a stop is remembered.
    HRESULT answer(VARIANT_BOOL* continueScan) {
        *continueScan = m_keepGoing ? VARIANT_TRUE : VARIANT_FALSE;
        m_result.stopped = m_result.stopped || !m_keepGoing;
        return S_OK;
    }
    // "[######..............]  30%  Scanning C:\p\x.ocx", cut to the console's width from the left, where
    // a path's least telling part is.
    void draw() {
        if (!m_line.terminal())
            return;
        CONSOLE_SCREEN_BUFFER_INFO console{};
        const int width = GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &console)
                              ? console.srWindow.Right - console.srWindow.Left + 1
                              : 80;
        const int filled = static_cast<int>(m_percent / 5);
        const std::string percent = std::to_string(m_percent);
        std::string bar = "[" + std::string(filled, '#') + std::string(20 - filled, '.') + "] " +
                          std::string(3 - percent.size(), ' ') + percent + "%  ";
        const size_t room = width > static_cast<int>(bar.size()) + 4 ? width - bar.size() - 1 : 0;
        std::wstring text = m_status;
        if (text.size() > room)
            text = room > 3 ? L"..." + text.substr(text.size() - (room - 3)) : L"";
        m_line.draw(bar + utf8(text));
    }

    vbp_result& m_result;
    bool m_keepGoing;
    long m_percent = 0;
    std::wstring m_status;
};

// The groups the scan left, the project's first (the server adds it last, and not at all after a stop).
std::vector<vbp_result::group> read_groups(IVBPScan* scan, const std::wstring& project) {
    qv::com_ptr<IUnknown> unknown;
    check_hr(scan->get_DepFileGroups(unknown.put()));
    qv::com_ptr<IQvDepFileGroups> groups =
        unknown ? unknown.query<IQvDepFileGroups>(IID_IQvDepFileGroups) : qv::com_ptr<IQvDepFileGroups>();
    if (!groups)
        throw com_exception(E_NOINTERFACE);
    long count = 0;
    check_hr(groups->get_Count(&count));
    std::vector<vbp_result::group> all;
    for (long i = 1; i <= count; ++i) {
        qv::com_ptr<IQvDepFileGroup> group;
        qv::com_ptr<IDepFiles> files;
        qv::bstr name;
        check_hr(groups->get_Item(i, group.put()));
        check_hr(group->get_Name(name.put()));
        check_hr(group->get_Files(files.put()));
        const bool isProject = qv::LowerCase(name.str()) == qv::LowerCase(project);
        all.push_back({name.str(), isProject, read_all(files.get())});
        for (record& r : all.back().records)
            r.via = isProject ? "project" : "imports";
    }
    std::stable_partition(all.begin(), all.end(), [](const vbp_result::group& g) { return g.isProject; });
    return all;
}

const json_layout vbp_layout{{"", "groups", "groups/*/files"}};

json missing_json(const std::vector<missing_file>& missing) {
    json list = json::array();
    for (const missing_file& m : missing)
        list.push_back(
            {{"file", utf8(m.file)}, {"project", m.project.empty() ? json(nullptr) : json(utf8(m.project))}});
    return list;
}

void print_document(const vbp_result& r) {
    json groups = json::array();
    size_t files = 0, missing = 0;
    for (const auto& group : r.groups) {
        groups.push_back(
            {{"name", utf8(group.name)}, {"project", group.isProject}, {"files", records_json(group.records)}});
        for (const record& rec : group.records) {
            files += group.isProject;
            missing += group.isProject && rec.missing;
        }
    }
    const json buildFailed =
        r.buildFailed ? json{{"command", utf8(r.buildCommand)}, {"compilerSays", utf8(r.compilerSays)}} : json(nullptr);
    print_json({{"project", utf8(r.project)},
                {"completed", r.completed},
                {"cancelled", r.cancelled},
                {"stopped", r.stopped},
                {"missing", missing_json(r.missing)},
                {"buildFailed", buildFailed},
                {"groups", groups},
                {"summary", {{"groups", r.groups.size()}, {"projectFiles", files}, {"projectMissing", missing}}}},
               vbp_layout);
}

void print_text(const vbp_result& r) {
    for (size_t g = 0; g < r.groups.size(); ++g) {
        const auto& group = r.groups[g];
        out(std::string(g ? "\n" : "") + (group.isProject ? "project " : "imports of ") + utf8(group.name) + ":\n");
        size_t missing = 0;
        for (const record& rec : group.records)
            missing += rec.missing;
        out(records_table(group.records));
        out(std::to_string(group.records.size()) + " files, " + std::to_string(missing) + " missing\n");
    }
    if (!r.groups.empty())
        out(std::string(marks_legend) + "\n");
}

// The scan runs in the project's folder, so that a control named by its file alone is found beside the
// project as the authoring tool would find it; the tool's own folder comes back afterwards.
class current_folder {
public:
    explicit current_folder(const std::wstring& folder) {
        const DWORD n = GetCurrentDirectoryW(static_cast<DWORD>(std::size(m_kept)), m_kept);
        m_restore = n > 0 && n < std::size(m_kept) && SetCurrentDirectoryW(folder.c_str());
    }
    ~current_folder() {
        if (m_restore)
            SetCurrentDirectoryW(m_kept);
    }

private:
    wchar_t m_kept[MAX_PATH * 4];
    bool m_restore = false;
};

// A project or .dep file that is not there: told; the exit code.
int tell_missing_input(vbp_result& result, const std::wstring& file, bool asJson) {
    err("qvscan: " + utf8(file) + ": " + not_a_file(file) + "\n");
    if (asJson) {
        result.stopped = true;
        result.missing.push_back({file, L""});
        print_document(result);
    }
    return ExitNoFile;
}

// The project scanner; null after a failure, which is told.
qv::com_ptr<IVBPScan> make_scanner(const server_dll& dll) {
    qv::com_ptr<IClassFactory> factory;
    qv::com_ptr<IVBPScan> scan;
    HRESULT hr = dll.factory(CLSID_VBPScan, factory.put());
    if (SUCCEEDED(hr))
        hr = factory->CreateInstance(nullptr, IID_IVBPScan, scan.put_void());
    if (SUCCEEDED(hr))
        return scan;
    err("qvscan: " + utf8(dll.path()) +
        (hr == CLASS_E_CLASSNOTAVAILABLE ? " has no project scanner (the class VBPScan, " + hex(hr) + ")"
                                         : " cannot make the project scanner: " + failure_text(hr)) +
        "\n");
    return {};
}

// The scan itself, in the project's folder, with Ctrl-C asking to cancel.
HRESULT scan_project(IVBPScan* scan, vbp_sink& sink, const vbp_result& result, const std::wstring& depFile,
                     const options& o) {
    console_interrupt interrupt;
    sink.interrupt = &interrupt;
    const qv::scope_exit unwatch([&] { sink.interrupt = nullptr; });
    try {
        current_folder inProject(qv::DirectoryPart(result.project));
        return scan->Scan(qv::bstr(result.project).get(), qv::bstr(depFile).get(), static_cast<IScanEventsTarn*>(&sink),
                          o.filter ? VARIANT_TRUE : VARIANT_FALSE, o.rebuild ? VARIANT_TRUE : VARIANT_FALSE,
                          qv::bstr(o.lang).get());
    } catch (const com_exception& e) {
        return e.Error();
    } catch (const qv::win32_exception& e) {
        return e.Result();
    }
}

// What the scan found, printed, and how it ended, told; the exit code.
int report(const vbp_result& result, bool asJson) {
    asJson ? print_document(result) : print_text(result);
    if (result.cancelled) {
        err("qvscan: cancelled; what was found until then is listed\n");
        return ExitEnded;
    }
    if (result.stopped)
        return result.buildFailed ? ExitFailed : ExitNoFile;
    if (result.groups.empty())
        err("qvscan: " + utf8(result.project) + " names no file that could be listed\n");
    return ExitOk;
}

} // namespace

namespace {

// The project's scan, its result filled; ExitOk when it ran, else the exit code of what went wrong (told).
int scan_whole_project(const server_dll& dll, const options& o, vbp_result& result) {
    result.project = full_path(o.file);
    const std::wstring depFile = o.depFile.empty() ? std::wstring() : full_path(o.depFile);
    for (const std::wstring& file : {result.project, depFile}) {
        if (!file.empty() && !exists(file))
            return tell_missing_input(result, file, o.json);
    }
    vbp_sink sink(result, o.keepGoing);
    const qv::com_ptr<IUnknown> catalog = load_merge_modules(o);
    sink.catalog = catalog.get();
    // After the sink: released first, with the server's hold on the sink.
    const qv::com_ptr<IVBPScan> scan = make_scanner(dll);
    if (!scan)
        return ExitFailed;
    const HRESULT hr = scan_project(scan.get(), sink, result, depFile, o);
    sink.clear();
    if (hr == E_INVALIDARG) {
        err("qvscan: " + utf8(result.project) + " is neither a project (.vbp) nor a project group (.vbg)\n");
        return ExitUsage;
    }
    if (FAILED(hr)) {
        err("qvscan: scanning " + utf8(result.project) + " failed: " + failure_text(hr) + "\n");
        return ExitFailed;
    }
    result.groups = read_groups(scan.get(), result.project);
    result.completed = !result.stopped && !result.cancelled;
    return ExitOk;
}

std::vector<record> all_records(const vbp_result& result) {
    std::vector<record> all;
    for (const auto& group : result.groups)
        all.insert(all.end(), group.records.begin(), group.records.end());
    return all;
}

// The program a project builds: the first file of the project's own group when it is an image.
std::vector<std::wstring> project_programs(const vbp_result& result) {
    for (const auto& group : result.groups) {
        if (!group.isProject || group.records.empty() || group.records[0].missing)
            continue;
        const std::wstring name = qv::LowerCase(group.records[0].name);
        if (name.ends_with(L".exe") || name.ends_with(L".dll") || name.ends_with(L".ocx"))
            return {qv::JoinPath(group.records[0].path, group.records[0].name)};
    }
    return {};
}

} // namespace

int run_vbp(const server_dll& dll, const options& o) {
    vbp_result result;
    if (const int rc = scan_whole_project(dll, o, result); rc != ExitOk)
        return rc;
    const int rc = report(result, o.json);
    const std::vector<record> all = all_records(result);
    if (rc == ExitOk)
        write_wxs(plan_package(project_programs(result), all, o.keepDestinations), o);
    return rc != ExitOk ? rc : missing_verdict(o.failOnMissing, utf8(qv::FileNamePart(result.project)), all);
}

int project_closure(const server_dll& dll, const options& o, std::vector<std::wstring>& programs,
                    std::vector<record>& records) {
    vbp_result result;
    if (const int rc = scan_whole_project(dll, o, result); rc != ExitOk)
        return rc;
    if (!result.completed) {
        err("qvscan: the scan of " + utf8(result.project) + " stopped before its end; nothing is bundled\n");
        return result.cancelled ? ExitEnded : result.buildFailed ? ExitFailed : ExitNoFile;
    }
    programs = project_programs(result);
    records = all_records(result);
    if (programs.empty()) {
        err("qvscan: " + utf8(result.project) + " names no program that is there (build it first: --rebuild)\n");
        return ExitNoFile;
    }
    return ExitOk;
}

} // namespace qvscan
