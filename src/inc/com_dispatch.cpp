#include "inc/com_dispatch.h"

namespace qv::detail {

HRESULT load_module_typelib(ITypeLib** lib) {
    *lib = nullptr;
    wchar_t path[MAX_PATH];
    DWORD n = GetModuleFileNameW(g_module.Instance(), path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH)
        return E_FAIL;
    return LoadTypeLib(path, lib);
}

HRESULT cached_typeinfo(ITypeInfo** slot, const IID& iid, HRESULT (*load)(ITypeLib**), ITypeInfo** out) {
    if (!out)
        return E_POINTER;
    *out = nullptr;
    module_lock lock;
    if (!*slot) {
        com_ptr<ITypeLib> lib;
        HRESULT hr = load(lib.put());
        if (FAILED(hr))
            return hr;
        com_ptr<ITypeInfo> info;
        hr = lib->GetTypeInfoOfGuid(iid, info.put());
        if (FAILED(hr))
            return hr;
        *slot = info.detach();
        g_module.AddTermFunc([slot] {
            if (ITypeInfo* p = *slot) {
                *slot = nullptr;
                p->Release();
            }
        });
    }
    (*slot)->AddRef();
    *out = *slot;
    return S_OK;
}

} // namespace qv::detail

