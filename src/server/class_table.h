// The class table of the server: for each coclass its identity, its registration data (ProgIDs,
// threading model, description) and how it is created. Registration tools read the data from here;
// the server itself writes nothing to the registry.
#pragma once

#include <windows.h>

#include <span>
#include <unknwn.h>

namespace qv {

struct class_entry {
    const CLSID* clsid;
    const wchar_t* name;                // coclass name
    const wchar_t* progId;              // versioned ProgID, "<x>.1"
    const wchar_t* versionIndependent;  // "<x>"
    const wchar_t* threadingModel;      // "Apartment"
    UINT descriptionResource;           // string resource holding the description
    // Creation through the class factory; null while the class is not part of the server.
    HRESULT (*create)(IUnknown* outer, REFIID iid, void** ppv);
    IUnknown* cachedFactory;            // made on first request, under the module lock
};

// The table, in its fixed order: StaticScan, DepChecker, ScanUtil, VBPScan, DotNetAssembly, DepFile.
std::span<class_entry> ClassTable();

// DllGetClassObject's work: the cached factory of the class, queried for iid.
HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** ppv);

// Releases the cached factories (module end).
void ReleaseClassFactories();

} // namespace qv
