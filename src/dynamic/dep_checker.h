// CDepChecker, the coclass DepChecker: the dynamic scan. It debugs nothing itself: the engine process
// (debug_engine.h), started with the object and living as long as it does, runs the target and reports
// each module loaded; the checker turns those reports into records in tagged bags and tells its clients
// through _IDepCheckerEvents. CSinkDebugEngine is the checker's ear on the engine.
//
// Everything runs on the apartment thread of the creator, entered by the engine's event calls, which
// COM delivers only while that thread dispatches messages. The engine's health is not watched: when it
// dies, commands fail quietly and events stop.
//
// Deliberate quirks kept for the clients that rely on them:
// - A tag starts a bag but never returns to one: after the tags A, B, A records still go to B.
// - Launch, AttachProcess and Terminate drop the engine's answer; a client learns of the target only
//   through the events. AttachProcess neither marks the application running nor reloads the filter.
// - _IDepCheckerFilter accepts connections and is never called.
// One deviation, for a scan that starts with AttachProcess: the filter has not been loaded then, and it
// is loaded with the current Filtering on the first report that needs it, instead of losing that report.
//
// A failure while a report is recorded loses the report; the sink answers the engine with its HRESULT
// rather than letting the exception unwind into the COM runtime.
#pragma once

#include "QVWIScanners.h"
#include "dynamic/debug_engine.h"
#include "filter/qvwi_filter.h"
#include "inc/com_connection.h"
#include "inc/com_dispatch.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"

#include <windows.h>

#include <cwchar>
#include <map>
#include <memory>
#include <string>

class CDepChecker;
class CDepFileBag;
class CDepFileBags;

// The sink advised on the engine's connection point: its IDispatch takes the five engine events.
class CSinkDebugEngine : public qv::object_root,
                         public qv::dispatch_impl<ISinkDebugEngine, &IID_ISinkDebugEngine, qv::module_typeinfo_holder> {
public:
    static constexpr bool aggregatable = false;
    static constexpr DWORD NotAdvised = 0xFEFEFEFE;

    QV_BEGIN_INTERFACE_MAP(CSinkDebugEngine)
    QV_INTERFACE(IID_ISinkDebugEngine, ISinkDebugEngine)
    QV_INTERFACE(IID_IDispatch, IDispatch)
    QV_INTERFACE(DIID__IQvDebugEngineEvents, IDispatch)
    QV_END_INTERFACE_MAP()

    // The events by DISPID, their arguments coerced to the types the type library gives them. A DISPID
    // outside the five is S_OK without effect; so is a call that carries too few arguments.
    STDMETHOD(Invoke)
    (DISPID id, REFIID iid, LCID lcid, WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* excepinfo,
     UINT* argerr) override;

    virtual void LoadDLL(BSTR path);
    virtual void UnloadDLL(BSTR path);
    virtual void ApplicationFinished();
    virtual void ChildProcessCreated(long processId, long processHandle, long threadId, long threadHandle);
    virtual void ChildProcessExit(long processId);

    // Advises this sink on the engine (E_FAIL when already advised, E_INVALIDARG without an engine).
    HRESULT Advise(IDispatch* engine);
    // Unadvises it; the cookie reads NotAdvised afterwards whatever came of it.
    void Unadvise(IDispatch* engine);

    CDepChecker* m_owner = nullptr; // counts no reference
    DWORD m_cookie = NotAdvised;
};

// Names compared without case over the shorter length, the shorter first on a tie.
struct excluded_name_less {
    bool operator()(const std::wstring& a, const std::wstring& b) const noexcept {
        const size_t n = a.size() < b.size() ? a.size() : b.size();
        const int c = _wcsnicmp(a.c_str(), b.c_str(), n);
        return c != 0 ? c < 0 : a.size() < b.size();
    }
};

class CDepChecker : public ISupportErrorInfo,
                    public qv::dispatch_impl<IDepCheckerTarn, &IID_IDepCheckerTarn, qv::module_typeinfo_holder>,
                    public IConnectionPointContainer,
                    public qv::object_root {
public:
    static constexpr bool aggregatable = false;
    // Final construction's answer when the engine link cannot be made.
    static constexpr HRESULT NoHelper = static_cast<HRESULT>(0xFFFFFCEC);

    QV_BEGIN_INTERFACE_MAP(CDepChecker)
    QV_INTERFACE(IID_IDepCheckerTarn, IDepCheckerTarn)
    QV_INTERFACE(IID_IDepChecker, IDepChecker)
    QV_INTERFACE(IID_IDispatch, IDispatch)
    QV_INTERFACE(IID_ISupportErrorInfo, ISupportErrorInfo)
    QV_INTERFACE(IID_IConnectionPointContainer, IConnectionPointContainer)
    QV_END_INTERFACE_MAP()

    CDepChecker();
    ~CDepChecker();

    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override = 0;
    STDMETHOD_(ULONG, AddRef)() override = 0;
    STDMETHOD_(ULONG, Release)() override = 0;

    // The scan utilities, the first bag, the excluded names, then the engine started and connected.
    HRESULT FinalConstruct();
    // The bags, the sink's connection, the sink, and the engine object, in that order; no Terminate.
    void FinalRelease();

    // ISupportErrorInfo: IDepChecker only.
    STDMETHOD(InterfaceSupportsErrorInfo)(REFIID iid) override;

    // IDepChecker
    STDMETHOD(get_Monitoring)(VARIANT_BOOL* pVal) override;
    STDMETHOD(put_Monitoring)(VARIANT_BOOL newVal) override;
    STDMETHOD(get_CurrentTagName)(BSTR* pVal) override;
    STDMETHOD(put_CurrentTagName)(BSTR newVal) override;
    STDMETHOD(get_Filtering)(VARIANT_BOOL* pVal) override;
    STDMETHOD(put_Filtering)(VARIANT_BOOL newVal) override;
    STDMETHOD(get_Dependencies)(IDepFileBags** pVal) override;
    STDMETHOD(Launch)(BSTR ApplicationPath, BSTR Parameters, BSTR CurrentDirectory, long LoadFlags) override;
    STDMETHOD(AttachProcess)(long ProcessID) override;
    STDMETHOD(Terminate)() override;
    STDMETHOD(reset)() override;
    STDMETHOD(get_ApplicationRunning)(VARIANT_BOOL* pVal) override;
    // IDepCheckerTarn: handed on to the scan utilities, which own the catalog.
    STDMETHOD(put_MMCatalog)(IUnknown* newVal) override;

    // IConnectionPointContainer: _IDepCheckerEvents and _IDepCheckerFilter.
    STDMETHOD(EnumConnectionPoints)(IEnumConnectionPoints** out) override;
    STDMETHOD(FindConnectionPoint)(REFIID iid, IConnectionPoint** out) override;

    // The engine's events, as the sink hands them on. OnLoadDLL throws what it meets.
    void OnLoadDLL(BSTR path);
    void OnApplicationFinished();
    void OnChildProcessCreated(long processId);
    void OnChildProcessExit(long processId);

    // The engine's folder as the services library tells it, asked once (an empty answer is asked again).
    // Throws com_exception when the library cannot be reached or fails.
    const std::wstring& EngineFolder();

private:
    void MakeBag();
    void ChangeTag(BSTR tag);
    bool IsExcluded(const std::wstring& name);

    qv::com_ptr<CDepFileBags> m_bags;
    CDepFileBag* m_currentBag = nullptr; // owned by m_bags
    LONG m_filtering = VARIANT_TRUE;
    LONG m_monitoring = VARIANT_TRUE;
    LONG m_applicationRunning = 0;
    qv::bstr m_currentTagName;
    std::unique_ptr<CDebugEngineHelper> m_helper;
    std::map<std::wstring, bool, excluded_name_less> m_excludedNames;
    qv::com_ptr<qv::com_object<CSinkDebugEngine>> m_sink;
    qv::com_ptr<IScanUtilTarn> m_scanUtil;
    CQVWIFilter m_filter;
    bool m_useEngine64 = false;
    std::wstring m_engineFolder;

    qv::connection_point<&DIID__IDepCheckerEvents> m_events{this};
    qv::connection_point<&DIID__IDepCheckerFilter> m_filterPoint{this};
};
