// QvMergeModules.dll: the merge-module catalog (QvMergeModuleCatalog) over a folder of .msm files, read
// through the installer database API, and the module records it hands out. Everything is read at Load
// and kept; lookups read nothing. Its one class is handed out through DllGetClassObject with no
// registration; each live object and each class factory a client holds keeps one lock on the module.
#include "companions.h"
#include "inc/com_boundary.h"
#include "inc/com_module.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"
#include "inc/unique_handles.h"
#include "library_exports.h"
#include "toolkit/path_helpers.h"

#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include <algorithm>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

namespace {

struct module_file {
    std::wstring name, version; // the long name as the module writes it
    std::wstring languages;     // the File table's list, such as "1033" or "0,1031"; empty is neutral
    bool is64Bit = false;
};

struct module_data {
    std::wstring id, key, subject, version, file;
    long language = 0;
    bool present = true;
    std::vector<module_file> files;
};

using qv::LowerCase;

constexpr int kNullInteger = static_cast<int>(MSI_NULL_INTEGER); // what an empty integer column reads as

// Dotted versions compared part by part as numbers.
int CompareVersions(const std::wstring& a, const std::wstring& b) {
    const wchar_t *p = a.c_str(), *q = b.c_str();
    while (*p || *q) {
        wchar_t *pe = nullptr, *qe = nullptr;
        const unsigned long x = wcstoul(p, &pe, 10), y = wcstoul(q, &qe, 10);
        if (x != y)
            return x < y ? -1 : 1;
        p = *pe == L'.' ? pe + 1 : pe + wcslen(pe);
        q = *qe == L'.' ? qe + 1 : qe + wcslen(qe);
    }
    return 0;
}

// Whether a language list (numbers with commas, empty or 0 for neutral) admits the language asked for.
bool SpeaksLanguage(const std::wstring& list, long asked) {
    if (asked == 0 || list.empty())
        return true;
    for (const wchar_t* p = list.c_str(); *p;) {
        wchar_t* end = nullptr;
        const long language = wcstol(p, &end, 10);
        if (language == 0 || language == asked)
            return true;
        p = *end ? end + 1 : end;
    }
    return false;
}

struct msi_handle_traits {
    using type = MSIHANDLE;
    static type invalid() noexcept { return 0; }
    static void close(type h) noexcept { MsiCloseHandle(h); }
};
// A database, view, record or summary of the installer API: 0 is empty.
using msi_handle = qv::unique_resource<msi_handle_traits>;

std::wstring Field(MSIHANDLE record, UINT field) {
    DWORD length = 0;
    wchar_t none[1] = {};
    if (MsiRecordGetStringW(record, field, none, &length) != ERROR_MORE_DATA)
        return {};
    std::wstring text(length + 1, L'\0');
    ++length;
    if (MsiRecordGetStringW(record, field, text.data(), &length) != ERROR_SUCCESS)
        return {};
    text.resize(length);
    return text;
}

// The rows of a query, each handed to visit; the failure of the query, or ERROR_SUCCESS.
template <class Visit> UINT EachRow(MSIHANDLE database, const wchar_t* query, Visit visit) {
    msi_handle view;
    UINT error = MsiDatabaseOpenViewW(database, query, view.put());
    if (error == ERROR_SUCCESS)
        error = MsiViewExecute(view.get(), 0);
    for (UINT fetched = error; fetched == ERROR_SUCCESS;) {
        msi_handle row;
        fetched = MsiViewFetch(view.get(), row.put());
        if (fetched == ERROR_SUCCESS)
            visit(row.get());
        else if (fetched != ERROR_NO_MORE_ITEMS)
            error = fetched;
    }
    return error;
}

// One .msm file, or why it cannot be read.
bool ReadModule(const std::wstring& path, module_data& module, std::wstring& problems) {
    auto tell = [&](const std::wstring& why) { problems += path + L": " + why + L"\n"; };
    msi_handle database;
    UINT error = MsiOpenDatabaseW(path.c_str(), MSIDBOPEN_READONLY, database.put());
    if (error != ERROR_SUCCESS)
        return tell(L"not an installer database (error " + std::to_wstring(error) + L")"), false;
    bool signed_ = false;
    error =
        EachRow(database.get(), L"SELECT `ModuleID`, `Language`, `Version` FROM `ModuleSignature`", [&](MSIHANDLE row) {
            module.id = Field(row, 1);
            module.language = MsiRecordGetInteger(row, 2);
            module.version = Field(row, 3);
            signed_ = true;
        });
    if (error != ERROR_SUCCESS || !signed_)
        return tell(L"no ModuleSignature table, so no merge module"), false;
    if (module.language == kNullInteger)
        module.language = 0;

    std::vector<std::pair<std::wstring, bool>> components; // name, 64-bit
    EachRow(database.get(), L"SELECT `Component`, `Attributes` FROM `Component`", [&](MSIHANDLE row) {
        const int attributes = MsiRecordGetInteger(row, 2);
        components.emplace_back(Field(row, 1), attributes != kNullInteger && (attributes & 256) != 0);
    });
    EachRow(database.get(), L"SELECT `File`, `Component_`, `FileName`, `Version`, `Language` FROM `File`",
            [&](MSIHANDLE row) {
                const std::wstring component = Field(row, 2);
                const auto owner = std::find_if(components.begin(), components.end(),
                                                [&](const auto& c) { return c.first == component; });
                std::wstring name = Field(row, 3);
                name = name.substr(name.find(L'|') == std::wstring::npos ? 0 : name.find(L'|') + 1);
                if (owner == components.end())
                    return tell(L"the file " + name + L" belongs to the component " + component +
                                L", which the Component table lacks; it is left out");
                module.files.push_back({name, Field(row, 4), Field(row, 5), owner->second});
            });

    msi_handle summary;
    if (MsiGetSummaryInformationW(database.get(), nullptr, 0, summary.put()) == ERROR_SUCCESS) {
        UINT type = 0;
        INT number = 0;
        FILETIME time{};
        wchar_t text[512] = {};
        DWORD length = static_cast<DWORD>(std::size(text));
        if (MsiSummaryInfoGetPropertyW(summary.get(), 3 /* subject */, &type, &number, &time, text, &length) ==
                ERROR_SUCCESS &&
            type == VT_LPSTR)
            module.subject = text;
    }
    if (module.subject.empty())
        module.subject = module.id.substr(0, module.id.find(L'.')) + L" " + module.version;
    module.key = qv::FileNamePart(path);
    module.file = path;
    return true;
}

// Modules known but not there, from the folder's modules.ini.
void ReadAbsentModules(const std::wstring& ini, std::vector<std::shared_ptr<module_data>>& modules) {
    if (GetFileAttributesW(ini.c_str()) == INVALID_FILE_ATTRIBUTES)
        return;
    std::vector<wchar_t> names(65536);
    const DWORD n = GetPrivateProfileSectionNamesW(names.data(), static_cast<DWORD>(names.size()), ini.c_str());
    auto value = [&](const wchar_t* section, const std::wstring& key) {
        wchar_t text[1024] = {};
        GetPrivateProfileStringW(section, key.c_str(), L"", text, static_cast<DWORD>(std::size(text)), ini.c_str());
        return std::wstring(text);
    };
    for (const wchar_t* section = names.data(); section < names.data() + n && *section;
         section += wcslen(section) + 1) {
        auto module = std::make_shared<module_data>();
        module->present = false;
        module->id = module->key = section;
        module->subject = value(section, L"Subject");
        module->version = value(section, L"Version");
        const bool is64Bit = LowerCase(value(section, L"Platform")) == L"x64";
        for (int i = 1;; ++i) {
            const std::wstring file = value(section, L"File" + std::to_wstring(i));
            if (file.empty())
                break;
            module->files.push_back({file, L"", L"", is64Bit});
        }
        modules.push_back(module);
    }
}

class CQvMergeModule : public qv::object_root, public IQvMergeModule, public IQvMergeModuleInfo {
public:
    static constexpr bool aggregatable = false;
    explicit CQvMergeModule(std::shared_ptr<const module_data> data) : m_data(std::move(data)) {}

    // IQvMergeModule is the first interface: the scanners call the pointer the catalog gives as one.
    QV_BEGIN_INTERFACE_MAP(CQvMergeModule)
    QV_INTERFACE(IID_IQvMergeModule, IQvMergeModule)
    QV_INTERFACE(IID_IQvMergeModuleInfo, IQvMergeModuleInfo)
    QV_END_INTERFACE_MAP()

    STDMETHOD(Reserved1)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved2)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved3)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved4)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved5)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved6)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved7)() override { return E_NOTIMPL; }
    STDMETHOD(get_ModuleId)(BSTR* text) override { return qv::copy_text_out(m_data->id, text); }
    STDMETHOD(get_ModuleKey)(BSTR* text) override { return qv::copy_text_out(m_data->key, text); }
    STDMETHOD(Reserved8)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved9)() override { return E_NOTIMPL; }
    STDMETHOD(get_ModuleName)(BSTR* text) override { return qv::copy_text_out(m_data->subject, text); }

    STDMETHOD(get_Language)(long* language) override {
        return language ? (*language = m_data->language, S_OK) : E_POINTER;
    }
    STDMETHOD(get_Version)(BSTR* text) override { return qv::copy_text_out(m_data->version, text); }
    STDMETHOD(get_File)(BSTR* text) override { return qv::copy_text_out(m_data->file, text); }
    STDMETHOD(get_FileCount)(long* count) override {
        return count ? (*count = static_cast<long>(m_data->files.size()), S_OK) : E_POINTER;
    }
    STDMETHOD(GetFile)(long index, BSTR* name, BSTR* version, long* language, VARIANT_BOOL* is64Bit) override {
        if (!name || !version || !language || !is64Bit)
            return E_POINTER;
        if (index < 1 || static_cast<size_t>(index) > m_data->files.size())
            return E_INVALIDARG;
        const module_file& file = m_data->files[static_cast<size_t>(index) - 1];
        *language = wcstol(file.languages.c_str(), nullptr, 10);
        *is64Bit = file.is64Bit ? VARIANT_TRUE : VARIANT_FALSE;
        *version = nullptr;
        const HRESULT hr = qv::copy_text_out(file.name, name);
        return FAILED(hr) ? hr : qv::copy_text_out(file.version, version);
    }

private:
    std::shared_ptr<const module_data> m_data;
};

class CQvMergeModuleCatalog : public qv::object_root, public IQvMergeModuleCatalog, public IQvMergeModuleFolder {
public:
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CQvMergeModuleCatalog)
    QV_INTERFACE(IID_IQvMergeModuleCatalog, IQvMergeModuleCatalog)
    QV_INTERFACE(IID_IQvMergeModuleFolder, IQvMergeModuleFolder)
    QV_END_INTERFACE_MAP()

    STDMETHOD(Reserved1)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved2)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved3)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved4)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved5)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved6)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved7)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved8)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved9)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved10)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved11)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved12)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved13)() override { return E_NOTIMPL; }
    STDMETHOD(Reserved14)() override { return E_NOTIMPL; }

    STDMETHOD(FindMergeModule)
    (BSTR fileKey, BSTR version, BSTR language, IUnknown** ppModule, VARIANT_BOOL* pbFound) override {
        if (!ppModule || !pbFound)
            return E_POINTER;
        *ppModule = nullptr;
        *pbFound = VARIANT_FALSE;
        std::wstring name = LowerCase(fileKey ? fileKey : L"");
        bool is64Bit = false;
        if (name.ends_with(L":x64"))
            name.resize(name.size() - 4), is64Bit = true;
        else if (name.ends_with(L":i64"))
            return S_OK; // no module here is for Itanium
        const std::wstring wanted = version ? version : L"";
        const long asked = language ? wcstol(language, nullptr, 10) : 0;
        size_t best = m_modules.size();
        bool exact = false, absent = false;
        for (size_t i = 0; i < m_modules.size() && !exact; ++i) {
            const module_data& module = *m_modules[i];
            for (const module_file& file : module.files) {
                if (LowerCase(file.name) != name || file.is64Bit != is64Bit)
                    continue;
                if (!module.present) {
                    absent = true;
                    continue;
                }
                const std::wstring& spoken = file.languages.empty() ? std::to_wstring(module.language) : file.languages;
                if (!SpeaksLanguage(spoken, asked))
                    continue;
                exact = !wanted.empty() && file.version == wanted;
                if (exact || best == m_modules.size() || CompareVersions(module.version, m_modules[best]->version) > 0)
                    best = i;
                break;
            }
        }
        if (best < m_modules.size()) {
            *pbFound = VARIANT_TRUE;
            return m_records[best]->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(ppModule));
        }
        *pbFound = absent ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    STDMETHOD(GetMissingMergeModuleKey)(BSTR bstrSource, BSTR* key) override {
        const module_data* module = AbsentModuleOf(qv::FileNamePart(bstrSource ? bstrSource : L""));
        return qv::copy_text_out(module ? module->key : L"", key);
    }
    STDMETHOD(GetMissingMergeModuleSubject)(BSTR key, BSTR* subject) override {
        for (const auto& module : m_modules)
            if (!module->present && key && module->key == key)
                return qv::copy_text_out(module->subject, subject);
        return qv::copy_text_out(L"", subject);
    }

    STDMETHOD(Load)(BSTR folder) override {
        m_modules.clear();
        m_records.clear();
        m_problems.clear();
        const std::wstring root = folder ? folder : L"";
        const DWORD attributes = GetFileAttributesW(root.c_str());
        if (root.empty() || attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
            m_problems = root + L": no such folder\n";
            return S_FALSE;
        }
        std::vector<std::wstring> files;
        WIN32_FIND_DATAW data;
        const qv::unique_hfind find(FindFirstFileW(qv::JoinPath(root, L"*.msm").c_str(), &data));
        for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.get(), &data))
            if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                files.push_back(qv::JoinPath(root, data.cFileName));
        std::sort(files.begin(), files.end(), [](const std::wstring& a, const std::wstring& b) {
            return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
        });
        for (const std::wstring& file : files) {
            auto module = std::make_shared<module_data>();
            if (ReadModule(file, *module, m_problems))
                m_modules.push_back(module);
        }
        ReadAbsentModules(qv::JoinPath(root, L"modules.ini"), m_modules);
        for (const auto& module : m_modules) {
            const HRESULT hr = qv::com_boundary([&] {
                m_records.push_back(qv::make_object<CQvMergeModule>(module));
                return S_OK;
            });
            if (FAILED(hr))
                return hr;
        }
        return m_problems.empty() ? S_OK : S_FALSE;
    }
    STDMETHOD(get_Problems)(BSTR* text) override { return qv::copy_text_out(m_problems, text); }
    STDMETHOD(get_Count)(long* count) override {
        return count ? (*count = static_cast<long>(m_records.size()), S_OK) : E_POINTER;
    }
    STDMETHOD(get_Item)(long index, IQvMergeModule** record) override {
        if (!record)
            return E_POINTER;
        *record = nullptr;
        if (index < 1 || static_cast<size_t>(index) > m_records.size())
            return E_INVALIDARG;
        m_records[static_cast<size_t>(index) - 1].copy_to(record);
        return S_OK;
    }

private:
    const module_data* AbsentModuleOf(const std::wstring& fileName) const {
        const std::wstring name = LowerCase(fileName);
        for (const auto& module : m_modules)
            if (!module->present)
                for (const module_file& file : module->files)
                    if (LowerCase(file.name) == name)
                        return module.get();
        return nullptr;
    }

    std::vector<std::shared_ptr<module_data>> m_modules;
    std::vector<qv::com_ptr<IQvMergeModule>> m_records; // one a module, in the same order
    std::wstring m_problems;
};

} // namespace

std::span<const qv::library_class> companion::LibraryClasses() {
    static const qv::library_class classes[] = {
        {&CLSID_QvMergeModuleCatalog, &qv::creator<CQvMergeModuleCatalog>::CreateInstance}};
    return classes;
}
