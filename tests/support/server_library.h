// The server as a client sees it: QVWIScanners.dll loaded by path beside the test program, its exports,
// and creation of its classes through DllGetClassObject with no registration.
#pragma once

#include <windows.h>

#include <objbase.h>
#include <string>

namespace qv::test {

class server_library {
public:
    server_library();
    ~server_library();
    server_library(const server_library&) = delete;
    server_library& operator=(const server_library&) = delete;

    HMODULE module() const { return m_module; }
    std::wstring path() const { return m_path; }

    HRESULT CanUnloadNow() const { return m_canUnload(); }
    HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** ppv) const { return m_getClassObject(clsid, iid, ppv); }
    HRESULT RegisterServer() const { return m_register(); }
    HRESULT UnregisterServer() const { return m_unregister(); }

    // Through the class factory; outer may be null.
    HRESULT Create(REFCLSID clsid, IUnknown* outer, REFIID iid, void** ppv) const;

private:
    std::wstring m_path;
    HMODULE m_module = nullptr;
    HRESULT(STDAPICALLTYPE* m_canUnload)() = nullptr;
    HRESULT(STDAPICALLTYPE* m_getClassObject)(REFCLSID, REFIID, void**) = nullptr;
    HRESULT(STDAPICALLTYPE* m_register)() = nullptr;
    HRESULT(STDAPICALLTYPE* m_unregister)() = nullptr;
};

// The one server of the test program, loaded on first use and kept to the end.
server_library& server();

// A COM apartment for the calling thread for a scope.
class com_apartment {
public:
    com_apartment() { m_hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
    ~com_apartment() {
        if (SUCCEEDED(m_hr))
            CoUninitialize();
    }
    com_apartment(const com_apartment&) = delete;
    com_apartment& operator=(const com_apartment&) = delete;

private:
    HRESULT m_hr;
};

} // namespace qv::test
