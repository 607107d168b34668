// qvscan trace APP [ARGS...] and qvscan attach PID: a dynamic scan through the server's DepChecker. The
// tool is the checker's client: it advises its events, launches or attaches, and pumps messages (the
// engine's events reach the checker only then) until the application finishes, the time-out passes,
// Ctrl-C comes, or the engine process dies. The library does not watch its engine; the tool does, by
// the engine's process handle, so that a killed engine ends the run with a message instead of a hang.
#include "qvscan.h"

#include "toolkit/path_helpers.h"
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

HANDLE g_interrupt = nullptr; // set by Ctrl-C

BOOL WINAPI OnConsoleControl(DWORD type) {
    if (type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT) {
        SetEvent(g_interrupt);
        return TRUE;
    }
    return FALSE;
}

// One argument as the target's C runtime will split it back out of its command line.
std::wstring quote_argument(const std::wstring& argument) {
    if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos)
        return argument;
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(backslashes * 2, L'\\');
    return quoted + L"\"";
}

// The checker's events: each module as it comes, children, and the end.
class trace_sink : public IDispatch {
public:
    explicit trace_sink(bool toStderr) : m_toStderr(toStderr) {}

    bool finished = false;
    size_t modules = 0;
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
            if (first && V_VT(first) == VT_DISPATCH && V_DISPATCH(first)) {
                qv::com_ptr<IDepFile> file;
                V_DISPATCH(first)->QueryInterface(IID_IDepFile, file.put_void());
                if (file) {
                    ++modules;
                    const record r = read_record(file.get());
                    const std::wstring where = r.path.empty() ? r.name : qv::JoinPath(r.path, r.name);
                    line("  loaded " + utf8(where) + (r.filterable ? "  (filterable)" : "") + "\n");
                }
            }
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
    void line(const std::string& text) const { m_toStderr ? err(text) : out(text); }
    bool m_toStderr;
};

// The engine process this tool started (the newest TraceHost of ours), opened to be watched; null when
// none is found.
HANDLE FindOwnEngine(const std::set<DWORD>& before) {
    const DWORD self = GetCurrentProcessId();
    for (const auto& [id, entry] : qv::detail::ReadProcessTree(false)) {
        const std::wstring name = lower(entry.name);
        if (entry.parent == self && !before.count(id) && (name == L"tracehost64.exe" || name == L"tracehost.exe"))
            return OpenProcess(SYNCHRONIZE, FALSE, id);
    }
    return nullptr;
}

std::set<DWORD> ProcessIds() {
    std::set<DWORD> ids;
    for (const auto& [id, entry] : qv::detail::ReadProcessTree(false))
        ids.insert(id);
    return ids;
}

// Where the library looks for its engine: the services library's programs folder, which is the folder of
// the binaries unless QV_PROGRAMS_DIR says otherwise.
std::wstring EnginePath(const server_dll& dll) {
    wchar_t buffer[MAX_PATH * 4];
    const DWORD n = GetEnvironmentVariableW(L"QV_PROGRAMS_DIR", buffer, static_cast<DWORD>(std::size(buffer)));
    std::wstring folder = n > 0 && n < std::size(buffer) ? std::wstring(buffer, n) : qv::DirectoryPart(dll.path());
    SYSTEM_INFO info{};
    GetNativeSystemInfo(&info);
    return qv::JoinPath(folder, info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64 ? L"TraceHost64.exe"
                                                                                            : L"TraceHost.exe");
}

enum class ending { finished, timeout, interrupted, engineDied };

} // namespace

int run_trace(const server_dll& dll, const options& o) {
    const bool trace = o.command == L"trace";
    std::wstring application;
    if (trace) {
        application = full_path(o.file);
        if (!exists(application)) {
            err("qvscan: " + utf8(application) + ": " + not_a_file(application) + "\n");
            return ExitNoFile;
        }
    } else {
        if (o.processId == GetCurrentProcessId()) {
            err("qvscan: process " + std::to_string(o.processId) + " is qvscan itself\n");
            return ExitUsage;
        }
        HANDLE target = OpenProcess(SYNCHRONIZE, FALSE, o.processId);
        if (!target) {
            err("qvscan: no process with the ID " + std::to_string(o.processId) +
                " can be reached: " + describe(HRESULT_FROM_WIN32(GetLastError())) + "\n");
            return ExitNoFile;
        }
        CloseHandle(target);
    }

    // With --json the standard output carries the document alone: the engine, and the target after it,
    // inherit the error stream as their output.
    struct output_swap {
        HANDLE document = GetStdHandle(STD_OUTPUT_HANDLE);
        explicit output_swap(bool on) {
            if (on)
                SetStdHandle(STD_OUTPUT_HANDLE, GetStdHandle(STD_ERROR_HANDLE));
        }
        ~output_swap() { SetStdHandle(STD_OUTPUT_HANDLE, document); }
    } swap(o.json);

    const ULONGLONG made = GetTickCount64();
    const std::set<DWORD> before = ProcessIds();
    qv::com_ptr<IClassFactory> factory;
    check_hr(dll.factory(CLSID_DepChecker, factory.put()));
    qv::com_ptr<IDepChecker> checker;
    const HRESULT created = factory->CreateInstance(nullptr, IID_IDepChecker, checker.put_void());
    if (FAILED(created)) {
        if (created == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND))
            err("qvscan: the debug engine " + utf8(EnginePath(dll)) + " cannot be started: " + describe(created) +
                "\n");
        else
            err("qvscan: the dynamic scanner cannot be made: " + describe(created) + "\n");
        return ExitFailed;
    }
    const ULONGLONG engineUp = GetTickCount64() - made; // the engine started and connected
    HANDLE engine = FindOwnEngine(before);

    trace_sink sink(o.json);
    qv::com_ptr<IConnectionPoint> point;
    DWORD cookie = 0;
    if (auto container = checker.query<IConnectionPointContainer>(IID_IConnectionPointContainer))
        container->FindConnectionPoint(DIID__IDepCheckerEvents, point.put());
    if (!point || FAILED(point->Advise(static_cast<IDispatch*>(&sink), &cookie))) {
        err("qvscan: the dynamic scanner offers no events\n");
        return ExitFailed;
    }
    check_hr(checker->put_Filtering(o.filter ? VARIANT_TRUE : VARIANT_FALSE));
    if (const qv::com_ptr<IUnknown> catalog = load_merge_modules(o))
        check_hr(checker.query<IDepCheckerTarn>(IID_IDepCheckerTarn)->put_MMCatalog(catalog.get()));
    if (!o.tag.empty())
        check_hr(checker->put_CurrentTagName(qv::bstr(o.tag).get()));

    g_interrupt = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(OnConsoleControl, TRUE);
    if (trace) {
        std::wstring parameters;
        for (const std::wstring& a : o.arguments)
            parameters += (parameters.empty() ? L"" : L" ") + quote_argument(a);
        const std::wstring directory = o.directory.empty() ? std::wstring() : full_path(o.directory);
        (o.json ? err : out)("tracing " + utf8(application) + "\n");
        check_hr(checker->Launch(qv::bstr(application).get(), qv::bstr(parameters).get(), qv::bstr(directory).get(),
                                 o.thisProcessOnly ? ThisProcessOnly : ChildProcessesIncluded));
    } else {
        (o.json ? err : out)("attached to process " + std::to_string(o.processId) + "\n");
        check_hr(checker->AttachProcess(static_cast<long>(o.processId)));
    }

    // Pump until the end comes; after a time-out or Ctrl-C the target is terminated and its end awaited.
    ending how = ending::finished;
    const ULONGLONG start = GetTickCount64();
    ULONGLONG deadline = o.timeout > 0 ? start + static_cast<ULONGLONG>(o.timeout * 1000) : ~0ull;
    HANDLE waits[2] = {g_interrupt, engine};
    const DWORD waitCount = engine ? 2 : 1;
    while (!sink.finished) {
        const ULONGLONG now = GetTickCount64();
        if (now >= deadline) {
            if (how != ending::finished)
                break; // the target did not end in time after being told
            how = ending::timeout;
            if (!trace)
                break; // an attached process is let go, not ended
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
            ResetEvent(g_interrupt);
            checker->Terminate();
            deadline = GetTickCount64() + 10000;
        } else if (woke == WAIT_OBJECT_0 + 1 && waitCount == 2) {
            MSG message; // what the engine sent before it died
            while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
                DispatchMessageW(&message);
            if (!sink.finished)
                how = ending::engineDied;
            break;
        }
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageW(&message);
    }
    SetConsoleCtrlHandler(OnConsoleControl, FALSE);
    const ULONGLONG ran = GetTickCount64() - start;

    qv::com_ptr<IDepFileBags> bags;
    check_hr(checker->get_Dependencies(bags.put()));
    struct bag_records {
        std::wstring tag;
        std::vector<record> records;
    };
    std::vector<bag_records> all;
    long count = 0;
    check_hr(bags->get_Count(&count));
    for (long i = 1; i <= count; ++i) {
        VARIANT index;
        V_VT(&index) = VT_I4;
        V_I4(&index) = i;
        qv::com_ptr<IDepFileBag> bag;
        qv::com_ptr<IDepFiles> files;
        qv::bstr tag;
        check_hr(bags->get_Item(index, bag.put()));
        check_hr(bag->get_TagName(tag.put()));
        check_hr(bag->get_Files(files.put()));
        all.push_back({tag.str(), read_all(files.get())});
        for (record& r : all.back().records)
            r.via = "run";
    }
    point->Unadvise(cookie);
    point.reset();
    checker.reset();
    CloseHandle(g_interrupt);
    if (engine)
        CloseHandle(engine);

    SetStdHandle(STD_OUTPUT_HANDLE, swap.document);
    static const char* const endings[] = {"finished", "time-out", "interrupted", "engine-died"};
    const char* ended = endings[static_cast<int>(how)];
    if (o.json) {
        std::string s = "{\n  \"" + std::string(trace ? "application" : "process") +
                        "\": " + (trace ? json_string(application) : std::to_string(o.processId)) +
                        ",\n  \"ended\": \"" + ended + "\",\n  \"engineStartMs\": " + std::to_string(engineUp) +
                        ",\n  \"runMs\": " + std::to_string(ran) + ",\n  \"children\": [";
        for (size_t i = 0; i < sink.children.size(); ++i)
            s += (i ? ", " : "") + std::to_string(sink.children[i]);
        s += "],\n  \"bags\": [";
        for (size_t b = 0; b < all.size(); ++b) {
            s += std::string(b ? "," : "") + "\n    {\"tag\": " + json_string(all[b].tag) + ", \"dependencies\": [";
            for (size_t i = 0; i < all[b].records.size(); ++i)
                s += (i ? ",\n" : "\n") + json_record(all[b].records[i], "      ");
            s += std::string(all[b].records.empty() ? "" : "\n    ") + "]}";
        }
        s += std::string(all.empty() ? "" : "\n  ") + "]\n}\n";
        out(s);
    } else {
        for (const bag_records& bag : all) {
            if (all.size() > 1 || !bag.tag.empty())
                out("\nbag '" + utf8(bag.tag) + "':\n");
            table t({"NAME", "FOLDER", "VERSION", "SIZE", "MARKS"});
            for (const record& r : bag.records)
                t.add({utf8(r.name), utf8(r.path), utf8(version_text(r.major, r.minor)),
                       r.missing ? "" : std::to_string(r.size), marks(r)});
            out(t.render());
            out(std::to_string(bag.records.size()) + " files loaded (marks: M missing, F filterable, G merge module, S "
                                                     "shared, R self-registering)\n");
        }
    }
    switch (how) {
    case ending::finished:
        return ExitOk;
    case ending::timeout:
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g", o.timeout);
        err(std::string("qvscan: the time-out of ") + seconds + " s passed; " +
            (trace ? "the target was ended" : "the process was let go") +
            ", and what it loaded until then is listed\n");
        return ExitEnded;
    case ending::interrupted:
        err(std::string("qvscan: interrupted; ") + (trace ? "the target was ended" : "the process was let go") +
            ", and what it loaded until then is listed\n");
        return ExitEnded;
    case ending::engineDied:
        err("qvscan: the debug engine ended before the target did; what was recorded until then is listed\n");
        return ExitFailed;
    }
    return ExitFailed;
}

} // namespace qvscan
