// CScriptScanEvents, the class ScanEvents ("QVWIScanners.ScanEvents"): the sink a script hands to
// StaticScan.ScanFile. A script object cannot be the sink itself (ScanFile takes the events interface, which a
// script's objects lack), so a script makes this one, passes it, and reads afterwards what the scan told it:
// Found, how many entries the walk reported, and Errors, a line per error ("file: number: description").
// It brings no merge-module catalog, no reference paths and no other references.
#pragma once

#include "QVWIScanners.h"
#include "inc/com_object.h"
#include "inc/scan_extensions.h"

#include <windows.h>

#include <string>

class CScriptScanEvents : public qv::object_root, public IStaticScanEventsFellSP2, public IDispatch {
public:
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CScriptScanEvents)
    QV_INTERFACE(IID_IStaticScanEventsFellSP2, IStaticScanEventsFellSP2)
    QV_INTERFACE(IID_IStaticScanEventsTarn, IStaticScanEventsFellSP2)
    QV_INTERFACE(IID_IStaticScanEvents, IStaticScanEventsFellSP2)
    QV_INTERFACE(IID_IDispatch, IDispatch)
    QV_END_INTERFACE_MAP()

    // The events: counted and kept for the script.
    STDMETHOD(FoundDepFile)(BSTR file) override;
    STDMETHOD(GetReferencePath)(BSTR name, BSTR* path) override;
    STDMETHOD(ErrorEncountered)(BSTR file, LONG error, BSTR description) override;
    STDMETHOD(get_MMCatalog)(IUnknown** catalog) override;
    STDMETHOD(GetOtherReferences)(VARIANT* value) override;

    // IDispatch with two read-only properties, Found (DISPID 1) and Errors (DISPID 2), and no type information.
    STDMETHOD(GetTypeInfoCount)(UINT* count) override;
    STDMETHOD(GetTypeInfo)(UINT, LCID, ITypeInfo** info) override;
    STDMETHOD(GetIDsOfNames)(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override;
    STDMETHOD(Invoke)(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO*,
                      UINT*) override;

private:
    long m_found = 0;
    std::wstring m_errors;
};
