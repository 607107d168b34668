// QvAppServices.dll: its start and end, and the class objects of its three classes, handed out through
// DllGetClassObject with no registration. Each live object and each class factory a client holds keeps
// one lock on the module.
#include "app_services.h"
#include "dep_file_group.h"
#include "dep_file_groups.h"
#include "inc/com_module.h"

#include <iterator>

namespace {

const qv::library_class kClasses[] = {
    {&CLSID_QvAppServices, &qv::creator<CQvAppServices>::CreateInstance},
    {&CLSID_QvDepFileGroup, &qv::creator<CQvDepFileGroup>::CreateInstance},
    {&CLSID_QvDepFileGroups, &qv::creator<CQvDepFileGroups>::CreateInstance},
};

} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    return qv::LibraryMain(instance, reason);
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow() {
    return qv::LibraryCanUnloadNow();
}

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* ppv) {
    return qv::GetLibraryClassObject(kClasses, clsid, iid, ppv);
}
