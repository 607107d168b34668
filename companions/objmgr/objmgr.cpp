// QVObjMgr.DLL: answers which kind of project is active, 0 (bracket words) or 1 (angle words).
// The library indexes its traits table with the answer and never range-checks it, so this module
// hands out nothing but 0 or 1. The answer is read anew at every call; see README.md for the knobs.
#include "inc/unique_handles.h"
#include "toolkit/environment.h"

#include <windows.h>

#include <cwchar>
#include <string>

namespace {

constexpr wchar_t kEnvironmentName[] = L"QV_ACTIVE_PROJECT_TYPE";
constexpr wchar_t kRegistryKey[] = L"Software\\QVWI\\QVObjMgr";
constexpr wchar_t kRegistryValue[] = L"ActiveProjectType";
constexpr size_t kLongestNumber = 63; // longer texts of the variable count as 0, whatever they hold

int Clamp(long long value) {
    return value == 1 ? 1 : 0;
}

// The environment variable, when it is set to a non-empty text. A text that is not a whole
// decimal number counts as 0, like any number other than 0 or 1.
bool FromEnvironment(int& type) {
    std::wstring text;
    if (!qv::ReadEnvironment(kEnvironmentName, text) || text.empty())
        return false;
    if (text.size() > kLongestNumber) { // far too long to be a small number
        type = 0;
        return true;
    }
    wchar_t* end = nullptr;
    long long value = std::wcstoll(text.c_str(), &end, 10);
    while (end && (*end == L' ' || *end == L'\t'))
        ++end;
    type = (end != text.c_str() && end && *end == L'\0') ? Clamp(value) : 0;
    return true;
}

// HKEY_CURRENT_USER\Software\QVWI\QVObjMgr, value ActiveProjectType, a REG_DWORD.
bool FromRegistry(int& type) {
    qv::unique_hkey key;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, kRegistryKey, 0, KEY_QUERY_VALUE, key.put()) != ERROR_SUCCESS)
        return false;
    DWORD value = 0;
    DWORD kind = 0;
    DWORD size = sizeof value;
    if (RegQueryValueExW(key.get(), kRegistryValue, nullptr, &kind, reinterpret_cast<BYTE*>(&value), &size) !=
            ERROR_SUCCESS ||
        kind != REG_DWORD || size != sizeof value)
        return false;
    type = Clamp(value);
    return true;
}

} // namespace

extern "C" int __stdcall GetActiveProjectType() {
    int type = 0;
    if (FromEnvironment(type) || FromRegistry(type))
        return type;
    return 0;
}
