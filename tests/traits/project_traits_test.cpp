// The two traits tables, the word tests, and the manager's choice through the real QVObjMgr.DLL,
// driven by its environment variable and by its registry value (HKEY_CURRENT_USER redirected).
#include "test_support.h"
#include "test_support.h"
#include "traits/project_traits.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using qv::test::narrow;

namespace {

// ---- The answers of both kinds ----

struct text_answer {
    const char* operation;
    std::wstring (ProjectTraits::*get)() const;
    const wchar_t* msi;
    const wchar_t* pro;
};

const text_answer kTextAnswers[] = {
    {"OpenDelimiter", &ProjectTraits::OpenDelimiter, L"[", L"<"},
    {"CloseDelimiter", &ProjectTraits::CloseDelimiter, L"]", L">"},
    {"TargetFolderName", &ProjectTraits::TargetFolderName, L"INSTALLDIR", L"TARGETDIR"},
    {"TargetFolder", &ProjectTraits::TargetFolder, L"[INSTALLDIR]", L"<TARGETDIR>"},
    {"SystemFolder", &ProjectTraits::SystemFolder, L"[SystemFolder]", L"<WINSYSDIR>"},
    {"SystemFolderDisplay", &ProjectTraits::SystemFolderDisplay, L"[SystemFolder]", L"Windows System"},
    {"WindowsFolder", &ProjectTraits::WindowsFolder, L"[WindowsFolder]", L"<WINDIR>"},
    {"WindowsFolderDisplay", &ProjectTraits::WindowsFolderDisplay, L"[WindowsFolder]", L"Windows"},
    {"ProgramFilesFolder", &ProjectTraits::ProgramFilesFolder, L"[ProgramFilesFolder]", L"<PROGRAMFILES>"},
    {"ProgramFilesFolderDisplay", &ProjectTraits::ProgramFilesFolderDisplay, L"[ProgramFilesFolder]", L"Program Files"},
    {"CommonFilesFolder", &ProjectTraits::CommonFilesFolder, L"[CommonFilesFolder]", L"<COMMONFILES>"},
    {"CommonFilesFolderDisplay", &ProjectTraits::CommonFilesFolderDisplay, L"[CommonFilesFolder]", L"Common Files"},
    {"SupportFolder", &ProjectTraits::SupportFolder, L"", L"<SUPPORTDIR>"},
    {"RuntimeTextSubsFolder", &ProjectTraits::RuntimeTextSubsFolder, L"", L"<QVRUNTIMETEXTSUBS>"},
    {"TaskBarFolder", &ProjectTraits::TaskBarFolder, L"[TaskBarFolder]", L"<TaskBarFolder>"},
    {"StartMenuFolder", &ProjectTraits::StartMenuFolder, L"[StartMenuFolder]", L"<StartMenuFolder>"},
    {"SendToFolder", &ProjectTraits::SendToFolder, L"[SendToFolder]", L"<SendToFolder>"},
    {"ProgramMenuFolder", &ProjectTraits::ProgramMenuFolder, L"[ProgramMenuFolder]", L"<ProgramMenuFolder>"},
    {"StartupFolder", &ProjectTraits::StartupFolder, L"[StartupFolder]", L"<StartupFolder>"},
    {"DesktopFolder", &ProjectTraits::DesktopFolder, L"[DesktopFolder]", L"<DesktopFolder>"},
};

struct number_answer {
    const char* operation;
    int (ProjectTraits::*get)() const;
    int msi;
    int pro;
};

const number_answer kNumberAnswers[] = {
    {"OpenDelimiterChar", &ProjectTraits::OpenDelimiterChar, 91, 60},
    {"CloseDelimiterChar", &ProjectTraits::CloseDelimiterChar, 93, 62},
    {"KindNumber", &ProjectTraits::KindNumber, 2, 4},
};

TEST(TraitsTable, EveryConstantOfBothKinds) {
    // 20 texts + 3 numbers + the two word tests = the 25 operations.
    static_assert(std::size(kTextAnswers) + std::size(kNumberAnswers) + 2 == 25);
    const ProjectTraitsMSI msi;
    const ProjectTraitsPro pro;
    const ProjectTraits& msiBase = msi;
    const ProjectTraits& proBase = pro;
    for (const auto& a : kTextAnswers) {
        EXPECT_EQ((msiBase.*a.get)(), a.msi) << a.operation;
        EXPECT_EQ((proBase.*a.get)(), a.pro) << a.operation;
    }
    for (const auto& a : kNumberAnswers) {
        EXPECT_EQ((msiBase.*a.get)(), a.msi) << a.operation;
        EXPECT_EQ((proBase.*a.get)(), a.pro) << a.operation;
    }
}

TEST(TraitsTable, DelimitersFrameTheFolderWords) {
    const ProjectTraitsMSI msi;
    const ProjectTraitsPro pro;
    for (const ProjectTraits* traits :
         {static_cast<const ProjectTraits*>(&msi), static_cast<const ProjectTraits*>(&pro)}) {
        EXPECT_EQ(traits->OpenDelimiter(), std::wstring(1, static_cast<wchar_t>(traits->OpenDelimiterChar())));
        EXPECT_EQ(traits->CloseDelimiter(), std::wstring(1, static_cast<wchar_t>(traits->CloseDelimiterChar())));
        EXPECT_EQ(traits->TargetFolder(),
                  traits->OpenDelimiter() + traits->TargetFolderName() + traits->CloseDelimiter());
    }
}

// ---- The word tests: exact, case-sensitive matches ----

struct word_case {
    const wchar_t* name;
    bool msiPredefined;
    bool proPredefined;
    bool msiShortcut;
    bool proShortcut;
};

const word_case kWords[] = {
    {L"TARGETDIR", true, true, false, false},
    {L"WINDIR", false, true, false, false},
    {L"SendToFolder", true, false, true, false},
    {L"windir", false, false, false, false},
    {L"targetdir", false, false, false, false},
    {L"sendtofolder", false, false, false, false},
    {L"DesktopFolder", true, true, true, true},
    {L"ProgramMenuFolder", true, true, true, true},
    {L"StartMenuFolder", true, true, true, true},
    {L"StartupFolder", true, true, true, true},
    {L"desktopfolder", false, false, false, false},
    {L"SystemFolder", true, false, false, false},
    {L"WINSYSDIR", false, true, false, false},
    {L"WINSYSDIR64", false, true, false, false},
    {L"COMMONFILES", false, true, false, false},
    {L"COMMONFILES64", false, true, false, false},
    {L"QVRUNTIMETEXTSUBS", false, true, false, false},
    {L"PROGRAMFILES", false, true, false, false},
    {L"PROGRAMFILES64", false, true, false, false},
    {L"SUPPORTDIR", false, true, false, false},
    {L"FOLDER_FONTS", false, true, false, false},
    {L"AdminToolsFolder", true, false, false, false},
    {L"AppDataFolder", true, false, false, false},
    {L"CommonAppDataFolder", true, false, false, false},
    {L"CommonFilesFolder", true, false, false, false},
    {L"CommonFiles64Folder", true, false, false, false},
    {L"DATABASEDIR", true, false, false, false},
    {L"FavoritesFolder", true, false, false, false},
    {L"FontsFolder", true, false, false, false},
    {L"GlobalAssemblyCache", true, false, false, false},
    {L"LocalAppDataFolder", true, false, false, false},
    {L"MyPicturesFolder", true, false, false, false},
    {L"PersonalFolder", true, false, false, false},
    {L"PrimaryVolumePath", true, false, false, false},
    {L"ProgramFilesFolder", true, false, false, false},
    {L"ProgramFiles64Folder", true, false, false, false},
    {L"System16Folder", true, false, false, false},
    {L"System64Folder", true, false, false, false},
    {L"TempFolder", true, false, false, false},
    {L"TemplateFolder", true, false, false, false},
    {L"WindowsFolder", true, false, false, false},
    {L"WindowsVolume", true, false, false, false},
    {L"ALLUSERSPROFILE", true, false, false, false},
    {L"USERPROFILE", true, false, false, false},
    {L"PUBLIC", true, false, false, false},
    {L"ProgramFilesArmFolder", true, false, false, false},
    {L"CommonFilesArmFolder", true, false, false, false},
    {L"SystemArmFolder", true, false, false, false},
    {L"INSTALLDIR", false, false, false, false}, // a target name, not a predefined folder
    {L"TaskBarFolder", false, false, false, false},
    {L"[SystemFolder]", false, false, false, false},
    {L"<WINDIR>", false, false, false, false},
    {L"TARGETDIR ", false, false, false, false},
    {L"TARGET", false, false, false, false},
    {L"", false, false, false, false},
};

TEST(FolderWords, KnownWordsOfEachKind) {
    const ProjectTraitsMSI msi;
    const ProjectTraitsPro pro;
    for (const auto& w : kWords) {
        EXPECT_EQ(msi.KnowsPredefinedFolder(w.name), w.msiPredefined) << "MSI predefined " << narrow(w.name);
        EXPECT_EQ(pro.KnowsPredefinedFolder(w.name), w.proPredefined) << "Pro predefined " << narrow(w.name);
        EXPECT_EQ(msi.KnowsShortcutFolder(w.name), w.msiShortcut) << "MSI shortcut " << narrow(w.name);
        EXPECT_EQ(pro.KnowsShortcutFolder(w.name), w.proShortcut) << "Pro shortcut " << narrow(w.name);
    }
}

TEST(FolderWords, NameMayBeAPieceOfALongerText) {
    // Callers pass views into their own texts; only the viewed characters count.
    const std::wstring text = L"<WINDIR>\\x";
    const ProjectTraitsPro pro;
    EXPECT_TRUE(pro.KnowsPredefinedFolder(std::wstring_view(text).substr(1, 6)));
    EXPECT_FALSE(pro.KnowsPredefinedFolder(std::wstring_view(text).substr(1, 5)));
}

// ---- The manager and the companion ----

TEST(TraitsManager, HoldsTheTwoKindsInIndexOrder) {
    CProjectTraitsManager& manager = CProjectTraitsManager::Instance();
    EXPECT_EQ(&manager, &CProjectTraitsManager::Instance());
    ASSERT_EQ(manager.m_traits.size(), 2u);
    EXPECT_NE(dynamic_cast<ProjectTraitsMSI*>(manager.m_traits[0].get()), nullptr);
    EXPECT_NE(dynamic_cast<ProjectTraitsPro*>(manager.m_traits[1].get()), nullptr);
}

TEST(Companion, IsLoadedFromQVObjMgrDllAtStart) {
    HMODULE companion = GetModuleHandleW(L"QVObjMgr.DLL");
    ASSERT_NE(companion, nullptr);
    wchar_t path[MAX_PATH] = {};
    ASSERT_NE(GetModuleFileNameW(companion, path, MAX_PATH), 0u);
    const std::wstring file = path;
    EXPECT_EQ(file.substr(file.find_last_of(L'\\') + 1), L"QVObjMgr.DLL");
    // The import resolves to the function the DLL exports by its plain name.
    HMODULE owner = nullptr;
    ASSERT_TRUE(
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<LPCWSTR>(&GetActiveProjectType), &owner));
    EXPECT_EQ(owner, companion);
    EXPECT_EQ(reinterpret_cast<void*>(GetProcAddress(companion, "GetActiveProjectType")),
              reinterpret_cast<void*>(&GetActiveProjectType));
}

// Every case starts with no variable and an empty HKEY_CURRENT_USER of its own.
class ActiveProjectTypeTest : public ::testing::Test {
protected:
    qv::test::env_scope noVariable{L"QV_ACTIVE_PROJECT_TYPE", nullptr};
    qv::test::registry_override user{HKEY_CURRENT_USER};

    static void SetRegistry(DWORD type, const void* data, DWORD size) {
        qv::test::registry_override::set_value(HKEY_CURRENT_USER, L"Software\\QVWI\\QVObjMgr", L"ActiveProjectType",
                                               type, data, size);
    }
    static void SetRegistry(DWORD value) { SetRegistry(REG_DWORD, &value, sizeof value); }
};

TEST_F(ActiveProjectTypeTest, NothingSetIsZero) {
    EXPECT_EQ(GetActiveProjectType(), 0);
    EXPECT_EQ(CProjectTraitsManager::Instance().Current().KindNumber(), 2);
}

TEST_F(ActiveProjectTypeTest, EnvironmentVariableDecides) {
    struct row {
        const wchar_t* text;
        int expected;
    };
    const row rows[] = {{L"1", 1},
                        {L"0", 0},
                        {L"2", 0},
                        {L"-1", 0},
                        {L"abc", 0},
                        {L"1x", 0},
                        {L" 1 ", 1},
                        {L"+1", 1},
                        {L"01", 1},
                        {L"4294967297", 0},
                        {L"100000000000000000000000000000000000000000000000000000000000000000001", 0}};
    for (const auto& r : rows) {
        qv::test::env_scope variable(L"QV_ACTIVE_PROJECT_TYPE", r.text);
        EXPECT_EQ(GetActiveProjectType(), r.expected) << narrow(r.text);
    }
}

TEST_F(ActiveProjectTypeTest, RegistryValueDecidesWithoutTheVariable) {
    struct row {
        DWORD value;
        int expected;
    };
    const row rows[] = {{1, 1}, {0, 0}, {2, 0}, {7, 0}, {0xFFFFFFFF, 0}, {0x80000001, 0}};
    for (const auto& r : rows) {
        SetRegistry(r.value);
        EXPECT_EQ(GetActiveProjectType(), r.expected) << r.value;
    }
}

TEST_F(ActiveProjectTypeTest, RegistryValueLivesInTheScratchKey) {
    SetRegistry(1);
    DWORD stored = 0;
    DWORD size = sizeof stored;
    ASSERT_EQ(RegGetValueW(user.key(), L"Software\\QVWI\\QVObjMgr", L"ActiveProjectType", RRF_RT_REG_DWORD, nullptr,
                           &stored, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(stored, 1u);
    EXPECT_EQ(GetActiveProjectType(), 1);
}

TEST_F(ActiveProjectTypeTest, RegistryValueOfAnotherTypeIsIgnored) {
    const wchar_t text[] = L"1";
    SetRegistry(REG_SZ, text, sizeof text);
    EXPECT_EQ(GetActiveProjectType(), 0);
    const unsigned long long wide = 1;
    SetRegistry(REG_QWORD, &wide, sizeof wide);
    EXPECT_EQ(GetActiveProjectType(), 0);
}

TEST_F(ActiveProjectTypeTest, VariableWinsOverTheRegistry) {
    SetRegistry(1);
    ASSERT_EQ(GetActiveProjectType(), 1);
    {
        qv::test::env_scope variable(L"QV_ACTIVE_PROJECT_TYPE", L"0");
        EXPECT_EQ(GetActiveProjectType(), 0);
    }
    {
        qv::test::env_scope variable(L"QV_ACTIVE_PROJECT_TYPE", L"5"); // out of range: 0, no fallback
        EXPECT_EQ(GetActiveProjectType(), 0);
    }
    {
        qv::test::env_scope variable(L"QV_ACTIVE_PROJECT_TYPE", L""); // empty counts as unset
        EXPECT_EQ(GetActiveProjectType(), 1);
    }
    EXPECT_EQ(GetActiveProjectType(), 1);
}

TEST_F(ActiveProjectTypeTest, CurrentTraitsFollowEveryChange) {
    CProjectTraitsManager& manager = CProjectTraitsManager::Instance();
    struct step {
        const wchar_t* variable; // nullptr: unset, the registry (1) decides
        int kind;
        const wchar_t* system;
        const wchar_t* windows;
        const wchar_t* commonFiles;
    };
    SetRegistry(1);
    const step steps[] = {
        {L"0", 2, L"[SystemFolder]", L"[WindowsFolder]", L"[CommonFilesFolder]"},
        {L"1", 4, L"<WINSYSDIR>", L"<WINDIR>", L"<COMMONFILES>"},
        {L"0", 2, L"[SystemFolder]", L"[WindowsFolder]", L"[CommonFilesFolder]"},
        {nullptr, 4, L"<WINSYSDIR>", L"<WINDIR>", L"<COMMONFILES>"},
        {L"9", 2, L"[SystemFolder]", L"[WindowsFolder]", L"[CommonFilesFolder]"},
    };
    for (const auto& s : steps) {
        qv::test::env_scope variable(L"QV_ACTIVE_PROJECT_TYPE", s.variable);
        const std::string label = s.variable ? narrow(s.variable) : "unset";
        EXPECT_EQ(manager.Current().KindNumber(), s.kind) << label;
        EXPECT_EQ(&manager.Current(), manager.m_traits[s.kind == 2 ? 0 : 1].get()) << label;
        EXPECT_EQ(qv::traits::SystemFolderToken(), s.system) << label;
        EXPECT_EQ(qv::traits::WindowsFolderToken(), s.windows) << label;
        EXPECT_EQ(qv::traits::CommonFilesFolderToken(), s.commonFiles) << label;
    }
}

TEST_F(ActiveProjectTypeTest, RemovingTheRegistryValueFallsBackToZero) {
    SetRegistry(1);
    ASSERT_EQ(GetActiveProjectType(), 1);
    ASSERT_EQ(RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\QVWI"), ERROR_SUCCESS);
    EXPECT_EQ(GetActiveProjectType(), 0);
}

} // namespace
