#include "server_dll.h"

#include "error_text.h"
#include "text_output.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"

#include <stdexcept>

namespace qvscan {

namespace {

template <class Fn> Fn exported(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(module ? GetProcAddress(module, name) : nullptr));
}

} // namespace

server_dll::server_dll(std::wstring path) : m_path(std::move(path)), m_module(LoadLibraryW(m_path.c_str())) {
    if (!m_module)
        throw std::runtime_error("cannot load " + utf8(m_path) + ": " + describe(HRESULT_FROM_WIN32(GetLastError())));
    m_getClassObject = exported<decltype(m_getClassObject)>(m_module.get(), "DllGetClassObject");
    if (!m_getClassObject)
        throw std::runtime_error(utf8(m_path) + " exports no DllGetClassObject");
    PinProjectType();
}

void server_dll::PinProjectType() {
    // The library asks QVObjMgr.DLL for the active project's kind at every use (once a record); the stand-in
    // reads the registry each time, a request to the Wine server. The tool is this run's host and its project
    // does not change while it runs: the answer is asked once and given to the stand-in through its variable.
    std::wstring given;
    if (qv::ReadEnvironment(L"QV_ACTIVE_PROJECT_TYPE", given) && !given.empty())
        return;
    using project_type_fn = int(__stdcall*)();
    const auto ask = exported<project_type_fn>(GetModuleHandleW(L"QVObjMgr.DLL"), "GetActiveProjectType");
    if (ask)
        SetEnvironmentVariableW(L"QV_ACTIVE_PROJECT_TYPE", std::to_wstring(ask()).c_str());
}

server_dll::~server_dll() {
    using can_unload_fn = HRESULT(STDAPICALLTYPE*)();
    const auto canUnload = exported<can_unload_fn>(m_module.get(), "DllCanUnloadNow");
    if (canUnload && canUnload() != S_OK)
        m_module.release(); // left loaded for the objects that still live
}

std::wstring server_dll::beside_tool(const wchar_t* name) {
    std::wstring own(MAX_PATH, L'\0');
    for (;;) {
        const DWORD n = GetModuleFileNameW(nullptr, own.data(), static_cast<DWORD>(own.size()));
        if (n < own.size()) {
            own.resize(n);
            break;
        }
        own.resize(own.size() * 2);
    }
    return qv::JoinPath(qv::DirectoryPart(own), name);
}

std::wstring server_dll::support_folder() {
    std::wstring overridden;
    if (qv::ReadEnvironment(L"QV_SUPPORT_DIR", overridden) && !overridden.empty())
        return overridden;
    return qv::JoinPath(qv::DirectoryPart(scanners_path()), L"Support");
}

std::wstring server_dll::scanners_path() {
    std::wstring overridden;
    if (qv::ReadEnvironment(L"QV_SERVER_DLL", overridden) && !overridden.empty())
        return overridden;
    return beside_tool(L"QVWIScanners.dll");
}

} // namespace qvscan
