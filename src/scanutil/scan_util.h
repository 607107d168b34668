// CScanUtil, the coclass ScanUtil: a dependency record for one PE file (PE), and the question whether a
// merge module of the host's catalog ships a file (InMergeModule, InMergeModuleEx), with the two texts the
// catalog gives for a module it knows but lacks. The scanners make one for each scan and hand it the
// catalog of their events; clients may create it and set the catalog themselves.
//
// The catalog and its module records are the host's closed objects. This class trusts them for their
// slot layout only (companions.idl): it forms the key of a file, forwards the catalog's texts as they
// come, and reads nothing else into them. Every failure of the catalog is raised as com_exception inside
// and leaves each interface method as its HRESULT; the scanners, which call through the interface, raise
// it again.
#pragma once

#include "QVWIScanners.h"
#include "companions.h"
#include "inc/com_dispatch.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"

#include <windows.h>

class CScanUtil : public qv::object_root,
                  public qv::dispatch_impl<IScanUtilValeSP1, &IID_IScanUtilValeSP1, qv::module_typeinfo_holder> {
public:
    static constexpr bool aggregatable = true;

    QV_BEGIN_INTERFACE_MAP(CScanUtil)
    QV_INTERFACE(IID_IScanUtilValeSP1, IScanUtilValeSP1)
    QV_INTERFACE(IID_IScanUtilTarn, IScanUtilTarn)
    QV_INTERFACE(IID_IScanUtil, IScanUtil)
    QV_INTERFACE(IID_IDispatch, IDispatch)
    QV_END_INTERFACE_MAP()

    // IScanUtil
    // A record of the file, or null (and S_OK) when it is no usable PE image or cannot be opened. The
    // self-registration flag comes from the export table: the file is never loaded.
    STDMETHOD(get_PE)(BSTR FileName, IDepFile** ppPE) override;
    // The catalog's IUnknown; E_UNEXPECTED when none is set.
    STDMETHOD(get_MMCatalog)(IUnknown** ppCatalog) override;
    // InMergeModuleEx with the machine word of the file's header (0 when it has none).
    STDMETHOD(InMergeModule)(BSTR bstrSource, IUnknown** ppMM, VARIANT_BOOL* bYes) override;

    // IScanUtilTarn: forwarded to the catalog, whose result they return.
    STDMETHOD(GetMissingMergeModuleKey)(BSTR bstrSource, BSTR* bstrMMKey) override;
    STDMETHOD(GetMissingMergeModuleSubject)(BSTR bstrMMKey, BSTR* bstrMMSubject) override;
    // Stores the catalog, or clears it for null. An object without the catalog interface fails with the
    // result of that query and leaves the catalog as it was.
    STDMETHOD(put_MMCatalog)(IUnknown* pCatalog) override;

    // IScanUtilValeSP1
    // *bYes: whether a module holds the file; *ppMM: that module's record when the catalog has it, null
    // when it lacks it, and null for the catch-all module, which counts as no module at all.
    STDMETHOD(InMergeModuleEx)(BSTR bstrSource, LONG dwMachine, IUnknown** ppMM, VARIANT_BOOL* bYes) override;

private:
    // The catalog as get_MMCatalog gives it, queried for its interface; a failure of either is thrown.
    qv::com_ptr<IQvMergeModuleCatalog> Catalog();

    qv::com_ptr<IQvMergeModuleCatalog> m_pCatalog;
};
