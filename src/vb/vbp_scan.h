// CVBPScan, the coclass VBPScan: the scan of a Visual Basic project (.vbp) or project group (.vbg). For
// each project it reads the project file, optionally rebuilds it with the Visual Basic compiler, and adds
// to one bag the built file, each referenced type library and control, the controls of each form and what
// the .dep files name; each of those that is a PE image with dependencies also gets a group of its own with
// its import closure. The host is told everything through its IScanEvents sink and reads the groups back
// through DepFileGroups.
//
// The bag, the groups and the missing-forms list belong to the object, not to one scan: a second Scan adds
// to the first. So does the shared .dep file: it is read once for the object's life, and once one scanned
// file has a section in it, no other file is looked up there.
//
// Deliberate quirks kept for the hosts that rely on them:
// - bUseFilter counts when it is any non-zero value, bRebuild only at -1; QueryCancel cancels only at -1.
// - A FileNotFound sink that leaves its answer alone ends the scan (it starts at 0); a VBBuildFailed sink
//   that does nothing goes on (it starts at -1). A cancelled scan still adds its project group.
// - VBBuildFailed is given the whole compiler command line, not the project's path.
// Two guards the hosts do not see: .dep sections that name each other are walked once and the circle is
// told through Status, and a compiler that runs longer than its time-out is ended.
//
// A script sink (an IDispatch without IScanEventsTarn) is called by name: each event a method of the same
// name, a returned boolean taken as the answer of QueryCancel, VBBuildFailed and FileNotFound.
#pragma once

#include "QVWIScanners.h"
#include "companions.h"
#include "filter/vb_filter.h"
#include "inc/com_dispatch.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"
#include "static/dep_sections.h"
#include "vb/project_reader.h"

#include <windows.h>

#include <map>
#include <string>
#include <utility>

class CDepFiles;

class CVBPScan : public qv::object_root,
                 public qv::dispatch_impl<IVBPScan, &IID_IVBPScan, qv::module_typeinfo_holder>,
                 public IStaticScanEventsValeSP,
                 public qv::support_error_info_impl<&IID_IVBPScan>,
                 private project_reader_host {
public:
    static constexpr bool aggregatable = true;

    QV_BEGIN_INTERFACE_MAP(CVBPScan)
    QV_INTERFACE(IID_IVBPScan, IVBPScan)
    QV_INTERFACE2(IID_IDispatch, IDispatch, IVBPScan)
    QV_INTERFACE(IID_IStaticScanEventsValeSP, IStaticScanEventsValeSP)
    QV_INTERFACE(IID_IStaticScanEventsFellSP2, IStaticScanEventsFellSP2)
    QV_INTERFACE(IID_IStaticScanEventsTarn, IStaticScanEventsTarn)
    QV_INTERFACE(IID_IStaticScanEvents, IStaticScanEvents)
    QV_INTERFACE(IID_ISupportErrorInfo, ISupportErrorInfo)
    QV_END_INTERFACE_MAP()

    CVBPScan();
    ~CVBPScan();

    // The bases are IUnknowns: the object templates give the one implementation.
    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override = 0;
    STDMETHOD_(ULONG, AddRef)() override = 0;
    STDMETHOD_(ULONG, Release)() override = 0;

    // The compiler, the two section-file objects, the groups, the bag and the status words; a failure
    // fails the creation.
    HRESULT FinalConstruct();

    // IDispatch: Scan with a script's sink is taken here (see below); the rest goes to the type library.
    STDMETHOD(Invoke)
    (DISPID id, REFIID iid, LCID lcid, WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* excepinfo,
     UINT* argerr) override;

    // IVBPScan
    STDMETHOD(Scan)
    (BSTR pVBFile, BSTR pDEPFile, IScanEvents* pEvents, VARIANT_BOOL bUseFilter, VARIANT_BOOL bRebuild,
     BSTR sLangID) override;
    STDMETHOD(get_DepFileGroups)(IUnknown** ppVal) override;

    // The sink side offered to the static scanner: the catalog, the other references and the component
    // come from the host's sink (E_UNEXPECTED without one); the rest is ignored.
    STDMETHOD(FoundDepFile)(BSTR) override { return S_OK; }
    STDMETHOD(GetReferencePath)(BSTR, BSTR*) override { return S_OK; }
    STDMETHOD(ErrorEncountered)(BSTR, LONG, BSTR) override { return S_OK; }
    STDMETHOD(get_MMCatalog)(IUnknown** catalog) override;
    STDMETHOD(GetOtherReferences)(VARIANT* value) override;
    STDMETHOD(get_Component)(IUnknown** component) override;

    // The compiler's executable from the Make verb of the .vbp association, in upper case: the command
    // up to and with its last ".EXE " (the blank not kept). Empty when there is none or it is quoted.
    static std::wstring FindCompiler();
    // The compiler's command line for a project of the given kind, writing its errors to errorFile.
    static std::wstring BuildCommandLine(const std::wstring& compiler, const std::wstring& project, int kind,
                                         const std::wstring& errorFile);

private:
    // The whole scan of Scan, inside its boundary.
    HRESULT RunScan(BSTR pVBFile, BSTR pDEPFile, IScanEvents* pEvents, VARIANT_BOOL bUseFilter, VARIANT_BOOL bRebuild,
                    BSTR sLangID);

    // project_reader_host
    bool QueryCancel() override;
    void PercentDone(long percent) override;
    bool FileNotFound(const std::wstring& project, const std::wstring& missingForms) override;
    void ScanProject(const std::wstring& path) override;

    void Status(const std::wstring& text);
    void ReportProgress();
    void RebuildProject(const std::wstring& path, int kind);
    void ScanFormFile(const std::wstring& line);
    void ScanFileAndUses(const std::wstring& file);
    void AddDepFile(const std::wstring& file, bool bStaticScan);
    qv::com_ptr<IQvDepFileGroup> StaticScanInto(const std::wstring& file);
    qv::com_ptr<IQvDepFileGroup> MakeGroup(IDepFiles* files, const std::wstring& name);

    // The .dep walks: the sections of file (general, then this language's) in root, and the Uses keys of
    // one section. matched is set when a section is found.
    void WalkDepSections(IQvSections* root, const std::wstring& file, bool& matched);
    void WalkSection(IQvSections* root, const std::wstring& name, bool& matched);
    void WalkUses(IQvSections* root, IQvSection* section);

    CQVWIVBFilter m_filter;
    qv::com_ptr<IScanUtilTarn> m_pScanUtil;
    qv::com_ptr<IQvSectionLoader> m_pDepFileReader;
    qv::com_ptr<IQvSectionLoader> m_pSiblingDepReader;
    qv::com_ptr<IQvDepFileGroups> m_pGroups;
    qv::com_ptr<IQvDepFileGroup> m_pProjectGroup;
    qv::com_ptr<CDepFiles> m_pFiles;
    qv::com_ptr<IDepFiles> m_pFilesIf;
    qv::com_ptr<IScanEventsTarn> m_pEvents;
    qv::com_ptr<IStaticScanEventsFellSP2> m_pEventsFellSP2;
    qv::com_ptr<IStaticScanEventsValeSP> m_pEventsValeSP;
    project_reader_state m_reader; // m_formFiles, m_sMissingForms, m_bAbort
    long m_nTotalSteps = 0;
    long m_nDoneSteps = 0;
    std::wstring m_sDepFile;
    std::wstring m_sCompiler;
    std::wstring m_sLangID;
    std::wstring m_sReadingWord, m_sRebuildingWord, m_sScanningWord;
    bool m_bRebuild = false;
    qv::com_ptr<IQvSections> m_pDepFileRoot;
    bool m_bDepFileMatched = false;
    bool m_bUseFilter = false;
    bool m_bUseCatalog = false; // the host handed in a merge-module catalog
    // The sections being walked: what ends a circle of Uses keys, and a nesting too deep.
    CDepSections m_sections;
};
