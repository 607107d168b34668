// The project traits: the current kind follows QVObjMgr.DLL's answer at every call; the two kinds' words.
#include "test_support.h"
#include "traits/project_traits.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

namespace {

TEST(ProjectTraits, TheCurrentKindFollowsTheVariableAndWordsCompareExactly) {
    env_scope unset(L"QV_ACTIVE_PROJECT_TYPE", nullptr);
    registry_override user(HKEY_CURRENT_USER); // the registry says 1
    const DWORD one = 1;
    registry_override::set_value(HKEY_CURRENT_USER, L"Software\\QVWI\\QVObjMgr", L"ActiveProjectType", REG_DWORD, &one, 4);
    CProjectTraitsManager& manager = CProjectTraitsManager::Instance();
    ASSERT_EQ(manager.m_traits.size(), 2u); // both kinds, and the current one follows every change
    for (auto [variable, kind, system] : {std::tuple{L"0", 2, L"[SystemFolder]"}, {L"1", 4, L"<WINSYSDIR>"},
                                          {L"", 4, L"<WINSYSDIR>"}}) { // "": the registry's 1
        env_scope set(L"QV_ACTIVE_PROJECT_TYPE", variable);
        EXPECT_EQ(std::pair(manager.Current().KindNumber(), qv::traits::SystemFolderToken()), std::pair(kind, wstring(system)));
    }
    const ProjectTraits &msi = *manager.m_traits[0], &pro = *manager.m_traits[1]; // words compare exactly
    EXPECT_TRUE(msi.KnowsPredefinedFolder(L"SystemFolder") && !pro.KnowsPredefinedFolder(L"SystemFolder"));
    EXPECT_TRUE(pro.KnowsPredefinedFolder(L"WINDIR") && !pro.KnowsPredefinedFolder(L"windir") &&
                msi.KnowsShortcutFolder(L"SendToFolder") && !pro.KnowsShortcutFolder(L"SendToFolder"));
}

} // namespace
