// What the tests of the server's clients share: records as they compare them, read through the interfaces,
// strict stand-ins for the host's merge-module catalog, and a fixture with a static scan and a ScanUtil.
#pragma once

#include "QVWIScanners.h"
#include "companions.h"
#include "filter/filter_base.h"
#include "inc/com_ptr.h"
#include "inc/scan_extensions.h"
#include "inc/priv_interfaces.h"
#include "recording_sink.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace qv::test {

inline VARIANT index_of(long i) {
    VARIANT v;
    V_VT(&v) = VT_I4;
    V_I4(&v) = i;
    return v;
}

// A dependency record as the tests compare it.
struct record {
    std::wstring name, path, dest;
    VARIANT_BOOL selfReg = 1, shared = 1, missing = 1, filterable = 1, module = 1;
    long size = -1, major = -1, minor = -1;
    std::vector<long> languages;
    DATE modified = 0;
    long delayOnly = -1;                  // what IQvDepFileDetails tells
    std::wstring missingEntries, passedOver;
};

inline record read(IDepFile* f) {
    record r;
    qv::bstr name, path, dest;
    EXPECT_EQ(f->get_Name(name.put()) | f->get_Path(path.put()), S_OK);
    f->get_SelfRegistering(&r.selfReg), f->get_Shared(&r.shared), f->get_Size(&r.size);
    f->get_MajorVersion(&r.major), f->get_MinorVersion(&r.minor), f->get_ModifiedTime(&r.modified);
    qv::com_ptr<ILanguages> langs;
    long n = 0;
    EXPECT_EQ(f->get_Languages(langs.put()), S_OK);
    langs->get_Count(&n);
    for (long i = 1, id = 0; i <= n && langs->get_Item(index_of(i), &id) == S_OK; ++i)
        r.languages.push_back(id);
    qv::com_ptr<IDepFile>(f).query<IDepFileTarn>(IID_IDepFileTarn)->GetDestPath(dest.put());
    auto info = qv::com_ptr<IDepFile>(f).query<IDepFileInfo>(IID_IDepFileInfo);
    info->get_IsMissing(&r.missing), info->get_IsFilterable(&r.filterable), info->get_IsMergeModule(&r.module);
    r.name = name.str(), r.path = path.str(), r.dest = dest.str();
    auto details = qv::com_ptr<IDepFile>(f).query<IQvDepFileDetails>(IID_IQvDepFileDetails);
    qv::bstr entries, passed;
    EXPECT_EQ(details->get_DelayLoaded(&r.delayOnly) | details->get_MissingEntryPoints(entries.put()) |
                  details->get_PassedOver(passed.put()),
              S_OK);
    r.missingEntries = entries.str(), r.passedOver = passed.str();
    return r;
}

// The records of a collection by Item(number), keyed by their lower-case name.
inline std::map<std::wstring, record> records(IDepFiles* files) {
    std::map<std::wstring, record> out;
    long count = 0;
    EXPECT_EQ(files->get_Count(&count), S_OK);
    for (long i = 1; i <= count; ++i) {
        qv::com_ptr<IDepFile> f;
        EXPECT_EQ(files->get_Item(index_of(i), f.put()), S_OK);
        record r = read(f.get());
        out[lower(r.name)] = r;
    }
    EXPECT_EQ(out.size(), static_cast<size_t>(count)) << "one record per name";
    return out;
}

inline std::set<std::wstring> names(IDepFiles* files) {
    std::set<std::wstring> out;
    for (const auto& entry : records(files))
        out.insert(entry.first);
    return out;
}

// Stand-ins for the host's merge-module catalog and its module records, slot for slot as companions.idl
// declares them: a call of a slot they were not set up for fails the test; references are counted.
#define QV_UNEXPECTED(n)                                                                                               \
    HRESULT STDMETHODCALLTYPE Reserved##n() override { return ADD_FAILURE() << "slot " #n, E_NOTIMPL; }
template <class I> struct fake : I {
    LONG refs = 1;
    virtual ~fake() = default;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        *ppv = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(I)) ? this : nullptr;
        return *ppv ? (this->AddRef(), S_OK) : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs); }
    ULONG STDMETHODCALLTYPE Release() override { return InterlockedDecrement(&refs); }
};

struct fake_module : fake<IQvMergeModule> {
    fake_module(std::wstring id, std::wstring key, std::wstring name) : id(id), key(key), name(name) {}
    std::wstring id, key, name;
    QV_UNEXPECTED(1) QV_UNEXPECTED(2) QV_UNEXPECTED(3) QV_UNEXPECTED(4) QV_UNEXPECTED(5) QV_UNEXPECTED(6)
    QV_UNEXPECTED(7) QV_UNEXPECTED(8) QV_UNEXPECTED(9)
    HRESULT STDMETHODCALLTYPE get_ModuleId(BSTR* p) override { return *p = SysAllocString(id.c_str()), S_OK; }
    HRESULT STDMETHODCALLTYPE get_ModuleKey(BSTR* p) override { return *p = SysAllocString(key.c_str()), S_OK; }
    HRESULT STDMETHODCALLTYPE get_ModuleName(BSTR* p) override { return *p = SysAllocString(name.c_str()), S_OK; }
};

struct fake_catalog : fake<IQvMergeModuleCatalog> {
    std::map<std::wstring, std::pair<fake_module*, VARIANT_BOOL>> answers; // by file key; others in no module
    std::map<std::wstring, std::wstring> texts;                           // missing module: path->key->subject
    std::vector<std::wstring> lookups;                                     // "key|version|language"
    QV_UNEXPECTED(1) QV_UNEXPECTED(2) QV_UNEXPECTED(3) QV_UNEXPECTED(4) QV_UNEXPECTED(5) QV_UNEXPECTED(6)
    QV_UNEXPECTED(7) QV_UNEXPECTED(8) QV_UNEXPECTED(9) QV_UNEXPECTED(10) QV_UNEXPECTED(11) QV_UNEXPECTED(12)
    QV_UNEXPECTED(13) QV_UNEXPECTED(14)
    HRESULT STDMETHODCALLTYPE FindMergeModule(BSTR key, BSTR version, BSTR language, IUnknown** module,
                                              VARIANT_BOOL* found) override {
        lookups.push_back(std::wstring(key) + L"|" + version + L"|" + language);
        auto it = answers.find(key);
        if (it != answers.end() && it->second.first)
            it->second.first->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(module));
        *found = it == answers.end() ? VARIANT_FALSE : it->second.second;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetMissingMergeModuleKey(BSTR path, BSTR* key) override { return text(path, key); }
    HRESULT STDMETHODCALLTYPE GetMissingMergeModuleSubject(BSTR key, BSTR* subject) override { return text(key, subject); }
    HRESULT text(BSTR of, BSTR* out) {
        auto it = texts.find(of);
        EXPECT_NE(it, texts.end()) << "asked for " << narrow(of);
        return it == texts.end() ? E_UNEXPECTED : (*out = SysAllocString(it->second.c_str()), S_OK);
    }
};
#undef QV_UNEXPECTED

inline std::wstring slashed(std::wstring path) { return std::replace(path.begin(), path.end(), L'\\', L'/'), path; }

inline std::wstring walk(const std::wstring& rel) { return fixture(L"walk\\" + rel); }
// Two empty folders of this process at the end of its Path, first before second, for tests that add files to them.
const std::wstring& path_tail_folder(int which);

inline std::wstring windows_dir() {
    wchar_t buffer[MAX_PATH];
    return std::wstring(buffer, GetWindowsDirectoryW(buffer, MAX_PATH));
}

// Drops the names in `drop`, and says those and the names in `listed` are on its lists.
class list_filter : public CFilterBase {
public:
    explicit list_filter(std::set<std::wstring> drop = {}, std::set<std::wstring> listed = {})
        : m_drop(std::move(drop)), m_listed(std::move(listed)) {}
    std::vector<std::wstring> asked;
    bool Filter(const std::wstring& name, bool& bInFilterList) override {
        asked.push_back(name);
        bInFilterList = m_listed.count(lower(name)) || m_drop.count(lower(name));
        return m_drop.count(lower(name)) > 0;
    }
    void Initialize() override {}

private:
    std::set<std::wstring> m_drop, m_listed;
};

// A static scan and a ScanUtil of the server, a sink and a catalog that must be left with no references.
// Static scans walk tests/fixtures/walk along the Path the program's main() sets.
class scan_client : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(server().Create(CLSID_StaticScan, nullptr, IID_IStaticScan, scan.put_void()), S_OK);
        priv = scan.query<IPrivStaticScan>(IID_IPrivStaticScan);
        ASSERT_EQ(server().Create(CLSID_ScanUtil, nullptr, IID_IScanUtilValeSP1, util.put_void()), S_OK);
    }
    void TearDown() override {
        priv.reset();
        scan.reset();
        util.reset();
        EXPECT_EQ(sink.refs, 1) << "references left on the sink";
        EXPECT_EQ(catalog.refs, 1) << "references left on the catalog";
    }

    // One scan through the private entry with the test's filter (pass-all by default).
    VARIANT_BOOL run(const std::wstring& file, long type = 0, CFilterBase* filter = nullptr,
                     recording_sink* events = nullptr) {
        list_filter passAll;
        VARIANT_BOOL completed = 12345;
        EXPECT_EQ(priv->ScanWithFilter(qv::bstr(file).get(), events ? events : &sink, VARIANT_TRUE,
                                       qv::bstr(L"").get(), &completed, filter ? filter : &passAll, type),
                  S_OK);
        return completed;
    }
    com_ptr<IDepFiles> dependencies() {
        com_ptr<IDepFiles> files;
        EXPECT_EQ(scan->get_Dependencies(files.put()), S_OK);
        return files;
    }
    // ScanFile with the shipped lists from the support folder.
    HRESULT scan_file(const std::wstring& file, VARIANT_BOOL filter) {
        VARIANT_BOOL completed = 0;
        HRESULT hr = scan->ScanFile(qv::bstr(file).get(), &sink, filter, qv::bstr(L"").get(), estAny, &completed);
        EXPECT_EQ(completed, VARIANT_TRUE);
        return hr;
    }
    record pe(const std::wstring& path) {
        com_ptr<IDepFile> f;
        EXPECT_EQ(util->get_PE(qv::bstr(path).get(), f.put()), S_OK);
        return f ? read(f.get()) : record{};
    }

    com_apartment apartment;
    fake_catalog catalog; // outlives the objects that may hold it
    recording_sink sink;
    com_ptr<IStaticScan> scan;
    com_ptr<IPrivStaticScan> priv;
    com_ptr<IScanUtilValeSP1> util;
};

} // namespace qv::test
