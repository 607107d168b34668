// The generated header as C sees it: the IID and the vtable offset of each method, read with offsetof,
// for the test of the type library.
#include "QVWIScanners.h"
#include "vtable_slots.h"

#define S(itf, member) {L## #itf, L## #member, &IID_##itf, offsetof(itf##Vtbl, member)},

const struct vtable_slot qv_slots[] = {
    S(IStaticScanEvents, FoundDepFile) S(IStaticScanEvents, GetReferencePath) S(IStaticScanEvents, ErrorEncountered)
    S(IStaticScanEventsTarn, get_MMCatalog)
    S(IStaticScanEventsFellSP2, GetOtherReferences)
    S(IStaticScanEventsValeSP, get_Component)
    S(IScanEvents, PercentDone) S(IScanEvents, QueryCancel) S(IScanEvents, Status) S(IScanEvents, VBBuildFailed)
    S(IScanEvents, FileNotFound)
    S(IScanEventsTarn, get_MMCatalog)
    S(IStaticScanFilter, FilterFile)
    S(ILanguages, get_Item) S(ILanguages, get_Count) S(ILanguages, get__NewEnum)
    S(IDepFile, get_Name) S(IDepFile, get_ModifiedTime) S(IDepFile, get_Size) S(IDepFile, get_Path)
    S(IDepFile, get_Shared) S(IDepFile, get_SelfRegistering) S(IDepFile, get_Languages) S(IDepFile, get_MajorVersion)
    S(IDepFile, get_MinorVersion)
    S(IDepFileTarn, PutDestPath) S(IDepFileTarn, GetDestPath) S(IDepFileTarn, PutName) S(IDepFileTarn, PutPath)
    S(IDepFileTarn, PutSelfReg) S(IDepFileTarn, PutDotNet) S(IDepFileTarn, GetDotNet)
    S(IDepFileInfo, get_Included) S(IDepFileInfo, put_Included) S(IDepFileInfo, get_IsMergeModule)
    S(IDepFileInfo, get_IsDriver) S(IDepFileInfo, put_IsDriver) S(IDepFileInfo, get_IsFilterable)
    S(IDepFileInfo, put_IsFilterable) S(IDepFileInfo, get_IsMissing) S(IDepFileInfo, get_Assembly)
    S(IDepFiles, get_Item) S(IDepFiles, get_Count) S(IDepFiles, get__NewEnum)
    S(IDepFileBag, get_TagName) S(IDepFileBag, get_Files)
    S(IDepFileBags, get_Item) S(IDepFileBags, get_Count) S(IDepFileBags, get__NewEnum)
    S(IDotNetAssemblyRef, get_FileName) S(IDotNetAssemblyRef, get_DotNetAssembly) S(IDotNetAssemblyRef, get_Found)
    S(IDotNetAssemblyRefValeSP1, get_Machine)
    S(IDotNetAssemblyRefs, get_Item) S(IDotNetAssemblyRefs, get_Count) S(IDotNetAssemblyRefs, get__NewEnum)
    S(IDotNetAssemblyRefs, Add)
    S(IDotNetAssembly, Load) S(IDotNetAssembly, get_Name) S(IDotNetAssembly, get_Version)
    S(IDotNetAssembly, get_PublicKeyToken) S(IDotNetAssembly, get_Culture) S(IDotNetAssembly, get_Dependencies)
    S(IDotNetAssembly, LoadProperties)
    S(IDotNetAssemblyTarn, get_FileName)
    S(IStaticScan, ScanFile) S(IStaticScan, get_Dependencies)
    S(IScanUtil, get_PE) S(IScanUtil, get_MMCatalog) S(IScanUtil, InMergeModule)
    S(IScanUtilTarn, GetMissingMergeModuleKey) S(IScanUtilTarn, GetMissingMergeModuleSubject)
    S(IScanUtilTarn, put_MMCatalog)
    S(IScanUtilValeSP1, InMergeModuleEx)
    S(IVBPScan, Scan) S(IVBPScan, get_DepFileGroups)
    S(IDepChecker, get_Monitoring) S(IDepChecker, put_Monitoring) S(IDepChecker, get_CurrentTagName)
    S(IDepChecker, put_CurrentTagName) S(IDepChecker, get_Filtering) S(IDepChecker, put_Filtering)
    S(IDepChecker, get_Dependencies) S(IDepChecker, Launch) S(IDepChecker, AttachProcess) S(IDepChecker, Terminate)
    S(IDepChecker, reset) S(IDepChecker, get_ApplicationRunning)
    S(IDepCheckerTarn, put_MMCatalog)
};
const size_t qv_slot_count = sizeof qv_slots / sizeof qv_slots[0];
