#include "merge_modules.h"

#include "linux_paths.h"
#include "server_dll.h"
#include "text_output.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"

#include <windows.h>

#include <shlobj.h>

#include <algorithm>

namespace qvscan {

// The folder a scan takes its merge modules from: the option, the variable, or the system's own folder.
std::wstring merge_module_folder(const options& o) {
    if (!o.mergeModules.empty())
        return full_path(o.mergeModules);
    std::wstring variable;
    if (qv::ReadEnvironment(L"QV_MERGE_MODULES", variable) && !variable.empty())
        return full_path(variable);
    wchar_t common[MAX_PATH];
    if (FAILED(SHGetFolderPathW(nullptr, CSIDL_PROGRAM_FILES_COMMON, nullptr, 0, common)))
        return {};
    const std::wstring folder = qv::JoinPath(common, L"Merge Modules");
    return is_folder(folder) ? folder : std::wstring();
}

namespace {


void tell_problems(IQvMergeModuleFolder* catalog) {
    qv::bstr problems;
    check_hr(catalog->get_Problems(problems.put()));
    const std::wstring text = problems.str();
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find(L'\n', start), text.size());
        err("qvscan: merge modules: " + utf8(text.substr(start, end - start)) + "\n");
        start = end + 1;
    }
}

} // namespace

qv::com_ptr<IQvMergeModuleFolder> open_catalog(const std::wstring& folder) {
    // The library stays loaded while the catalog lives.
    const server_dll library(server_dll::beside_tool(L"QvMergeModules.dll"));
    auto catalog = library.create<IQvMergeModuleFolder>(CLSID_QvMergeModuleCatalog, IID_IQvMergeModuleFolder);
    if (check_hr(catalog->Load(qv::bstr(folder).get())) != S_OK)
        tell_problems(catalog.get());
    return catalog;
}

qv::com_ptr<IUnknown> load_merge_modules(const options& o) {
    const std::wstring folder = merge_module_folder(o);
    if (folder.empty())
        return {};
    return open_catalog(folder).query<IUnknown>(IID_IUnknown);
}

} // namespace qvscan
