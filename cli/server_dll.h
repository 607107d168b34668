// An in-process COM server loaded by path and reached through its DllGetClassObject: no registration.
// Trusts the library to export what a COM server exports.
#pragma once

#include "inc/com_error.h"
#include "inc/com_ptr.h"
#include "inc/unique_handles.h"

#include <windows.h>

#include <string>

namespace qvscan {

class server_dll {
public:
    // Loads the library at path; a std::runtime_error naming it when it cannot be loaded or exports no
    // DllGetClassObject.
    explicit server_dll(std::wstring path);
    // The library stays loaded while it says objects of it live (a proxy's stub may still hold one).
    ~server_dll();
    server_dll(const server_dll&) = delete;
    server_dll& operator=(const server_dll&) = delete;

    // The scanners: QVWIScanners.dll beside the tool, or where QV_SERVER_DLL says.
    static std::wstring scanners_path();
    // A file beside qvscan.exe.
    static std::wstring beside_tool(const wchar_t* name);
    // The support folder (the lists of system files, VBSystem.ini, the target profiles): QV_SUPPORT_DIR, else
    // Support beside the scanners, as their services find it.
    static std::wstring support_folder();

    const std::wstring& path() const { return m_path; }
    HMODULE module() const { return m_module.get(); }

    HRESULT factory(REFCLSID clsid, IClassFactory** out) const {
        return m_getClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(out));
    }
    template <class T> qv::com_ptr<T> create(REFCLSID clsid, REFIID iid) const {
        qv::com_ptr<IClassFactory> f;
        check_hr(factory(clsid, f.put()));
        qv::com_ptr<T> object;
        check_hr(f->CreateInstance(nullptr, iid, object.put_void()));
        return object;
    }

private:
    static void PinProjectType();

    std::wstring m_path;
    qv::unique_hmodule m_module;
    HRESULT(STDAPICALLTYPE* m_getClassObject)(REFCLSID, REFIID, void**) = nullptr;
};

} // namespace qvscan
