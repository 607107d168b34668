#include "environment.h"

#include <windows.h>

namespace qv {

bool ReadEnvironment(const wchar_t* name, std::wstring& value) {
    DWORD size = GetEnvironmentVariableW(name, nullptr, 0);
    while (size != 0) {
        value.assign(size, L'\0');
        DWORD n = GetEnvironmentVariableW(name, value.data(), size);
        if (n < size) { // n characters copied, no terminator counted
            value.resize(n);
            return true;
        }
        size = n; // the variable grew in between: n is the size it needs now
    }
    value.clear();
    return false;
}

} // namespace qv
