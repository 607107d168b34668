#include "server/class_table.h"

#include "QVWIScanners.h"
#include "inc/com_object.h"
#include "scanutil/scan_util.h"
#include "server/dep_file.h"
#include "server/resource.h"
#include "static/static_scan.h"

namespace qv {

namespace {

class_entry g_classes[] = {
    {&CLSID_StaticScan, L"StaticScan", L"QVWIScanners.StaticScan.1", L"QVWIScanners.StaticScan", L"Apartment",
     IDS_CLASS_DESCRIPTION, &qv::creator<CStaticScan>::CreateInstance, nullptr},
    {&CLSID_DepChecker, L"DepChecker", L"RunTimeDepChecker.DepChecker.1", L"RunTimeDepChecker.DepChecker",
     L"Apartment", IDS_CLASS_DESCRIPTION, nullptr, nullptr},
    {&CLSID_ScanUtil, L"ScanUtil", L"QVWIScanners.ScanUtil.1", L"QVWIScanners.ScanUtil", L"Apartment",
     IDS_CLASS_DESCRIPTION, &qv::creator<CScanUtil>::CreateInstance, nullptr},
    {&CLSID_VBPScan, L"VBPScan", L"QVWIScanners.VBPScan.1", L"QVWIScanners.VBPScan", L"Apartment",
     IDS_CLASS_DESCRIPTION, nullptr, nullptr},
    // The ProgID's spelling is what clients use, and stays.
    {&CLSID_DotNetAssembly, L"DotNetAssembly", L"QVWIScanners.DotNetAssmembly.1", L"QVWIScanners.DotNetAssmembly",
     L"Apartment", IDS_CLASS_DESCRIPTION, nullptr, nullptr},
    {&CLSID_DepFile, L"DepFile", L"QVWIScanners.DepFile.1", L"QVWIScanners.DepFile", L"Apartment",
     IDS_CLASS_DESCRIPTION, &qv::creator<CDepFile>::CreateInstance, nullptr},
};

} // namespace

std::span<class_entry> ClassTable() { return g_classes; }

HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** ppv) {
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    for (class_entry& entry : g_classes) {
        if (!IsEqualCLSID(clsid, *entry.clsid))
            continue;
        if (!entry.create)
            return CLASS_E_CLASSNOTAVAILABLE;
        if (!entry.cachedFactory) {
            module_lock lock;
            if (!entry.cachedFactory) {
                cached_object<class_factory>* factory = nullptr;
                try {
                    factory = new cached_object<class_factory>(entry.create);
                } catch (const std::bad_alloc&) {
                    return E_OUTOFMEMORY;
                }
                factory->AddRef();
                entry.cachedFactory = factory;
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
