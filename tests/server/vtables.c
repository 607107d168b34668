// The generated header as C sees it (widl declares the vtables only for C): the IID and the vtable size of
// every interface of the type library for the test of the type library.
#include "QVWIScanners.h"
#include "vtables.h"

#define S(itf) {L## #itf, &IID_##itf, sizeof(itf##Vtbl)},

const struct vtable_size qv_vtables[] = {
    S(IStaticScanEvents) S(IStaticScanEventsTarn) S(IStaticScanEventsFellSP2) S(IStaticScanEventsValeSP)
    S(IScanEvents) S(IScanEventsTarn) S(IStaticScanFilter) S(ILanguages) S(IDepFile) S(IDepFileTarn) S(IDepFileInfo)
    S(IDepFiles) S(IDepFileBag) S(IDepFileBags) S(IDotNetAssemblyRef) S(IDotNetAssemblyRefValeSP1)
    S(IDotNetAssemblyRefs) S(IDotNetAssembly) S(IDotNetAssemblyTarn) S(IStaticScan) S(IScanUtil) S(IScanUtilTarn)
    S(IScanUtilValeSP1) S(IVBPScan) S(IDepChecker) S(IDepCheckerTarn) S(ISinkDebugEngine)
};
const size_t qv_vtable_count = sizeof qv_vtables / sizeof qv_vtables[0];
