// qvscan trace APP [ARGS...] and qvscan attach PID: a dynamic scan through the server's DepChecker. The
// tool is the checker's client: it advises its events, launches or attaches, and pumps messages (the
// engine's events reach the checker only then) until the application finishes, the time-out passes,
// Ctrl-C comes, or the engine process dies. The library does not watch its engine; the tool does, by
// the engine's process handle, so that a killed engine ends the run with a message instead of a hang.
// Every handle, the advise cookie and the console handler are owned, and undone on every path.
#include "commands.h"

#include "error_text.h"
#include "json_writer.h"
#include "linux_paths.h"
#include "merge_modules.h"
#include "progress.h"
#include "records.h"
#include "text_output.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"
#include "toolkit/process_launcher.h"

#include <windows.h>

#include <objbase.h>
#include <ocidl.h>
#include <oleauto.h>

#include <algorithm>
#include <cstdio>
#include <set>

namespace qvscan {

namespace {

// The checker's events: each module as it comes, children, and the end.
class trace_sink : public IDispatch {
public:
    explicit trace_sink(bool toStderr) : m_toStderr(toStderr) {}

    bool finished = false;
    std::vector<long> children;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) ||
            IsEqualIID(iid, DIID__IDepCheckerEvents)) {
            *ppv = static_cast<IDispatch*>(this);
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    // Lives on the stack of the command, longer than the checker.
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override { return count ? (*count = 0, S_OK) : E_POINTER; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*, EXCEPINFO*,
                                     UINT*) override {
        const VARIANT* first = params && params->cArgs ? &params->rgvarg[params->cArgs - 1] : nullptr;
        switch (id) {
        case 1: // DependencyFound
            if (first && V_VT(first) == VT_DISPATCH && V_DISPATCH(first))
                found(V_DISPATCH(first));
            break;
        case 2: // ApplicationFinished
            finished = true;
            break;
        case 3: // ChildProcessCreated
        case 4: // ChildProcessExit
            if (first && V_VT(first) == VT_I4) {
                if (id == 3)
                    children.push_back(V_I4(first));
                line("  child process " + std::to_string(V_I4(first)) + (id == 3 ? " started\n" : " ended\n"));
            }
            break;
        }
        return S_OK;
    }

private:
    void found(IDispatch* object) const {
        qv::com_ptr<IDepFile> file;
        object->QueryInterface(IID_IDepFile, file.put_void());
        if (!file)
            return;
        const record r = read_record(file.get());
        const std::wstring where = r.path.empty() ? r.name : qv::JoinPath(r.path, r.name);
        line("  loaded " + utf8(where) + (r.filterable ? "  (filterable)" : "") + "\n");
    }
    void line(const std::string& text) const { m_toStderr ? err(text) : out(text); }
    bool m_toStderr;
};

std::set<DWORD> process_ids() {
    std::set<DWORD> ids;
    for (const auto& [id, entry] : qv::detail::ReadProcessTree(false))
        ids.insert(id);
    return ids;
}

// The engine process this tool started (the newest TraceHost of ours), opened to be watched; empty when
// none is found.
qv::unique_handle find_own_engine(const std::set<DWORD>& before) {
    const DWORD self = GetCurrentProcessId();
    for (const auto& [id, entry] : qv::detail::ReadProcessTree(false)) {
        const std::wstring name = qv::LowerCase(entry.name);
        if (entry.parent == self && !before.count(id) && (name == L"tracehost64.exe" || name == L"tracehost.exe"))
            return qv::unique_handle(OpenProcess(SYNCHRONIZE, FALSE, id));
    }
    return {};
}

// Where the library looks for its engine: the services library's programs folder, which is the folder of
// the binaries unless QV_PROGRAMS_DIR says otherwise.
std::wstring engine_path(const server_dll& dll) {
    std::wstring folder;
    if (!qv::ReadEnvironment(L"QV_PROGRAMS_DIR", folder) || folder.empty())
        folder = qv::DirectoryPart(dll.path());
    SYSTEM_INFO info{};
    GetNativeSystemInfo(&info);
    return qv::JoinPath(folder, info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64 ? L"TraceHost64.exe"
                                                                                            : L"TraceHost.exe");
}

// With --json the standard output carries the document alone: the engine, and the target after it, inherit
// the error stream as their output while the owner lives.
class output_swap {
public:
    explicit output_swap(bool on) {
        if (on)
            SetStdHandle(STD_OUTPUT_HANDLE, GetStdHandle(STD_ERROR_HANDLE));
    }
    ~output_swap() { SetStdHandle(STD_OUTPUT_HANDLE, m_document); }
    output_swap(const output_swap&) = delete;
    output_swap& operator=(const output_swap&) = delete;

private:
    HANDLE m_document = GetStdHandle(STD_OUTPUT_HANDLE); // not owned: the process's standard output
};

// The checker's events advised to a sink while the owner lives.
class event_connection {
public:
    // False when the checker offers no events.
    bool advise(IDepChecker* checker, IDispatch* sink) {
        if (auto container =
                qv::com_ptr<IDepChecker>(checker).query<IConnectionPointContainer>(IID_IConnectionPointContainer))
            container->FindConnectionPoint(DIID__IDepCheckerEvents, m_point.put());
        return m_point && SUCCEEDED(m_point->Advise(sink, &m_cookie));
    }
    ~event_connection() {
        if (m_point && m_cookie)
            m_point->Unadvise(m_cookie);
    }

private:
    qv::com_ptr<IConnectionPoint> m_point;
    DWORD m_cookie = 0;
};

enum class ending { finished, timeout, interrupted, engineDied };

struct bag_records {
    std::wstring tag;
    std::vector<record> records;
};

// What a run leaves for the report.
struct trace_result {
    std::wstring application; // trace: the target's full path
    ending how = ending::finished;
    ULONGLONG engineUp = 0, ran = 0; // ms: the engine started and connected; the run
    std::vector<long> children;
    std::vector<bag_records> bags;
};

void dispatch_messages() {
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
        DispatchMessageW(&message);
}

// Pumps until the end comes; after a time-out or Ctrl-C the target is terminated and its end awaited (an
// attached process is let go instead).
ending pump(IDepChecker* checker, const trace_sink& sink, console_interrupt& interrupt, HANDLE engine,
            const options& o) {
    const bool trace = o.command == L"trace";
    ending how = ending::finished;
    ULONGLONG deadline = o.timeout > 0 ? GetTickCount64() + static_cast<ULONGLONG>(o.timeout * 1000) : ~0ull;
    const HANDLE waits[2] = {interrupt.event(), engine};
    const DWORD waitCount = engine ? 2 : 1;
    while (!sink.finished) {
        const ULONGLONG now = GetTickCount64();
        if (now >= deadline) {
            if (how != ending::finished || !trace) {
                how = how == ending::finished ? ending::timeout : how;
                break; // the target did not end in time after being told, or an attached process is let go
            }
            how = ending::timeout;
            checker->Terminate();
            deadline = now + 10000;
            continue;
        }
        const DWORD slice = static_cast<DWORD>(std::min<ULONGLONG>(deadline - now, 500));
        const DWORD woke = MsgWaitForMultipleObjects(waitCount, waits, FALSE, slice, QS_ALLINPUT);
        if (woke == WAIT_OBJECT_0 && how == ending::finished) {
            how = ending::interrupted;
            if (!trace)
                break;
            interrupt.reset();
            checker->Terminate();
            deadline = GetTickCount64() + 10000;
        } else if (woke == WAIT_OBJECT_0 + 1 && waitCount == 2) {
            dispatch_messages(); // what the engine sent before it died
            if (!sink.finished)
                how = ending::engineDied;
            break;
        }
        dispatch_messages();
    }
    return how;
}

// Launches or attaches, and pumps with Ctrl-C caught while it runs.
void launch_and_pump(IDepChecker* checker, const trace_sink& sink, HANDLE engine, const options& o,
                     trace_result& result) {
    console_interrupt interrupt;
    if (o.command == L"trace") {
        const std::wstring directory = o.directory.empty() ? std::wstring() : full_path(o.directory);
        (o.json ? err : out)("tracing " + utf8(result.application) + "\n");
        check_hr(checker->Launch(qv::bstr(result.application).get(), qv::bstr(quote_arguments(o.arguments)).get(),
                                 qv::bstr(directory).get(),
                                 o.thisProcessOnly ? ThisProcessOnly : ChildProcessesIncluded));
    } else {
        (o.json ? err : out)("attached to process " + std::to_string(o.processId) + "\n");
        check_hr(checker->AttachProcess(static_cast<long>(o.processId)));
    }
    const ULONGLONG start = GetTickCount64();
    result.how = pump(checker, sink, interrupt, engine, o);
    result.ran = GetTickCount64() - start;
}

std::vector<bag_records> read_bags(IDepChecker* checker) {
    qv::com_ptr<IDepFileBags> bags;
    check_hr(checker->get_Dependencies(bags.put()));
    std::vector<bag_records> all;
    long count = 0;
    check_hr(bags->get_Count(&count));
    for (long i = 1; i <= count; ++i) {
        qv::com_ptr<IDepFileBag> bag;
        qv::com_ptr<IDepFiles> files;
        qv::bstr tag;
        check_hr(bags->get_Item(item_index(i), bag.put()));
        check_hr(bag->get_TagName(tag.put()));
        check_hr(bag->get_Files(files.put()));
        all.push_back({tag.str(), read_all(files.get())});
        for (record& r : all.back().records)
            r.via = "run";
    }
    return all;
}

// The checker, made; null after a failure, which is told.
qv::com_ptr<IDepChecker> make_checker(const server_dll& dll) {
    qv::com_ptr<IClassFactory> factory;
    check_hr(dll.factory(CLSID_DepChecker, factory.put()));
    qv::com_ptr<IDepChecker> checker;
    const HRESULT created = factory->CreateInstance(nullptr, IID_IDepChecker, checker.put_void());
    if (SUCCEEDED(created))
        return checker;
    if (created == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND))
        err("qvscan: the debug engine " + utf8(engine_path(dll)) + " cannot be started: " + describe(created) + "\n");
    else
        err("qvscan: the dynamic scanner cannot be made: " + describe(created) + "\n");
    return {};
}

// The whole run, up to the records it left; false after a failure, which is told.
bool run_checker(const server_dll& dll, const options& o, trace_result& result) {
    const output_swap swap(o.json);
    trace_sink sink(o.json); // before the checker: it outlives the checker's hold on it
    const ULONGLONG made = GetTickCount64();
    const std::set<DWORD> before = process_ids();
    const qv::com_ptr<IDepChecker> checker = make_checker(dll);
    if (!checker)
        return false;
    result.engineUp = GetTickCount64() - made;
    const qv::unique_handle engine = find_own_engine(before);
    event_connection events; // unadvised before the checker goes
    if (!events.advise(checker.get(), &sink)) {
        err("qvscan: the dynamic scanner offers no events\n");
        return false;
    }
    check_hr(checker->put_Filtering(o.filter ? VARIANT_TRUE : VARIANT_FALSE));
    if (const qv::com_ptr<IUnknown> catalog = load_merge_modules(o))
        check_hr(checker.query<IDepCheckerTarn>(IID_IDepCheckerTarn)->put_MMCatalog(catalog.get()));
    if (!o.tag.empty())
        check_hr(checker->put_CurrentTagName(qv::bstr(o.tag).get()));
    launch_and_pump(checker.get(), sink, engine.get(), o, result);
    result.bags = read_bags(checker.get());
    result.children = sink.children;
    return true;
}

const json_layout trace_layout{{"", "bags", "bags/*/dependencies"}};

void print_result(const trace_result& r, const options& o) {
    static const char* const endings[] = {"finished", "time-out", "interrupted", "engine-died"};
    if (o.json) {
        json bags = json::array();
        for (const bag_records& bag : r.bags)
            bags.push_back({{"tag", utf8(bag.tag)}, {"dependencies", records_json(bag.records)}});
        const bool trace = o.command == L"trace";
        print_json({{trace ? "application" : "process", trace ? json(utf8(r.application)) : json(o.processId)},
                    {"ended", endings[static_cast<int>(r.how)]},
                    {"engineStartMs", r.engineUp},
                    {"runMs", r.ran},
                    {"children", r.children},
                    {"bags", bags}},
                   trace_layout);
        return;
    }
    for (const bag_records& bag : r.bags) {
        if (r.bags.size() > 1 || !bag.tag.empty())
            out("\nbag '" + utf8(bag.tag) + "':\n");
        out(records_table(bag.records));
        out(std::to_string(bag.records.size()) + " files loaded " + marks_legend + "\n");
    }
}

// How the run ended, told; the exit code.
int tell_ending(ending how, const options& o) {
    const char* const target = o.command == L"trace" ? "the target was ended" : "the process was let go";
    switch (how) {
    case ending::finished:
        return ExitOk;
    case ending::timeout:
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g", o.timeout);
        err(std::string("qvscan: the time-out of ") + seconds + " s passed; " + target +
            ", and what it loaded until then is listed\n");
        return ExitEnded;
    case ending::interrupted:
        err(std::string("qvscan: interrupted; ") + target + ", and what it loaded until then is listed\n");
        return ExitEnded;
    case ending::engineDied:
        err("qvscan: the debug engine ended before the target did; what was recorded until then is listed\n");
        return ExitFailed;
    }
    return ExitFailed;
}

// Whether the target can be traced (told when not); the exit code, or ExitOk to go on.
int check_target(const options& o, trace_result& result) {
    if (o.command == L"trace") {
        result.application = full_path(o.file);
        if (!exists(result.application)) {
            err("qvscan: " + utf8(result.application) + ": " + not_a_file(result.application) + "\n");
            return ExitNoFile;
        }
        return ExitOk;
    }
    if (o.processId == GetCurrentProcessId()) {
        err("qvscan: process " + std::to_string(o.processId) + " is qvscan itself\n");
        return ExitUsage;
    }
    const qv::unique_handle target(OpenProcess(SYNCHRONIZE, FALSE, o.processId));
    if (!target) {
        err("qvscan: no process with the ID " + std::to_string(o.processId) +
            " can be reached: " + describe(HRESULT_FROM_WIN32(GetLastError())) + "\n");
        return ExitNoFile;
    }
    return ExitOk;
}

} // namespace

int run_trace(const server_dll& dll, const options& o) {
    trace_result result;
    if (const int rc = check_target(o, result); rc != ExitOk)
        return rc;
    if (!run_checker(dll, o, result))
        return ExitFailed;
    print_result(result, o);
    const int rc = tell_ending(result.how, o);
    std::vector<record> all;
    for (const bag_records& bag : result.bags)
        all.insert(all.end(), bag.records.begin(), bag.records.end());
    const std::string subject = o.command == L"trace" ? utf8(qv::FileNamePart(result.application))
                                                       : "process " + std::to_string(o.processId);
    return rc != ExitOk ? rc : missing_verdict(o.failOnMissing, subject, all);
}

} // namespace qvscan
