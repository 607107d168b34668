// The folder words of the host's two project kinds: bracketed words ("[SystemFolder]") in
// installer-database projects, angle-bracketed words ("<WINSYSDIR>") in script-driven projects.
// CProjectTraitsManager picks the traits of the project the host has open, asking the companion
// QVObjMgr.DLL anew at every use; nothing is cached.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

// Imported at load time from QVObjMgr.DLL: 0 for the bracket kind, 1 for the angle kind.
extern "C" __declspec(dllimport) int __stdcall GetActiveProjectType();

// The 25 operations keep this order (their slot order); the destructor comes after them.
// All but the two Knows... tests are constants. Names compare code unit by code unit.
struct ProjectTraits {
    virtual bool KnowsPredefinedFolder(std::wstring_view name) const = 0;
    virtual bool KnowsShortcutFolder(std::wstring_view name) const = 0;
    virtual int OpenDelimiterChar() const = 0;
    virtual int CloseDelimiterChar() const = 0;
    virtual std::wstring OpenDelimiter() const = 0;
    virtual std::wstring CloseDelimiter() const = 0;
    virtual std::wstring TargetFolderName() const = 0;
    virtual std::wstring TargetFolder() const = 0;
    virtual std::wstring SystemFolder() const = 0;
    virtual std::wstring SystemFolderDisplay() const = 0;
    virtual std::wstring WindowsFolder() const = 0;
    virtual std::wstring WindowsFolderDisplay() const = 0;
    virtual std::wstring ProgramFilesFolder() const = 0;
    virtual std::wstring ProgramFilesFolderDisplay() const = 0;
    virtual std::wstring CommonFilesFolder() const = 0;
    virtual std::wstring CommonFilesFolderDisplay() const = 0;
    virtual std::wstring SupportFolder() const = 0;
    virtual std::wstring RuntimeTextSubsFolder() const = 0;
    virtual std::wstring TaskBarFolder() const = 0;
    virtual std::wstring StartMenuFolder() const = 0;
    virtual std::wstring SendToFolder() const = 0;
    virtual std::wstring ProgramMenuFolder() const = 0;
    virtual std::wstring StartupFolder() const = 0;
    virtual std::wstring DesktopFolder() const = 0;
    virtual int KindNumber() const = 0;

    // Owned through base pointers by CProjectTraitsManager.
    virtual ~ProjectTraits() = default;
};

// Installer-database projects: "[SystemFolder]", kind 2.
struct ProjectTraitsMSI : ProjectTraits {
    bool KnowsPredefinedFolder(std::wstring_view name) const override;
    bool KnowsShortcutFolder(std::wstring_view name) const override;
    int OpenDelimiterChar() const override;
    int CloseDelimiterChar() const override;
    std::wstring OpenDelimiter() const override;
    std::wstring CloseDelimiter() const override;
    std::wstring TargetFolderName() const override;
    std::wstring TargetFolder() const override;
    std::wstring SystemFolder() const override;
    std::wstring SystemFolderDisplay() const override;
    std::wstring WindowsFolder() const override;
    std::wstring WindowsFolderDisplay() const override;
    std::wstring ProgramFilesFolder() const override;
    std::wstring ProgramFilesFolderDisplay() const override;
    std::wstring CommonFilesFolder() const override;
    std::wstring CommonFilesFolderDisplay() const override;
    std::wstring SupportFolder() const override;
    std::wstring RuntimeTextSubsFolder() const override;
    std::wstring TaskBarFolder() const override;
    std::wstring StartMenuFolder() const override;
    std::wstring SendToFolder() const override;
    std::wstring ProgramMenuFolder() const override;
    std::wstring StartupFolder() const override;
    std::wstring DesktopFolder() const override;
    int KindNumber() const override;
};

// Script-driven projects: "<WINSYSDIR>", kind 4.
struct ProjectTraitsPro : ProjectTraits {
    bool KnowsPredefinedFolder(std::wstring_view name) const override;
    bool KnowsShortcutFolder(std::wstring_view name) const override;
    int OpenDelimiterChar() const override;
    int CloseDelimiterChar() const override;
    std::wstring OpenDelimiter() const override;
    std::wstring CloseDelimiter() const override;
    std::wstring TargetFolderName() const override;
    std::wstring TargetFolder() const override;
    std::wstring SystemFolder() const override;
    std::wstring SystemFolderDisplay() const override;
    std::wstring WindowsFolder() const override;
    std::wstring WindowsFolderDisplay() const override;
    std::wstring ProgramFilesFolder() const override;
    std::wstring ProgramFilesFolderDisplay() const override;
    std::wstring CommonFilesFolder() const override;
    std::wstring CommonFilesFolderDisplay() const override;
    std::wstring SupportFolder() const override;
    std::wstring RuntimeTextSubsFolder() const override;
    std::wstring TaskBarFolder() const override;
    std::wstring StartMenuFolder() const override;
    std::wstring SendToFolder() const override;
    std::wstring ProgramMenuFolder() const override;
    std::wstring StartupFolder() const override;
    std::wstring DesktopFolder() const override;
    int KindNumber() const override;
};

// The process-wide chooser of the current traits: m_traits[0] installer-database, [1] script-driven.
class CProjectTraitsManager {
public:
    // The one instance, made on first use (the server's start-up makes that call).
    static CProjectTraitsManager& Instance();

    CProjectTraitsManager();
    CProjectTraitsManager(const CProjectTraitsManager&) = delete;
    CProjectTraitsManager& operator=(const CProjectTraitsManager&) = delete;
    virtual ~CProjectTraitsManager();

    // m_traits[GetActiveProjectType()], asked now. The companion returns only 0 or 1, and the
    // value is used as it comes, without a range test.
    const ProjectTraits& Current() const;

    std::vector<std::unique_ptr<ProjectTraits>> m_traits;
};

namespace qv::traits {

// The folder tokens the dependency record puts in place of a known folder, from the traits that
// are current at the call. Named ...Token so as not to be taken for the folders themselves
// (qv::SystemFolder() is the path C:\windows\system32\).
std::wstring SystemFolderToken();      // "[SystemFolder]" or "<WINSYSDIR>"
std::wstring WindowsFolderToken();     // "[WindowsFolder]" or "<WINDIR>"
std::wstring CommonFilesFolderToken(); // "[CommonFilesFolder]" or "<COMMONFILES>"

} // namespace qv::traits
