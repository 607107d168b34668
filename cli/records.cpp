#include "records.h"

#include "inc/com_ptr.h"
#include "text_output.h"

#include <oleauto.h>

#include <cwchar>

namespace qvscan {

namespace {

std::vector<long> read_languages(IDepFile* file) {
    std::vector<long> ids;
    qv::com_ptr<ILanguages> languages;
    if (FAILED(file->get_Languages(languages.put())) || !languages)
        return ids;
    long count = 0;
    languages->get_Count(&count);
    for (long i = 1; i <= count; ++i) {
        long id = 0;
        if (SUCCEEDED(languages->get_Item(item_index(i), &id)))
            ids.push_back(id);
    }
    return ids;
}

// What the extended interfaces add: the destination, and the missing, filterable and merge-module flags.
void read_extras(IDepFile* file, record& r) {
    qv::com_ptr<IDepFile> self(file);
    qv::bstr text;
    VARIANT_BOOL flag = 0;
    if (auto tarn = self.query<IDepFileTarn>(IID_IDepFileTarn)) {
        if (SUCCEEDED(tarn->GetDestPath(text.put())))
            r.destPath = text.str();
    }
    if (auto info = self.query<IDepFileInfo>(IID_IDepFileInfo)) {
        if (SUCCEEDED(info->get_IsMissing(&flag)))
            r.missing = flag != 0;
        if (SUCCEEDED(info->get_IsFilterable(&flag)))
            r.filterable = flag != 0;
        if (SUCCEEDED(info->get_IsMergeModule(&flag)))
            r.mergeModule = flag != 0;
    }
}

} // namespace

record read_record(IDepFile* file) {
    record r;
    qv::bstr text;
    VARIANT_BOOL flag = 0;
    check_hr(file->get_Name(text.put()));
    r.name = text.str();
    check_hr(file->get_Path(text.put()));
    r.path = text.str();
    check_hr(file->get_Size(&r.size));
    check_hr(file->get_ModifiedTime(&r.modified));
    check_hr(file->get_MajorVersion(&r.major));
    check_hr(file->get_MinorVersion(&r.minor));
    check_hr(file->get_Shared(&flag));
    r.shared = flag != 0;
    check_hr(file->get_SelfRegistering(&flag));
    r.selfRegistering = flag != 0;
    r.languages = read_languages(file);
    read_extras(file, r);
    return r;
}

VARIANT item_index(long i) {
    VARIANT index;
    VariantInit(&index);
    V_VT(&index) = VT_I4;
    V_I4(&index) = i;
    return index;
}

std::vector<record> read_all(IDepFiles* files) {
    std::vector<record> records;
    if (!files)
        return records;
    long count = 0;
    check_hr(files->get_Count(&count));
    for (long i = 1; i <= count; ++i) {
        qv::com_ptr<IDepFile> file;
        check_hr(files->get_Item(item_index(i), file.put()));
        if (file)
            records.push_back(read_record(file.get()));
    }
    return records;
}

std::wstring version_text(long major, long minor) {
    if (major == 0 && minor == 0)
        return L"";
    wchar_t buffer[64];
    std::swprintf(buffer, 64, L"%u.%u.%u.%u", HIWORD(major), LOWORD(major), HIWORD(minor), LOWORD(minor));
    return buffer;
}

std::wstring time_text(double date) {
    SYSTEMTIME st{};
    if (date == 0 || !VariantTimeToSystemTime(date, &st))
        return L"";
    wchar_t buffer[64];
    std::swprintf(buffer, 64, L"%04u-%02u-%02uT%02u:%02u:%02u", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute,
                  st.wSecond);
    return buffer;
}

std::string marks(const record& r) {
    std::string m;
    m += r.missing ? 'M' : '-';
    m += r.filterable ? 'F' : '-';
    m += r.mergeModule ? 'G' : '-';
    m += r.shared ? 'S' : '-';
    m += r.selfRegistering ? 'R' : '-';
    m += std::string(r.via) == "dep" ? 'D' : '-';
    return m;
}

const char* const marks_legend =
    "(marks: M missing, F filterable, G merge module, S shared, R self-registering, D from a .dep file)";

std::string records_table(const std::vector<record>& records) {
    table t({"NAME", "FOLDER", "VERSION", "SIZE", "MARKS"});
    for (const record& r : records)
        t.add({utf8(r.name), utf8(r.path), utf8(version_text(r.major, r.minor)),
               r.missing ? "" : std::to_string(r.size), marks(r)});
    return t.render();
}

json record_json(const record& r) {
    return {{"name", utf8(r.name)},
            {"folder", utf8(r.path)},
            {"version", utf8(version_text(r.major, r.minor))},
            {"size", r.size},
            {"modified", utf8(time_text(r.modified))},
            {"destination", utf8(r.destPath)},
            {"languages", r.languages},
            {"missing", r.missing},
            {"filterable", r.filterable},
            {"mergeModule", r.mergeModule},
            {"shared", r.shared},
            {"selfRegistering", r.selfRegistering},
            {"via", r.via}};
}

json records_json(const std::vector<record>& records) {
    json list = json::array();
    for (const record& r : records)
        list.push_back(record_json(r));
    return list;
}

} // namespace qvscan
