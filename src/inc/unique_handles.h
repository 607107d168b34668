// Owning scope types for Win32 resources. Each frees what it holds exactly once; put() frees
// before it hands out the address of its slot; release() gives the resource up unfreed.
#pragma once

#include <windows.h>

#include <utility>

namespace qv {

// Traits give the resource type, its empty value and how it is freed.
template <typename Traits> class unique_resource {
public:
    using T = typename Traits::type;

    unique_resource() = default;
    explicit unique_resource(T value) noexcept : m_value(value) {}
    unique_resource(const unique_resource&) = delete;
    unique_resource& operator=(const unique_resource&) = delete;
    unique_resource(unique_resource&& other) noexcept : m_value(other.release()) {}
    unique_resource& operator=(unique_resource&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~unique_resource() { reset(); }

    T get() const noexcept { return m_value; }
    explicit operator bool() const noexcept { return m_value != Traits::invalid(); }
    T release() noexcept { return std::exchange(m_value, Traits::invalid()); }
    void reset(T value = Traits::invalid()) noexcept {
        T old = std::exchange(m_value, value);
        if (old != Traits::invalid())
            Traits::close(old);
    }
    T* put() noexcept {
        reset();
        return &m_value;
    }

private:
    T m_value = Traits::invalid();
};

struct file_handle_traits {
    using type = HANDLE;
    static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(type h) noexcept { ::CloseHandle(h); }
};
struct handle_traits {
    using type = HANDLE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::CloseHandle(h); }
};
struct hkey_traits {
    using type = HKEY;
    static type invalid() noexcept { return nullptr; }
    static void close(type k) noexcept { ::RegCloseKey(k); }
};
struct find_handle_traits {
    using type = HANDLE;
    static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(type h) noexcept { ::FindClose(h); }
};
struct hmodule_traits {
    using type = HMODULE;
    static type invalid() noexcept { return nullptr; }
    static void close(type m) noexcept { ::FreeLibrary(m); }
};

// A file handle: INVALID_HANDLE_VALUE is empty.
using unique_hfile = unique_resource<file_handle_traits>;
// Any other kernel handle (process, event): NULL is empty.
using unique_handle = unique_resource<handle_traits>;
using unique_hkey = unique_resource<hkey_traits>;
// A FindFirstFileW search: INVALID_HANDLE_VALUE is empty.
using unique_hfind = unique_resource<find_handle_traits>;
using unique_hmodule = unique_resource<hmodule_traits>;

} // namespace qv
