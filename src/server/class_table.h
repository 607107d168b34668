// The class table of the server: for each coclass of the registration data, how it is created and its
// cached class factory. The server itself writes nothing to the registry.
#pragma once

#include "inc/class_registration.h"

#include <windows.h>

#include <span>
#include <unknwn.h>

namespace qv {

struct class_entry {
    const class_registration* registration; // identity and registration data
    // Creation through the class factory; null while the class is not part of the server.
    HRESULT (*create)(IUnknown* outer, REFIID iid, void** ppv);
    IUnknown* cachedFactory; // made on first request, under the module lock
};

// The table, in the order of the registration data.
std::span<class_entry> ClassTable();

// DllGetClassObject's work: the cached factory of the class, queried for iid.
HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** ppv);

// Releases the cached factories (module end).
void ReleaseClassFactories();

} // namespace qv
