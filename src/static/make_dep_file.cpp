#include "static/make_dep_file.h"

#include "filter/filter_base.h"
#include "record/dep_file.h"
#include "record/dep_files.h"
#include "static/dep_walker.h"

void MakeDepFile(CDepFiles* files, const ScannedFile& record, CFilterBase* filter, bool& bIsMergeModule, BSTR* name,
                 IDepFile** depFile) {
    if (depFile)
        *depFile = nullptr;
    auto file = qv::make_object<CDepFile>();

    std::wstring key = record.FullPath;
    file->SetSelfRegistering(record.SelfRegistering);
    file->SetAutoSelfReg(false);
    file->SetAssembly(record.Assembly.get());
    file->LoadFromFile(key);
    file->SetDetails(record.Details);

    if (record.MergeModuleSubject.empty() || record.MergeModuleKey.empty()) {
        bIsMergeModule = false;
        bool inFilterList = false;
        bool drop = false;
        if (filter)
            AskFilter(filter, record.FullPath, inFilterList, drop);
        // On a list, whether or not it is to be dropped now.
        file->SetFilterable(inFilterList);
    } else {
        bIsMergeModule = true;
        // One entry per module however many of its files were met; a missing module is not looked up,
        // so a later one replaces the earlier entry under its key.
        qv::bstr moduleKey(record.MergeModuleKey);
        if (!record.MissingMergeModule && files && files->Contains(moduleKey.get()))
            return;
        file->SetMergeModule(record.MergeModuleSubject, record.MergeModuleKey, record.MissingMergeModule);
        key = record.MergeModuleKey;
    }

    check_hr(qv::copy_text_out(key, name));
    check_hr(file->QueryInterface(IID_IDepFile, reinterpret_cast<void**>(depFile)));
}
