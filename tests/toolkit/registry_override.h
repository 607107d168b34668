// A predefined registry key (HKEY_CLASSES_ROOT, HKEY_CURRENT_USER, ...) redirected for the life of
// the object to a fresh scratch key below the real HKEY_CURRENT_USER\Software\QVWI-tests, which is
// removed afterwards. The redirection is process-wide, so it reaches the companion DLLs too.
#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

namespace qv::test {

class registry_override {
public:
    explicit registry_override(HKEY predefined) : m_predefined(predefined) {
        static LONG counter = 0;
        m_path = L"Software\\QVWI-tests\\" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                 std::to_wstring(InterlockedIncrement(&counter));
        if (RegCreateKeyExW(HKEY_CURRENT_USER, m_path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &m_key,
                            nullptr) != ERROR_SUCCESS)
            throw std::runtime_error("cannot make a scratch registry key");
        LONG status = RegOverridePredefKey(m_predefined, m_key);
        if (status != ERROR_SUCCESS) {
            RegCloseKey(m_key);
            RegDeleteTreeW(HKEY_CURRENT_USER, m_path.c_str());
            throw std::runtime_error("RegOverridePredefKey failed: " + std::to_string(status));
        }
    }
    ~registry_override() {
        RegOverridePredefKey(m_predefined, nullptr);
        RegCloseKey(m_key);
        RegDeleteTreeW(HKEY_CURRENT_USER, m_path.c_str());
        RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\QVWI-tests"); // only if no other test still has one
    }
    registry_override(const registry_override&) = delete;
    registry_override& operator=(const registry_override&) = delete;

    // The scratch key itself (the real one behind the predefined handle).
    HKEY key() const { return m_key; }

    // Creates root\subkey and sets a value (the default one for nullptr) to raw bytes.
    static void set_value(HKEY root, const std::wstring& subkey, const wchar_t* name, DWORD type, const void* data,
                          DWORD size) {
        HKEY key = nullptr;
        if (RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) !=
            ERROR_SUCCESS)
            throw std::runtime_error("cannot create a test key");
        LONG status = RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), size);
        RegCloseKey(key);
        if (status != ERROR_SUCCESS)
            throw std::runtime_error("cannot set a test value");
    }

private:
    HKEY m_predefined;
    HKEY m_key = nullptr;
    std::wstring m_path;
};

} // namespace qv::test
