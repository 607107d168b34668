// Owning holders for COM references and BSTRs.
// com_ptr<T> counts one reference; put() releases before it hands out its slot.
// bstr owns one BSTR: adopt() takes ownership, the constructors from text copy.
#pragma once

#include <windows.h>

#include <oleauto.h>
#include <unknwn.h>

#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "com_exception.h"

namespace qv {

template <typename T> class com_ptr {
public:
    com_ptr() = default;
    com_ptr(std::nullptr_t) {}
    // Copies a reference: AddRef.
    explicit com_ptr(T* p) : m_p(p) {
        if (m_p)
            m_p->AddRef();
    }
    com_ptr(const com_ptr& other) : com_ptr(other.m_p) {}
    com_ptr(com_ptr&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
    // Takes the reference of a pointer to a class that converts to T (an object to one of its interfaces).
    template <typename U>
        requires(!std::is_same_v<U, T> && std::is_convertible_v<U*, T*>)
    com_ptr(com_ptr<U>&& other) noexcept : m_p(other.detach()) {}
    com_ptr& operator=(const com_ptr& other) {
        com_ptr(other).swap(*this);
        return *this;
    }
    com_ptr& operator=(com_ptr&& other) noexcept {
        com_ptr(std::move(other)).swap(*this);
        return *this;
    }
    ~com_ptr() { reset(); }

    // Takes over a reference the caller owns, without AddRef.
    static com_ptr adopt(T* p) {
        com_ptr r;
        r.m_p = p;
        return r;
    }

    T* get() const noexcept { return m_p; }
    T* operator->() const noexcept { return m_p; }
    explicit operator bool() const noexcept { return m_p != nullptr; }
    void reset() noexcept {
        if (T* p = std::exchange(m_p, nullptr))
            p->Release();
    }
    T** put() noexcept {
        reset();
        return &m_p;
    }
    void** put_void() noexcept { return reinterpret_cast<void**>(put()); }
    // Gives the reference up to the caller.
    T* detach() noexcept { return std::exchange(m_p, nullptr); }
    // Hands a new reference out through an out-parameter.
    void copy_to(T** out) const noexcept {
        *out = m_p;
        if (m_p)
            m_p->AddRef();
    }
    void swap(com_ptr& other) noexcept { std::swap(m_p, other.m_p); }

    // QueryInterface for U; an empty pointer when it fails (or this one is empty).
    template <typename U> com_ptr<U> query(const IID& iid) const {
        com_ptr<U> r;
        if (m_p)
            m_p->QueryInterface(iid, r.put_void());
        return r;
    }

private:
    T* m_p = nullptr;
};

// The text of a BSTR someone else owns, embedded nulls included; null reads as empty.
inline std::wstring bstr_text(BSTR text) {
    return text ? std::wstring(text, SysStringLen(text)) : std::wstring();
}

class bstr {
public:
    bstr() = default;
    bstr(std::wstring_view text) {
        if (!text.empty() || text.data())
            m_b = alloc(text);
    }
    bstr(const wchar_t* text) : bstr(text ? std::wstring_view(text) : std::wstring_view()) {}
    bstr(const std::wstring& text) : bstr(std::wstring_view(text)) {}
    bstr(const bstr& other) {
        if (other.m_b)
            m_b = alloc(other.view());
    }
    bstr(bstr&& other) noexcept : m_b(std::exchange(other.m_b, nullptr)) {}
    bstr& operator=(const bstr& other) {
        bstr(other).swap(*this);
        return *this;
    }
    bstr& operator=(bstr&& other) noexcept {
        bstr(std::move(other)).swap(*this);
        return *this;
    }
    ~bstr() { reset(); }

    // Takes ownership of a BSTR the caller owns.
    static bstr adopt(BSTR b) {
        bstr r;
        r.m_b = b;
        return r;
    }

    BSTR get() const noexcept { return m_b; }
    // A null BSTR reads as the empty string.
    std::wstring_view view() const noexcept {
        return m_b ? std::wstring_view(m_b, SysStringLen(m_b)) : std::wstring_view();
    }
    std::wstring str() const { return std::wstring(view()); }
    UINT length() const noexcept { return m_b ? SysStringLen(m_b) : 0; }
    bool empty() const noexcept { return length() == 0; }
    void reset() noexcept {
        if (BSTR b = std::exchange(m_b, nullptr))
            SysFreeString(b);
    }
    BSTR* put() noexcept {
        reset();
        return &m_b;
    }
    BSTR detach() noexcept { return std::exchange(m_b, nullptr); }
    void swap(bstr& other) noexcept { std::swap(m_b, other.m_b); }

private:
    static BSTR alloc(std::wstring_view text) {
        BSTR b = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
        if (!b)
            throw com_exception(E_OUTOFMEMORY);
        return b;
    }

    BSTR m_b = nullptr;
};

// Hands out a copy of text as an [out] BSTR: E_POINTER for a null out-pointer, E_OUTOFMEMORY when it
// cannot be made.
inline HRESULT copy_text_out(std::wstring_view text, BSTR* out) noexcept {
    if (!out)
        return E_POINTER;
    *out = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return *out ? S_OK : E_OUTOFMEMORY;
}

} // namespace qv
