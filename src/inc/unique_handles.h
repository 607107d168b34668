// Owning scope types for Win32 resources. Each frees what it holds exactly once; put() frees
// before it hands out the address of its slot; release() gives the resource up unfreed.
#pragma once

#include <windows.h>

#include <oleauto.h>
#include <wininet.h>

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

struct internet_handle_traits {
    using type = HINTERNET;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::InternetCloseHandle(h); }
};
// A WinINet session or URL: NULL is empty.
using unique_hinternet = unique_resource<internet_handle_traits>;

// A VARIANT that is cleared when the owner goes: get() hands it to a call that fills it, reset() clears it.
class unique_variant {
public:
    unique_variant() noexcept { VariantInit(&m_value); }
    unique_variant(const unique_variant&) = delete;
    unique_variant& operator=(const unique_variant&) = delete;
    ~unique_variant() { VariantClear(&m_value); }

    VARIANT* get() noexcept { return &m_value; }
    const VARIANT* get() const noexcept { return &m_value; }
    VARIANT* operator->() noexcept { return &m_value; }
    const VARIANT* operator->() const noexcept { return &m_value; }
    // Clears what it held and hands out the emptied slot, for a call that fills it.
    VARIANT* put() noexcept {
        VariantClear(&m_value);
        return &m_value;
    }
    // Gives the value up uncleared (to a caller's out-parameter); the owner is then empty.
    VARIANT release() noexcept {
        VARIANT value = m_value;
        VariantInit(&m_value);
        return value;
    }

private:
    VARIANT m_value;
};

// The strings an IDispatch::Invoke leaves in its EXCEPINFO, freed when the owner goes; get() hands the
// record to the call that fills it.
class unique_excepinfo {
public:
    unique_excepinfo() noexcept = default;
    unique_excepinfo(const unique_excepinfo&) = delete;
    unique_excepinfo& operator=(const unique_excepinfo&) = delete;
    ~unique_excepinfo() {
        SysFreeString(m_value.bstrSource);
        SysFreeString(m_value.bstrDescription);
        SysFreeString(m_value.bstrHelpFile);
    }

    EXCEPINFO* get() noexcept { return &m_value; }
    EXCEPINFO* operator->() noexcept { return &m_value; }

private:
    EXCEPINFO m_value{};
};

// The two handles CreateProcessW hands out, each owned; the identifiers as they came.
struct unique_process_information {
    unique_handle process, thread;
    DWORD processId = 0, threadId = 0;

    unique_process_information() = default;
    explicit unique_process_information(const PROCESS_INFORMATION& info) noexcept
        : process(info.hProcess), thread(info.hThread), processId(info.dwProcessId), threadId(info.dwThreadId) {}
};

// Runs a function when the scope ends, unless dismissed: the undo of a step that a later failure must take back.
template <typename Fn> class scope_exit {
public:
    explicit scope_exit(Fn fn) noexcept : m_fn(std::move(fn)) {}
    scope_exit(const scope_exit&) = delete;
    scope_exit& operator=(const scope_exit&) = delete;
    ~scope_exit() {
        if (m_armed)
            m_fn();
    }
    void dismiss() noexcept { m_armed = false; }

private:
    Fn m_fn;
    bool m_armed = true;
};

} // namespace qv
