// From a scan to an installer: the files an application ships (its closure minus what the system and the target
// provide, minus what merge modules carry), copied beside it into a bundle folder, or described as WiX v3 source
// that wixl or the WiX toolset builds into an MSI.
#pragma once

#include "records.h"

#include <windows.h>

#include <string>
#include <vector>

namespace qvscan {

// One file the installer ships.
struct shipped_file {
    std::wstring source; // full path
    std::wstring name;
    // Where it goes: empty for the application's folder (a subfolder of it kept, "fr" for a satellite in
    // app\fr), else a folder token ("[SystemFolder]", "<COMMONFILES>", ...) with the rest of its destination.
    std::wstring folder;
    bool shared = false, selfRegistering = false, main = false;
};

struct package_plan {
    std::wstring mainFile;
    DWORD machine = 0; // the main file's machine word
    std::vector<shipped_file> files;
    struct module {
        std::wstring name, file; // the module's subject, and its .msm file's name (the record's key)
    };
    std::vector<module> mergeModules;
    std::vector<std::wstring> missing;      // names nothing can ship
    std::vector<std::wstring> passedOver;   // a second file of a name already shipped, from another folder
};

// The plan of the main files (the scanned ones) and their records. keepDestinations keeps a file that the
// records send to a folder of the system there; otherwise it goes beside the program.
package_plan plan_package(const std::vector<std::wstring>& mainFiles, const std::vector<record>& records,
                          bool keepDestinations);

// Copies the plan's files into folder (made when missing). A file already there with other bytes is left as it
// is unless force; the names so left are returned. Throws std::runtime_error with the reason on failure.
std::vector<std::wstring> copy_bundle(const package_plan& plan, const std::wstring& folder, bool force);

struct product_texts {
    std::wstring name, manufacturer, version; // empty: from the main file's version resource
    bool linuxSources = false;                // Source attributes as Linux paths (for wixl), under Wine
    std::wstring mergeModuleFolder;           // where the modules' .msm files are
    std::wstring include;                     // a WiX include named inside the product, when not empty
};

// The WiX v3 source of the plan: stable across runs (identifiers and GUIDs derived from the product's name and
// each file's destination), well-formed whatever the names hold. Merge modules as <Merge>/<MergeRef>, or
// with noMergeModules only named in comments; missing files named in comments.
std::string wix_source(const package_plan& plan, const product_texts& product, bool noMergeModules);

// A name-based GUID (RFC 4122 version 5, SHA-1) of the text in the tool's own namespace, "XXXXXXXX-XXXX-...".
std::wstring name_guid(const std::wstring& text);

struct options;
// --wxs of the options: the WiX source of the plan, written whole; what it cannot hold said on standard error.
void write_wxs(const package_plan& plan, const options& o);

// Writes text to path through a temporary file beside it that is renamed at the end: never a half-written file.
void write_whole_file(const std::wstring& path, const std::string& text);

} // namespace qvscan
