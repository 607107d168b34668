// The exception boundary of interface methods: one catch that turns what a method body threw into its
// HRESULT. com_exception gives its own result, qv::win32_exception its Win32 code as an HRESULT,
// std::bad_alloc E_OUTOFMEMORY, and anything else E_UNEXPECTED.
#pragma once

#include "inc/com_exception.h"

#include <new>

namespace qv {

// Call only inside a catch block.
inline HRESULT hresult_from_current_exception() noexcept {
    try {
        throw;
    } catch (const com_exception& e) {
        return e.Error();
    } catch (const win32_exception& e) {
        return e.Result();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

// Runs body (returning an HRESULT) and converts an exception that leaves it.
template <class Body> HRESULT com_boundary(Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return hresult_from_current_exception();
    }
}

// As above, and the converted HRESULT goes to failed, which may report it and answers what the method
// returns; failed runs after the catch, and what it throws is converted in turn.
template <class Body, class Failed> HRESULT com_boundary(Body&& body, Failed&& failed) noexcept {
    HRESULT hr = S_OK;
    try {
        return body();
    } catch (...) {
        hr = hresult_from_current_exception();
    }
    return com_boundary([&] { return failed(hr); });
}

} // namespace qv
