// Where QvAppServices.dll says the tool's folders and files are: beside the library itself unless an
// environment variable names another place. Every answer is worked out anew at each call, so that a
// change of the environment takes effect at once. See README.md for the knobs.
#pragma once

#include <string>

namespace appservices {

// The full path of this library, and its folder (no trailing backslash).
std::wstring ModulePath();
std::wstring ModuleFolder();

// QV_SUPPORT_DIR, else <folder>\Support.
std::wstring SupportFolder();
// QV_PROGRAMS_DIR, else <folder>.
std::wstring ProgramsFolder();
// QV_SETTINGS_PATH, else <folder>\QvSettings.xml.
std::wstring SettingsDocument();
// QV_STRONGNAME_LIBRARY, else this library, which exports StrongNameTokenFromPublicKey.
std::wstring StrongNameLibrary();

} // namespace appservices
