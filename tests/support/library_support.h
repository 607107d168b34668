// What the tests of the library's own code (linked in) share: the program's children ("<program> --child <output
// file> <verb|argument>..." runs child commands), QvAppServices.dll as the library reaches it, small helpers.
#pragma once

#include "companions.h"
#include "siblings/sibling_module_cache.h"
#include "inc/com_exception.h"
#include "inc/com_ptr.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qv::test {

using lines = std::vector<std::wstring>;

inline constexpr wchar_t kCompanion[] = L"QvAppServices.dll", kChildFlag[] = L"--child";
inline const std::wstring kMissing = L"80040154"; // REGDB_E_CLASSNOTREG

// An HRESULT as eight hex digits; what fn throws as a com_exception, or S_OK.
inline std::wstring Hex(HRESULT hr) {
    wchar_t text[16];
    return swprintf(text, 16, L"%08lX", static_cast<unsigned long>(hr)), text;
}
template <class Fn> HRESULT Thrown(Fn&& fn) try {
    return fn(), S_OK;
} catch (const com_exception& e) {
    return e.Error();
}

// A command of the child: its output for the text after "verb|". The child runs them all in one apartment, with
// HKEY_LOCAL_MACHINE on a scratch key; "set|NAME=VALUE" sets a variable of the environment.
using child_command_fn = std::wstring (*)(const std::wstring& argument);
struct child_command {
    child_command(const wchar_t* verb, child_command_fn run);
};

// Runs the commands in a child with QvAppServices.dll in the places given ("{T}\\folder", or a file name of its
// own); the program and QVObjMgr.DLL lie in {T}\root\one\two\app. {T} stands for the child's scratch folder.
// Compares its lines without regard to case.
void ExpectChild(const lines& companions, const lines& commands, const lines& expected);

// An export of a loaded companion.
template <class T> T Export(const char* name, const wchar_t* module = kCompanion) {
    return reinterpret_cast<T>(reinterpret_cast<void (*)()>(GetProcAddress(GetModuleHandleW(module), name)));
}

// An apartment, a support folder, and no object of the companion left.
class Companion : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(CanUnloadNow(), S_OK) << "an object of the companion is alive"; }
    static HRESULT CanUnloadNow() { return Export<HRESULT(STDAPICALLTYPE*)()>("DllCanUnloadNow")(); }
    template <class T> qv::com_ptr<T> Create(REFCLSID clsid, REFIID iid) {
        qv::com_ptr<T> object;
        EXPECT_EQ(CoCreateFromLibrary(kCompanion, clsid, iid, object.put()), S_OK);
        return object;
    }
    com_apartment m_apartment;
    temp_dir m_support;
    env_scope m_supportDir{L"QV_SUPPORT_DIR", m_support.path().c_str()};
};

} // namespace qv::test
