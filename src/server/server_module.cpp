// The exports of the server and its start and end. Self-registration is switched off on purpose:
// the server writes nothing to the registry; registration tools take the class table's data.
#include "QVWIScanners.h"
#include "inc/com_boundary.h"
#include "inc/com_module.h"
#include "server/class_table.h"
#include "toolkit/process_launcher.h"
#include "toolkit/string_convert.h"
#include "traits/project_traits.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        qv::g_module.Init(instance, LIBID_QVWISCANNERSLib);
        CProjectTraitsManager::Instance();
        DisableThreadLibraryCalls(instance);
    } else if (reason == DLL_PROCESS_DETACH) {
        qv::ReleaseClassFactories();
        qv::g_module.Term();
    }
    return TRUE;
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow() {
    return qv::LibraryCanUnloadNow();
}

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* ppv) {
    return qv::GetClassObject(clsid, iid, ppv);
}

extern "C" HRESULT STDAPICALLTYPE DllRegisterServer() {
    return S_OK;
}

extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer() {
    return S_OK;
}

// Runs a setup program and waits for it and then for the children it left behind (toolkit launcher,
// flags 2, no time-out). The narrow command line is read in the ANSI code page. The launcher's own results
// (0, -1, -2, -3) come back as they are; a launch that throws (out of memory) did not happen: -1.
extern "C" int __stdcall LaunchSetupExeAppAndWaitForChildProcesses(const char* commandLine) {
    int result = -1;
    qv::com_boundary([&] {
        result = qv::LaunchSetupAndWait(commandLine ? qv::WidenAnsi(commandLine) : std::wstring());
        return S_OK;
    });
    return result;
}
