// ScanUtil as a client meets it: the server loaded by path, the object created through its class
// factory and used only through its interfaces, with a stand-in catalog and module records that fail on
// any call they were not set up for. After each case no object of the server is alive.
#include "QVWIScanners.h"
#include "fake_catalog.h"
#include "inc/com_ptr.h"
#include "test_support.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>

using namespace qv::test;

namespace {

const wchar_t CatchAll[] = L"mondo.E4183BB4_18A8_11D5_A549_0090278A1BB8";

// A reference out-parameter preset to a value no callee would give, so that a test sees it written.
IUnknown* const Junk = reinterpret_cast<IUnknown*>(static_cast<ULONG_PTR>(0x5EED));
const VARIANT_BOOL JunkBool = 0x1234;

std::wstring version_fixture(const wchar_t* name) {
    return fixture(std::wstring(L"version\\") + name);
}
std::wstring scanutil_fixture(const wchar_t* name) {
    return fixture(std::wstring(L"scanutil\\") + name);
}

class ScanUtil : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(dll.Create(CLSID_ScanUtil, nullptr, IID_IScanUtilValeSP1, util.put_void()), S_OK);
        ASSERT_TRUE(util);
    }
    void TearDown() override {
        util.reset();
        EXPECT_EQ(catalog.refs, 1) << "references left on the catalog";
        EXPECT_EQ(dll.CanUnloadNow(), S_OK) << "an object of the server is still alive";
    }

    void use_catalog() { ASSERT_EQ(util->put_MMCatalog(catalog.identity()), S_OK); }

    // One lookup for a given machine word; the texts the catalog was asked with, the answer in out.
    HRESULT lookup_ex(const std::wstring& path, LONG machine, qv::com_ptr<IUnknown>& module, VARIANT_BOOL& yes) {
        IUnknown* raw = Junk;
        yes = JunkBool;
        HRESULT hr = util->InMergeModuleEx(qv::bstr(path).get(), machine, &raw, &yes);
        EXPECT_NE(raw, Junk) << "the module output is always written";
        module = qv::com_ptr<IUnknown>::adopt(raw == Junk ? nullptr : raw);
        return hr;
    }
    HRESULT lookup(const std::wstring& path, qv::com_ptr<IUnknown>& module, VARIANT_BOOL& yes) {
        IUnknown* raw = Junk;
        yes = JunkBool;
        HRESULT hr = util->InMergeModule(qv::bstr(path).get(), &raw, &yes);
        EXPECT_NE(raw, Junk) << "the module output is always written";
        module = qv::com_ptr<IUnknown>::adopt(raw == Junk ? nullptr : raw);
        return hr;
    }

    com_apartment apartment;
    server_library& dll = server();
    fake_catalog catalog; // outlives util
    qv::com_ptr<IScanUtilValeSP1> util;
};

// ---- The key, version and language the catalog is asked with.

TEST_F(ScanUtil, TheCatalogIsAskedWithTheFilesKeyVersionAndLanguage) {
    use_catalog();
    catalog.answerUnknownKeys = true;
    temp_dir tmp;
    struct row {
        const char* what;
        std::wstring path;
        bool withMachine; // InMergeModuleEx with `machine`; else InMergeModule, which reads it from the file
        LONG machine;
        const wchar_t* key;
        const wchar_t* version;
        const wchar_t* language;
    };
    const std::wstring x64 = version_fixture(L"translations.dll"), x86 = version_fixture(L"translations32.dll");
    const row table[] = {
        {"x64 image", x64, false, 0, L"translations.dll:x64", L"1.2.3.4", L"1033"},
        {"x86 image", x86, false, 0, L"translations32.dll", L"1.2.3.4", L"1033"},
        {"first translation 0407", version_fixture(L"translations_reversed.dll"), false, 0,
         L"translations_reversed.dll:x64", L"1.2.3.4", L"1031"},
        {"no version resource", version_fixture(L"no_version.dll"), false, 0, L"no_version.dll:x64", L"", L"0"},
        {"version resource without translations", version_fixture(L"no_translation.dll"), false, 0,
         L"no_translation.dll:x64", L"9.8.7.6", L"0"},
        {"version 2.0.0.0", scanutil_fixture(L"version_major_only.dll"), false, 0, L"version_major_only.dll:x64",
         L"2.0.0.0", L"1041"},
        {"version 0.0.0.7", scanutil_fixture(L"version_minor_only.dll"), false, 0, L"version_minor_only.dll:x64",
         L"0.0.0.7", L"1036"},
        {"version 0.0.0.0", scanutil_fixture(L"version_zero.dll"), false, 0, L"version_zero.dll:x64", L"", L"1036"},
        {"missing file", tmp / L"absent.dll", false, 0, L"", L"", L"0"},
        {"text file", version_fixture(L"not_an_image.dll"), false, 0, L"", L"", L"0"},
        {"folder", tmp.path(), false, 0, L"", L"", L"0"},
        {"machine 332", x64, true, 332, L"translations.dll", L"1.2.3.4", L"1033"},
        {"machine 34404", x64, true, 34404, L"translations.dll:x64", L"1.2.3.4", L"1033"},
        {"machine 512", x64, true, 512, L"translations.dll:i64", L"1.2.3.4", L"1033"},
        {"machine 452", x64, true, 452, L"", L"1.2.3.4", L"1033"},
        {"machine 0", x64, true, 0, L"", L"1.2.3.4", L"1033"},
        {"machine -1", x64, true, -1, L"", L"1.2.3.4", L"1033"},
        {"the word given, not the header's", x86, true, 34404, L"translations32.dll:x64", L"1.2.3.4", L"1033"},
        {"a name without folder, not on disk", L"nowhere_at_all.dll", true, 332, L"nowhere_at_all.dll", L"", L"0"},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(r.what);
        catalog.lookups.clear();
        qv::com_ptr<IUnknown> module;
        VARIANT_BOOL yes;
        HRESULT hr = r.withMachine ? lookup_ex(r.path, r.machine, module, yes) : lookup(r.path, module, yes);
        EXPECT_EQ(hr, S_OK);
        EXPECT_EQ(yes, VARIANT_FALSE);
        EXPECT_FALSE(module);
        ASSERT_EQ(catalog.lookups.size(), 1u);
        EXPECT_EQ(catalog.lookups[0].fileKey, r.key);
        EXPECT_EQ(catalog.lookups[0].version, r.version);
        EXPECT_EQ(catalog.lookups[0].language, r.language);
        EXPECT_TRUE(catalog.lookups[0].outputsCleared) << "both outputs are cleared before the call";
    }
}

TEST_F(ScanUtil, ANullSourceIsTheEmptyText) {
    use_catalog();
    catalog.answerUnknownKeys = true;
    for (bool withMachine : {false, true}) {
        SCOPED_TRACE(withMachine ? "InMergeModuleEx" : "InMergeModule");
        catalog.lookups.clear();
        IUnknown* module = Junk;
        VARIANT_BOOL yes = JunkBool;
        HRESULT hr = withMachine ? util->InMergeModuleEx(nullptr, 332, &module, &yes)
                                 : util->InMergeModule(nullptr, &module, &yes);
        EXPECT_EQ(hr, S_OK);
        EXPECT_EQ(module, nullptr);
        EXPECT_EQ(yes, VARIANT_FALSE);
        ASSERT_EQ(catalog.lookups.size(), 1u);
        EXPECT_EQ(catalog.lookups[0].fileKey, L"");
        EXPECT_EQ(catalog.lookups[0].language, L"0");
    }
}

// ---- What the catalog's answer means.

TEST_F(ScanUtil, TheCatalogsAnswerBecomesOneOfFourOutcomes) {
    use_catalog();
    fake_module_record real(L"Real.Module.1", L"real.msm", L"Real module");
    fake_module_record catchAll(CatchAll, L"mondo.msm", L"Catch-all");
    // The comparison with the catch-all identity is exact: another spelling is a module like any other.
    std::wstring upper = CatchAll;
    upper[0] = L'M';
    fake_module_record catchAllUpper(upper, L"mondo2.msm", L"Catch-all, other case");
    fake_module_record longer(std::wstring(CatchAll) + L"x", L"mondo3.msm", L"Longer id");

    struct row {
        const char* what;
        VARIANT_BOOL found;
        fake_module_record* module;
        VARIANT_BOOL yes;
        bool handedOut;
    };
    const row table[] = {
        {"in no module", VARIANT_FALSE, nullptr, VARIANT_FALSE, false},
        {"in a module the catalog has", VARIANT_TRUE, &real, VARIANT_TRUE, true},
        {"any non-zero found counts", 1, &real, VARIANT_TRUE, true},
        {"in a module the catalog lacks", VARIANT_TRUE, nullptr, VARIANT_TRUE, false},
        {"non-zero found, missing module", 2, nullptr, VARIANT_TRUE, false},
        {"a record but not found", VARIANT_FALSE, &real, VARIANT_FALSE, false},
        {"the catch-all module", VARIANT_TRUE, &catchAll, VARIANT_FALSE, false},
        {"the catch-all module, not found", VARIANT_FALSE, &catchAll, VARIANT_FALSE, false},
        {"the catch-all identity in capitals", VARIANT_TRUE, &catchAllUpper, VARIANT_TRUE, true},
        {"an identity that only begins like it", VARIANT_TRUE, &longer, VARIANT_TRUE, true},
    };
    const std::wstring file = version_fixture(L"translations.dll");
    for (const auto& r : table) {
        SCOPED_TRACE(r.what);
        catalog.answers[L"translations.dll:x64"] = {S_OK, r.module, r.found};
        const int idReadsBefore = r.module ? r.module->idReads : 0;
        {
            qv::com_ptr<IUnknown> module;
            VARIANT_BOOL yes;
            EXPECT_EQ(lookup(file, module, yes), S_OK);
            EXPECT_EQ(yes, r.yes) << "a boolean output is 0 or -1";
            if (r.handedOut) {
                ASSERT_TRUE(module);
                EXPECT_EQ(module.get(), static_cast<IUnknown*>(r.module)) << "the record's own identity";
                EXPECT_EQ(r.module->refs, 2) << "one reference for the caller, none kept";
            } else {
                EXPECT_FALSE(module);
            }
        }
        if (r.module) {
            EXPECT_EQ(r.module->idReads - idReadsBefore, 1) << "the identity is read once";
            EXPECT_EQ(r.module->refs, 1);
        }
    }
    for (fake_module_record* m : {&real, &catchAll, &catchAllUpper, &longer}) {
        EXPECT_EQ(m->keyReads, 0) << "key and subject are the caller's to read";
        EXPECT_EQ(m->nameReads, 0);
    }
}

TEST_F(ScanUtil, ResultsOfTheCatalogComeBackAsTheyAre) {
    use_catalog();
    fake_module_record record(L"Real.Module.1", L"real.msm", L"Real module");
    fake_module_record broken(L"", L"", L"");
    broken.idResult = E_ACCESSDENIED;
    const std::wstring file = version_fixture(L"translations.dll");
    struct row {
        const char* what;
        fake_catalog::answer answer;
        HRESULT hr;
        VARIANT_BOOL yes;
    };
    const row table[] = {
        {"a failed lookup", {E_FAIL, nullptr, VARIANT_TRUE}, E_FAIL, VARIANT_FALSE},
        {"a failed lookup with a record", {REGDB_E_CLASSNOTREG, &record, VARIANT_TRUE}, REGDB_E_CLASSNOTREG, 0},
        {"a record whose identity cannot be read", {S_OK, &broken, VARIANT_TRUE}, E_ACCESSDENIED, VARIANT_FALSE},
        {"a success code of the lookup with no record", {S_FALSE, nullptr, VARIANT_TRUE}, S_FALSE, VARIANT_TRUE},
        {"a success code followed by a record", {S_FALSE, &record, VARIANT_TRUE}, S_OK, VARIANT_TRUE},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(r.what);
        catalog.answers[L"translations.dll:x64"] = r.answer;
        {
            qv::com_ptr<IUnknown> module;
            VARIANT_BOOL yes;
            EXPECT_EQ(lookup(file, module, yes), r.hr);
            EXPECT_EQ(yes, r.yes);
            EXPECT_EQ(module.get(), SUCCEEDED(r.hr) && r.answer.module ? r.answer.module : nullptr);
        }
        EXPECT_EQ(record.refs, 1);
        EXPECT_EQ(broken.refs, 1);
    }
}

TEST_F(ScanUtil, MissingModuleTextsAreForwardedUntouched) {
    use_catalog();
    const std::wstring source = L"C:\\Program Files\\App\\\x0416ar.dll";
    const std::wstring key = L"Missing.\x0416.Module \xD83D\xDE00 \x00E9";
    const std::wstring subject = L"Subject with \x201Cquotes\x201D and \t tab";
    catalog.missingKeys[source] = key;
    catalog.subjects[key] = subject;
    catalog.missingKeys[L""] = L"";

    qv::bstr got;
    EXPECT_EQ(util->GetMissingMergeModuleKey(qv::bstr(source).get(), got.put()), S_OK);
    EXPECT_EQ(got.str(), key);
    EXPECT_EQ(util->GetMissingMergeModuleSubject(qv::bstr(key).get(), got.put()), S_OK);
    EXPECT_EQ(got.str(), subject);
    EXPECT_EQ(util->GetMissingMergeModuleKey(nullptr, got.put()), S_OK);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(catalog.keyRequests, (std::vector<std::wstring>{source, L""}));
    EXPECT_EQ(catalog.subjectRequests, std::vector<std::wstring>{key});
    EXPECT_TRUE(catalog.lookups.empty()) << "no lookup of the file takes place";

    catalog.missingKeyResult = E_OUTOFMEMORY;
    catalog.subjectResult = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    BSTR out = reinterpret_cast<BSTR>(Junk);
    EXPECT_EQ(util->GetMissingMergeModuleKey(qv::bstr(source).get(), &out), E_OUTOFMEMORY);
    EXPECT_EQ(out, nullptr);
    out = reinterpret_cast<BSTR>(Junk);
    EXPECT_EQ(util->GetMissingMergeModuleSubject(qv::bstr(key).get(), &out), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(out, nullptr);
}

// ---- The catalog member.

TEST_F(ScanUtil, WithoutACatalogEveryLookupIsUnexpected) {
    auto check_all = [&](const char* when) {
        SCOPED_TRACE(when);
        IUnknown* unk = Junk;
        EXPECT_EQ(util->get_MMCatalog(&unk), E_UNEXPECTED);
        EXPECT_EQ(unk, nullptr);
        const qv::bstr file(version_fixture(L"translations.dll"));
        IUnknown* module = Junk;
        VARIANT_BOOL yes = JunkBool;
        EXPECT_EQ(util->InMergeModule(file.get(), &module, &yes), E_UNEXPECTED);
        EXPECT_EQ(module, nullptr);
        module = Junk;
        EXPECT_EQ(util->InMergeModuleEx(file.get(), 34404, &module, &yes), E_UNEXPECTED);
        EXPECT_EQ(module, nullptr);
        qv::bstr text;
        EXPECT_EQ(util->GetMissingMergeModuleKey(file.get(), text.put()), E_UNEXPECTED);
        EXPECT_EQ(util->GetMissingMergeModuleSubject(file.get(), text.put()), E_UNEXPECTED);
    };
    check_all("a new object");

    use_catalog();
    EXPECT_EQ(catalog.refs, 2) << "the object keeps one reference";
    EXPECT_EQ(util->put_MMCatalog(nullptr), S_OK);
    EXPECT_EQ(catalog.refs, 1) << "clearing releases it";
    check_all("after put_MMCatalog(null)");
    EXPECT_TRUE(catalog.lookups.empty());
}

TEST_F(ScanUtil, GetMMCatalogGivesTheCatalogsIdentity) {
    use_catalog();
    qv::com_ptr<IUnknown> got;
    ASSERT_EQ(util->get_MMCatalog(got.put()), S_OK);
    EXPECT_EQ(got.get(), catalog.identity());
    EXPECT_EQ(catalog.refs, 3);
    got.reset();

    // Setting the same catalog again keeps one reference, not two.
    use_catalog();
    EXPECT_EQ(catalog.refs, 2);
}

TEST_F(ScanUtil, ASecondCatalogWithoutTheInterfaceFailsAndKeepsTheFirst) {
    fake_catalog lacking(false);
    use_catalog();
    EXPECT_EQ(util->put_MMCatalog(lacking.identity()), E_NOINTERFACE);
    EXPECT_EQ(lacking.refs, 1);

    qv::com_ptr<IUnknown> got;
    ASSERT_EQ(util->get_MMCatalog(got.put()), S_OK);
    EXPECT_EQ(got.get(), catalog.identity());
    got.reset();
    // Lookups still go to the first catalog.
    catalog.answerUnknownKeys = true;
    qv::com_ptr<IUnknown> module;
    VARIANT_BOOL yes;
    EXPECT_EQ(lookup(version_fixture(L"translations.dll"), module, yes), S_OK);
    EXPECT_EQ(catalog.lookups.size(), 1u);
    EXPECT_EQ(lacking.queries, 1);
}

TEST_F(ScanUtil, NullOutputPointersAreRefused) {
    use_catalog();
    const qv::bstr file(version_fixture(L"translations.dll"));
    IUnknown* module = nullptr;
    VARIANT_BOOL yes = 0;
    EXPECT_EQ(util->get_PE(file.get(), nullptr), E_POINTER);
    EXPECT_EQ(util->get_MMCatalog(nullptr), E_POINTER);
    EXPECT_EQ(util->InMergeModule(file.get(), nullptr, &yes), E_POINTER);
    EXPECT_EQ(util->InMergeModule(file.get(), &module, nullptr), E_POINTER);
    EXPECT_EQ(util->InMergeModuleEx(file.get(), 332, nullptr, &yes), E_POINTER);
    EXPECT_EQ(util->InMergeModuleEx(file.get(), 332, &module, nullptr), E_POINTER);
    EXPECT_EQ(util->GetMissingMergeModuleKey(file.get(), nullptr), E_POINTER);
    EXPECT_EQ(util->GetMissingMergeModuleSubject(file.get(), nullptr), E_POINTER);
    EXPECT_TRUE(catalog.lookups.empty());
}

// ---- PE.

TEST_F(ScanUtil, PEGivesARecordOfEachImageWithoutLoadingIt) {
    struct row {
        std::wstring path;
        const wchar_t* name;
        std::wstring folder;
        VARIANT_BOOL selfRegistering;
        long majorVersion;
    };
    const std::wstring lib = fixture(L"walk\\lib");
    const row table[] = {
        {lib + L"\\gamma.dll", L"gamma.dll", lib, VARIANT_TRUE, 0},
        // Its entry point refuses to load: only the export table can tell that it registers itself.
        {scanutil_fixture(L"refuses_load.dll"), L"refuses_load.dll", fixture(L"scanutil"), VARIANT_TRUE, 0},
        {version_fixture(L"translations.dll"), L"translations.dll", fixture(L"version"), VARIANT_FALSE, 0x00010002},
        {version_fixture(L"translations32.dll"), L"translations32.dll", fixture(L"version"), VARIANT_FALSE, 0x00010002},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(narrow(r.path));
        qv::com_ptr<IDepFile> record;
        ASSERT_EQ(util->get_PE(qv::bstr(r.path).get(), record.put()), S_OK);
        ASSERT_TRUE(record);
        qv::bstr text;
        ASSERT_EQ(record->get_Name(text.put()), S_OK);
        EXPECT_EQ(text.str(), r.name);
        ASSERT_EQ(record->get_Path(text.put()), S_OK);
        EXPECT_EQ(lower(text.str()), lower(r.folder));
        VARIANT_BOOL selfRegistering = JunkBool;
        ASSERT_EQ(record->get_SelfRegistering(&selfRegistering), S_OK);
        EXPECT_EQ(selfRegistering, r.selfRegistering);
        long major = -1;
        ASSERT_EQ(record->get_MajorVersion(&major), S_OK);
        EXPECT_EQ(major, r.majorVersion);
        EXPECT_EQ(GetModuleHandleW(r.path.c_str()), nullptr) << "the image was never loaded";
    }
}

TEST_F(ScanUtil, PEGivesNullAndSuccessForAnythingButAnImage) {
    temp_dir tmp;
    const std::wstring cases[] = {
        version_fixture(L"not_an_image.dll"), // a text file
        tmp / L"absent.dll",                  // no such file
        tmp.write(L"empty.dll", ""),          // nothing to map
        tmp.path(),                           // a folder
        L"",                                  // the empty text
    };
    for (const auto& path : cases) {
        SCOPED_TRACE(narrow(path));
        IDepFile* record = reinterpret_cast<IDepFile*>(Junk);
        EXPECT_EQ(util->get_PE(qv::bstr(path).get(), &record), S_OK);
        EXPECT_EQ(record, nullptr);
    }
    IDepFile* record = reinterpret_cast<IDepFile*>(Junk);
    EXPECT_EQ(util->get_PE(nullptr, &record), S_OK);
    EXPECT_EQ(record, nullptr);
}

// ---- The object.

TEST_F(ScanUtil, TheInterfaceChainAndIDispatchReachOneObject) {
    qv::com_ptr<IUnknown> identity;
    ASSERT_EQ(util->QueryInterface(IID_IUnknown, identity.put_void()), S_OK);
    for (const IID* iid : {&IID_IScanUtil, &IID_IScanUtilTarn, &IID_IScanUtilValeSP1, &IID_IDispatch}) {
        qv::com_ptr<IUnknown> itf, back;
        ASSERT_EQ(util->QueryInterface(*iid, itf.put_void()), S_OK);
        ASSERT_EQ(itf->QueryInterface(IID_IUnknown, back.put_void()), S_OK);
        EXPECT_EQ(back.get(), identity.get());
    }
    qv::com_ptr<IUnknown> none;
    EXPECT_EQ(util->QueryInterface(IID_IDepFile, none.put_void()), E_NOINTERFACE);

    // Through IDispatch: the names of the type library, and the catalog as the property MMCatalog.
    qv::com_ptr<IDispatch> dispatch;
    ASSERT_EQ(util->QueryInterface(IID_IDispatch, dispatch.put_void()), S_OK);
    const std::pair<const wchar_t*, DISPID> names[] = {{L"PE", 1},
                                                       {L"MMCatalog", 2},
                                                       {L"InMergeModule", 3},
                                                       {L"GetMissingMergeModuleKey", 4},
                                                       {L"GetMissingMergeModuleSubject", 5},
                                                       {L"InMergeModuleEx", 6}};
    for (const auto& [name, expected] : names) {
        LPOLESTR text = const_cast<LPOLESTR>(name);
        DISPID id = -1;
        EXPECT_EQ(dispatch->GetIDsOfNames(IID_NULL, &text, 1, LOCALE_USER_DEFAULT, &id), S_OK) << narrow(name);
        EXPECT_EQ(id, expected) << narrow(name);
    }

    VARIANT value;
    VariantInit(&value);
    value.vt = VT_UNKNOWN;
    value.punkVal = catalog.identity();
    DISPID putId = DISPID_PROPERTYPUT;
    DISPPARAMS put = {&value, &putId, 1, 1};
    ASSERT_EQ(dispatch->Invoke(2, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYPUT, &put, nullptr, nullptr, nullptr),
              S_OK);
    EXPECT_EQ(catalog.refs, 2);
    VARIANT result;
    VariantInit(&result);
    DISPPARAMS none_params = {nullptr, nullptr, 0, 0};
    ASSERT_EQ(dispatch->Invoke(2, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &none_params, &result, nullptr,
                               nullptr),
              S_OK);
    EXPECT_EQ(result.vt, VT_UNKNOWN);
    EXPECT_EQ(result.punkVal, catalog.identity());
    VariantClear(&result);
}

// A COM object that aggregates ScanUtil: its own identity, everything else from the inner object.
class outer_object : public IUnknown {
public:
    LONG refs = 1;
    IUnknown* inner = nullptr;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown)) {
            *ppv = this;
            AddRef();
            return S_OK;
        }
        if (inner)
            return inner->QueryInterface(iid, ppv);
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs); }
    ULONG STDMETHODCALLTYPE Release() override { return InterlockedDecrement(&refs); }
};

TEST_F(ScanUtil, ScanUtilCanBeAggregated) {
    outer_object outer;
    qv::com_ptr<IScanUtilValeSP1> notInner;
    EXPECT_EQ(dll.Create(CLSID_ScanUtil, &outer, IID_IScanUtilValeSP1, notInner.put_void()), CLASS_E_NOAGGREGATION)
        << "an aggregate asks for the inner IUnknown only";
    ASSERT_EQ(dll.Create(CLSID_ScanUtil, &outer, IID_IUnknown, reinterpret_cast<void**>(&outer.inner)), S_OK);
    ASSERT_NE(outer.inner, nullptr);
    EXPECT_EQ(outer.refs, 1) << "the inner object holds no reference on its outer";
    {
        qv::com_ptr<IScanUtilValeSP1> inner;
        ASSERT_EQ(outer.QueryInterface(IID_IScanUtilValeSP1, inner.put_void()), S_OK);
        EXPECT_EQ(outer.refs, 2) << "references on the inner interfaces count on the outer object";
        qv::com_ptr<IUnknown> identity;
        ASSERT_EQ(inner->QueryInterface(IID_IUnknown, identity.put_void()), S_OK);
        EXPECT_EQ(identity.get(), static_cast<IUnknown*>(&outer));
        identity.reset();

        // The lookup goes through the object's own interface inside; that must still work aggregated.
        ASSERT_EQ(inner->put_MMCatalog(catalog.identity()), S_OK);
        catalog.answerUnknownKeys = true;
        IUnknown* module = Junk;
        VARIANT_BOOL yes = JunkBool;
        EXPECT_EQ(inner->InMergeModule(qv::bstr(version_fixture(L"translations.dll")).get(), &module, &yes), S_OK);
        EXPECT_EQ(module, nullptr);
        EXPECT_EQ(yes, VARIANT_FALSE);
        ASSERT_EQ(catalog.lookups.size(), 1u);
        EXPECT_EQ(catalog.lookups[0].fileKey, L"translations.dll:x64");
    }
    EXPECT_EQ(outer.refs, 1);
    EXPECT_EQ(outer.inner->Release(), 0u);
    outer.inner = nullptr;
    EXPECT_EQ(catalog.refs, 1) << "the inner object released its catalog";
}

} // namespace
