// The project traits (the kind follows QVObjMgr.DLL at every call); the exclusion list, read in children.
#include "library_support.h"
#include "toolkit/path_helpers.h"
#include "traits/project_traits.h"
#include "traits/settings_document.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace qv::test;
using std::wstring;

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

// "exclusions|<settings text>": the text made the settings document; what loading it throws, as an HRESULT,
// and the exclusion set as <entry>s.
const child_command kExclusions(L"exclusions", [](const wstring& text) -> std::wstring {
    static int documents = 0;
    const wstring settings = qv::CurrentDirectory() + L"\\settings" + std::to_wstring(++documents) + L".xml";
    std::ofstream(std::filesystem::path(settings), std::ios::binary) << narrow(text);
    SetEnvironmentVariableW(L"QV_SETTINGS_PATH", settings.c_str());
    wstring out = Hex(Thrown([] { qv::LoadExclusionList(); }));
    for (const wstring& entry : qv::ExclusionList())
        out += L" <" + entry + L">";
    return out + L"\n";
});

// The exclusion list: lists add up, a text is kept once whatever its case, an entry without Path is the empty
// text; a failed read is tried again, a successful one never (the next document is not read).
TEST(ExclusionList, ReadOnceFromTheSettingsDocument) {
    const wstring lists = L"<Halyard><Scanners><DotNetExclusionList><F Path='C:\\A'/><F Path='c:\\a'/><F/>"
                          L"</DotNetExclusionList><DotNetExclusionList><F Path='D:\\B'/></DotNetExclusionList></Scanners></Halyard>";
    ExpectChild({L"{T}\\root\\one\\two\\app"}, {L"exclusions|<Halyard", L"exclusions|" + lists, L"exclusions|<Halyard/>"},
                {L"80004005", L"00000000 <> <C:\\A> <D:\\B>", L"00000000 <> <C:\\A> <D:\\B>"});
    ExpectChild({L"{T}\\root\\one\\two\\app"}, {L"exclusions|<Halyard><Scanners/></Halyard>"}, {L"00000000"});
}
