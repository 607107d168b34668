// A host sink for static scans that records every call. It implements the whole event chain (or,
// with lacksFellSP2, stops at IStaticScanEventsTarn), counts references, can be told to fail
// FoundDepFile after a number of calls, and notes any call a static walk must not make.
#pragma once

#include "QVWIScanners.h"

#include <windows.h>

#include <string>
#include <vector>

namespace qv::test {

class recording_sink : public IStaticScanEventsValeSP {
public:
    explicit recording_sink(bool lacksFellSP2 = false) : m_lacksFellSP2(lacksFellSP2) {}
    virtual ~recording_sink() = default;

    std::vector<std::wstring> found;      // FoundDepFile arguments, in order
    std::vector<std::wstring> errors;     // ErrorEncountered files
    std::vector<std::wstring> unexpected; // calls a static walk must not make
    int catalogReads = 0;
    IUnknown* catalog = nullptr;           // what get_MMCatalog hands out (not owned)
    int failFoundAfter = -1;               // FoundDepFile fails with E_ABORT once this many succeeded
    LONG refs = 1;

    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IStaticScanEvents) ||
            IsEqualIID(riid, IID_IStaticScanEventsTarn) ||
            (!m_lacksFellSP2 && (IsEqualIID(riid, IID_IStaticScanEventsFellSP2) ||
                                 IsEqualIID(riid, IID_IStaticScanEventsValeSP)))) {
            *ppv = static_cast<IStaticScanEventsValeSP*>(this);
            AddRef();
            return S_OK;
        }
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs); }
    ULONG STDMETHODCALLTYPE Release() override { return InterlockedDecrement(&refs); }

    // IStaticScanEvents
    HRESULT STDMETHODCALLTYPE FoundDepFile(BSTR pVal) override {
        if (failFoundAfter >= 0 && static_cast<int>(found.size()) >= failFoundAfter)
            return E_ABORT;
        found.emplace_back(pVal ? pVal : L"");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetReferencePath(BSTR, BSTR* psPath) override {
        unexpected.push_back(L"GetReferencePath");
        if (psPath)
            *psPath = nullptr;
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE ErrorEncountered(BSTR bstrFile, LONG, BSTR) override {
        errors.emplace_back(bstrFile ? bstrFile : L"");
        return S_OK;
    }
    // IStaticScanEventsTarn
    HRESULT STDMETHODCALLTYPE get_MMCatalog(IUnknown** pMMCatalog) override {
        ++catalogReads;
        if (!pMMCatalog)
            return E_POINTER;
        *pMMCatalog = catalog;
        if (catalog)
            catalog->AddRef();
        return S_OK;
    }
    // IStaticScanEventsFellSP2
    HRESULT STDMETHODCALLTYPE GetOtherReferences(VARIANT* pVal) override {
        unexpected.push_back(L"GetOtherReferences");
        if (pVal)
            VariantInit(pVal);
        return E_NOTIMPL;
    }
    // IStaticScanEventsValeSP
    HRESULT STDMETHODCALLTYPE get_Component(IUnknown** pComponent) override {
        unexpected.push_back(L"get_Component");
        if (pComponent)
            *pComponent = nullptr;
        return E_NOTIMPL;
    }

private:
    bool m_lacksFellSP2;
};

} // namespace qv::test
