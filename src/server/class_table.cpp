#include "server/class_table.h"

#include "QVWIScanners.h"
#include "dotnet/dotnet_assembly.h"
#include "dynamic/dep_checker.h"
#include "inc/com_boundary.h"
#include "inc/com_object.h"
#include "inc/resource.h"
#include "record/dep_file.h"
#include "scanutil/scan_util.h"

#include <array>
#include "static/script_scan_events.h"
#include "static/static_scan.h"
#include "vb/vbp_scan.h"

namespace qv {

namespace {

using create_fn = HRESULT (*)(IUnknown*, REFIID, void**);

// The creator of each class the server makes; the others answer CLASS_E_CLASSNOTAVAILABLE.
create_fn creator_of(const CLSID& clsid) {
    if (IsEqualCLSID(clsid, CLSID_StaticScan))
        return &qv::creator<CStaticScan>::CreateInstance;
    if (IsEqualCLSID(clsid, CLSID_DepChecker))
        return &qv::creator<CDepChecker>::CreateInstance;
    if (IsEqualCLSID(clsid, CLSID_ScanUtil))
        return &qv::creator<CScanUtil>::CreateInstance;
    if (IsEqualCLSID(clsid, CLSID_VBPScan))
        return &qv::creator<CVBPScan>::CreateInstance;
    if (IsEqualCLSID(clsid, CLSID_DotNetAssembly))
        return &qv::creator<CDotNetAssembly>::CreateInstance;
    if (IsEqualCLSID(clsid, CLSID_DepFile))
        return &qv::creator<CDepFile>::CreateInstance;
    if (IsEqualCLSID(clsid, CLSID_ScanEvents))
        return &qv::creator<CScriptScanEvents>::CreateInstance;
    return nullptr;
}

std::array<class_entry, std::size(class_registrations)> make_table() {
    std::array<class_entry, std::size(class_registrations)> table{};
    for (size_t i = 0; i < table.size(); ++i)
        table[i] = {&class_registrations[i], creator_of(*class_registrations[i].clsid), nullptr};
    return table;
}

std::array<class_entry, std::size(class_registrations)> g_classes = make_table();

} // namespace

std::span<class_entry> ClassTable() {
    return g_classes;
}

HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** ppv) {
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    for (class_entry& entry : g_classes) {
        if (!IsEqualCLSID(clsid, *entry.registration->clsid))
            continue;
        if (!entry.create)
            return CLASS_E_CLASSNOTAVAILABLE;
        if (!entry.cachedFactory) {
            module_lock lock;
            if (!entry.cachedFactory) {
                const HRESULT made = com_boundary([&] {
                    cached_object<class_factory>* factory = new cached_object<class_factory>(entry.create);
                    factory->AddRef();
                    entry.cachedFactory = factory;
                    return S_OK;
                });
                if (FAILED(made))
                    return made;
            }
        }
        return entry.cachedFactory->QueryInterface(iid, ppv);
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

void ReleaseClassFactories() {
    for (class_entry& entry : g_classes) {
        if (IUnknown* factory = entry.cachedFactory) {
            entry.cachedFactory = nullptr;
            factory->Release();
        }
    }
}

} // namespace qv
