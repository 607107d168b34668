// COM object templates: reference counting, the interface map, aggregation through a separate
// non-delegating inner IUnknown, creation with final construction, and cached class factories.
//
// A class states only what is its own:
//
//   class CFoo : public qv::object_root, public IFoo {
//   public:
//       static constexpr bool aggregatable = true;
//       QV_BEGIN_INTERFACE_MAP(CFoo)
//           QV_INTERFACE(IID_IFoo, IFoo)
//       QV_END_INTERFACE_MAP()
//       HRESULT FinalConstruct();   // optional
//       void FinalRelease();        // optional
//       ... IFoo methods ...
//   };
//
// and is created by qv::creator<CFoo>::CreateInstance(outer, iid, ppv), or for use inside the
// library by qv::make_object<CFoo>(args...). Every live object holds one lock on the module.
#pragma once

#include "inc/com_boundary.h"
#include "inc/com_module.h"
#include "inc/com_ptr.h"

#include <windows.h>

#include <new>
#include <span>
#include <unknwn.h>
#include <utility>

namespace qv {

struct interface_entry {
    const IID* piid; // null ends the map
    DWORD_PTR offset;
};

// Offset of interface I inside class C, without an object (the usual non-null base trick).
template <class C, class I> DWORD_PTR interface_offset() {
    constexpr DWORD_PTR base = 8;
    return reinterpret_cast<DWORD_PTR>(static_cast<I*>(reinterpret_cast<C*>(base))) - base;
}

#define QV_BEGIN_INTERFACE_MAP(cls)                                                                                    \
    using _qv_map_class = cls;                                                                                         \
    static const ::qv::interface_entry* _qv_entries() {                                                                \
        static const ::qv::interface_entry entries[] = {
#define QV_INTERFACE(iid, itf) {&(iid), ::qv::interface_offset<_qv_map_class, itf>()},
// An interface reached through one of the class's bases, when itf itself is ambiguous.
#define QV_INTERFACE2(iid, itf, via)                                                                                   \
    {&(iid), static_cast<DWORD_PTR>(::qv::interface_offset<_qv_map_class, via>() + ::qv::interface_offset<via, itf>())},
#define QV_END_INTERFACE_MAP()                                                                                         \
    { nullptr, 0 }                                                                                                     \
    }                                                                                                                  \
    ;                                                                                                                  \
    return entries;                                                                                                    \
    }                                                                                                                  \
    IUnknown* _qv_identity() {                                                                                         \
        return reinterpret_cast<IUnknown*>(reinterpret_cast<BYTE*>(this) + _qv_entries()[0].offset);                   \
    }

// The state every object of the library has: its count and, when aggregated, its outer unknown.
class object_root {
public:
    object_root() = default;
    object_root(const object_root&) = delete;
    object_root& operator=(const object_root&) = delete;

    HRESULT FinalConstruct() { return S_OK; }
    void FinalRelease() {}

    // Map lookup: IUnknown is the first entry. A hit is handed out with one reference.
    static HRESULT InternalQueryInterface(void* self, const interface_entry* entries, REFIID iid, void** ppv) {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        for (const interface_entry* e = entries; e->piid; ++e) {
            if (IsEqualIID(iid, *e->piid) || (e == entries && IsEqualIID(iid, IID_IUnknown))) {
                auto* unk = reinterpret_cast<IUnknown*>(static_cast<BYTE*>(self) + e->offset);
                unk->AddRef();
                *ppv = unk;
                return S_OK;
            }
        }
        return E_NOINTERFACE;
    }

    ULONG InternalAddRef() { return static_cast<ULONG>(++m_dwRef); }
    ULONG InternalRelease() { return static_cast<ULONG>(--m_dwRef); }

    // Set while an object lives inside an aggregate.
    IUnknown* m_pOuterUnknown = nullptr;

protected:
    LONG m_dwRef = 0;
};

namespace detail {

// Hands out the first reference of a new object on the interface asked for; a failed query destroys it.
template <class O> HRESULT hand_out(O* p, REFIID iid, void** ppv) {
    p->AddRef();
    HRESULT hr = p->QueryInterface(iid, ppv);
    p->Release();
    return hr;
}

} // namespace detail

// A stand-alone object: the class's IUnknown methods count on the object itself.
template <class T> class com_object final : public T {
public:
    template <class... Args> explicit com_object(Args&&... args) : T(std::forward<Args>(args)...) { g_module.Lock(); }
    ~com_object() {
        // A stable count, so that work in FinalRelease that adds and drops references cannot re-enter here.
        this->m_dwRef = -(LONG_MAX / 2);
        this->FinalRelease();
        g_module.Unlock();
    }

    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override {
        return object_root::InternalQueryInterface(this, T::_qv_entries(), iid, ppv);
    }
    STDMETHOD_(ULONG, AddRef)() override { return this->InternalAddRef(); }
    STDMETHOD_(ULONG, Release)() override {
        ULONG count = this->InternalRelease();
        if (count == 0)
            delete this;
        return count;
    }

    // Makes an object with a count of 0 and runs its final construction; a failure destroys it.
    template <class... Args> static HRESULT CreateInstance(com_object** pp, Args&&... args) {
        if (!pp)
            return E_POINTER;
        *pp = nullptr;
        com_object* p = nullptr;
        // Construction and final construction are the creation's boundary: what they throw is its result.
        HRESULT hr = com_boundary([&] {
            p = new com_object(std::forward<Args>(args)...);
            return S_OK;
        });
        if (FAILED(hr))
            return hr;
        p->InternalAddRef();
        hr = com_boundary([p] { return p->FinalConstruct(); });
        p->InternalRelease();
        if (FAILED(hr)) {
            delete p;
            return hr;
        }
        *pp = p;
        return S_OK;
    }

    // Makes an object and hands out one reference on the interface asked for.
    static HRESULT CreateAndQuery(REFIID iid, void** ppv) {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        com_object* p = nullptr;
        HRESULT hr = CreateInstance(&p);
        return FAILED(hr) ? hr : detail::hand_out(p, iid, ppv);
    }
};

// A new object made from args, held by its first reference. A failure of the allocation, the
// constructor or the final construction is thrown as com_exception with its HRESULT.
template <class T, class... Args> com_ptr<com_object<T>> make_object(Args&&... args) {
    com_object<T>* p = nullptr;
    check_hr(com_object<T>::CreateInstance(&p, std::forward<Args>(args)...));
    return com_ptr<com_object<T>>(p);
}

// The object inside an aggregate: its IUnknown methods go to the outer object.
template <class T> class contained_object final : public T {
public:
    explicit contained_object(IUnknown* outer) { this->m_pOuterUnknown = outer; }
    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override {
        return this->m_pOuterUnknown->QueryInterface(iid, ppv);
    }
    STDMETHOD_(ULONG, AddRef)() override { return this->m_pOuterUnknown->AddRef(); }
    STDMETHOD_(ULONG, Release)() override { return this->m_pOuterUnknown->Release(); }
    HRESULT InnerQueryInterface(REFIID iid, void** ppv) {
        return object_root::InternalQueryInterface(this, T::_qv_entries(), iid, ppv);
    }
};

// The non-delegating inner IUnknown of an aggregated object; the outer object holds it.
template <class T> class agg_object final : public IUnknown {
public:
    explicit agg_object(IUnknown* outer) : m_contained(outer) { g_module.Lock(); }
    ~agg_object() {
        m_dwRef = -(LONG_MAX / 2);
        m_contained.FinalRelease();
        g_module.Unlock();
    }
    agg_object(const agg_object&) = delete;
    agg_object& operator=(const agg_object&) = delete;

    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        if (IsEqualIID(iid, IID_IUnknown)) {
            *ppv = static_cast<IUnknown*>(this);
            AddRef();
            return S_OK;
        }
        return m_contained.InnerQueryInterface(iid, ppv);
    }
    STDMETHOD_(ULONG, AddRef)() override { return static_cast<ULONG>(++m_dwRef); }
    STDMETHOD_(ULONG, Release)() override {
        ULONG count = static_cast<ULONG>(--m_dwRef);
        if (count == 0)
            delete this;
        return count;
    }

    static HRESULT CreateInstance(IUnknown* outer, agg_object** pp) {
        *pp = nullptr;
        agg_object* p = nullptr;
        HRESULT hr = com_boundary([&] {
            p = new agg_object(outer);
            return S_OK;
        });
        if (FAILED(hr))
            return hr;
        p->m_dwRef++;
        hr = com_boundary([p] { return p->m_contained.FinalConstruct(); });
        p->m_dwRef--;
        if (FAILED(hr)) {
            delete p;
            return hr;
        }
        *pp = p;
        return S_OK;
    }

private:
    LONG m_dwRef = 0;
    contained_object<T> m_contained;
};

// Creation through the class table: E_POINTER for a null out-pointer, CLASS_E_NOAGGREGATION for an
// outer unknown when the class cannot be aggregated, and the result of final construction.
template <class T> struct creator {
    static HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** ppv) {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        if (!outer)
            return com_object<T>::CreateAndQuery(iid, ppv);
        if constexpr (!T::aggregatable) {
            return CLASS_E_NOAGGREGATION;
        } else {
            agg_object<T>* p = nullptr;
            HRESULT hr = agg_object<T>::CreateInstance(outer, &p);
            return FAILED(hr) ? hr : detail::hand_out(p, iid, ppv);
        }
    }
};

// An object kept in a cache (a class factory in the class table): the cache's own reference holds no
// lock on the module; any reference a client takes does.
template <class T> class cached_object final : public T {
public:
    template <class... Args> explicit cached_object(Args&&... args) : T(std::forward<Args>(args)...) {}
    ~cached_object() { this->FinalRelease(); }
    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override {
        return object_root::InternalQueryInterface(this, T::_qv_entries(), iid, ppv);
    }
    STDMETHOD_(ULONG, AddRef)() override {
        ULONG count = this->InternalAddRef();
        if (count == 2)
            g_module.Lock();
        return count;
    }
    STDMETHOD_(ULONG, Release)() override {
        ULONG count = this->InternalRelease();
        if (count == 0)
            delete this;
        else if (count == 1)
            g_module.Unlock();
        return count;
    }
};

// The class factory of one class of the table.
class class_factory : public object_root, public IClassFactory {
public:
    using create_fn = HRESULT (*)(IUnknown* outer, REFIID iid, void** ppv);
    explicit class_factory(create_fn create) : m_pfnCreate(create) {}

    QV_BEGIN_INTERFACE_MAP(class_factory)
    QV_INTERFACE(IID_IClassFactory, IClassFactory)
    QV_END_INTERFACE_MAP()

    STDMETHOD(CreateInstance)(IUnknown* outer, REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        // An aggregate may ask only for the inner IUnknown.
        if (outer && !IsEqualIID(iid, IID_IUnknown))
            return CLASS_E_NOAGGREGATION;
        return m_pfnCreate(outer, iid, ppv);
    }
    STDMETHOD(LockServer)(BOOL lock) override {
        if (lock)
            g_module.Lock();
        else
            g_module.Unlock();
        return S_OK;
    }

private:
    create_fn m_pfnCreate;
};

// One class of a library that hands out its classes without registration.
struct library_class {
    const CLSID* clsid;
    class_factory::create_fn create;
};

// The body of such a library's DllGetClassObject: a new class factory for a class of the table, asked
// for iid; CLASS_E_CLASSNOTAVAILABLE for any other class.
inline HRESULT GetLibraryClassObject(std::span<const library_class> classes, REFCLSID clsid, REFIID iid, void** ppv) {
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    for (const library_class& entry : classes) {
        if (!IsEqualCLSID(clsid, *entry.clsid))
            continue;
        com_object<class_factory>* factory = nullptr;
        HRESULT hr = com_object<class_factory>::CreateInstance(&factory, entry.create);
        if (FAILED(hr))
            return hr;
        factory->AddRef();
        hr = factory->QueryInterface(iid, ppv);
        factory->Release();
        return hr;
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

} // namespace qv
