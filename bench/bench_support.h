// What the benchmarks share: a sink that answers every event of a static scan with success and counts
// FoundDepFile, and a clock.
#pragma once

#include "QVWIScanners.h"

#include <windows.h>

namespace qv::bench {

class counting_sink : public IStaticScanEventsFellSP2 {
public:
    long events = 0;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IStaticScanEvents) ||
            IsEqualIID(riid, IID_IStaticScanEventsTarn) || IsEqualIID(riid, IID_IStaticScanEventsFellSP2)) {
            *ppv = this;
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    // Lives on the benchmark's stack, longer than any scan.
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE FoundDepFile(BSTR) override {
        ++events;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetReferencePath(BSTR, BSTR* p) override {
        *p = nullptr;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ErrorEncountered(BSTR, LONG, BSTR) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE get_MMCatalog(IUnknown** p) override {
        *p = nullptr;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetOtherReferences(VARIANT* v) override {
        VariantInit(v);
        return S_OK;
    }
};

inline double now() {
    LARGE_INTEGER f, c;
    QueryPerformanceFrequency(&f);
    QueryPerformanceCounter(&c);
    return static_cast<double>(c.QuadPart) / static_cast<double>(f.QuadPart);
}

} // namespace qv::bench
