// The C vtables of the generated headers, read with offsetof. C, because widl declares the vtable
// structures only for C clients.
#include "QVWIScanners.h"
#include "companions.h"

#include "vtable_slots.h"

#define QV_WIDE2(text) L##text
#define QV_WIDE(text) QV_WIDE2(text)
#define SLOT(itf, member)                                                                                              \
    { QV_WIDE(#itf), QV_WIDE(#member), offsetof(itf##Vtbl, member) }

const struct vtable_slot qv_library_slots[] = {
    SLOT(IStaticScanEvents, FoundDepFile),
    SLOT(IStaticScanEvents, GetReferencePath),
    SLOT(IStaticScanEvents, ErrorEncountered),
    SLOT(IStaticScanEventsTarn, get_MMCatalog),
    SLOT(IStaticScanEventsFellSP2, GetOtherReferences),
    SLOT(IStaticScanEventsValeSP, get_Component),

    SLOT(IScanEvents, PercentDone),
    SLOT(IScanEvents, QueryCancel),
    SLOT(IScanEvents, Status),
    SLOT(IScanEvents, VBBuildFailed),
    SLOT(IScanEvents, FileNotFound),
    SLOT(IScanEventsTarn, get_MMCatalog),

    SLOT(IStaticScanFilter, FilterFile),

    SLOT(ILanguages, get_Item),
    SLOT(ILanguages, get_Count),
    SLOT(ILanguages, get__NewEnum),

    SLOT(IDepFile, get_Name),
    SLOT(IDepFile, get_ModifiedTime),
    SLOT(IDepFile, get_Size),
    SLOT(IDepFile, get_Path),
    SLOT(IDepFile, get_Shared),
    SLOT(IDepFile, get_SelfRegistering),
    SLOT(IDepFile, get_Languages),
    SLOT(IDepFile, get_MajorVersion),
    SLOT(IDepFile, get_MinorVersion),
    SLOT(IDepFileTarn, PutDestPath),
    SLOT(IDepFileTarn, GetDestPath),
    SLOT(IDepFileTarn, PutName),
    SLOT(IDepFileTarn, PutPath),
    SLOT(IDepFileTarn, PutSelfReg),
    SLOT(IDepFileTarn, PutDotNet),
    SLOT(IDepFileTarn, GetDotNet),
    SLOT(IDepFileInfo, get_Included),
    SLOT(IDepFileInfo, put_Included),
    SLOT(IDepFileInfo, get_IsMergeModule),
    SLOT(IDepFileInfo, get_IsDriver),
    SLOT(IDepFileInfo, put_IsDriver),
    SLOT(IDepFileInfo, get_IsFilterable),
    SLOT(IDepFileInfo, put_IsFilterable),
    SLOT(IDepFileInfo, get_IsMissing),
    SLOT(IDepFileInfo, get_Assembly),

    SLOT(IDepFiles, get_Item),
    SLOT(IDepFiles, get_Count),
    SLOT(IDepFiles, get__NewEnum),
    SLOT(IDepFileBag, get_TagName),
    SLOT(IDepFileBag, get_Files),
    SLOT(IDepFileBags, get_Item),
    SLOT(IDepFileBags, get_Count),
    SLOT(IDepFileBags, get__NewEnum),

    SLOT(IDotNetAssemblyRef, get_FileName),
    SLOT(IDotNetAssemblyRef, get_DotNetAssembly),
    SLOT(IDotNetAssemblyRef, get_Found),
    SLOT(IDotNetAssemblyRefValeSP1, get_Machine),
    SLOT(IDotNetAssemblyRefs, get_Item),
    SLOT(IDotNetAssemblyRefs, get_Count),
    SLOT(IDotNetAssemblyRefs, get__NewEnum),
    SLOT(IDotNetAssemblyRefs, Add),
    SLOT(IDotNetAssembly, Load),
    SLOT(IDotNetAssembly, get_Name),
    SLOT(IDotNetAssembly, get_Version),
    SLOT(IDotNetAssembly, get_PublicKeyToken),
    SLOT(IDotNetAssembly, get_Culture),
    SLOT(IDotNetAssembly, get_Dependencies),
    SLOT(IDotNetAssembly, LoadProperties),
    SLOT(IDotNetAssemblyTarn, get_FileName),

    SLOT(IStaticScan, ScanFile),
    SLOT(IStaticScan, get_Dependencies),

    SLOT(IScanUtil, get_PE),
    SLOT(IScanUtil, get_MMCatalog),
    SLOT(IScanUtil, InMergeModule),
    SLOT(IScanUtilTarn, GetMissingMergeModuleKey),
    SLOT(IScanUtilTarn, GetMissingMergeModuleSubject),
    SLOT(IScanUtilTarn, put_MMCatalog),
    SLOT(IScanUtilValeSP1, InMergeModuleEx),

    SLOT(IVBPScan, Scan),
    SLOT(IVBPScan, get_DepFileGroups),

    SLOT(IDepChecker, get_Monitoring),
    SLOT(IDepChecker, put_Monitoring),
    SLOT(IDepChecker, get_CurrentTagName),
    SLOT(IDepChecker, put_CurrentTagName),
    SLOT(IDepChecker, get_Filtering),
    SLOT(IDepChecker, put_Filtering),
    SLOT(IDepChecker, get_Dependencies),
    SLOT(IDepChecker, Launch),
    SLOT(IDepChecker, AttachProcess),
    SLOT(IDepChecker, Terminate),
    SLOT(IDepChecker, reset),
    SLOT(IDepChecker, get_ApplicationRunning),
    SLOT(IDepCheckerTarn, put_MMCatalog),
};
const size_t qv_library_slot_count = sizeof(qv_library_slots) / sizeof(qv_library_slots[0]);

const struct vtable_slot qv_companion_slots[] = {
    SLOT(IQvMergeModuleCatalog, FindMergeModule),
    SLOT(IQvMergeModuleCatalog, GetMissingMergeModuleKey),
    SLOT(IQvMergeModuleCatalog, GetMissingMergeModuleSubject),
    SLOT(IQvMergeModule, get_ModuleId),
    SLOT(IQvMergeModule, get_ModuleKey),
    SLOT(IQvMergeModule, get_ModuleName),
    SLOT(IQvDepFileGroup, Init),
    SLOT(IQvDepFileGroups, Add),
};
const size_t qv_companion_slot_count = sizeof(qv_companion_slots) / sizeof(qv_companion_slots[0]);
