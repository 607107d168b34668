// The wire to the debug engine, TraceHost64.exe (TraceHost.exe on a 32-bit machine): which file runs, how
// it is started and found without registration (the running object table, under "!" and a GUID of its
// own), the late-bound commands that go out, and the mapping of system-folder paths between a WOW64 host
// and the engine. CDebugEngineHelper owns the engine object; releasing it is the only signal of the end.
#pragma once

#include "inc/com_ptr.h"

#include <windows.h>

#include <oaidl.h>

#include <initializer_list>
#include <string>

// The class every engine is started with; only the instance GUID after the colon tells engines apart.
// {1C3D5B0F-52F4-4C2D-A3FB-BB5D15C4E361}
inline constexpr CLSID CLSID_QvDebugEngine = {
    0x1C3D5B0F, 0x52F4, 0x4C2D, {0xA3, 0xFB, 0xBB, 0x5D, 0x15, 0xC4, 0xE3, 0x61}};

// A method call by DISPID with up to five arguments, first to last; the arguments stop at the first empty
// one. DISP_E_EXCEPTION comes back as the exception's wCode | 0x80040000, else its scode, else as it is.
HRESULT InvokeMethod(IDispatch* object, DISPID id, std::initializer_list<VARIANT> arguments);

// The engine file for this machine in folder (TraceHost64.exe on an AMD64 machine, whatever the target),
// joined with one backslash; use64 tells which was taken.
std::wstring ChooseEngine(const std::wstring& folder, bool& use64);

// Starts the engine at path (unquoted in its command line) with a new instance GUID, waits for it to be
// idle, and looks for its object in the running object table, up to 100 times 300 ms apart. 0x80070002
// when the file cannot be started; else the last answer of the search, or of the query for iid.
HRESULT StartAndConnect(const std::wstring& path, REFCLSID engineClass, REFIID iid, void** object);

class CDebugEngineHelper {
public:
    virtual ~CDebugEngineHelper() = default;

    HRESULT Connect(const std::wstring& path) {
        m_engine.reset();
        return StartAndConnect(path, CLSID_QvDebugEngine, IID_IDispatch, m_engine.put_void());
    }
    IDispatch* Engine() const { return m_engine.get(); }

    // Launch: load flags 1 follow child processes, 2 only the program. The path goes as it is given.
    HRESULT Launch(const std::wstring& path, const std::wstring& parameters, const std::wstring& directory,
                   long loadFlags);
    HRESULT AttachProcess(long processId);
    HRESULT Terminate();

    // Paths between a 32-bit host under WOW64 and the 64-bit engine; unchanged in any other process.
    static std::wstring MapToEngine(const std::wstring& path);
    static std::wstring MapFromEngine(const std::wstring& path);

private:
    qv::com_ptr<IDispatch> m_engine;
};
