// QVObjMgr.DLL as the library imports it: the active project type from the variable, else the registry.
#include "test_support.h"
#include "traits/project_traits.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

namespace {

TEST(ProjectType, FromTheVariableElseTheRegistry) {
    env_scope unset(L"QV_ACTIVE_PROJECT_TYPE", nullptr);
    registry_override user(HKEY_CURRENT_USER);
    EXPECT_EQ(GetActiveProjectType(), 0);
    const ULONGLONG one = 1; // a REG_DWORD's 4 bytes, or a REG_QWORD's 8
    const struct { DWORD type; const void* data; DWORD size; const wchar_t* variable; int expected; } rows[] = {
        {REG_DWORD, &one, 4, nullptr, 1}, {REG_SZ, L"1", 4, nullptr, 0}, {REG_QWORD, &one, 8, nullptr, 0},
        {REG_DWORD, &one, 4, L"0", 0}, {REG_DWORD, &one, 4, L"5", 0}, {REG_SZ, L"1", 4, L" 1 ", 1}, {REG_SZ, L"1", 4, L"+01", 1},
        {REG_SZ, L"1", 4, L"1x", 0}, {REG_SZ, L"1", 4, L"4294967297", 0}, {REG_DWORD, &one, 4, L"", 1}}; // "": unset
    for (const auto& r : rows) {
        registry_override::set_value(HKEY_CURRENT_USER, L"Software\\QVWI\\QVObjMgr", L"ActiveProjectType", r.type,
                                     r.data, r.size);
        env_scope variable(L"QV_ACTIVE_PROJECT_TYPE", r.variable);
        EXPECT_EQ(GetActiveProjectType(), r.expected) << "row " << &r - rows;
    }
}

} // namespace
