#include "inc/com_module.h"

namespace qv {

com_module g_module;

namespace {
HINSTANCE module_of_this_code() {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&module_of_this_code), &module);
    return module;
}
} // namespace

com_module::com_module() : m_hInstance(module_of_this_code()) { InitializeCriticalSection(&m_cs); }

com_module::~com_module() {
    Term();
    DeleteCriticalSection(&m_cs);
}

void com_module::Init(HINSTANCE instance, const GUID& libid) {
    m_hInstance = instance;
    m_libid = libid;
}

void com_module::Term() {
    std::vector<std::function<void()>> funcs;
    {
        module_lock lock;
        funcs.swap(m_termFuncs);
    }
    for (auto it = funcs.rbegin(); it != funcs.rend(); ++it)
        (*it)();
}

void com_module::AddTermFunc(std::function<void()> func) {
    module_lock lock;
    m_termFuncs.push_back(std::move(func));
}

} // namespace qv
