// The module object: the lock count that DllCanUnloadNow reads, the one critical section of the
// library (class factories, type information), the module handle and the library's LIBID, and the
// clean-up work to run when the module ends. Process-wide; works in the server DLL and in a test
// program that links the library statically alike.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace qv {

class com_module {
public:
    com_module();
    ~com_module();
    com_module(const com_module&) = delete;
    com_module& operator=(const com_module&) = delete;

    // Called from DllMain on attach: the module handle and the LIBID of its type library.
    void Init(HINSTANCE instance, const GUID& libid);
    // Runs the clean-up work in reverse order of registration.
    void Term();

    LONG Lock() { return InterlockedIncrement(&m_nLockCount); }
    LONG Unlock() { return InterlockedDecrement(&m_nLockCount); }
    LONG LockCount() const { return m_nLockCount; }

    // The module that holds this code (the server DLL, or the program that links it).
    HINSTANCE Instance() const { return m_hInstance; }
    const GUID& Libid() const { return m_libid; }
    CRITICAL_SECTION& CriticalSection() { return m_cs; }

    // Registers work for Term(), such as releasing cached type information.
    void AddTermFunc(std::function<void()> func);

private:
    HINSTANCE m_hInstance = nullptr;
    GUID m_libid = {};
    LONG m_nLockCount = 0;
    CRITICAL_SECTION m_cs;
    std::vector<std::function<void()>> m_termFuncs;
};

extern com_module g_module;

// DllMain of a library with no type library of its own (the companions): the module's start and end.
inline BOOL LibraryMain(HINSTANCE instance, DWORD reason) {
    if (reason == DLL_PROCESS_ATTACH) {
        g_module.Init(instance, GUID{}); // no type library
        DisableThreadLibraryCalls(instance);
    } else if (reason == DLL_PROCESS_DETACH) {
        g_module.Term();
    }
    return TRUE;
}

// DllCanUnloadNow of any library of the project: S_OK once no object and no held class factory is left.
inline HRESULT LibraryCanUnloadNow() {
    return g_module.LockCount() == 0 ? S_OK : S_FALSE;
}

// Holds the module's critical section for a scope.
class module_lock {
public:
    module_lock() { EnterCriticalSection(&g_module.CriticalSection()); }
    ~module_lock() { LeaveCriticalSection(&g_module.CriticalSection()); }
    module_lock(const module_lock&) = delete;
    module_lock& operator=(const module_lock&) = delete;
};

} // namespace qv
