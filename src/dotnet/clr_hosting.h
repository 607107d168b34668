// The runtime-hosting interfaces of mscoree.dll that the assembly scanner calls, in their published slot
// order, with their published identifiers. The cross compiler's headers do not carry them; only the
// slots up to the last one called are named, the rest hold their place.
#pragma once

#include <windows.h>

#include <objidl.h>
#include <unknwn.h>

struct ICLRRuntimeInfo : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetVersionString(LPWSTR buffer, DWORD* size) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetRuntimeDirectory(LPWSTR buffer, DWORD* size) = 0;
    virtual HRESULT STDMETHODCALLTYPE IsLoaded(HANDLE process, BOOL* loaded) = 0;
    virtual HRESULT STDMETHODCALLTYPE LoadErrorString(UINT id, LPWSTR buffer, DWORD* size, LONG locale) = 0;
    virtual HRESULT STDMETHODCALLTYPE LoadLibrary(LPCWSTR name, HMODULE* module) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetProcAddress(LPCSTR name, LPVOID* proc) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetInterface(REFCLSID clsid, REFIID iid, LPVOID* object) = 0;
};

struct ICLRMetaHost : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetRuntime(LPCWSTR version, REFIID iid, LPVOID* runtime) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetVersionFromFile(LPCWSTR file, LPWSTR buffer, DWORD* size) = 0;
    virtual HRESULT STDMETHODCALLTYPE EnumerateInstalledRuntimes(IEnumUnknown** runtimes) = 0;
};

struct ICLRStrongName : IUnknown {
    // Slots 3 to 26, not called: the hash, blob, key, signature and token-from-assembly operations.
    virtual void STDMETHODCALLTYPE slot3() = 0;
    virtual void STDMETHODCALLTYPE slot4() = 0;
    virtual void STDMETHODCALLTYPE slot5() = 0;
    virtual void STDMETHODCALLTYPE slot6() = 0;
    virtual void STDMETHODCALLTYPE slot7() = 0;
    virtual void STDMETHODCALLTYPE slot8() = 0;
    virtual void STDMETHODCALLTYPE slot9() = 0;
    virtual HRESULT STDMETHODCALLTYPE StrongNameFreeBuffer(BYTE* memory) = 0;
    virtual void STDMETHODCALLTYPE slot11() = 0;
    virtual void STDMETHODCALLTYPE slot12() = 0;
    virtual void STDMETHODCALLTYPE slot13() = 0;
    virtual void STDMETHODCALLTYPE slot14() = 0;
    virtual void STDMETHODCALLTYPE slot15() = 0;
    virtual void STDMETHODCALLTYPE slot16() = 0;
    virtual void STDMETHODCALLTYPE slot17() = 0;
    virtual void STDMETHODCALLTYPE slot18() = 0;
    virtual void STDMETHODCALLTYPE slot19() = 0;
    virtual void STDMETHODCALLTYPE slot20() = 0;
    virtual void STDMETHODCALLTYPE slot21() = 0;
    virtual void STDMETHODCALLTYPE slot22() = 0;
    virtual void STDMETHODCALLTYPE slot23() = 0;
    virtual void STDMETHODCALLTYPE slot24() = 0;
    virtual void STDMETHODCALLTYPE slot25() = 0;
    virtual void STDMETHODCALLTYPE slot26() = 0;
    virtual HRESULT STDMETHODCALLTYPE StrongNameTokenFromPublicKey(BYTE* key, ULONG keySize, BYTE** token,
                                                                   ULONG* tokenSize) = 0;
};

namespace qv::clr {

inline constexpr CLSID CLSID_CLRMetaHost = {
    0x9280188D, 0x0E8E, 0x4867, {0xB3, 0x0C, 0x7F, 0xA8, 0x38, 0x84, 0xE8, 0xDE}};
inline constexpr IID IID_ICLRMetaHost = {0xD332DB9E, 0xB9B3, 0x4125, {0x82, 0x07, 0xA1, 0x48, 0x84, 0xF5, 0x32, 0x16}};
inline constexpr IID IID_ICLRRuntimeInfo = {
    0xBD39D1D2, 0xBA2F, 0x486A, {0x89, 0xB0, 0xB4, 0xB0, 0xCB, 0x46, 0x68, 0x91}};
inline constexpr CLSID CLSID_CLRStrongName = {
    0xB79B0ACD, 0xF5CD, 0x409B, {0xB5, 0xA5, 0xA1, 0x62, 0x44, 0x61, 0x0B, 0x92}};
inline constexpr IID IID_ICLRStrongName = {
    0x9FD93CCF, 0x3280, 0x4391, {0xB3, 0xA9, 0x96, 0xE1, 0xCD, 0xE7, 0x7C, 0x8D}};
inline constexpr CLSID CLSID_CorMetaDataDispenser = {
    0xE5CB7A31, 0x7512, 0x11D2, {0x89, 0xCE, 0x00, 0x80, 0xC7, 0x92, 0xE5, 0xD8}};

using CLRCreateInstanceFn = HRESULT(WINAPI*)(REFCLSID clsid, REFIID iid, LPVOID* object);
using LoadLibraryShimFn = HRESULT(WINAPI*)(LPCWSTR name, LPCWSTR version, LPVOID reserved, HMODULE* module);

} // namespace qv::clr
