// IDispatch over type information, and the two holders that find it.
//
// typeinfo_holder<&LIBID, major, minor> serves an interface through the registry (LoadRegTypeLib),
// except for version 0xFFFF.0xFFFF, which it takes from the module file. module_typeinfo_holder never
// asks the registry: it loads the type library embedded in the module file, so that it works whether
// or not the library is registered. Both keep what they loaded from first use until the module ends,
// under the module's critical section.
#pragma once

#include "inc/com_module.h"
#include "inc/com_ptr.h"

#include <oaidl.h>
#include <oleauto.h>
#include <windows.h>

namespace qv {

namespace detail {

// The type library embedded in this module's file. E_FAIL when the path does not fit 260 characters.
HRESULT load_module_typelib(ITypeLib** lib);

// Loads and caches the ITypeInfo of iid from lib, under the module lock; the cache slot is cleared when
// the module ends.
HRESULT cached_typeinfo(ITypeInfo** slot, const IID& iid, HRESULT (*load)(ITypeLib**), ITypeInfo** out);

} // namespace detail

template <const GUID* Libid, WORD Major, WORD Minor> struct typeinfo_holder {
    static HRESULT load(ITypeLib** lib) {
        if (Major == 0xFFFF && Minor == 0xFFFF)
            return detail::load_module_typelib(lib);
        return LoadRegTypeLib(*Libid, Major, Minor, LOCALE_NEUTRAL, lib);
    }
};

struct module_typeinfo_holder {
    static HRESULT load(ITypeLib** lib) { return detail::load_module_typelib(lib); }
};

// The type information of one interface through one holder, loaded once.
template <class Holder, const IID* Piid> struct typeinfo_cache {
    static HRESULT get(ITypeInfo** out) {
        static ITypeInfo* slot = nullptr;
        return detail::cached_typeinfo(&slot, *Piid, &Holder::load, out);
    }
};

// IDispatch for the dual interface Base (identified by *Piid), described by Holder.
template <class Base, const IID* Piid, class Holder> class dispatch_impl : public Base {
public:
    STDMETHOD(GetTypeInfoCount)(UINT* pctinfo) override {
        if (!pctinfo)
            return E_POINTER;
        *pctinfo = 1;
        return S_OK;
    }
    STDMETHOD(GetTypeInfo)(UINT itinfo, LCID, ITypeInfo** pptinfo) override {
        if (!pptinfo)
            return E_POINTER;
        *pptinfo = nullptr;
        if (itinfo != 0)
            return DISP_E_BADINDEX;
        return typeinfo_cache<Holder, Piid>::get(pptinfo);
    }
    STDMETHOD(GetIDsOfNames)(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
        com_ptr<ITypeInfo> info;
        HRESULT hr = typeinfo_cache<Holder, Piid>::get(info.put());
        return SUCCEEDED(hr) ? info->GetIDsOfNames(names, count, ids) : hr;
    }
    STDMETHOD(Invoke)(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* excepinfo,
                      UINT* argerr) override {
        com_ptr<ITypeInfo> info;
        HRESULT hr = typeinfo_cache<Holder, Piid>::get(info.put());
        if (FAILED(hr))
            return hr;
        return info->Invoke(static_cast<Base*>(this), id, flags, params, result, excepinfo, argerr);
    }
};

// ISupportErrorInfo that answers for one interface.
template <const IID* Piid> class support_error_info_impl : public ISupportErrorInfo {
public:
    STDMETHOD(InterfaceSupportsErrorInfo)(REFIID iid) override { return IsEqualIID(iid, *Piid) ? S_OK : S_FALSE; }
};

} // namespace qv
