#include "app_folders.h"

#include "inc/com_module.h"
#include "toolkit/environment.h"

#include <windows.h>

namespace appservices {

namespace {

// The variable's text when it is set and not empty, else the fallback.
std::wstring Or(const wchar_t* variable, std::wstring fallback) {
    std::wstring value;
    return qv::ReadEnvironment(variable, value) && !value.empty() ? value : fallback;
}

} // namespace

std::wstring ModulePath() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        DWORD n = GetModuleFileNameW(qv::g_module.Instance(), path.data(), static_cast<DWORD>(path.size()));
        if (n == 0)
            return {};
        if (n < path.size()) {
            path.resize(n);
            return path;
        }
        path.resize(path.size() * 2);
    }
}

std::wstring ModuleFolder() {
    std::wstring path = ModulePath();
    const size_t slash = path.find_last_of(L'\\');
    return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

std::wstring SupportFolder() {
    return Or(L"QV_SUPPORT_DIR", ModuleFolder() + L"\\Support");
}

std::wstring ProgramsFolder() {
    return Or(L"QV_PROGRAMS_DIR", ModuleFolder());
}

std::wstring SettingsDocument() {
    return Or(L"QV_SETTINGS_PATH", ModuleFolder() + L"\\QvSettings.xml");
}

std::wstring StrongNameLibrary() {
    return Or(L"QV_STRONGNAME_LIBRARY", ModulePath());
}

} // namespace appservices
