#include "records.h"

#include "error_text.h"

#include "inc/com_ptr.h"
#include "inc/scan_extensions.h"
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

// Lines of tab-separated fields.
std::vector<std::vector<std::wstring>> split_lines(const std::wstring& text) {
    std::vector<std::vector<std::wstring>> lines;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find(L'\n', at);
        if (end == std::wstring::npos)
            end = text.size();
        std::vector<std::wstring> fields;
        for (size_t from = at; from <= end;) {
            size_t tab = text.find(L'\t', from);
            if (tab == std::wstring::npos || tab > end)
                tab = end;
            fields.push_back(text.substr(from, tab - from));
            from = tab + 1;
        }
        lines.push_back(std::move(fields));
        at = end + 1;
    }
    return lines;
}

// What a scan that asks for details tells beyond the record's fields.
void read_details(IDepFile* file, record& r) {
    const auto details = qv::com_ptr<IDepFile>(file).query<IQvDepFileDetails>(IID_IQvDepFileDetails);
    if (!details)
        return;
    long delayOnly = 0;
    if (SUCCEEDED(details->get_DelayLoaded(&delayOnly)) && delayOnly)
        r.via = "delay";
    qv::bstr text;
    if (SUCCEEDED(details->get_MissingEntryPoints(text.put())))
        for (auto& fields : split_lines(text.str())) {
            record::entry_gap gap{fields[0], {}, 0};
            for (size_t i = 1; i < fields.size(); ++i)
                if (fields[i].starts_with(L"+"))
                    gap.more = std::wcstol(fields[i].c_str() + 1, nullptr, 10);
                else
                    gap.names.push_back(fields[i]);
            r.missingEntries.push_back(std::move(gap));
        }
    if (SUCCEEDED(details->get_PassedOver(text.put())))
        for (auto& fields : split_lines(text.str()))
            r.passedOver.push_back({fields[0], fields.size() > 1 ? fields[1] : L""});
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
    read_details(file, r);
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
    m += std::string(r.via) == "delay" ? 'L' : '-';
    m += r.missingEntries.empty() ? '-' : 'E';
    return m;
}

const char* const marks_legend = "(marks: M missing, F filterable or provided, G merge module, S shared, R "
                                 "self-registering, D from a .dep file, L only delay-loaded, E lacks entry points)";

namespace {

// The note lines of one record: what it lacks, what was passed over, what hosts a contract.
std::string record_notes(const record& r) {
    std::string notes;
    for (const auto& gap : r.missingEntries) {
        std::string names;
        for (const auto& name : gap.names)
            names += (names.empty() ? "" : ", ") + utf8(name);
        if (gap.more)
            names += " and " + std::to_string(gap.more) + " more";
        notes += "  " + utf8(r.name) + " lacks " + names + " (called by " + utf8(gap.importer) + ")\n";
    }
    for (const auto& copy : r.passedOver)
        notes += "  " + utf8(r.name) + ": " + utf8(copy.machine) + " copy at " + utf8(copy.path) + " passed over\n";
    if (!r.neededBy.empty()) {
        std::string chain;
        for (const auto& name : r.neededBy[0])
            chain += (chain.empty() ? "" : " <- ") + utf8(name);
        const size_t more = r.neededBy.size() - 1 + r.neededByMore;
        notes += "  " + utf8(r.name) + " needed by: " + chain +
                 (more ? " (+" + std::to_string(more) + (r.neededByAtLeast ? " or more)" : " more)") : "") + "\n";
    }
    if (!r.host.empty())
        notes += "  " + utf8(r.name) + ": API-set contract, resolved to " + utf8(r.host) + "\n";
    else if (r.providedBy && std::string(r.providedBy) == "os")
        notes += "  " + utf8(r.name) + ": API-set contract of the operating system\n";
    else if (r.providedBy)
        notes += "  " + utf8(r.name) + ": provided by the target\n";
    return notes;
}

} // namespace

std::string records_notes(const std::vector<record>& records) {
    std::string notes;
    for (const record& r : records)
        notes += record_notes(r);
    return notes;
}

std::string records_table(const std::vector<record>& records) {
    table t({"NAME", "FOLDER", "VERSION", "SIZE", "MARKS"});
    for (const record& r : records)
        t.add({utf8(r.name), utf8(r.path), utf8(version_text(r.major, r.minor)),
               r.missing ? "" : std::to_string(r.size), marks(r)});
    return t.render() + records_notes(records);
}

int missing_verdict(int level, const std::string& subject, const std::vector<record>& records) {
    if (level == 0)
        return ExitOk;
    std::string names;
    size_t counted = 0, delayed = 0;
    for (const record& r : records) {
        if (!r.missing)
            continue;
        if (std::string(r.via) == "delay" && level < 2) {
            ++delayed;
            continue;
        }
        if (++counted <= 10)
            names += (names.empty() ? "" : ", ") + utf8(r.name);
    }
    if (counted > 10)
        names += " and " + std::to_string(counted - 10) + " more";
    const std::string aside = delayed ? " (" + std::to_string(delayed) + " delay-loaded not counted)" : "";
    if (counted == 0) {
        err("qvscan: " + subject + ": nothing needed is missing" + aside + "\n");
        return ExitOk;
    }
    err("qvscan: " + subject + ": " + std::to_string(counted) + " needed file" + (counted == 1 ? " is" : "s are") +
        " missing: " + names + aside + "\n");
    return ExitMissing;
}

json record_json(const record& r) {
    json j = {{"name", utf8(r.name)},
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
    if (r.providedBy)
        j["providedBy"] = r.providedBy;
    if (!r.host.empty())
        j["host"] = utf8(r.host);
    if (!r.missingEntries.empty()) {
        json gaps = json::array();
        for (const auto& gap : r.missingEntries) {
            json names = json::array();
            for (const auto& name : gap.names)
                names.push_back(utf8(name));
            gaps.push_back({{"importer", utf8(gap.importer)}, {"names", names}, {"more", gap.more}});
        }
        j["missingEntryPoints"] = gaps;
    }
    if (!r.neededBy.empty()) {
        json chains = json::array();
        for (const auto& chain : r.neededBy) {
            json names = json::array();
            for (const auto& name : chain)
                names.push_back(utf8(name));
            chains.push_back(names);
        }
        j["neededBy"] = chains;
        if (r.neededByMore)
            j["neededByMore"] = r.neededByMore;
    }
    if (!r.passedOver.empty()) {
        json copies = json::array();
        for (const auto& copy : r.passedOver)
            copies.push_back({{"path", utf8(copy.path)}, {"machine", utf8(copy.machine)}});
        j["passedOver"] = copies;
    }
    return j;
}

json records_json(const std::vector<record>& records) {
    json list = json::array();
    for (const record& r : records)
        list.push_back(record_json(r));
    return list;
}

} // namespace qvscan
