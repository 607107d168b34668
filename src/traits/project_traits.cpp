// The two traits objects are constant tables; only the manager reaches outside, to QVObjMgr.DLL.
#include "traits/project_traits.h"

#include <algorithm>
#include <array>

namespace {

// Whole-word match, code unit by code unit: "windir" is not "WINDIR".
template <size_t N> bool IsOneOf(std::wstring_view name, const std::array<std::wstring_view, N>& words) {
    return std::find(words.begin(), words.end(), name) != words.end();
}

constexpr std::array<std::wstring_view, 4> kProShortcutFolders = {L"DesktopFolder", L"ProgramMenuFolder",
                                                                  L"StartMenuFolder", L"StartupFolder"};

constexpr std::array<std::wstring_view, 5> kMsiShortcutFolders = {
    L"DesktopFolder", L"ProgramMenuFolder", L"StartMenuFolder", L"StartupFolder", L"SendToFolder"};

constexpr std::array<std::wstring_view, 11> kProPredefinedFolders = {
    L"COMMONFILES", L"COMMONFILES64", L"QVRUNTIMETEXTSUBS", L"PROGRAMFILES", L"PROGRAMFILES64", L"SUPPORTDIR",
    L"WINSYSDIR",   L"WINSYSDIR64",   L"TARGETDIR",         L"WINDIR",       L"FOLDER_FONTS"};

constexpr std::array<std::wstring_view, 29> kMsiPredefinedFolders = {L"AdminToolsFolder",
                                                                     L"AppDataFolder",
                                                                     L"CommonAppDataFolder",
                                                                     L"CommonFilesFolder",
                                                                     L"CommonFiles64Folder",
                                                                     L"DATABASEDIR",
                                                                     L"FavoritesFolder",
                                                                     L"FontsFolder",
                                                                     L"GlobalAssemblyCache",
                                                                     L"LocalAppDataFolder",
                                                                     L"MyPicturesFolder",
                                                                     L"PersonalFolder",
                                                                     L"PrimaryVolumePath",
                                                                     L"ProgramFilesFolder",
                                                                     L"ProgramFiles64Folder",
                                                                     L"System16Folder",
                                                                     L"SystemFolder",
                                                                     L"System64Folder",
                                                                     L"TempFolder",
                                                                     L"TemplateFolder",
                                                                     L"WindowsFolder",
                                                                     L"WindowsVolume",
                                                                     L"TARGETDIR",
                                                                     L"ALLUSERSPROFILE",
                                                                     L"USERPROFILE",
                                                                     L"PUBLIC",
                                                                     L"ProgramFilesArmFolder",
                                                                     L"CommonFilesArmFolder",
                                                                     L"SystemArmFolder"};

} // namespace

// ---- ProjectTraitsMSI ----

bool ProjectTraitsMSI::KnowsPredefinedFolder(std::wstring_view name) const {
    return IsOneOf(name, kMsiPredefinedFolders) || KnowsShortcutFolder(name);
}
bool ProjectTraitsMSI::KnowsShortcutFolder(std::wstring_view name) const {
    return IsOneOf(name, kMsiShortcutFolders);
}
int ProjectTraitsMSI::OpenDelimiterChar() const {
    return '[';
}
int ProjectTraitsMSI::CloseDelimiterChar() const {
    return ']';
}
std::wstring ProjectTraitsMSI::OpenDelimiter() const {
    return L"[";
}
std::wstring ProjectTraitsMSI::CloseDelimiter() const {
    return L"]";
}
std::wstring ProjectTraitsMSI::TargetFolderName() const {
    return L"INSTALLDIR";
}
std::wstring ProjectTraitsMSI::TargetFolder() const {
    return L"[INSTALLDIR]";
}
std::wstring ProjectTraitsMSI::SystemFolder() const {
    return L"[SystemFolder]";
}
std::wstring ProjectTraitsMSI::SystemFolderDisplay() const {
    return L"[SystemFolder]";
}
std::wstring ProjectTraitsMSI::WindowsFolder() const {
    return L"[WindowsFolder]";
}
std::wstring ProjectTraitsMSI::WindowsFolderDisplay() const {
    return L"[WindowsFolder]";
}
std::wstring ProjectTraitsMSI::ProgramFilesFolder() const {
    return L"[ProgramFilesFolder]";
}
std::wstring ProjectTraitsMSI::ProgramFilesFolderDisplay() const {
    return L"[ProgramFilesFolder]";
}
std::wstring ProjectTraitsMSI::CommonFilesFolder() const {
    return L"[CommonFilesFolder]";
}
std::wstring ProjectTraitsMSI::CommonFilesFolderDisplay() const {
    return L"[CommonFilesFolder]";
}
std::wstring ProjectTraitsMSI::SupportFolder() const {
    return {};
}
std::wstring ProjectTraitsMSI::RuntimeTextSubsFolder() const {
    return {};
}
std::wstring ProjectTraitsMSI::TaskBarFolder() const {
    return L"[TaskBarFolder]";
}
std::wstring ProjectTraitsMSI::StartMenuFolder() const {
    return L"[StartMenuFolder]";
}
std::wstring ProjectTraitsMSI::SendToFolder() const {
    return L"[SendToFolder]";
}
std::wstring ProjectTraitsMSI::ProgramMenuFolder() const {
    return L"[ProgramMenuFolder]";
}
std::wstring ProjectTraitsMSI::StartupFolder() const {
    return L"[StartupFolder]";
}
std::wstring ProjectTraitsMSI::DesktopFolder() const {
    return L"[DesktopFolder]";
}
int ProjectTraitsMSI::KindNumber() const {
    return 2;
}

// ---- ProjectTraitsPro ----

bool ProjectTraitsPro::KnowsPredefinedFolder(std::wstring_view name) const {
    return IsOneOf(name, kProPredefinedFolders) || KnowsShortcutFolder(name);
}
bool ProjectTraitsPro::KnowsShortcutFolder(std::wstring_view name) const {
    return IsOneOf(name, kProShortcutFolders);
}
int ProjectTraitsPro::OpenDelimiterChar() const {
    return '<';
}
int ProjectTraitsPro::CloseDelimiterChar() const {
    return '>';
}
std::wstring ProjectTraitsPro::OpenDelimiter() const {
    return L"<";
}
std::wstring ProjectTraitsPro::CloseDelimiter() const {
    return L">";
}
std::wstring ProjectTraitsPro::TargetFolderName() const {
    return L"TARGETDIR";
}
std::wstring ProjectTraitsPro::TargetFolder() const {
    return L"<TARGETDIR>";
}
std::wstring ProjectTraitsPro::SystemFolder() const {
    return L"<WINSYSDIR>";
}
std::wstring ProjectTraitsPro::SystemFolderDisplay() const {
    return L"Windows System";
}
std::wstring ProjectTraitsPro::WindowsFolder() const {
    return L"<WINDIR>";
}
std::wstring ProjectTraitsPro::WindowsFolderDisplay() const {
    return L"Windows";
}
std::wstring ProjectTraitsPro::ProgramFilesFolder() const {
    return L"<PROGRAMFILES>";
}
std::wstring ProjectTraitsPro::ProgramFilesFolderDisplay() const {
    return L"Program Files";
}
std::wstring ProjectTraitsPro::CommonFilesFolder() const {
    return L"<COMMONFILES>";
}
std::wstring ProjectTraitsPro::CommonFilesFolderDisplay() const {
    return L"Common Files";
}
std::wstring ProjectTraitsPro::SupportFolder() const {
    return L"<SUPPORTDIR>";
}
std::wstring ProjectTraitsPro::RuntimeTextSubsFolder() const {
    return L"<QVRUNTIMETEXTSUBS>";
}
std::wstring ProjectTraitsPro::TaskBarFolder() const {
    return L"<TaskBarFolder>";
}
std::wstring ProjectTraitsPro::StartMenuFolder() const {
    return L"<StartMenuFolder>";
}
std::wstring ProjectTraitsPro::SendToFolder() const {
    return L"<SendToFolder>";
}
std::wstring ProjectTraitsPro::ProgramMenuFolder() const {
    return L"<ProgramMenuFolder>";
}
std::wstring ProjectTraitsPro::StartupFolder() const {
    return L"<StartupFolder>";
}
std::wstring ProjectTraitsPro::DesktopFolder() const {
    return L"<DesktopFolder>";
}
int ProjectTraitsPro::KindNumber() const {
    return 4;
}

// ---- CProjectTraitsManager ----

CProjectTraitsManager& CProjectTraitsManager::Instance() {
    static CProjectTraitsManager manager;
    return manager;
}

CProjectTraitsManager::CProjectTraitsManager() {
    m_traits.push_back(std::make_unique<ProjectTraitsMSI>());
    m_traits.push_back(std::make_unique<ProjectTraitsPro>());
}

CProjectTraitsManager::~CProjectTraitsManager() = default;

const ProjectTraits& CProjectTraitsManager::Current() const {
    // QVObjMgr.DLL hands out 0 or 1 only; no range test here, by design.
    return *m_traits[static_cast<size_t>(GetActiveProjectType())];
}

namespace qv::traits {

std::wstring SystemFolderToken() {
    return CProjectTraitsManager::Instance().Current().SystemFolder();
}
std::wstring WindowsFolderToken() {
    return CProjectTraitsManager::Instance().Current().WindowsFolder();
}
std::wstring CommonFilesFolderToken() {
    return CProjectTraitsManager::Instance().Current().CommonFilesFolder();
}

} // namespace qv::traits
