// StaticScan through the class table, as a client uses it: the records of a scan, the events, the scan
// types, failures that leave the scan as exceptions, and the collection kept between scans. The scans
// here go through IPrivStaticScan with a filter of the test's own, so that they do not depend on the
// shipped lists; main() sets Path as the walker's tests do.
#include "QVWIScanners.h"
#include "filter/filter_base.h"
#include "image_writer.h"
#include "inc/com_error.h"
#include "inc/com_exception.h"
#include "inc/com_ptr.h"
#include "inc/priv_interfaces.h"
#include "recording_sink.h"
#include "test_support.h"
#include "test_support.h"
#include "toolkit/probes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

using namespace qv::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::wstring walk(const std::wstring& rel) { return fixture(L"walk\\" + rel); }

class list_filter : public CFilterBase {
public:
    explicit list_filter(std::set<std::wstring> drop = {}, std::set<std::wstring> listed = {})
        : m_drop(std::move(drop)), m_listed(std::move(listed)) {}
    bool Filter(const std::wstring& name, bool& bInFilterList) override {
        std::wstring n = lower(name);
        bInFilterList = m_listed.count(n) || m_drop.count(n);
        return m_drop.count(n) > 0;
    }
    void Initialize() override {}

private:
    std::set<std::wstring> m_drop, m_listed;
};

struct record_view {
    std::wstring name, path;
    VARIANT_BOOL selfRegistering = 0, missing = 0, filterable = 0;
};

record_view read(IDepFiles* files, const wchar_t* key) {
    record_view r;
    VARIANT index;
    VariantInit(&index);
    index.vt = VT_BSTR;
    index.bstrVal = SysAllocString(key);
    qv::com_ptr<IDepFile> file;
    HRESULT hr = files->get_Item(index, file.put());
    VariantClear(&index);
    if (FAILED(hr) || !file)
        return r;
    qv::bstr text;
    file->get_Name(text.put());
    r.name = text.str();
    file->get_Path(text.put());
    r.path = text.str();
    file->get_SelfRegistering(&r.selfRegistering);
    auto info = qv::com_ptr<IDepFile>(file.get()).query<IDepFileInfo>(IID_IDepFileInfo);
    if (info) {
        info->get_IsMissing(&r.missing);
        info->get_IsFilterable(&r.filterable);
    }
    return r;
}

std::vector<std::wstring> names(IDepFiles* files) {
    std::vector<std::wstring> out;
    long count = 0;
    files->get_Count(&count);
    for (long i = 1; i <= count; ++i) {
        VARIANT index;
        VariantInit(&index);
        index.vt = VT_I4;
        index.lVal = i;
        qv::com_ptr<IDepFile> file;
        if (SUCCEEDED(files->get_Item(index, file.put())) && file) {
            qv::bstr name;
            file->get_Name(name.put());
            out.push_back(name.str());
        }
    }
    return out;
}

class StaticScan : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(server().Create(CLSID_StaticScan, nullptr, IID_IStaticScan, scan.put_void()), S_OK);
        priv = scan.query<IPrivStaticScan>(IID_IPrivStaticScan);
        ASSERT_TRUE(priv);
    }
    void TearDown() override {
        priv.reset();
        scan.reset();
        EXPECT_EQ(sink.refs, 1) << "the scan left references on the sink";
    }

    // One scan with the test's filter; returns the completion flag.
    VARIANT_BOOL run(const std::wstring& file, long type = 0, CFilterBase* filter = nullptr,
                     IStaticScanEvents* events = nullptr) {
        list_filter passAll;
        VARIANT_BOOL completed = 12345;
        qv::bstr path(file), lang(L"");
        HRESULT hr = priv->ScanWithFilter(path.get(), events ? events : &sink, VARIANT_TRUE, lang.get(), &completed,
                                          filter ? filter : &passAll, type);
        EXPECT_EQ(hr, S_OK);
        return completed;
    }
    qv::com_ptr<IDepFiles> dependencies() {
        qv::com_ptr<IDepFiles> files;
        EXPECT_EQ(scan->get_Dependencies(files.put()), S_OK);
        return files;
    }

    com_apartment apartment;
    recording_sink sink;
    qv::com_ptr<IStaticScan> scan;
    qv::com_ptr<IPrivStaticScan> priv;
};

TEST_F(StaticScan, AFreshObjectHasNoCollection) {
    qv::com_ptr<IDepFiles> files;
    EXPECT_EQ(scan->get_Dependencies(files.put()), S_OK);
    EXPECT_FALSE(files);
    EXPECT_EQ(scan->get_Dependencies(nullptr), E_POINTER);
}

TEST_F(StaticScan, RecordsForFoundAndMissingFiles) {
    EXPECT_EQ(run(walk(L"app\\app.exe")), VARIANT_TRUE);
    auto files = dependencies();
    ASSERT_TRUE(files);
    // The top file came back through a cycle and drops out again; gamma.dll and GAMMA.DLL are two walker
    // entries but one name of the collection, whose names ignore case.
    auto all = names(files.get());
    std::set<std::wstring> got;
    for (const auto& n : all)
        got.insert(lower(n));
    EXPECT_EQ(got, (std::set<std::wstring>{L"alpha.dll", L"beta.dll", L"delta.dll", L"dirlike.dll", L"epsilon.dll",
                                           L"gamma.dll", L"notpe.dll", L"missing_one.dll"}));
    EXPECT_EQ(all.size(), got.size());

    // A found file stands under its full path, a missing one under the name its importer writes.
    struct row {
        std::wstring key;
        const wchar_t* name;
        std::wstring path;
        VARIANT_BOOL selfRegistering, missing;
    };
    const row table[] = {
        {walk(L"app\\alpha.dll"), L"alpha.dll", walk(L"app"), 0, 0},
        {walk(L"lib\\delta.dll"), L"delta.dll", walk(L"lib"), 0, 0},
        {walk(L"lib\\epsilon.dll"), L"epsilon.dll", walk(L"lib"), -1, 0},
        {walk(L"lib\\GAMMA.DLL"), L"gamma.dll", walk(L"lib"), -1, 0}, // either spelling finds it
        {walk(L"app\\notpe.dll"), L"notpe.dll", walk(L"app"), 0, 0},
        {L"missing_one.dll", L"missing_one.dll", L"", 0, -1},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(narrow(r.key));
        record_view v = read(files.get(), r.key.c_str());
        EXPECT_EQ(lower(v.name), r.name);
        EXPECT_EQ(lower(v.path), lower(r.path));
        EXPECT_EQ(v.selfRegistering, r.selfRegistering);
        EXPECT_EQ(v.missing, r.missing);
    }
    EXPECT_EQ(sink.found.size(), 18u);
    EXPECT_THAT(sink.unexpected, IsEmpty());
}

TEST_F(StaticScan, TopFilesThatAreNoImagesCompleteEmpty) {
    temp_dir tmp;
    for (const std::wstring& file : {tmp / L"absent.exe", walk(L"app\\notpe.dll")}) {
        SCOPED_TRACE(narrow(file));
        sink.found.clear();
        EXPECT_EQ(run(file), VARIANT_TRUE);
        auto files = dependencies();
        ASSERT_TRUE(files);
        long count = -1;
        files->get_Count(&count);
        EXPECT_EQ(count, 0);
        EXPECT_THAT(sink.found, IsEmpty());
    }
}

TEST_F(StaticScan, ScanTypes) {
    struct row {
        long type;
        size_t records;
        size_t events;
    };
    const row table[] = {
        {0, 1, 2},      // upper.exe: gamma.dll; KERNEL32.DLL fires but is skipped
        {1, 1, 2},      // a plain image under "unless the top file is an assembly": the same
        {2, 0, 0},      // no import table is read
        {0x8000, 1, 2}, // the catalog flag alone changes nothing without a catalog
        {0x8001, 1, 2},
        {0x8002, 0, 0},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(r.type);
        sink.found.clear();
        EXPECT_EQ(run(walk(L"lib\\upper.exe"), r.type), VARIANT_TRUE);
        auto files = dependencies();
        EXPECT_EQ(names(files.get()).size(), r.records);
        EXPECT_EQ(sink.found.size(), r.events);
    }
}

TEST_F(StaticScan, FilteredFilesAreDroppedAndListedOnesMarked) {
    list_filter filter({L"delta.dll"}, {L"gamma.dll"});
    run(walk(L"app\\app.exe"), 0, &filter);
    auto files = dependencies();
    EXPECT_EQ(read(files.get(), walk(L"lib\\delta.dll").c_str()).name, L"");
    EXPECT_EQ(read(files.get(), walk(L"lib\\gamma.dll").c_str()).filterable, VARIANT_TRUE);
    EXPECT_EQ(read(files.get(), walk(L"app\\alpha.dll").c_str()).filterable, VARIANT_FALSE);
}

TEST_F(StaticScan, ASecondScanReplacesTheCollectionAndTheFirstStaysReadable) {
    run(walk(L"lib\\upper.exe"));
    auto first = dependencies();
    run(walk(L"app32\\app32.exe"));
    auto second = dependencies();
    ASSERT_TRUE(first && second);
    EXPECT_NE(first.get(), second.get());
    EXPECT_THAT(names(first.get()), ElementsAre(L"gamma.dll"));
    std::set<std::wstring> now;
    for (const auto& n : names(second.get()))
        now.insert(n);
    EXPECT_EQ(now, (std::set<std::wstring>{L"shadow.dll", L"only64.dll"}));
}

TEST_F(StaticScan, FailuresLeaveAsExceptionsAndKeepTheLastCollection) {
    run(walk(L"lib\\upper.exe"));
    auto before = dependencies();
    ASSERT_TRUE(before);
    list_filter passAll;
    qv::bstr path(walk(L"app\\app.exe")), lang(L"");

    recording_sink partial(true);
    VARIANT_BOOL completed = 7;
    try {
        priv->ScanWithFilter(path.get(), &partial, VARIANT_TRUE, lang.get(), &completed, &passAll, 0);
        ADD_FAILURE() << "a sink without the third event interface fails the scan";
    } catch (const com_exception& e) {
        EXPECT_EQ(e.Error(), E_NOINTERFACE);
    }
    EXPECT_EQ(completed, VARIANT_FALSE);
    EXPECT_THAT(partial.found, IsEmpty());

    recording_sink failing;
    failing.failFoundAfter = 2;
    {
        cwd_scope restore(module_dir());
        try {
            priv->ScanWithFilter(path.get(), &failing, VARIANT_TRUE, lang.get(), &completed, &passAll, 0);
            ADD_FAILURE() << "a failing FoundDepFile ends the scan";
        } catch (const com_exception& e) {
            EXPECT_EQ(e.Error(), E_ABORT);
        }
    }
    EXPECT_EQ(failing.found.size(), 2u);
    auto after = dependencies();
    EXPECT_EQ(after.get(), before.get()) << "the collection of the scan before stays";
}

TEST_F(StaticScan, AggregatedObjectAnswersThroughItsOuter) {
    // A minimal outer object that owns the inner unknown and forwards what it does not know.
    struct outer_object : IUnknown {
        LONG refs = 1;
        IUnknown* inner = nullptr;
        int queries = 0;
        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
            ++queries;
            if (IsEqualIID(iid, IID_IUnknown)) {
                *ppv = static_cast<IUnknown*>(this);
                AddRef();
                return S_OK;
            }
            return inner->QueryInterface(iid, ppv);
        }
        ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
        ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    } outer;
    ASSERT_EQ(server().Create(CLSID_StaticScan, &outer, IID_IUnknown, reinterpret_cast<void**>(&outer.inner)), S_OK);
    IStaticScan* through = nullptr;
    ASSERT_EQ(outer.QueryInterface(IID_IStaticScan, reinterpret_cast<void**>(&through)), S_OK);
    LONG before = outer.refs;
    IUnknown* back = nullptr;
    ASSERT_EQ(through->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&back)), S_OK);
    EXPECT_EQ(back, static_cast<IUnknown*>(&outer)) << "the inner object's interfaces delegate to the outer";
    EXPECT_GT(outer.refs, before);
    back->Release();
    through->Release();
    EXPECT_EQ(outer.refs, 1);
    outer.inner->Release();
    // Asking to aggregate for anything but IUnknown is refused.
    void* p = nullptr;
    EXPECT_EQ(server().Create(CLSID_StaticScan, &outer, IID_IStaticScan, &p), CLASS_E_NOAGGREGATION);
}


// ScanFile itself: the shipped lists, loaded from the support folder that QvAppServices.dll names.
class ScanFile : public StaticScan {
protected:
    HRESULT scan_file(const std::wstring& file, VARIANT_BOOL filter, VARIANT_BOOL* completed) {
        qv::bstr path(file), lang(L"");
        return scan->ScanFile(path.get(), &sink, filter, lang.get(), estAny, completed);
    }
    static std::vector<record_view> all(IDepFiles* files) {
        std::vector<record_view> out;
        for (const auto& n : names(files))
            out.push_back(read(files, n.c_str()));
        return out;
    }
};

TEST_F(ScanFile, TheShippedListsDropTheSystemsOwnFilesOrMarkThem) {
    const std::wstring notepad = system_dir() + L"\\notepad.exe";
    VARIANT_BOOL completed = 0;
    ASSERT_EQ(scan_file(notepad, VARIANT_TRUE, &completed), S_OK);
    EXPECT_EQ(completed, VARIANT_TRUE);
    EXPECT_THAT(names(dependencies().get()), IsEmpty()) << "every import of notepad is the system's own";
    const size_t events = sink.found.size();
    EXPECT_GT(events, 5u);

    // Any non-zero value turns filtering on; with it off the same files stay, marked as on the list.
    sink.found.clear();
    ASSERT_EQ(scan_file(notepad, VARIANT_FALSE, &completed), S_OK);
    auto kept = dependencies();
    long count = 0;
    kept->get_Count(&count);
    EXPECT_GT(count, 3);
    EXPECT_GT(sink.found.size(), events) << "a dropped file is not looked into; a kept one is";
    for (long i = 1; i <= count; ++i) {
        VARIANT index;
        VariantInit(&index);
        index.vt = VT_I4;
        index.lVal = i;
        qv::com_ptr<IDepFile> file;
        ASSERT_EQ(kept->get_Item(index, file.put()), S_OK);
        auto info = file.query<IDepFileInfo>(IID_IDepFileInfo);
        VARIANT_BOOL filterable = 0;
        info->get_IsFilterable(&filterable);
        qv::bstr name;
        file->get_Name(name.put());
        EXPECT_EQ(filterable, VARIANT_TRUE) << narrow(name.str());
    }
    sink.found.clear();
    ASSERT_EQ(scan_file(walk(L"lib\\upper.exe"), static_cast<VARIANT_BOOL>(1), &completed), S_OK);
    EXPECT_THAT(names(dependencies().get()), ElementsAre(L"gamma.dll")) << "our own libraries are on no list";
}

TEST_F(ScanFile, AMissingOrBrokenListFailsBeforeAnythingIsScannedAndSaysWhichFile) {
    temp_dir tmp;
    const std::wstring empty = tmp.mkdir(L"empty"), broken = tmp.mkdir(L"broken");
    tmp.write(L"broken\\filters.xml", "<Filters><Exclude><File name=\"x.dll\"></Exclude>");
    for (const std::wstring& dir : {empty, broken}) {
        SCOPED_TRACE(narrow(dir));
        env_scope support(L"QV_SUPPORT_DIR", dir.c_str());
        VARIANT_BOOL completed = 5;
        try {
            scan_file(walk(L"lib\\upper.exe"), VARIANT_FALSE, &completed);
            ADD_FAILURE() << "the scan must fail without its lists";
        } catch (const com_exception& e) {
            EXPECT_TRUE(FAILED(e.Error()));
            std::wstring why = qv::take_error_description();
            EXPECT_NE(lower(why).find(lower(dir + L"\\filters.xml")), std::wstring::npos) << narrow(why);
        }
        EXPECT_THAT(sink.found, IsEmpty());
    }
}

TEST_F(ScanFile, ANameWithADoubleQuoteBreaksTheListQueryAndIsReported) {
    // An import table may name anything; a name with a double quote cannot go into the list query.
    temp_dir tmp;
    qv::test::written_image image = qv::test::image_writer().import("bad\"name.dll").build();
    const std::wstring file = tmp.write(L"quote.exe", image.str());
    VARIANT_BOOL completed = 5;
    try {
        scan_file(file, VARIANT_TRUE, &completed);
        ADD_FAILURE() << "the query must fail";
    } catch (const com_exception& e) {
        EXPECT_TRUE(FAILED(e.Error()));
        EXPECT_NE(qv::take_error_description().find(L"bad\"name.dll"), std::wstring::npos);
    }
}

} // namespace

int main(int argc, char** argv) {
    std::wstring path = walk(L"lib") + L";;" + walk(L"path64") + L";" + walk(L"path32") + L";" + system_dir() + L";" +
                        qv::WindowsFolder();
    SetEnvironmentVariableW(L"Path", path.c_str());
    ::testing::InitGoogleMock(&argc, argv);
    struct unload_check : ::testing::Environment {
        void TearDown() override {
            com_apartment apartment;
            EXPECT_EQ(server().CanUnloadNow(), S_OK) << "an object of the server is still alive";
        }
    };
    ::testing::AddGlobalTestEnvironment(new unload_check);
    return RUN_ALL_TESTS();
}
