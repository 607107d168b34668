// TraceHost64.exe: the debug engine of the dynamic scan, a GUI-subsystem program with a message loop.
//   TraceHost64.exe {CLASS}:{INSTANCE}
// Its first act registers its engine object in the running object table under the item moniker "!" +
// INSTANCE. The object answers IDispatch (Launch 1, AttachProcess 2, Terminate 3) and offers a connection
// point for _IQvDebugEngineEvents. A thread of its own debugs the target with the Win32 debug API and posts
// what it sees to a message-only window, so that every event is fired from the engine's STA thread.
// The engine ends when its last client connection goes, and also when the client process (its parent)
// dies; either way it ends its debuggees first, so that no process is left behind.
#include "QVWIScanners.h"
#include "inc/com_ptr.h"
#include "inc/engine_wire.h"
#include "inc/unique_handles.h"

#include <windows.h>

#include <objbase.h>
#include <oleauto.h>
#include <olectl.h>
#include <tlhelp32.h>

#include <atomic>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

namespace command = qv::engine::command;
namespace event = qv::engine::event;

constexpr UINT WM_ENGINE_EVENT = WM_APP + 1;

struct engine_event {
    DISPID kind; // one of qv::engine::event
    std::wstring path;
    LONG values[4] = {};
};

HWND g_window = nullptr;
DWORD g_parentId = 0;   // the client that started the engine
LONG g_connections = 0; // strong external connections of the clients
bool g_everConnected = false;

void Post(engine_event* e) {
    if (!PostMessageW(g_window, WM_ENGINE_EVENT, 0, reinterpret_cast<LPARAM>(e)))
        delete e;
}

// The Windows path of a module file opened by the debug API; empty when the system cannot say.
std::wstring PathOf(HANDLE file) {
    wchar_t buffer[4096];
    DWORD n = file ? GetFinalPathNameByHandleW(file, buffer, 4096, VOLUME_NAME_DOS) : 0;
    if (n == 0 || n >= 4096)
        return {};
    std::wstring path(buffer, n);
    if (path.rfind(L"\\\\?\\UNC\\", 0) == 0)
        path = L"\\\\" + path.substr(8);
    else if (path.rfind(L"\\\\?\\", 0) == 0)
        path = path.substr(4);
    // Wine keeps its own system DLLs in folders of its installation; programs see them in the system folders.
    const size_t slash = path.find_last_of(L'\\');
    const std::wstring folder = slash == std::wstring::npos ? L"" : path.substr(0, slash);
    auto endsWith = [&](const wchar_t* tail) {
        const size_t n = wcslen(tail);
        return folder.size() >= n && _wcsicmp(folder.c_str() + folder.size() - n, tail) == 0;
    };
    wchar_t system[MAX_PATH];
    if (endsWith(L"\\x86_64-windows") && GetSystemDirectoryW(system, MAX_PATH))
        return std::wstring(system) + path.substr(slash);
    if (endsWith(L"\\i386-windows") && GetSystemWow64DirectoryW(system, MAX_PATH))
        return std::wstring(system) + path.substr(slash);
    return path;
}

// The debugging of one target on a thread of its own.
class debugger {
public:
    // Starts the thread; false when a target is already being debugged.
    bool Start(std::wstring commandLine, std::wstring directory, LONG flags, DWORD attach) {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_running)
            return false;
        m_thread.reset(); // the thread of an earlier target, ended
        m_running = true;
        m_commandLine = std::move(commandLine), m_directory = std::move(directory), m_flags = flags, m_attach = attach;
        m_ready.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        m_thread.reset(CreateThread(nullptr, 0, &debugger::Run, this, 0, nullptr));
        WaitForSingleObject(m_ready.get(), 30000); // the start's result is known once the thread has tried
        m_ready.reset();
        return m_started;
    }
    void TerminateAll() {
        std::lock_guard<std::mutex> lock(m_lock);
        for (auto& [id, process] : m_processes)
            TerminateProcess(process, 1);
    }
    // Ends the debuggees it started, lets an attached one go on, and waits for the thread.
    void Stop() {
        m_stopping = true;
        if (!m_attach)
            TerminateAll();
        qv::unique_handle thread;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            thread = std::move(m_thread);
        }
        if (thread)
            WaitForSingleObject(thread.get(), 10000);
    }

private:
    static DWORD WINAPI Run(void* self) { return static_cast<debugger*>(self)->Loop(); }

    DWORD Loop() {
        m_started = Begin();
        SetEvent(m_ready.get());
        if (!m_started) {
            m_running = false;
            Post(new engine_event{event::application_finished, {}});
            return 0;
        }
        Follow();
        Post(new engine_event{event::application_finished, {}});
        m_running = false;
        return 0;
    }

    // Attaches to the target, or starts it under the debugger; false when that fails.
    bool Begin() {
        if (m_attach) {
            if (!DebugActiveProcess(m_attach))
                return false;
            DebugSetProcessKillOnExit(FALSE); // a process the engine did not start outlives it
            return true;
        }
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION info{};
        const DWORD how = m_flags == qv::engine::launch_this_process_only ? DEBUG_ONLY_THIS_PROCESS : DEBUG_PROCESS;
        if (!CreateProcessW(nullptr, m_commandLine.data(), nullptr, nullptr, FALSE, how, nullptr,
                            m_directory.empty() ? nullptr : m_directory.c_str(), &startup, &info))
            return false;
        const qv::unique_process_information started(info); // the debug events bring handles of their own
        return true;
    }

    // Takes the debug events until the last debuggee has gone (or, attached, until the engine stops).
    void Follow() {
        DWORD root = 0;
        for (;;) {
            DEBUG_EVENT e{};
            if (!WaitForDebugEvent(&e, 200)) {
                if (GetLastError() != ERROR_SEM_TIMEOUT && GetLastError() != WAIT_TIMEOUT)
                    break;
                if (m_stopping && m_attach) { // only the debugging thread may let its debuggee go
                    DebugActiveProcessStop(m_attach);
                    break;
                }
                continue;
            }
            ContinueDebugEvent(e.dwProcessId, e.dwThreadId, OnEvent(e, root));
            std::lock_guard<std::mutex> lock(m_lock);
            if (m_processes.empty() && root != 0)
                break;
        }
    }

    // Posts what one debug event means to the engine's clients; how the debuggee goes on.
    DWORD OnEvent(const DEBUG_EVENT& e, DWORD& root) {
        switch (e.dwDebugEventCode) {
        case CREATE_PROCESS_DEBUG_EVENT:
            OnProcessCreated(e, root);
            break;
        case LOAD_DLL_DEBUG_EVENT:
            OnDllLoaded(e);
            break;
        case UNLOAD_DLL_DEBUG_EVENT: {
            // The event names only the base address: the path is the one its load reported.
            auto it = m_modules.find({e.dwProcessId, e.u.UnloadDll.lpBaseOfDll});
            if (it != m_modules.end()) {
                Post(new engine_event{event::unload_dll, it->second});
                m_modules.erase(it);
            }
            break;
        }
        case EXIT_PROCESS_DEBUG_EVENT:
            OnProcessExit(e, root);
            break;
        case EXCEPTION_DEBUG_EVENT:
            // The loader's own breakpoint goes on; any other exception is the debuggee's to handle.
            if (e.u.Exception.ExceptionRecord.ExceptionCode != EXCEPTION_BREAKPOINT || !e.u.Exception.dwFirstChance)
                return DBG_EXCEPTION_NOT_HANDLED;
            break;
        default:
            break;
        }
        return DBG_CONTINUE;
    }

    // The debug events' file handles are NULL when the system has none: unique_handle's empty value.
    void OnProcessCreated(const DEBUG_EVENT& e, DWORD& root) {
        const qv::unique_handle file(e.u.CreateProcessInfo.hFile);
        std::lock_guard<std::mutex> lock(m_lock);
        m_processes[e.dwProcessId] = e.u.CreateProcessInfo.hProcess;
        if (root == 0)
            root = e.dwProcessId;
        else
            Post(new engine_event{event::child_process_created, {}, {LONG(e.dwProcessId), 0, LONG(e.dwThreadId), 0}});
    }

    void OnDllLoaded(const DEBUG_EVENT& e) {
        const qv::unique_handle file(e.u.LoadDll.hFile);
        std::wstring path = ImageName(ProcessOf(e.dwProcessId), e.u.LoadDll);
        if (path.empty())
            path = PathOf(file.get());
        if (!path.empty()) {
            m_modules[{e.dwProcessId, e.u.LoadDll.lpBaseOfDll}] = path;
            Post(new engine_event{event::load_dll, path});
        }
    }

    void OnProcessExit(const DEBUG_EVENT& e, DWORD root) {
        std::lock_guard<std::mutex> lock(m_lock);
        m_processes.erase(e.dwProcessId);
        m_modules.erase(m_modules.lower_bound({e.dwProcessId, nullptr}),
                        m_modules.lower_bound({e.dwProcessId + 1, nullptr}));
        if (e.dwProcessId != root)
            Post(new engine_event{event::child_process_exit, {}, {LONG(e.dwProcessId)}});
    }

    HANDLE ProcessOf(DWORD id) {
        std::lock_guard<std::mutex> lock(m_lock);
        auto it = m_processes.find(id);
        return it == m_processes.end() ? nullptr : it->second;
    }

    // The name the loader gave the module in the debuggee, as the debug API points at it: the Windows path,
    // also of a module that Wine keeps elsewhere on disk. Empty when it cannot be read.
    static std::wstring ImageName(HANDLE process, const LOAD_DLL_DEBUG_INFO& info) {
        void* address = nullptr;
        SIZE_T got = 0;
        if (!process || !info.lpImageName ||
            !ReadProcessMemory(process, info.lpImageName, &address, sizeof address, &got) || !address)
            return {};
        wchar_t buffer[1024];
        char narrow[1024];
        if (info.fUnicode) {
            if (!ReadProcessMemory(process, address, buffer, sizeof buffer - sizeof(wchar_t), &got) &&
                !ReadProcessMemory(process, address, buffer, 520, &got))
                return {};
            buffer[got / sizeof(wchar_t)] = 0;
            return buffer;
        }
        if (!ReadProcessMemory(process, address, narrow, sizeof narrow - 1, &got))
            return {};
        narrow[got] = 0;
        const int n = MultiByteToWideChar(CP_ACP, 0, narrow, -1, buffer, 1024);
        return n > 0 ? buffer : L"";
    }

    std::mutex m_lock;
    qv::unique_handle m_thread, m_ready;
    bool m_started = false;
    std::atomic<bool> m_running{false}, m_stopping{false};
    std::wstring m_commandLine, m_directory;
    LONG m_flags = qv::engine::launch_default;
    DWORD m_attach = 0;
    std::map<DWORD, HANDLE> m_processes;                       // owned by the debug API
    std::map<std::pair<DWORD, void*>, std::wstring> m_modules; // by process and base address
};

debugger g_debugger;

// QueryInterface of an object that lives as long as the engine: the interface of the table asked for.
HRESULT AnswerQuery(REFIID iid, void** ppv, std::initializer_list<std::pair<const IID*, IUnknown*>> table) {
    if (!ppv)
        return E_POINTER;
    for (const auto& [known, answer] : table)
        if (IsEqualIID(iid, *known))
            return *ppv = answer, answer->AddRef(), S_OK;
    return *ppv = nullptr, E_NOINTERFACE;
}

// Counts the strong connections of the clients to an object; the last one to go ends the engine.
class connection_counter : public IExternalConnection {
public:
    DWORD STDMETHODCALLTYPE AddConnection(DWORD type, DWORD) override {
        if (type & EXTCONN_STRONG)
            ++g_connections, g_everConnected = true;
        return g_connections;
    }
    DWORD STDMETHODCALLTYPE ReleaseConnection(DWORD type, DWORD, BOOL) override {
        if ((type & EXTCONN_STRONG) && --g_connections == 0 && g_everConnected)
            PostQuitMessage(0);
        return g_connections;
    }
};

class connection_point : public IConnectionPoint, public connection_counter {
public:
    explicit connection_point(IConnectionPointContainer* owner) : m_owner(owner) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        IUnknown* self = static_cast<IConnectionPoint*>(this);
        return AnswerQuery(iid, ppv, {{&IID_IUnknown, self}, {&IID_IConnectionPoint, self},
                                      {&IID_IExternalConnection, static_cast<IExternalConnection*>(this)}});
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; } // lives as long as the engine
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID* iid) override {
        return iid ? (*iid = DIID__IQvDebugEngineEvents, S_OK) : E_POINTER;
    }
    HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(IConnectionPointContainer** owner) override {
        return owner ? (*owner = m_owner, m_owner->AddRef(), S_OK) : E_POINTER;
    }
    HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) override {
        if (!sink || !cookie)
            return E_POINTER;
        qv::com_ptr<IDispatch> events;
        // Without the type library registered the proxy knows only IDispatch.
        if (FAILED(sink->QueryInterface(DIID__IQvDebugEngineEvents, events.put_void())) &&
            FAILED(sink->QueryInterface(IID_IDispatch, events.put_void())))
            return CONNECT_E_CANNOTCONNECT;
        *cookie = ++m_next;
        m_sinks[*cookie] = std::move(events);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override {
        auto it = m_sinks.find(cookie);
        if (it == m_sinks.end())
            return CONNECT_E_NOCONNECTION;
        m_sinks.erase(it);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections**) override { return E_NOTIMPL; }

    void Fire(const engine_event& e) {
        VARIANT args[4];
        UINT count = 0;
        qv::bstr path; // the text the argument points at
        if (e.kind == event::load_dll || e.kind == event::unload_dll) {
            path = qv::bstr::adopt(SysAllocString(e.path.c_str()));
            V_VT(&args[0]) = VT_BSTR, V_BSTR(&args[0]) = path.get(), count = 1;
        } else if (e.kind == event::child_process_created) {
            for (UINT i = 0; i < 4; ++i) // reverse order: ThreadHandle, ThreadID, ProcessHandle, ProcessID
                V_VT(&args[i]) = VT_I4, V_I4(&args[i]) = e.values[3 - i];
            count = 4;
        } else if (e.kind == event::child_process_exit) {
            V_VT(&args[0]) = VT_I4, V_I4(&args[0]) = e.values[0], count = 1;
        }
        DISPPARAMS params{args, nullptr, count, 0};
        const auto sinks = m_sinks; // a sink may unadvise while it is called
        for (const auto& [cookie, sink] : sinks)
            sink->Invoke(e.kind, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr);
    }
    void ReleaseAll() { m_sinks.clear(); }

private:
    IConnectionPointContainer* m_owner;
    std::map<DWORD, qv::com_ptr<IDispatch>> m_sinks;
    DWORD m_next = 0;
};

class engine : public IDispatch, public IConnectionPointContainer, public connection_counter {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        IUnknown* self = static_cast<IDispatch*>(this);
        return AnswerQuery(iid, ppv, {{&IID_IUnknown, self}, {&IID_IDispatch, self},
                                      {&IID_IConnectionPointContainer, static_cast<IConnectionPointContainer*>(this)},
                                      {&IID_IExternalConnection, static_cast<IExternalConnection*>(this)}});
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; } // lives as long as the program
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override { return count ? (*count = 0, S_OK) : E_POINTER; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
        static const std::pair<const wchar_t*, DISPID> known[] = {
            {L"Launch", command::launch},
            {L"AttachProcess", command::attach_process},
            {L"Terminate", command::terminate},
            {L"Report", command::report}};
        HRESULT hr = S_OK;
        for (UINT i = 0; i < count; ++i) {
            ids[i] = DISPID_UNKNOWN;
            for (const auto& [known_name, known_id] : known)
                if (i == 0 && _wcsicmp(names[i], known_name) == 0)
                    ids[i] = known_id;
            hr = ids[i] == DISPID_UNKNOWN ? DISP_E_UNKNOWNNAME : hr;
        }
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT* result, EXCEPINFO*,
                                     UINT*) override {
        if (result)
            VariantInit(result);
        const UINT count = params ? params->cArgs : 0;
        auto text = [&](UINT i) { // argument i, from the first, as text; empty when it is not given
            qv::unique_variant v;
            std::wstring out;
            if (i < count && SUCCEEDED(VariantChangeType(v.get(), &params->rgvarg[count - 1 - i], 0, VT_BSTR)))
                out = qv::bstr_text(V_BSTR(v.get()));
            return out;
        };
        auto number = [&](UINT i) { return i < count ? std::wcstol(text(i).c_str(), nullptr, 10) : 0; };
        switch (id) {
        case command::launch: { // path, parameters, directory, load flags
            const std::wstring path = text(0), parameters = text(1);
            std::wstring line = L"\"" + path + L"\"" + (parameters.empty() ? L"" : L" " + parameters);
            return g_debugger.Start(line, text(2), number(3), 0) ? S_OK : HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
        }
        case command::attach_process: { // process ID
            // Debugging the client (or the engine itself) would stop the very process that takes the events.
            const DWORD target = static_cast<DWORD>(number(0));
            if (target == GetCurrentProcessId() || target == g_parentId) {
                Post(new engine_event{event::application_finished, {}});
                return E_INVALIDARG;
            }
            return g_debugger.Start(L"", L"", qv::engine::launch_default, target) ? S_OK : E_INVALIDARG;
        }
        case command::report: { // event, path or process ID: the event, as if the debuggee had caused it
            const LONG kind = number(0);
            if (kind < event::first || kind > event::last)
                return E_INVALIDARG;
            auto* e = new engine_event{kind, text(1)};
            e->values[0] = number(1);
            Post(e);
            return S_OK;
        }
        case command::terminate:
            g_debugger.TerminateAll();
            return S_OK;
        default:
            return DISP_E_MEMBERNOTFOUND;
        }
    }

    HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** point) override {
        if (!point)
            return E_POINTER;
        if (!IsEqualIID(iid, DIID__IQvDebugEngineEvents))
            return *point = nullptr, CONNECT_E_NOCONNECTION;
        *point = &m_point;
        return S_OK;
    }

    connection_point m_point{this};
};

LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message != WM_ENGINE_EVENT)
        return DefWindowProcW(window, message, wparam, lparam);
    auto* e = reinterpret_cast<engine_event*>(lparam);
    auto* owner = reinterpret_cast<engine*>(GetWindowLongPtrW(window, GWLP_USERDATA));
    if (owner)
        owner->m_point.Fire(*e);
    delete e;
    return 0;
}

// The process that started the engine, to be watched; empty when it cannot be had.
qv::unique_handle OpenParent() {
    DWORD parent = 0, self = GetCurrentProcessId();
    const qv::unique_hfile all(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0)); // INVALID_HANDLE_VALUE on failure
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = all && Process32FirstW(all.get(), &entry); more; more = Process32NextW(all.get(), &entry))
        if (entry.th32ProcessID == self)
            parent = entry.th32ParentProcessID;
    g_parentId = parent;
    return qv::unique_handle(parent ? OpenProcess(SYNCHRONIZE, FALSE, parent) : nullptr);
}

// The message-only window the debug thread posts its events to, fired on this thread by the object.
void MakeEventWindow(HINSTANCE instance, engine& object) {
    WNDCLASSW windowClass{};
    windowClass.lpfnWndProc = WindowProc;
    windowClass.hInstance = instance;
    windowClass.lpszClassName = L"TraceHostEvents";
    RegisterClassW(&windowClass);
    g_window =
        CreateWindowExW(0, windowClass.lpszClassName, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, instance, nullptr);
    SetWindowLongPtrW(g_window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(&object));
}

// Pumps messages until the last client connection goes (WM_QUIT) or the client process ends.
void Pump(HANDLE parent) {
    for (;;) {
        const DWORD waited = MsgWaitForMultipleObjects(parent ? 1 : 0, &parent, FALSE, INFINITE, QS_ALLINPUT);
        if (parent && waited == WAIT_OBJECT_0)
            return; // the client is gone: nobody is left to release the engine
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            if (message.message == WM_QUIT)
                return;
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
    }
}

// The engine's life in the apartment: registered under name, serving, then gone with its debuggees.
int Serve(HINSTANCE instance, const std::wstring& name) {
    static engine object;
    qv::com_ptr<IMoniker> moniker;
    qv::com_ptr<IRunningObjectTable> table;
    DWORD registration = 0;
    if (FAILED(CreateItemMoniker(L"!", name.c_str(), moniker.put())) || FAILED(GetRunningObjectTable(0, table.put())) ||
        FAILED(table->Register(0, static_cast<IDispatch*>(&object), moniker.get(), &registration)))
        return 1;
    MakeEventWindow(instance, object);
    const qv::unique_handle parent = OpenParent();
    Pump(parent.get());
    table->Revoke(registration);
    table.reset();
    moniker.reset();
    g_debugger.Stop();
    object.m_point.ReleaseAll();
    CoDisconnectObject(static_cast<IDispatch*>(&object), 0);
    return 0;
}

} // namespace

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE, LPWSTR commandLine, int) {
    // The one argument: {CLASS}:{INSTANCE}; what follows the colon names this engine.
    std::wstring line = commandLine ? commandLine : L"";
    const size_t colon = line.find(L"}:{");
    if (colon == std::wstring::npos)
        return 2;
    std::wstring name = line.substr(colon + 2);
    name = name.substr(0, name.find_first_of(L" \t"));
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 1;
    const int code = Serve(instance, name);
    CoUninitialize();
    return code;
}
