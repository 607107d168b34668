// Connection points for the outgoing dispinterfaces of an object, and the snapshot enumerators that
// IConnectionPointContainer and IConnectionPoint hand out.
//
// A connection_point lives inside its container object and counts on it: AddRef and Release go to the
// container. Its cookies are one-based slot indices; a slot freed by Unadvise is vacant until the next
// Advise takes it. Fire calls every sink in slot order, holding a reference during the call, and
// ignores what each sink answers, so that one failing client does not silence the others. A sink
// that advises or unadvises while an event is being delivered is seen from the next slot on.
#pragma once

#include "inc/com_boundary.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"

#include <windows.h>

#include <ocidl.h>
#include <olectl.h>

#include <initializer_list>
#include <new>
#include <vector>

namespace qv {

namespace detail {

template <class Item> struct enum_copy;
template <> struct enum_copy<CONNECTDATA> {
    static void copy(CONNECTDATA& to, const CONNECTDATA& from) {
        to = from;
        if (to.pUnk)
            to.pUnk->AddRef();
    }
    static void drop(CONNECTDATA& item) {
        if (item.pUnk)
            item.pUnk->Release();
    }
};
template <> struct enum_copy<IConnectionPoint*> {
    static void copy(IConnectionPoint*& to, IConnectionPoint* from) {
        to = from;
        if (to)
            to->AddRef();
    }
    static void drop(IConnectionPoint*& item) {
        if (item)
            item->Release();
    }
};

} // namespace detail

// An enumerator over a copy of the items taken when it was made (each item holds its reference).
template <class Enum, const IID* Piid, class Item> class snapshot_enum : public object_root, public Enum {
public:
    static constexpr bool aggregatable = false;
    using copier = detail::enum_copy<Item>;

    QV_BEGIN_INTERFACE_MAP(snapshot_enum)
    QV_INTERFACE(*Piid, Enum)
    QV_END_INTERFACE_MAP()

    ~snapshot_enum() {
        for (Item& item : m_items)
            copier::drop(item);
    }

    // Takes a copy (and a reference) of each item. Throws std::bad_alloc.
    void Assign(const std::vector<Item>& items, size_t position = 0) {
        m_items.reserve(items.size());
        for (const Item& item : items) {
            Item copy{};
            copier::copy(copy, item);
            m_items.push_back(copy);
        }
        m_position = position;
    }

    // A new enumerator over items, handed out with one reference.
    static HRESULT Make(const std::vector<Item>& items, size_t position, Enum** out) {
        if (!out)
            return E_POINTER;
        *out = nullptr;
        return com_boundary([&] {
            auto e = make_object<snapshot_enum>();
            e->Assign(items, position);
            *out = e.detach();
            return S_OK;
        });
    }

    STDMETHOD(Next)(ULONG count, Item* items, ULONG* fetched) override {
        if (!items || (count != 1 && !fetched))
            return E_POINTER;
        ULONG n = 0;
        for (; n < count && m_position < m_items.size(); ++n, ++m_position)
            copier::copy(items[n], m_items[m_position]);
        if (fetched)
            *fetched = n;
        return n == count ? S_OK : S_FALSE;
    }
    STDMETHOD(Skip)(ULONG count) override {
        const size_t left = m_items.size() - m_position;
        m_position += count < left ? count : left;
        return count <= left ? S_OK : S_FALSE;
    }
    STDMETHOD(Reset)() override {
        m_position = 0;
        return S_OK;
    }
    STDMETHOD(Clone)(Enum** out) override { return Make(m_items, m_position, out); }

private:
    std::vector<Item> m_items;
    size_t m_position = 0;
};

using connections_enum = snapshot_enum<IEnumConnections, &IID_IEnumConnections, CONNECTDATA>;
using connection_points_enum = snapshot_enum<IEnumConnectionPoints, &IID_IEnumConnectionPoints, IConnectionPoint*>;

// One connection point for the dispinterface *Piid, a member of its container.
template <const IID* Piid> class connection_point final : public IConnectionPoint {
public:
    explicit connection_point(IConnectionPointContainer* container) : m_container(container) {}
    connection_point(const connection_point&) = delete;
    connection_point& operator=(const connection_point&) = delete;
    ~connection_point() { UnadviseAll(); }

    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IConnectionPoint)) {
            *ppv = static_cast<IConnectionPoint*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHOD_(ULONG, AddRef)() override { return m_container->AddRef(); }
    STDMETHOD_(ULONG, Release)() override { return m_container->Release(); }

    STDMETHOD(GetConnectionInterface)(IID* iid) override {
        if (!iid)
            return E_POINTER;
        *iid = *Piid;
        return S_OK;
    }
    STDMETHOD(GetConnectionPointContainer)(IConnectionPointContainer** container) override {
        if (!container)
            return E_POINTER;
        *container = m_container;
        m_container->AddRef();
        return S_OK;
    }
    // The sink is asked for the event interface itself; one that lacks it cannot connect.
    STDMETHOD(Advise)(IUnknown* sink, DWORD* cookie) override {
        if (!cookie)
            return E_POINTER;
        *cookie = 0;
        if (!sink)
            return E_POINTER;
        IUnknown* events = nullptr;
        if (FAILED(sink->QueryInterface(*Piid, reinterpret_cast<void**>(&events))) || !events)
            return CONNECT_E_CANNOTCONNECT;
        size_t slot = 0;
        while (slot < m_sinks.size() && m_sinks[slot])
            ++slot;
        if (slot == m_sinks.size() && FAILED(com_boundary([&] {
                m_sinks.push_back(nullptr);
                return S_OK;
            }))) {
            events->Release();
            return CONNECT_E_ADVISELIMIT; // no room to keep the sink
        }
        m_sinks[slot] = events;
        *cookie = static_cast<DWORD>(slot + 1);
        return S_OK;
    }
    STDMETHOD(Unadvise)(DWORD cookie) override {
        if (cookie == 0 || cookie > m_sinks.size() || !m_sinks[cookie - 1])
            return CONNECT_E_NOCONNECTION;
        IUnknown* sink = m_sinks[cookie - 1];
        m_sinks[cookie - 1] = nullptr;
        sink->Release();
        return S_OK;
    }
    STDMETHOD(EnumConnections)(IEnumConnections** out) override {
        return com_boundary([&] {
            std::vector<CONNECTDATA> live;
            for (size_t i = 0; i < m_sinks.size(); ++i) {
                if (m_sinks[i])
                    live.push_back(CONNECTDATA{m_sinks[i], static_cast<DWORD>(i + 1)});
            }
            return connections_enum::Make(live, 0, out);
        });
    }

    // Calls method id on every sink with the arguments, first to last (rgvarg takes them in reverse).
    void Fire(DISPID id, std::initializer_list<VARIANT> arguments = {}) {
        VARIANT reversed[8];
        UINT count = 0;
        for (auto it = arguments.end(); it != arguments.begin() && count < 8;)
            reversed[count++] = *--it;
        DISPPARAMS params{count ? reversed : nullptr, nullptr, count, 0};
        for (size_t i = 0; i < m_sinks.size(); ++i) {
            if (!m_sinks[i])
                continue;
            // The sink may unadvise itself during the call: the holder keeps it alive until it returns.
            com_ptr<IDispatch> sink(static_cast<IDispatch*>(m_sinks[i]));
            sink->Invoke(id, IID_NULL, 1024, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr);
        }
    }

    size_t Connections() const noexcept {
        size_t n = 0;
        for (IUnknown* sink : m_sinks)
            n += sink != nullptr;
        return n;
    }

    void UnadviseAll() noexcept {
        std::vector<IUnknown*> sinks;
        sinks.swap(m_sinks);
        for (IUnknown* sink : sinks) {
            if (sink)
                sink->Release();
        }
    }

private:
    IConnectionPointContainer* m_container;
    std::vector<IUnknown*> m_sinks;
};

// FindConnectionPoint over a container's points.
inline HRESULT FindPoint(std::initializer_list<IConnectionPoint*> points, REFIID iid, IConnectionPoint** out) {
    if (!out)
        return E_POINTER;
    *out = nullptr;
    for (IConnectionPoint* point : points) {
        IID own;
        if (SUCCEEDED(point->GetConnectionInterface(&own)) && IsEqualIID(own, iid)) {
            point->AddRef();
            *out = point;
            return S_OK;
        }
    }
    return CONNECT_E_NOCONNECTION;
}

// EnumConnectionPoints over a container's points.
inline HRESULT EnumPoints(std::initializer_list<IConnectionPoint*> points, IEnumConnectionPoints** out) {
    return com_boundary([&] { return connection_points_enum::Make(std::vector<IConnectionPoint*>(points), 0, out); });
}

} // namespace qv
