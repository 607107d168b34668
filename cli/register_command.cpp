// qvscan register [--user] and qvscan unregister [--user]: the server's class entries and its type library
// written to (or removed from) the classes root, or the user's own classes key.
#include "commands.h"

#include "error_text.h"
#include "inc/unique_handles.h"
#include "inc/class_registration.h"
#include "text_output.h"

#include <oleauto.h>

namespace qvscan {

namespace {

std::wstring guid_text(const GUID& g) {
    wchar_t buffer[64];
    StringFromGUID2(g, buffer, 64);
    return buffer;
}

LONG set_value(const std::wstring& key, const wchar_t* name, const std::wstring& value) {
    qv::unique_hkey k;
    LONG rc = RegCreateKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, k.put(), nullptr);
    if (rc != ERROR_SUCCESS)
        return rc;
    return RegSetValueExW(k.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

// For the user alone, the classes root is the user's own classes key while the owner lives: the class
// entries and the type library's entries both land there.
class user_classes_root {
public:
    LONG open() {
        LONG rc = RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\Classes", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                  m_key.put(), nullptr);
        if (rc == ERROR_SUCCESS)
            rc = RegOverridePredefKey(HKEY_CLASSES_ROOT, m_key.get());
        m_overridden = rc == ERROR_SUCCESS;
        return rc;
    }
    ~user_classes_root() {
        if (m_overridden)
            RegOverridePredefKey(HKEY_CLASSES_ROOT, nullptr);
    }

private:
    qv::unique_hkey m_key;
    bool m_overridden = false;
};

// The entries of one class; the first failure, or ERROR_SUCCESS.
LONG write_class(const server_dll& dll, const qv::class_registration& c, const std::wstring& description) {
    const std::wstring clsid = guid_text(*c.clsid), key = L"CLSID\\" + clsid;
    const std::wstring progId = c.progId, independent = c.versionIndependent;
    const LONG results[] = {
        set_value(key, nullptr, description),
        set_value(key + L"\\InprocServer32", nullptr, dll.path()),
        set_value(key + L"\\InprocServer32", L"ThreadingModel", c.threadingModel),
        set_value(key + L"\\ProgID", nullptr, progId),
        set_value(key + L"\\VersionIndependentProgID", nullptr, independent),
        set_value(progId, nullptr, description),
        set_value(progId + L"\\CLSID", nullptr, clsid),
        set_value(independent, nullptr, description),
        set_value(independent + L"\\CLSID", nullptr, clsid),
        set_value(independent + L"\\CurVer", nullptr, progId),
    };
    for (LONG r : results)
        if (r != ERROR_SUCCESS)
            return r;
    return c.inTypeLibrary ? set_value(key + L"\\TypeLib", nullptr, guid_text(LIBID_QVWISCANNERSLib)) : ERROR_SUCCESS;
}

// The classes this server can make, announced; how many, or -1 after a failure (told).
int register_classes(const server_dll& dll) {
    wchar_t description[256] = {};
    LoadStringW(dll.module(), qv::class_registrations[0].descriptionResource, description, 256);
    int done = 0;
    for (const auto& c : qv::class_registrations) {
        qv::com_ptr<IClassFactory> factory;
        if (FAILED(dll.factory(*c.clsid, factory.put())))
            continue;
        if (const LONG r = write_class(dll, c, description); r != ERROR_SUCCESS) {
            err("qvscan: cannot write the registration of " + utf8(c.name) + ": " + describe(HRESULT_FROM_WIN32(r)) +
                "\n");
            return -1;
        }
        out("registered " + utf8(c.name) + " as " + utf8(c.versionIndependent) + "\n");
        ++done;
    }
    return done;
}

int unregister_classes() {
    int done = 0;
    for (const auto& c : qv::class_registrations) {
        RegDeleteTreeW(HKEY_CLASSES_ROOT, (L"CLSID\\" + guid_text(*c.clsid)).c_str());
        RegDeleteTreeW(HKEY_CLASSES_ROOT, c.progId);
        RegDeleteTreeW(HKEY_CLASSES_ROOT, c.versionIndependent);
        ++done;
    }
    return done;
}

HRESULT register_type_library(const server_dll& dll) {
    qv::com_ptr<ITypeLib> lib;
    HRESULT hr = LoadTypeLibEx(dll.path().c_str(), REGKIND_NONE, lib.put());
    if (FAILED(hr))
        return hr;
    std::wstring path = dll.path();
    return RegisterTypeLib(lib.get(), path.data(), nullptr);
}

HRESULT unregister_type_library() {
    const HRESULT hr = UnRegisterTypeLib(LIBID_QVWISCANNERSLib, 1, 0, LOCALE_NEUTRAL, SYS_WIN64);
    return hr == TYPE_E_REGISTRYACCESS || hr == TYPE_E_CANTLOADLIBRARY ? S_OK : hr; // nothing was registered
}

} // namespace

int run_register(const server_dll& dll, const options& o) {
    const bool add = o.command == L"register";
    user_classes_root userRoot;
    if (o.user) {
        if (const LONG rc = userRoot.open(); rc != ERROR_SUCCESS) {
            err("qvscan: cannot open the user's classes: " + describe(HRESULT_FROM_WIN32(rc)) + "\n");
            return ExitFailed;
        }
    }
    const int done = add ? register_classes(dll) : unregister_classes();
    if (done < 0)
        return ExitFailed;
    const HRESULT hr = add ? register_type_library(dll) : unregister_type_library();
    if (FAILED(hr)) {
        err(std::string("qvscan: cannot ") + (add ? "register" : "unregister") + " the type library: " + describe(hr) +
            "\n");
        return ExitFailed;
    }
    out(std::string(add ? "registered" : "unregistered") + " the type library and " + std::to_string(done) +
        " classes\n");
    return ExitOk;
}

} // namespace qvscan
