// The collection family that carries every result out of the library: an ordered list that is also a
// case-insensitive name index, seen by clients through Item (a one-based number or a name), Count and
// _NewEnum, and filled from inside the library through Add.
//
//   CCollectionImpl      storage (m_items in insertion order, m_index from key to position) and the
//                        internal operations Add, Find, Contains, Remove, Clear; IDispatch over the
//                        registered type library.
//   CRefCollectionImpl   a complete class: the interface members get_Item, get_Count, get__NewEnum.
//   CCollectionEnum      the IEnumVARIANT over one collection (CCollectionEnumImpl holds its logic).
//
// An Adapter says what an item is: interface_adapter<I> keeps one counted reference per item and shows
// it as VT_DISPATCH; simple_type_adapter<long> stores a plain value, shown as VT_I4. A class of the
// family is made with qv::com_object<C>::CreateInstance like any other object and holds a module lock.
//
// Trust: callers inside the library own what they add; client VARIANTs are coerced by the platform
// (VariantChangeType) and otherwise only compared. Single-threaded, like every object of the library.
#pragma once

#include "QVWIScanners.h"
#include "inc/com_boundary.h"
#include "inc/com_dispatch.h"
#include "inc/com_exception.h"
#include "inc/unique_handles.h"
#include "inc/com_object.h"

#include <windows.h>

#include <oaidl.h>
#include <oleauto.h>

#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace qv {

// Items that are interface pointers: the collection holds one reference on each; a client gets its own.
template <class I> struct interface_adapter {
    static_assert(std::is_base_of_v<IDispatch, I>, "items are shown to clients as VT_DISPATCH");
    using item_type = I*;
    static void add_ref(I* p) noexcept {
        if (p)
            p->AddRef();
    }
    static void release(I* p) noexcept {
        if (p)
            p->Release();
    }
    static void clear_out(I** out) noexcept { *out = nullptr; }
    // Hands out a new reference.
    static void copy_out(I* p, I** out) noexcept {
        add_ref(p);
        *out = p;
    }
    // A VARIANT that owns one reference (clearing the VARIANT gives it back).
    static void to_variant(I* p, VARIANT* v) noexcept {
        add_ref(p);
        V_VT(v) = VT_DISPATCH;
        V_DISPATCH(v) = static_cast<IDispatch*>(p);
    }
};

// A plain value standing where the family expects an interface pointer: nothing is counted.
template <class T> struct simple_type_adapter {
    static_assert(std::is_integral_v<T> && sizeof(T) <= sizeof(LONG), "plain items are shown as VT_I4");
    using item_type = T;
    static void add_ref(T) noexcept {}
    static void release(T) noexcept {}
    static void clear_out(T* out) noexcept { *out = T(); }
    static void copy_out(T value, T* out) noexcept { *out = value; }
    static void to_variant(T value, VARIANT* v) noexcept {
        V_VT(v) = VT_I4;
        V_I4(v) = static_cast<LONG>(value);
    }
};

// Key order of the name index: _wcsicmp, a null key reading as the empty one.
struct collection_key_less {
    using is_transparent = void;
    static const wchar_t* text(const wchar_t* key) noexcept { return key ? key : L""; }
    static bool less(const wchar_t* a, const wchar_t* b) noexcept { return _wcsicmp(text(a), text(b)) < 0; }
    bool operator()(const std::wstring& a, const std::wstring& b) const noexcept { return less(a.c_str(), b.c_str()); }
    bool operator()(const std::wstring& a, const wchar_t* b) const noexcept { return less(a.c_str(), b); }
    bool operator()(const wchar_t* a, const std::wstring& b) const noexcept { return less(a, b.c_str()); }
};

template <class Collection> class CCollectionEnum;

// IEnumVARIANT over the entries of one collection: three positions into its storage (begin, end,
// current). It holds no reference on the collection, which must outlive it; a change of the collection
// invalidates it (clients read finished results). The positions are indices checked against the
// storage's size, so a stale enumerator stops early instead of reading freed memory.
template <class Collection> class CCollectionEnumImpl : public IEnumVARIANT {
public:
    using storage = typename Collection::storage;
    using adapter = typename Collection::adapter_type;

    void Init(const storage* items, std::size_t begin, std::size_t end, std::size_t current) noexcept {
        m_items = items;
        m_begin = begin;
        m_end = end;
        m_current = current;
    }

    STDMETHOD(Next)(ULONG celt, VARIANT* rgVar, ULONG* pCeltFetched) override {
        if (!rgVar || (!pCeltFetched && celt != 1))
            return E_POINTER;
        ULONG fetched = 0;
        while (fetched < celt && at_item()) {
            unique_variant item;
            adapter::to_variant((*m_items)[m_current].item, item.get());
            VARIANT* out = &rgVar[fetched];
            VariantInit(out);
            HRESULT hr = VariantCopy(out, item.get());
            if (FAILED(hr))
                break;
            ++fetched;
            ++m_current;
        }
        if (pCeltFetched)
            *pCeltFetched = fetched;
        return fetched == celt ? S_OK : S_FALSE;
    }

    // The result is inverted against the usual rule, and clients depend on it: S_OK once the position
    // has reached the end, S_FALSE while items remain.
    STDMETHOD(Skip)(ULONG celt) override {
        std::size_t left = m_current < m_end ? m_end - m_current : 0;
        m_current += celt < left ? celt : left;
        return m_current >= m_end ? S_OK : S_FALSE;
    }

    STDMETHOD(Reset)() override {
        m_current = m_begin;
        return S_OK;
    }

    STDMETHOD(Clone)(IEnumVARIANT** ppEnum) override {
        if (!ppEnum)
            return E_POINTER;
        *ppEnum = nullptr;
        return com_boundary([&] {
            auto copy = make_object<CCollectionEnum<Collection>>();
            copy->Init(m_items, m_begin, m_end, m_current);
            return copy->QueryInterface(IID_IEnumVARIANT, reinterpret_cast<void**>(ppEnum));
        });
    }

private:
    bool at_item() const noexcept { return m_items && m_current < m_end && m_current < m_items->size(); }

    const storage* m_items = nullptr;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::size_t m_current = 0;
};

template <class Collection> class CCollectionEnum : public CCollectionEnumImpl<Collection>, public object_root {
public:
    static constexpr bool aggregatable = false;
    QV_BEGIN_INTERFACE_MAP(CCollectionEnum)
    QV_INTERFACE(IID_IEnumVARIANT, IEnumVARIANT)
    QV_END_INTERFACE_MAP()
};

// Storage, name index and the internal operations. Its virtual members (Remove, Clear, the destructor)
// follow the interface's slots in the vtable.
template <class Item, class Interface, const GUID* Libid, class Adapter, const IID* Piid, WORD Major = 1,
          WORD Minor = 0, class Holder = typeinfo_holder<Libid, Major, Minor>>
class CCollectionImpl : public dispatch_impl<Interface, Piid, Holder>, public object_root {
    static_assert(std::is_same_v<Item, typename Adapter::item_type>, "the adapter must fit the item type");

public:
    using item_type = Item;
    using adapter_type = Adapter;
    struct entry {
        std::wstring key;
        Item item;
    };
    using storage = std::vector<entry>;
    // Positions in the name index are 32-bit indices into m_items, never pointers: the vector moves its
    // entries when it grows.
    using position = std::uint32_t;
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    CCollectionImpl() = default;

    // Stores item under key (null reads as empty). Under a key that is already there (compared without
    // case) the item is replaced in place: the entry keeps its place and the key its first spelling, and
    // the old item is released. Interface items gain one reference. Throws com_exception(E_OUTOFMEMORY).
    void Add(const wchar_t* key, Item item) {
        const wchar_t* text = collection_key_less::text(key);
        try {
            auto found = m_allowDuplicates ? m_index.end() : m_index.find(text);
            if (found != m_index.end()) {
                // Take the new reference before dropping the old one: they may be the same object.
                Adapter::add_ref(item);
                Adapter::release(std::exchange(m_items[found->second].item, item));
                return;
            }
            if (m_items.size() >= UINT32_MAX)
                throw com_exception(E_OUTOFMEMORY);
            reserve_for_one();
            m_items.push_back(entry{text, item});
            scope_exit undo([this] { m_items.pop_back(); }); // an entry the index cannot name goes again
            m_index.insert_or_assign(std::wstring(text), static_cast<position>(m_items.size() - 1));
            undo.dismiss();
            Adapter::add_ref(item);
        } catch (const std::bad_alloc&) {
            throw com_exception(E_OUTOFMEMORY);
        } catch (const std::length_error&) {
            throw com_exception(E_OUTOFMEMORY);
        }
    }
    void Add(const std::wstring& key, Item item) { Add(key.c_str(), item); }

    // The item under key (null reads as empty), without a new reference; a null (zero) item when absent.
    Item Find(const wchar_t* key) const noexcept {
        auto found = m_index.find(collection_key_less::text(key));
        return found == m_index.end() ? Item() : m_items[found->second].item;
    }
    Item Find(const std::wstring& key) const noexcept { return Find(key.c_str()); }
    bool Contains(const wchar_t* key) const noexcept { return Find(key) != Item(); }
    bool Contains(const std::wstring& key) const noexcept { return Contains(key.c_str()); }

    // The zero-based position of the entry under key, or npos.
    std::size_t Position(const wchar_t* key) const noexcept {
        auto found = m_index.find(collection_key_less::text(key));
        return found == m_index.end() ? npos : found->second;
    }

    // Removes the entry at a zero-based position and releases its item; the later entries move one
    // place forward. O(n). E_INVALIDARG past the end.
    virtual HRESULT Remove(std::size_t entryPosition) {
        if (entryPosition >= m_items.size())
            return E_INVALIDARG;
        Item item = m_items[entryPosition].item;
        auto indexed = m_index.find(m_items[entryPosition].key);
        if (indexed != m_index.end() && indexed->second == entryPosition)
            m_index.erase(indexed);
        m_items.erase(m_items.begin() + static_cast<std::ptrdiff_t>(entryPosition));
        for (auto& [key, pos] : m_index) {
            if (pos > entryPosition)
                --pos;
        }
        Adapter::release(item);
        return S_OK;
    }

    // Releases every item, last to first, and empties the collection.
    virtual void Clear() { release_all(); }

    // Does what Clear does.
    virtual ~CCollectionImpl() { release_all(); }

    std::size_t Size() const noexcept { return m_items.size(); }
    const storage& Items() const noexcept { return m_items; }

protected:
    // The entry that a client's index names: a one-based number or a name, as Item describes; null for
    // a miss.
    const entry* Resolve(const VARIANT* index) const noexcept {
        // Follow references to VARIANTs; a loop of them (the depth is bounded) or a null one is a miss.
        for (int depth = 0; index && V_VT(index) == (VT_BYREF | VT_VARIANT); ++depth) {
            if (depth == 1024)
                return nullptr;
            index = V_VARIANTREF(index);
        }
        if (!index)
            return nullptr;
        // Only the integer types up to 32 bits are numbers: a double, a byte or a 64-bit value is looked up
        // by its text as a name, so that 2.0 means the name "2", never the second item.
        VARTYPE base = V_VT(index) & ~VT_BYREF;
        bool numeric = base == VT_I2 || base == VT_I4 || base == VT_UI2 || base == VT_UI4;
        unique_variant coerced;
        if (FAILED(VariantChangeType(coerced.get(), const_cast<VARIANT*>(index), 0, numeric ? VT_I4 : VT_BSTR)))
            return nullptr;
        if (numeric) {
            LONG n = V_I4(coerced.get());
            if (n >= 1 && static_cast<std::size_t>(n) <= m_items.size())
                return &m_items[static_cast<std::size_t>(n) - 1];
        } else {
            auto found = m_index.find(collection_key_less::text(V_BSTR(coerced.get())));
            if (found != m_index.end())
                return &m_items[found->second];
        }
        return nullptr;
    }

    storage m_items;
    std::map<std::wstring, position, collection_key_less> m_index;
    bool m_allowDuplicates = false;

private:
    // Growth by half of the current capacity, at least to the size needed.
    void reserve_for_one() {
        if (m_items.size() < m_items.capacity())
            return;
        std::size_t capacity = m_items.capacity();
        std::size_t grown = capacity <= m_items.max_size() - capacity / 2 ? capacity + capacity / 2 : 0;
        m_items.reserve(grown > m_items.size() ? grown : m_items.size() + 1);
    }

    void release_all() noexcept {
        // Detach first, so that an item whose release reaches back into this collection sees it empty.
        storage items;
        items.swap(m_items);
        m_index.clear();
        for (auto it = items.rbegin(); it != items.rend(); ++it)
            Adapter::release(it->item);
    }
};

// A complete collection class: the interface members. The interface map answers Interface and IDispatch;
// a class that derives from this one and adds bases states its own map.
template <class Item, class Interface, const GUID* Libid, class Adapter, const IID* Piid, WORD Major = 1,
          WORD Minor = 0, class Holder = typeinfo_holder<Libid, Major, Minor>>
class CRefCollectionImpl : public CCollectionImpl<Item, Interface, Libid, Adapter, Piid, Major, Minor, Holder> {
    using base = CCollectionImpl<Item, Interface, Libid, Adapter, Piid, Major, Minor, Holder>;

public:
    using collection_type = base;
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CRefCollectionImpl)
    QV_INTERFACE(*Piid, Interface)
    QV_INTERFACE2(IID_IDispatch, IDispatch, Interface)
    QV_END_INTERFACE_MAP()

    // A one-based number (I2, I4, UI2, UI4, also by reference) or, for any other type, its text as a name;
    // VT_VARIANT references are followed. A miss is E_INVALIDARG with the output cleared.
    STDMETHOD(get_Item)(VARIANT Index, Item* pVal) override {
        if (!pVal)
            return E_POINTER;
        Adapter::clear_out(pVal);
        const typename base::entry* hit = this->Resolve(&Index);
        if (!hit)
            return E_INVALIDARG;
        Adapter::copy_out(hit->item, pVal);
        return S_OK;
    }

    STDMETHOD(get_Count)(long* pVal) override {
        if (!pVal)
            return E_POINTER;
        *pVal = static_cast<long>(this->m_items.size());
        return S_OK;
    }

    // A new enumerator over the present entries, handed out as its IEnumVARIANT.
    STDMETHOD(get__NewEnum)(IUnknown** pVal) override {
        if (!pVal)
            return E_POINTER;
        *pVal = nullptr;
        return com_boundary([&] {
            auto e = make_object<CCollectionEnum<base>>();
            e->Init(&this->m_items, 0, this->m_items.size(), 0);
            return e->QueryInterface(IID_IEnumVARIANT, reinterpret_cast<void**>(pVal));
        });
    }
};

} // namespace qv
