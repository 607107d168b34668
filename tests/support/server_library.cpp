#include "server_library.h"

#include "test_support.h"

#include <stdexcept>

namespace qv::test {

namespace {
template <class F> F export_of(HMODULE module, const char* name) {
    auto p = reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    if (!p)
        throw std::runtime_error(std::string("QVWIScanners.dll does not export ") + name);
    return p;
}
} // namespace

server_library::server_library() : m_path(module_dir() + L"\\QVWIScanners.dll") {
    m_module = LoadLibraryW(m_path.c_str());
    if (!m_module)
        throw std::runtime_error("cannot load " + narrow(m_path) + ", error " + std::to_string(GetLastError()));
    m_canUnload = export_of<decltype(m_canUnload)>(m_module, "DllCanUnloadNow");
    m_getClassObject = export_of<decltype(m_getClassObject)>(m_module, "DllGetClassObject");
    m_register = export_of<decltype(m_register)>(m_module, "DllRegisterServer");
    m_unregister = export_of<decltype(m_unregister)>(m_module, "DllUnregisterServer");
}

server_library::~server_library() {
    if (m_module)
        FreeLibrary(m_module);
}

HRESULT server_library::Create(REFCLSID clsid, IUnknown* outer, REFIID iid, void** ppv) const {
    IClassFactory* factory = nullptr;
    HRESULT hr = GetClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(&factory));
    if (FAILED(hr))
        return hr;
    hr = factory->CreateInstance(outer, iid, ppv);
    factory->Release();
    return hr;
}

server_library& server() {
    static server_library library;
    return library;
}

} // namespace qv::test
