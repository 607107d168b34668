// CStaticScan, the class StaticScan: a client hands it one file and a sink and gets back the records of
// every file that file needs. For one call it makes a filter and a walker, lets the walker fill its two
// maps, and turns them into a new CDepFiles collection; between calls it keeps only that collection.
//
// ScanFile and ScanWithFilter hold no exception handler on purpose: a failure inside the walk (a sink's
// event, the catalog, running out of memory) leaves them as the C++ exception, for the in-process
// clients to catch; they are not turned into results like the other methods of the server.
#pragma once

#include "QVWIScanners.h"
#include "inc/com_dispatch.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"
#include "inc/priv_interfaces.h"
#include "inc/scan_extensions.h"

#include <string>

class CDepFiles;
class CFilterBase;

class CStaticScan
    : public qv::object_root,
      public qv::dispatch_impl<IStaticScan, &IID_IStaticScan, qv::typeinfo_holder<&LIBID_QVWISCANNERSLib, 1, 0>>,
      public IPrivStaticScan,
      public IQvScanGraph {
public:
    static constexpr bool aggregatable = true;

    QV_BEGIN_INTERFACE_MAP(CStaticScan)
    QV_INTERFACE(IID_IStaticScan, IStaticScan)
    QV_INTERFACE2(IID_IDispatch, IDispatch, IStaticScan)
    QV_INTERFACE(IID_IPrivStaticScan, IPrivStaticScan)
    QV_INTERFACE(IID_IQvScanGraph, IQvScanGraph)
    QV_END_INTERFACE_MAP()

    CStaticScan();
    ~CStaticScan();

    // Both bases are IUnknowns: the object templates give the one implementation.
    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override = 0;
    STDMETHOD_(ULONG, AddRef)() override = 0;
    STDMETHOD_(ULONG, Release)() override = 0;

    // IStaticScan. bFilterFiles: any non-zero value filters.
    STDMETHOD(ScanFile)
    (BSTR pVal, IStaticScanEvents* pEvents, VARIANT_BOOL bFilterFiles, BSTR sLangID, EScanType scanType,
     VARIANT_BOOL* bScanCompleted) override;
    STDMETHOD(get_Dependencies)(IDepFiles** pVal) override;

    // IPrivStaticScan
    STDMETHOD(ScanWithFilter)
    (BSTR file, IStaticScanEvents* events, VARIANT_BOOL bFilterFiles, BSTR sLangID, VARIANT_BOOL* completed,
     CFilterBase* filter, long scanType) override;

    // IQvScanGraph
    STDMETHOD(get_Edges)(BSTR* lines) override;

private:
    qv::com_ptr<CDepFiles> m_pDependencies;
    std::wstring m_edges; // of the last scan that ended
};
