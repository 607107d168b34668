// Owning scope types for Win32 resources. Each frees what it holds exactly once; put() frees
// before it hands out the address of its slot; release() gives the resource up unfreed.
#pragma once

#include <windows.h>

#include <utility>

namespace qv {

template <typename T, T Invalid, typename Close> class unique_resource {
public:
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
    explicit operator bool() const noexcept { return m_value != Invalid; }
    T release() noexcept { return std::exchange(m_value, Invalid); }
    void reset(T value = Invalid) noexcept {
        T old = std::exchange(m_value, value);
        if (old != Invalid)
            Close{}(old);
    }
    T* put() noexcept {
        reset();
        return &m_value;
    }

private:
    T m_value = Invalid;
};

struct close_handle {
    void operator()(HANDLE h) const noexcept { ::CloseHandle(h); }
};
struct unmap_view {
    void operator()(const void* p) const noexcept { ::UnmapViewOfFile(p); }
};
struct close_key {
    void operator()(HKEY k) const noexcept { ::RegCloseKey(k); }
};
struct free_library {
    void operator()(HMODULE m) const noexcept { ::FreeLibrary(m); }
};

// A file handle: INVALID_HANDLE_VALUE is empty.
using unique_hfile = unique_resource<HANDLE, INVALID_HANDLE_VALUE, close_handle>;
// Any other kernel handle (mapping, process, event): NULL is empty.
using unique_handle = unique_resource<HANDLE, nullptr, close_handle>;
using unique_view = unique_resource<const void*, nullptr, unmap_view>;
using unique_hkey = unique_resource<HKEY, nullptr, close_key>;
using unique_hmodule = unique_resource<HMODULE, nullptr, free_library>;

} // namespace qv
