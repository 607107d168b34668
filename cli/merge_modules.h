// The merge-module catalog in the tool: QvMergeModules.dll beside qvscan.exe, loaded by path and reached
// through DllGetClassObject, read from a folder of .msm files and handed to the scans.
#pragma once

#include "companions.h"
#include "inc/com_ptr.h"
#include "options.h"

#include <string>

namespace qvscan {

// The catalog of the library beside the tool, read from folder; what it could not read is told on standard
// error, line by line. A library that cannot be loaded is thrown.
qv::com_ptr<IQvMergeModuleFolder> open_catalog(const std::wstring& folder);

// The folder a scan takes its merge modules from: --merge-modules, QV_MERGE_MODULES, or the system's own
// folder; empty when there is none.
std::wstring merge_module_folder(const options& o);

// The catalog a scan hands on, read from o.mergeModules or where the variable or the system keeps merge
// modules; null when there is no such folder.
qv::com_ptr<IUnknown> load_merge_modules(const options& o);

} // namespace qvscan
