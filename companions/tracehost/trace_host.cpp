// TraceHost64.exe: the debug engine of the dynamic scan, a GUI-subsystem program with a message loop.
//   TraceHost64.exe {CLASS}:{INSTANCE}
// Its first act registers its engine object in the running object table under the item moniker "!" +
// INSTANCE. The object answers IDispatch (Launch 1, AttachProcess 2, Terminate 3) and offers a connection
// point for _IQvDebugEngineEvents. A thread of its own debugs the target with the Win32 debug API and posts
// what it sees to a message-only window, so that every event is fired from the engine's STA thread.
// The engine ends when its last client connection goes, and also when the client process (its parent)
// dies; either way it ends its debuggees first, so that no process is left behind.
#include "QVWIScanners.h"

#include <windows.h>

#include <objbase.h>
#include <oleauto.h>
#include <olectl.h>
#include <tlhelp32.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr UINT WM_ENGINE_EVENT = WM_APP + 1;
enum event_kind : WPARAM { LoadDll = 1, UnloadDll = 2, Finished = 3, ChildCreated = 4, ChildExit = 5 };

struct engine_event {
    event_kind kind;
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
        if (m_thread)
            CloseHandle(m_thread); // the thread of an earlier target, ended
        m_running = true;
        m_commandLine = std::move(commandLine), m_directory = std::move(directory), m_flags = flags, m_attach = attach;
        m_ready = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        m_thread = CreateThread(nullptr, 0, &debugger::Run, this, 0, nullptr);
        WaitForSingleObject(m_ready, 30000); // the start's result is known once the thread has tried
        CloseHandle(m_ready);
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
        HANDLE thread = nullptr;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            std::swap(thread, m_thread);
        }
        if (thread) {
            WaitForSingleObject(thread, 10000);
            CloseHandle(thread);
        }
    }

private:
    static DWORD WINAPI Run(void* self) { return static_cast<debugger*>(self)->Loop(); }

    DWORD Loop() {
        bool ok;
        if (m_attach) {
            ok = DebugActiveProcess(m_attach);
            if (ok)
                DebugSetProcessKillOnExit(FALSE); // a process the engine did not start outlives it
        } else {
            STARTUPINFOW startup{};
            startup.cb = sizeof startup;
            PROCESS_INFORMATION info{};
            const DWORD how = m_flags == 2 ? DEBUG_ONLY_THIS_PROCESS : DEBUG_PROCESS;
            ok = CreateProcessW(nullptr, m_commandLine.data(), nullptr, nullptr, FALSE, how, nullptr,
                                m_directory.empty() ? nullptr : m_directory.c_str(), &startup, &info);
            if (ok)
                CloseHandle(info.hThread), CloseHandle(info.hProcess);
        }
        m_started = ok;
        SetEvent(m_ready);
        if (!ok) {
            m_running = false;
            Post(new engine_event{Finished, {}});
            return 0;
        }
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
            DWORD status = DBG_CONTINUE;
            switch (e.dwDebugEventCode) {
            case CREATE_PROCESS_DEBUG_EVENT: {
                std::lock_guard<std::mutex> lock(m_lock);
                m_processes[e.dwProcessId] = e.u.CreateProcessInfo.hProcess;
                if (root == 0)
                    root = e.dwProcessId;
                else
                    Post(new engine_event{ChildCreated, {}, {LONG(e.dwProcessId), 0, LONG(e.dwThreadId), 0}});
                if (e.u.CreateProcessInfo.hFile)
                    CloseHandle(e.u.CreateProcessInfo.hFile);
                break;
            }
            case LOAD_DLL_DEBUG_EVENT: {
                std::wstring path = ImageName(ProcessOf(e.dwProcessId), e.u.LoadDll);
                if (path.empty())
                    path = PathOf(e.u.LoadDll.hFile);
                if (e.u.LoadDll.hFile)
                    CloseHandle(e.u.LoadDll.hFile);
                if (!path.empty()) {
                    m_modules[{e.dwProcessId, e.u.LoadDll.lpBaseOfDll}] = path;
                    Post(new engine_event{LoadDll, path});
                }
                break;
            }
            case UNLOAD_DLL_DEBUG_EVENT: {
                // The event names only the base address: the path is the one its load reported.
                auto it = m_modules.find({e.dwProcessId, e.u.UnloadDll.lpBaseOfDll});
                if (it != m_modules.end()) {
                    Post(new engine_event{UnloadDll, it->second});
                    m_modules.erase(it);
                }
                break;
            }
            case EXIT_PROCESS_DEBUG_EVENT: {
                std::lock_guard<std::mutex> lock(m_lock);
                m_processes.erase(e.dwProcessId);
                m_modules.erase(m_modules.lower_bound({e.dwProcessId, nullptr}),
                                m_modules.lower_bound({e.dwProcessId + 1, nullptr}));
                if (e.dwProcessId != root)
                    Post(new engine_event{ChildExit, {}, {LONG(e.dwProcessId)}});
                break;
            }
            case EXCEPTION_DEBUG_EVENT:
                // The loader's own breakpoint goes on; any other exception is the debuggee's to handle.
                if (e.u.Exception.ExceptionRecord.ExceptionCode != EXCEPTION_BREAKPOINT || !e.u.Exception.dwFirstChance)
                    status = DBG_EXCEPTION_NOT_HANDLED;
                break;
            default:
                break;
            }
            ContinueDebugEvent(e.dwProcessId, e.dwThreadId, status);
            std::lock_guard<std::mutex> lock(m_lock);
            if (m_processes.empty() && root != 0)
                break;
        }
        Post(new engine_event{Finished, {}});
        m_running = false;
        return 0;
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
    HANDLE m_thread = nullptr, m_ready = nullptr;
    bool m_started = false;
    std::atomic<bool> m_running{false}, m_stopping{false};
    std::wstring m_commandLine, m_directory;
    LONG m_flags = 1;
    DWORD m_attach = 0;
    std::map<DWORD, HANDLE> m_processes;                       // owned by the debug API
    std::map<std::pair<DWORD, void*>, std::wstring> m_modules; // by process and base address
};

debugger g_debugger;

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
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IConnectionPoint))
            *ppv = static_cast<IConnectionPoint*>(this);
        else if (IsEqualIID(iid, IID_IExternalConnection))
            *ppv = static_cast<IExternalConnection*>(this);
        else
            return *ppv = nullptr, E_NOINTERFACE;
        return AddRef(), S_OK;
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
        IDispatch* events = nullptr;
        // Without the type library registered the proxy knows only IDispatch.
        if (FAILED(sink->QueryInterface(DIID__IQvDebugEngineEvents, reinterpret_cast<void**>(&events))) &&
            FAILED(sink->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&events))))
            return CONNECT_E_CANNOTCONNECT;
        *cookie = ++m_next;
        m_sinks[*cookie] = events;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override {
        auto it = m_sinks.find(cookie);
        if (it == m_sinks.end())
            return CONNECT_E_NOCONNECTION;
        it->second->Release();
        m_sinks.erase(it);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections**) override { return E_NOTIMPL; }

    void Fire(const engine_event& e) {
        VARIANT args[4];
        UINT count = 0;
        if (e.kind == LoadDll || e.kind == UnloadDll) {
            V_VT(&args[0]) = VT_BSTR, V_BSTR(&args[0]) = SysAllocString(e.path.c_str()), count = 1;
        } else if (e.kind == ChildCreated) {
            for (UINT i = 0; i < 4; ++i) // reverse order: ThreadHandle, ThreadID, ProcessHandle, ProcessID
                V_VT(&args[i]) = VT_I4, V_I4(&args[i]) = e.values[3 - i];
            count = 4;
        } else if (e.kind == ChildExit) {
            V_VT(&args[0]) = VT_I4, V_I4(&args[0]) = e.values[0], count = 1;
        }
        DISPPARAMS params{args, nullptr, count, 0};
        const std::map<DWORD, IDispatch*> sinks = m_sinks; // a sink may unadvise while it is called
        for (const auto& [cookie, sink] : sinks)
            sink->Invoke(static_cast<DISPID>(e.kind), IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, nullptr,
                         nullptr, nullptr);
        for (UINT i = 0; i < count; ++i)
            VariantClear(&args[i]);
    }
    void ReleaseAll() {
        for (auto& [cookie, sink] : m_sinks)
            sink->Release();
        m_sinks.clear();
    }

private:
    IConnectionPointContainer* m_owner;
    std::map<DWORD, IDispatch*> m_sinks;
    DWORD m_next = 0;
};

class engine : public IDispatch, public IConnectionPointContainer, public connection_counter {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch))
            *ppv = static_cast<IDispatch*>(this);
        else if (IsEqualIID(iid, IID_IConnectionPointContainer))
            *ppv = static_cast<IConnectionPointContainer*>(this);
        else if (IsEqualIID(iid, IID_IExternalConnection))
            *ppv = static_cast<IExternalConnection*>(this);
        else
            return *ppv = nullptr, E_NOINTERFACE;
        return AddRef(), S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; } // lives as long as the program
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override { return count ? (*count = 0, S_OK) : E_POINTER; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
        static const std::pair<const wchar_t*, DISPID> known[] = {
            {L"Launch", 1}, {L"AttachProcess", 2}, {L"Terminate", 3}, {L"Report", 100}};
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
            VARIANT v;
            VariantInit(&v);
            std::wstring out;
            if (i < count && SUCCEEDED(VariantChangeType(&v, &params->rgvarg[count - 1 - i], 0, VT_BSTR)) && V_BSTR(&v))
                out.assign(V_BSTR(&v), SysStringLen(V_BSTR(&v)));
            VariantClear(&v);
            return out;
        };
        auto number = [&](UINT i) { return i < count ? std::wcstol(text(i).c_str(), nullptr, 10) : 0; };
        switch (id) {
        case 1: { // Launch(path, parameters, directory, load flags)
            const std::wstring path = text(0), parameters = text(1);
            std::wstring line = L"\"" + path + L"\"" + (parameters.empty() ? L"" : L" " + parameters);
            return g_debugger.Start(line, text(2), number(3), 0) ? S_OK : HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
        }
        case 2: { // AttachProcess(process ID)
            // Debugging the client (or the engine itself) would stop the very process that takes the events.
            const DWORD target = static_cast<DWORD>(number(0));
            if (target == GetCurrentProcessId() || target == g_parentId) {
                Post(new engine_event{Finished, {}});
                return E_INVALIDARG;
            }
            return g_debugger.Start(L"", L"", 1, target) ? S_OK : E_INVALIDARG;
        }
        case 100: { // Report(event, path or process ID): the event, as if the debuggee had caused it
            const LONG kind = number(0);
            if (kind < 1 || kind > 5)
                return E_INVALIDARG;
            auto* e = new engine_event{static_cast<event_kind>(kind), text(1)};
            e->values[0] = number(1);
            Post(e);
            return S_OK;
        }
        case 3: // Terminate
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

// The process that started the engine, to be watched; null when it cannot be had.
HANDLE OpenParent() {
    DWORD parent = 0, self = GetCurrentProcessId();
    HANDLE all = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = all != INVALID_HANDLE_VALUE && Process32FirstW(all, &entry); more;
         more = Process32NextW(all, &entry))
        if (entry.th32ProcessID == self)
            parent = entry.th32ParentProcessID;
    if (all != INVALID_HANDLE_VALUE)
        CloseHandle(all);
    g_parentId = parent;
    return parent ? OpenProcess(SYNCHRONIZE, FALSE, parent) : nullptr;
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
    static engine object;
    IMoniker* moniker = nullptr;
    IRunningObjectTable* table = nullptr;
    DWORD registration = 0;
    if (FAILED(CreateItemMoniker(L"!", name.c_str(), &moniker)) || FAILED(GetRunningObjectTable(0, &table)) ||
        FAILED(table->Register(0, static_cast<IDispatch*>(&object), moniker, &registration)))
        return 1;

    WNDCLASSW windowClass{};
    windowClass.lpfnWndProc = WindowProc;
    windowClass.hInstance = instance;
    windowClass.lpszClassName = L"TraceHostEvents";
    RegisterClassW(&windowClass);
    g_window =
        CreateWindowExW(0, windowClass.lpszClassName, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, instance, nullptr);
    SetWindowLongPtrW(g_window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(&object));

    HANDLE parent = OpenParent();
    bool running = true;
    while (running) {
        const DWORD waited = MsgWaitForMultipleObjects(parent ? 1 : 0, &parent, FALSE, INFINITE, QS_ALLINPUT);
        if (parent && waited == WAIT_OBJECT_0)
            break; // the client is gone: nobody is left to release the engine
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            if (message.message == WM_QUIT) {
                running = false;
                break;
            }
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
    }
    table->Revoke(registration);
    table->Release();
    moniker->Release();
    g_debugger.Stop();
    object.m_point.ReleaseAll();
    CoDisconnectObject(static_cast<IDispatch*>(&object), 0);
    if (parent)
        CloseHandle(parent);
    CoUninitialize();
    return 0;
}
