// The exports of the server and its start and end. Self-registration is switched off on purpose:
// the server writes nothing to the registry; registration tools take the class table's data.
#include "QVWIScanners.h"
#include "inc/com_module.h"
#include "server/class_table.h"
#include "toolkit/process_launcher.h"
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
// flags 2, no time-out). The narrow command line is read in the ANSI code page.
extern "C" int __stdcall LaunchSetupExeAppAndWaitForChildProcesses(const char* commandLine) {
    std::wstring line;
    if (commandLine && *commandLine) {
        const int n = MultiByteToWideChar(CP_ACP, 0, commandLine, -1, nullptr, 0);
        line.resize(n > 0 ? static_cast<size_t>(n) : 1);
        MultiByteToWideChar(CP_ACP, 0, commandLine, -1, line.data(), n);
        line.resize(wcslen(line.c_str()));
    }
    return qv::LaunchSetupAndWait(line);
}
