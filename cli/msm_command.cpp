// qvscan msm DIR: what the merge-module catalog read of a folder of .msm files: each module with the files it
// ships.
#include "commands.h"

#include "error_text.h"
#include "json_writer.h"
#include "linux_paths.h"
#include "merge_modules.h"
#include "text_output.h"

namespace qvscan {

namespace {

const json_layout msm_layout{{"", "modules"}};

// One module: its line of text, its element of the JSON list, and a row per file in the table of files.
json read_module(IQvMergeModuleFolder* catalog, long i, std::string& text, table& files) {
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
    json list = json::array();
    for (long f = 1; f <= shipped; ++f) {
        qv::bstr name, fileVersion;
        long fileLanguage = 0;
        VARIANT_BOOL is64Bit = VARIANT_FALSE;
        check_hr(info->GetFile(f, name.put(), fileVersion.put(), &fileLanguage, &is64Bit));
        const char* machine = is64Bit ? "x64" : "x86";
        list.push_back({{"name", utf8(name.view())},
                        {"version", utf8(fileVersion.view())},
                        {"language", fileLanguage},
                        {"machine", machine}});
        files.add(
            {utf8(key.view()), utf8(name.view()), utf8(fileVersion.view()), std::to_string(fileLanguage), machine});
    }
    text += utf8(key.view()) + "  " + utf8(subject.view()) + "  " + utf8(id.view()) + " " + utf8(version.view()) +
            (file.empty() ? "  (not in the folder)" : "") + "\n";
    return {{"key", utf8(key.view())},
            {"id", utf8(id.view())},
            {"subject", utf8(subject.view())},
            {"version", utf8(version.view())},
            {"language", language},
            {"present", !file.empty()},
            {"files", list}};
}

} // namespace

int run_msm(const options& o) {
    const std::wstring folder = full_path(o.file);
    if (!is_folder(folder)) {
        err("qvscan: " + utf8(folder) + ": no such folder\n");
        return ExitNoFile;
    }
    const qv::com_ptr<IQvMergeModuleFolder> catalog = open_catalog(folder);
    long count = 0;
    check_hr(catalog->get_Count(&count));
    std::string text;
    table files({"MODULE", "FILE", "VERSION", "LANGUAGE", "MACHINE"});
    json modules = json::array();
    for (long i = 1; i <= count; ++i)
        modules.push_back(read_module(catalog.get(), i, text, files));
    if (o.json)
        print_json({{"folder", utf8(folder)}, {"modules", modules}}, msm_layout);
    else
        out(text + "\n" + files.render() + std::to_string(count) + " modules\n");
    return ExitOk;
}

} // namespace qvscan
