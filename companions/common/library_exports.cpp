// The exports of a companion library that hands out classes; each live object and each class factory a
// client holds keeps one lock on the module.
#include "library_exports.h"

#include "inc/com_module.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    return qv::LibraryMain(instance, reason);
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow() {
    return qv::LibraryCanUnloadNow();
}

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* ppv) {
    return qv::GetLibraryClassObject(companion::LibraryClasses(), clsid, iid, ppv);
}
