// A host sink for static scans that records every call: the whole event chain (or, with lacksFellSP2,
// only up to IStaticScanEventsTarn), counted references, FoundDepFile failing after a number of calls,
// and a note of any call a static walk must not make.
#pragma once

#include "QVWIScanners.h"

#include <string>
#include <vector>

namespace qv::test {

class recording_sink : public IStaticScanEventsValeSP {
public:
    explicit recording_sink(bool lacksFellSP2 = false) : m_lacksFellSP2(lacksFellSP2) {}
    virtual ~recording_sink() = default;

    std::vector<std::wstring> found, errors, unexpected; // FoundDepFile and ErrorEncountered files; wrong calls
    IUnknown* catalog = nullptr; // what get_MMCatalog hands out (not owned)
    int failFoundAfter = -1;     // FoundDepFile fails with E_ABORT once this many succeeded
    LONG refs = 1;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        bool all = !m_lacksFellSP2 && (IsEqualIID(iid, IID_IStaticScanEventsFellSP2) ||
                                       IsEqualIID(iid, IID_IStaticScanEventsValeSP));
        *ppv = all || IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IStaticScanEvents) ||
                       IsEqualIID(iid, IID_IStaticScanEventsTarn)
                   ? this
                   : nullptr;
        return *ppv ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs); }
    ULONG STDMETHODCALLTYPE Release() override { return InterlockedDecrement(&refs); }

    HRESULT STDMETHODCALLTYPE FoundDepFile(BSTR path) override {
        if (failFoundAfter >= 0 && static_cast<int>(found.size()) >= failFoundAfter)
            return E_ABORT;
        found.emplace_back(path ? path : L"");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ErrorEncountered(BSTR file, LONG, BSTR) override {
        errors.emplace_back(file ? file : L"");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_MMCatalog(IUnknown** out) override {
        if ((*out = catalog))
            catalog->AddRef();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetReferencePath(BSTR, BSTR* out) override { return wrong(L"GetReferencePath", out); }
    HRESULT STDMETHODCALLTYPE GetOtherReferences(VARIANT* out) override {
        VariantInit(out);
        return wrong(L"GetOtherReferences", static_cast<void*>(nullptr));
    }
    HRESULT STDMETHODCALLTYPE get_Component(IUnknown** out) override { return wrong(L"get_Component", out); }

private:
    template <class T> HRESULT wrong(const wchar_t* call, T* out) {
        unexpected.push_back(call);
        if (out)
            *out = nullptr;
        return E_NOTIMPL;
    }
    HRESULT wrong(const wchar_t* call, void*) {
        unexpected.push_back(call);
        return E_NOTIMPL;
    }
    bool m_lacksFellSP2;
};

} // namespace qv::test
