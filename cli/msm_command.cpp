// The merge-module catalog in the tool: QvMergeModules.dll beside qvscan.exe, loaded by path and reached
// through DllGetClassObject, read from a folder of .msm files and handed to the scans; and qvscan msm DIR,
// which lists what the catalog read.
#include "qvscan.h"

#include "companions.h"
#include "toolkit/path_helpers.h"

#include <windows.h>

#include <shlobj.h>

namespace qvscan {

namespace {

// The catalog object of the library beside the tool, not yet loaded with a folder.
qv::com_ptr<IQvMergeModuleFolder> make_catalog() {
    wchar_t own[MAX_PATH * 4];
    const DWORD n = GetModuleFileNameW(nullptr, own, static_cast<DWORD>(std::size(own)));
    const std::wstring library = qv::DirectoryPart(std::wstring(own, n)) + L"\\QvMergeModules.dll";
    HMODULE module = LoadLibraryW(library.c_str()); // kept for the run
    auto get = module ? reinterpret_cast<HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**)>(
                            reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")))
                      : nullptr;
    if (!get)
        throw std::runtime_error("cannot load " + utf8(library) + ": " + describe(HRESULT_FROM_WIN32(GetLastError())));
    qv::com_ptr<IClassFactory> factory;
    check_hr(get(CLSID_QvMergeModuleCatalog, IID_IClassFactory, factory.put_void()));
    qv::com_ptr<IQvMergeModuleFolder> catalog;
    check_hr(factory->CreateInstance(nullptr, IID_IQvMergeModuleFolder, catalog.put_void()));
    return catalog;
}

// The folder a scan takes its merge modules from: the option, the variable, or the system's own folder.
std::wstring merge_module_folder(const options& o) {
    if (!o.mergeModules.empty())
        return full_path(o.mergeModules);
    wchar_t text[MAX_PATH * 4];
    const DWORD n = GetEnvironmentVariableW(L"QV_MERGE_MODULES", text, static_cast<DWORD>(std::size(text)));
    if (n > 0 && n < std::size(text))
        return full_path(text);
    wchar_t common[MAX_PATH];
    if (FAILED(SHGetFolderPathW(nullptr, CSIDL_PROGRAM_FILES_COMMON, nullptr, 0, common)))
        return {};
    const std::wstring folder = qv::JoinPath(common, L"Merge Modules");
    const DWORD attributes = GetFileAttributesW(folder.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) ? folder : std::wstring();
}

// Reads the folder into the catalog; what it skipped goes to standard error, line by line.
void load(IQvMergeModuleFolder* catalog, const std::wstring& folder) {
    if (check_hr(catalog->Load(qv::bstr(folder).get())) == S_OK)
        return;
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

qv::com_ptr<IUnknown> load_merge_modules(const options& o) {
    const std::wstring folder = merge_module_folder(o);
    if (folder.empty())
        return {};
    qv::com_ptr<IQvMergeModuleFolder> catalog = make_catalog();
    load(catalog.get(), folder);
    return catalog.query<IUnknown>(IID_IUnknown);
}

int run_msm(const options& o) {
    const std::wstring folder = full_path(o.file);
    const DWORD attributes = GetFileAttributesW(folder.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
        err("qvscan: " + utf8(folder) + ": no such folder\n");
        return ExitNoFile;
    }
    qv::com_ptr<IQvMergeModuleFolder> catalog = make_catalog();
    load(catalog.get(), folder);
    long count = 0;
    check_hr(catalog->get_Count(&count));
    std::string json, text;
    table files({"MODULE", "FILE", "VERSION", "LANGUAGE", "MACHINE"});
    for (long i = 1; i <= count; ++i) {
        qv::com_ptr<IQvMergeModule> module;
        check_hr(catalog->get_Item(i, module.put()));
        auto info = module.query<IQvMergeModuleInfo>(IID_IQvMergeModuleInfo);
        qv::bstr id, key, subject, version, file;
        long language = 0, shipped = 0;
        check_hr(module->get_ModuleId(id.put()));
        check_hr(module->get_ModuleKey(key.put()));
        check_hr(module->get_ModuleName(subject.put()));
        check_hr(info->get_Version(version.put()));
        check_hr(info->get_File(file.put()));
        check_hr(info->get_Language(&language));
        check_hr(info->get_FileCount(&shipped));
        std::string list;
        for (long f = 1; f <= shipped; ++f) {
            qv::bstr name, fileVersion;
            long fileLanguage = 0;
            VARIANT_BOOL is64Bit = VARIANT_FALSE;
            check_hr(info->GetFile(f, name.put(), fileVersion.put(), &fileLanguage, &is64Bit));
            list += std::string(f > 1 ? ", " : "") + "{\"name\": " + json_string(name.view()) +
                    ", \"version\": " + json_string(fileVersion.view()) +
                    ", \"language\": " + std::to_string(fileLanguage) + ", \"machine\": \"" +
                    (is64Bit ? "x64" : "x86") + "\"}";
            files.add({utf8(key.view()), utf8(name.view()), utf8(fileVersion.view()), std::to_string(fileLanguage),
                       is64Bit ? "x64" : "x86"});
        }
        json += std::string(i > 1 ? ",\n" : "\n") + "    {\"key\": " + json_string(key.view()) +
                ", \"id\": " + json_string(id.view()) + ", \"subject\": " + json_string(subject.view()) +
                ", \"version\": " + json_string(version.view()) + ", \"language\": " + std::to_string(language) +
                ", \"present\": " + (file.empty() ? "false" : "true") + ", \"files\": [" + list + "]}";
        text += utf8(key.view()) + "  " + utf8(subject.view()) + "  " + utf8(id.view()) + " " + utf8(version.view()) +
                (file.empty() ? "  (not in the folder)" : "") + "\n";
    }
    if (o.json)
        out("{\n  \"folder\": " + json_string(folder) + ",\n  \"modules\": [" + json + (count ? "\n  " : "") +
            "]\n}\n");
    else
        out(text + "\n" + files.render() + std::to_string(count) + " modules\n");
    return ExitOk;
}

} // namespace qvscan
