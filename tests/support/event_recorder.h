// A client's sink for dispatch events (the engine's, the dynamic scanner's): each call's DISPID with its
// first argument in words (a text in lower case, a number, or a record's folder\name in lower case), in
// the order they came. pump_until dispatches the apartment's messages, through which such events arrive.
#pragma once

#include "QVWIScanners.h"
#include "inc/com_ptr.h"
#include "test_support.h"

#include <windows.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace qv::test {

// IDispatch of an object that lives as long as its client needs it: no counting, no type information; it
// answers IUnknown, IDispatch and events_iid.
struct static_dispatch : IDispatch {
    IID events_iid = IID_IDispatch;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        *ppv = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || IsEqualIID(iid, events_iid) ? this
                                                                                                           : nullptr;
        return *ppv ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* n) override { return *n = 0, S_OK; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
};

struct event_recorder : static_dispatch {
    std::vector<std::pair<DISPID, std::wstring>> events;

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* p, VARIANT*, EXCEPINFO*, UINT*) override {
        const VARIANT* first = p && p->cArgs ? &p->rgvarg[p->cArgs - 1] : nullptr;
        std::wstring text;
        if (first && V_VT(first) == VT_BSTR)
            text = lower(V_BSTR(first) ? V_BSTR(first) : L"");
        else if (first && V_VT(first) == VT_I4)
            text = std::to_wstring(V_I4(first));
        else if (first && V_VT(first) == VT_DISPATCH && V_DISPATCH(first)) {
            qv::com_ptr<IDepFile> file;
            qv::bstr name, path;
            if (SUCCEEDED(V_DISPATCH(first)->QueryInterface(IID_IDepFile, file.put_void())) &&
                SUCCEEDED(file->get_Name(name.put())) && SUCCEEDED(file->get_Path(path.put())))
                text = lower(path.str() + (path.empty() ? L"" : L"\\") + name.str());
        }
        events.emplace_back(id, text);
        return S_OK;
    }
    size_t count(DISPID id) const {
        return std::count_if(events.begin(), events.end(), [&](auto& e) { return e.first == id; });
    }
};

// Dispatches messages until done() holds or ms pass; whether done() held.
template <class Done> bool pump_until(Done done, DWORD ms = 20000) {
    for (DWORD start = GetTickCount(); !done();) {
        if (GetTickCount() - start >= ms)
            return false;
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageW(&message);
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 50, QS_ALLINPUT);
    }
    return true;
}

} // namespace qv::test
