// DepFile as a client meets it: created through the server's class factory (QVWIScanners.dll loaded by
// path), used only through IDepFile, IDepFileTarn, IDepFileInfo, ISupportErrorInfo and IDispatch.
// Filling a record from the disk is an internal operation, tested in dep_file_test.
#include "QVWIScanners.h"
#include "inc/com_ptr.h"
#include "test_support.h"
#include "test_support.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using namespace qv::test;
using qv::bstr;
using qv::com_ptr;

namespace {

class DepFileContract : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(dll.CanUnloadNow(), S_OK) << "a DepFile object is still alive"; }

    com_ptr<IDepFileTarn> create() {
        com_ptr<IDepFileTarn> file;
        EXPECT_EQ(dll.Create(CLSID_DepFile, nullptr, IID_IDepFileTarn, file.put_void()), S_OK);
        return file;
    }

    static com_ptr<IDepFileInfo> info_of(const com_ptr<IDepFileTarn>& file) {
        com_ptr<IDepFileInfo> info = file.query<IDepFileInfo>(IID_IDepFileInfo);
        EXPECT_TRUE(info);
        return info;
    }

    static com_ptr<IUnknown> identity(IUnknown* p) {
        com_ptr<IUnknown> unk;
        EXPECT_EQ(p->QueryInterface(IID_IUnknown, unk.put_void()), S_OK);
        return unk;
    }

    com_apartment apartment;
    server_library& dll = server();
};

// An outer object that must never be called: a class that cannot be aggregated refuses before it
// touches the outer unknown.
class untouchable_outer : public IUnknown {
public:
    STDMETHOD(QueryInterface)(REFIID, void** ppv) override {
        ADD_FAILURE() << "the outer unknown was queried";
        if (ppv)
            *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHOD_(ULONG, AddRef)() override {
        ADD_FAILURE() << "the outer unknown was AddRef'd";
        return 2;
    }
    STDMETHOD_(ULONG, Release)() override {
        ADD_FAILURE() << "the outer unknown was released";
        return 1;
    }
};

// ---------------------------------------------------------------------------------------------------
// Creation through the class table

TEST_F(DepFileContract, CreatedThroughTheFactoryButNeverAggregated) {
    com_ptr<IClassFactory> factory;
    ASSERT_EQ(dll.GetClassObject(CLSID_DepFile, IID_IClassFactory, factory.put_void()), S_OK);

    com_ptr<IDepFile> plain;
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IDepFile, plain.put_void()), S_OK);
    EXPECT_TRUE(plain);
    plain.reset();

    untouchable_outer outer;
    struct row {
        const char* what;
        IUnknown* outer;
        const IID* iid;
        bool nullOut;
        HRESULT expected;
    };
    const row table[] = {
        {"aggregated, inner IUnknown", &outer, &IID_IUnknown, false, CLASS_E_NOAGGREGATION},
        {"aggregated, an interface", &outer, &IID_IDepFile, false, CLASS_E_NOAGGREGATION},
        {"null out-pointer", nullptr, &IID_IDepFile, true, E_POINTER},
        {"null out-pointer, aggregated", &outer, &IID_IUnknown, true, E_POINTER},
        {"an interface it does not have", nullptr, &IID_IDepFiles, false, E_NOINTERFACE},
    };
    for (const row& r : table) {
        SCOPED_TRACE(r.what);
        void* out = reinterpret_cast<void*>(0x1);
        HRESULT hr = factory->CreateInstance(r.outer, *r.iid, r.nullOut ? nullptr : &out);
        EXPECT_EQ(hr, r.expected);
        if (!r.nullOut) {
            EXPECT_EQ(out, nullptr) << "the out-pointer is cleared on failure";
        }
    }
    EXPECT_EQ(static_cast<HRESULT>(0x80040110), CLASS_E_NOAGGREGATION);
    factory.reset();
    EXPECT_EQ(dll.CanUnloadNow(), S_OK) << "a failed creation left an object behind";
}

TEST_F(DepFileContract, AnswersForItsInterfacesWithOneIdentity) {
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    com_ptr<IUnknown> self = identity(file.get());

    const std::pair<const char*, const IID*> present[] = {
        {"IUnknown", &IID_IUnknown},         {"IDispatch", &IID_IDispatch},
        {"IDepFile", &IID_IDepFile},         {"IDepFileTarn", &IID_IDepFileTarn},
        {"IDepFileInfo", &IID_IDepFileInfo}, {"ISupportErrorInfo", &IID_ISupportErrorInfo},
    };
    for (const auto& [name, iid] : present) {
        SCOPED_TRACE(name);
        com_ptr<IUnknown> itf;
        ASSERT_EQ(file->QueryInterface(*iid, itf.put_void()), S_OK);
        ASSERT_TRUE(itf);
        EXPECT_EQ(identity(itf.get()).get(), self.get());
    }

    const std::pair<const char*, const IID*> absent[] = {
        {"IDepFiles", &IID_IDepFiles},
        {"ILanguages", &IID_ILanguages},
        {"IDotNetAssembly", &IID_IDotNetAssembly},
        {"IClassFactory", &IID_IClassFactory},
        {"IProvideClassInfo", &IID_IProvideClassInfo},
    };
    for (const auto& [name, iid] : absent) {
        SCOPED_TRACE(name);
        void* itf = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(file->QueryInterface(*iid, &itf), E_NOINTERFACE);
        EXPECT_EQ(itf, nullptr);
    }
}

TEST_F(DepFileContract, ErrorInfoOnlyForTheMainInterface) {
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    com_ptr<ISupportErrorInfo> support = file.query<ISupportErrorInfo>(IID_ISupportErrorInfo);
    ASSERT_TRUE(support);
    const std::tuple<const char*, const IID*, HRESULT> table[] = {
        {"IDepFile", &IID_IDepFile, S_OK},
        {"IDepFileTarn", &IID_IDepFileTarn, S_FALSE},
        {"IDepFileInfo", &IID_IDepFileInfo, S_FALSE},
        {"IDispatch", &IID_IDispatch, S_FALSE},
        {"IUnknown", &IID_IUnknown, S_FALSE},
    };
    for (const auto& [name, iid, expected] : table)
        EXPECT_EQ(support->InterfaceSupportsErrorInfo(*iid), expected) << name;
}

// ---------------------------------------------------------------------------------------------------
// A new record

TEST_F(DepFileContract, NewRecordIsEmpty) {
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    com_ptr<IDepFileInfo> info = info_of(file);
    ASSERT_TRUE(info);

    BSTR name = reinterpret_cast<BSTR>(0x1);
    EXPECT_EQ(file->get_Name(&name), S_OK);
    EXPECT_EQ(name, nullptr) << "a new record has a null name";
    BSTR path = reinterpret_cast<BSTR>(0x1);
    EXPECT_EQ(file->get_Path(&path), S_OK);
    EXPECT_EQ(path, nullptr);

    long n = -7;
    EXPECT_EQ(file->get_Size(&n), S_OK);
    EXPECT_EQ(n, 0);
    n = -7;
    EXPECT_EQ(file->get_MajorVersion(&n), S_OK);
    EXPECT_EQ(n, 0);
    n = -7;
    EXPECT_EQ(file->get_MinorVersion(&n), S_OK);
    EXPECT_EQ(n, 0);
    DATE time = 1.5;
    EXPECT_EQ(file->get_ModifiedTime(&time), S_OK);
    EXPECT_EQ(time, 0.0);

    bstr dest;
    EXPECT_EQ(file->GetDestPath(dest.put()), S_OK);
    ASSERT_NE(dest.get(), nullptr) << "the destination is a text, empty but not null";
    EXPECT_EQ(dest.length(), 0u);

    using getter = HRESULT (*)(IDepFileTarn*, IDepFileInfo*, VARIANT_BOOL*);
    const std::pair<const char*, getter> flags[] = {
        {"Shared", [](IDepFileTarn* f, IDepFileInfo*, VARIANT_BOOL* v) { return f->get_Shared(v); }},
        {"SelfRegistering", [](IDepFileTarn* f, IDepFileInfo*, VARIANT_BOOL* v) { return f->get_SelfRegistering(v); }},
        {"DotNet", [](IDepFileTarn* f, IDepFileInfo*, VARIANT_BOOL* v) { return f->GetDotNet(v); }},
        {"Included", [](IDepFileTarn*, IDepFileInfo* i, VARIANT_BOOL* v) { return i->get_Included(v); }},
        {"IsMergeModule", [](IDepFileTarn*, IDepFileInfo* i, VARIANT_BOOL* v) { return i->get_IsMergeModule(v); }},
        {"IsDriver", [](IDepFileTarn*, IDepFileInfo* i, VARIANT_BOOL* v) { return i->get_IsDriver(v); }},
        {"IsFilterable", [](IDepFileTarn*, IDepFileInfo* i, VARIANT_BOOL* v) { return i->get_IsFilterable(v); }},
        {"IsMissing", [](IDepFileTarn*, IDepFileInfo* i, VARIANT_BOOL* v) { return i->get_IsMissing(v); }},
    };
    for (const auto& [what, get] : flags) {
        VARIANT_BOOL v = 5;
        EXPECT_EQ(get(file.get(), info.get(), &v), S_OK) << what;
        EXPECT_EQ(v, VARIANT_FALSE) << what;
    }

    com_ptr<ILanguages> languages;
    ASSERT_EQ(file->get_Languages(languages.put()), S_OK);
    ASSERT_TRUE(languages);
    long count = -1;
    EXPECT_EQ(languages->get_Count(&count), S_OK);
    EXPECT_EQ(count, 0);
}

TEST_F(DepFileContract, LanguagesIsOneCollectionOfTheRecord) {
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    com_ptr<ILanguages> first, second;
    ASSERT_EQ(file->get_Languages(first.put()), S_OK);
    ASSERT_EQ(file->get_Languages(second.put()), S_OK);
    EXPECT_EQ(identity(first.get()).get(), identity(second.get()).get());
    file.reset();
    // The client's reference keeps the collection alive after the record has gone.
    long count = -1;
    EXPECT_EQ(first->get_Count(&count), S_OK);
    EXPECT_EQ(count, 0);
}

TEST_F(DepFileContract, NullOutPointers) {
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    com_ptr<IDepFileInfo> info = info_of(file);
    ASSERT_TRUE(info);
    IDepFileTarn* f = file.get();
    IDepFileInfo* i = info.get();
    const std::tuple<const char*, HRESULT, HRESULT> table[] = {
        {"Name", f->get_Name(nullptr), E_POINTER},
        {"Path", f->get_Path(nullptr), E_POINTER},
        {"Size", f->get_Size(nullptr), E_POINTER},
        {"ModifiedTime", f->get_ModifiedTime(nullptr), E_POINTER},
        {"Shared", f->get_Shared(nullptr), E_POINTER},
        {"SelfRegistering", f->get_SelfRegistering(nullptr), E_POINTER},
        {"Languages", f->get_Languages(nullptr), E_POINTER},
        {"MajorVersion", f->get_MajorVersion(nullptr), E_POINTER},
        {"MinorVersion", f->get_MinorVersion(nullptr), E_POINTER},
        {"GetDestPath", f->GetDestPath(nullptr), E_INVALIDARG},
        {"GetDotNet", f->GetDotNet(nullptr), E_POINTER},
        {"Included", i->get_Included(nullptr), E_POINTER},
        {"IsMergeModule", i->get_IsMergeModule(nullptr), E_POINTER},
        {"IsDriver", i->get_IsDriver(nullptr), E_POINTER},
        {"IsFilterable", i->get_IsFilterable(nullptr), E_POINTER},
        {"IsMissing", i->get_IsMissing(nullptr), E_POINTER},
        // No assembly: nothing is written, so there is nothing to refuse.
        {"Assembly", i->get_Assembly(nullptr), S_OK},
    };
    for (const auto& [what, got, expected] : table)
        EXPECT_EQ(got, expected) << what;
    EXPECT_EQ(E_INVALIDARG, static_cast<HRESULT>(0x80070057));
}

TEST_F(DepFileContract, AssemblyGetterLeavesItsArgumentWithoutAnAssembly) {
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    com_ptr<IDepFileInfo> info = info_of(file);
    ASSERT_TRUE(info);
    IDotNetAssembly* assembly = reinterpret_cast<IDotNetAssembly*>(0x1234);
    EXPECT_EQ(info->get_Assembly(&assembly), S_OK);
    EXPECT_EQ(assembly, reinterpret_cast<IDotNetAssembly*>(0x1234));
}

// ---------------------------------------------------------------------------------------------------
// Setters

TEST_F(DepFileContract, ClientMarksTakeOnlyTheAutomationTrue) {
    using setter = HRESULT (STDMETHODCALLTYPE IDepFileInfo::*)(VARIANT_BOOL);
    using getter = HRESULT (STDMETHODCALLTYPE IDepFileInfo::*)(VARIANT_BOOL*);
    const std::tuple<const char*, setter, getter> fields[] = {
        {"Included", &IDepFileInfo::put_Included, &IDepFileInfo::get_Included},
        {"IsDriver", &IDepFileInfo::put_IsDriver, &IDepFileInfo::get_IsDriver},
        {"IsFilterable", &IDepFileInfo::put_IsFilterable, &IDepFileInfo::get_IsFilterable},
    };
    const std::pair<VARIANT_BOOL, VARIANT_BOOL> values[] = {
        {VARIANT_TRUE, VARIANT_TRUE}, {1, VARIANT_FALSE},
        {VARIANT_TRUE, VARIANT_TRUE}, {-2, VARIANT_FALSE},
        {VARIANT_TRUE, VARIANT_TRUE}, {0x7FFF, VARIANT_FALSE},
        {VARIANT_TRUE, VARIANT_TRUE}, {VARIANT_FALSE, VARIANT_FALSE},
    };
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    com_ptr<IDepFileInfo> info = info_of(file);
    ASSERT_TRUE(info);
    for (const auto& [name, put, get] : fields) {
        // Each value is set over the previous one, so that a value that "does not take" must clear.
        for (const auto& [in, out] : values) {
            EXPECT_EQ((info.get()->*put)(in), S_OK);
            VARIANT_BOOL got = 5;
            EXPECT_EQ((info.get()->*get)(&got), S_OK);
            EXPECT_EQ(got, out) << name << " set with " << in;
        }
    }
}

TEST_F(DepFileContract, PutSelfRegTakesAnyNonZeroAndReportsMinusOne) {
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    const std::pair<VARIANT_BOOL, VARIANT_BOOL> table[] = {
        {1, VARIANT_TRUE}, {0, VARIANT_FALSE}, {VARIANT_TRUE, VARIANT_TRUE}, {0, VARIANT_FALSE}, {0x7FFF, VARIANT_TRUE},
    };
    for (const auto& [in, out] : table) {
        EXPECT_EQ(file->PutSelfReg(in), S_OK);
        VARIANT_BOOL got = 5;
        EXPECT_EQ(file->get_SelfRegistering(&got), S_OK);
        EXPECT_EQ(got, out) << in;
    }
}

TEST_F(DepFileContract, PutDotNetOverridesTheAutomaticFlag) {
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    const std::pair<VARIANT_BOOL, VARIANT_BOOL> table[] = {
        {1, VARIANT_TRUE}, {0, VARIANT_FALSE}, {VARIANT_TRUE, VARIANT_TRUE}, {-2, VARIANT_TRUE}, {0, VARIANT_FALSE},
    };
    for (const auto& [in, out] : table) {
        EXPECT_EQ(file->PutDotNet(in), S_OK);
        VARIANT_BOOL got = 5;
        EXPECT_EQ(file->GetDotNet(&got), S_OK);
        EXPECT_EQ(got, out) << in;
    }
}

TEST_F(DepFileContract, DestPathStoresTextAndNullIsEmpty) {
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    const std::pair<const wchar_t*, std::wstring> table[] = {
        {L"[SystemFolder]", L"[SystemFolder]"},
        {nullptr, L""},
        {L"<WINDIR>\\fonts", L"<WINDIR>\\fonts"},
        {L"", L""},
    };
    for (const auto& [in, expected] : table) {
        bstr value(in);
        EXPECT_EQ(file->PutDestPath(value.get()), S_OK);
        bstr got;
        EXPECT_EQ(file->GetDestPath(got.put()), S_OK);
        ASSERT_NE(got.get(), nullptr);
        EXPECT_EQ(got.str(), expected);
    }
}

// Name and Path hand out and take byte-exact copies: an odd byte count and an embedded null survive.
TEST_F(DepFileContract, NameAndPathAreByteExactCopies) {
    using put_fn = HRESULT (STDMETHODCALLTYPE IDepFileTarn::*)(BSTR);
    using get_fn = HRESULT (STDMETHODCALLTYPE IDepFile::*)(BSTR*);
    const std::tuple<const char*, put_fn, get_fn> fields[] = {
        {"Name", &IDepFileTarn::PutName, &IDepFile::get_Name},
        {"Path", &IDepFileTarn::PutPath, &IDepFile::get_Path},
    };
    const char raw[] = {'a', 0, 'b', 0, 0, 0, 'c', 0, 'd'}; // "ab", a null, "c", then one odd byte
    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    for (const auto& [name, put, get] : fields) {
        SCOPED_TRACE(name);
        BSTR odd = SysAllocStringByteLen(raw, sizeof raw);
        ASSERT_NE(odd, nullptr);
        EXPECT_EQ((file.get()->*put)(odd), S_OK);
        SysFreeString(odd); // the record holds its own copy

        BSTR first = nullptr, second = nullptr;
        ASSERT_EQ((file.get()->*get)(&first), S_OK);
        ASSERT_EQ((file.get()->*get)(&second), S_OK);
        ASSERT_NE(first, nullptr);
        EXPECT_NE(first, second) << "each call hands out a fresh copy";
        EXPECT_EQ(SysStringByteLen(first), sizeof raw);
        EXPECT_EQ(std::memcmp(first, raw, sizeof raw), 0);
        SysFreeString(first);
        EXPECT_EQ(SysStringByteLen(second), sizeof raw);
        EXPECT_EQ(std::memcmp(second, raw, sizeof raw), 0);
        SysFreeString(second);

        EXPECT_EQ((file.get()->*put)(nullptr), S_OK);
        BSTR cleared = reinterpret_cast<BSTR>(0x1);
        EXPECT_EQ((file.get()->*get)(&cleared), S_OK);
        EXPECT_EQ(cleared, nullptr) << "null stays null";

        bstr empty(L"");
        EXPECT_EQ((file.get()->*put)(empty.get()), S_OK);
        bstr got;
        EXPECT_EQ((file.get()->*get)(got.put()), S_OK);
        EXPECT_NE(got.get(), nullptr) << "an empty text is not null";
        EXPECT_EQ(got.length(), 0u);
    }
    // The two fields are distinct.
    bstr name(L"x.dll"), path(L"C:\\dir");
    EXPECT_EQ(file->PutName(name.get()), S_OK);
    EXPECT_EQ(file->PutPath(path.get()), S_OK);
    bstr gotName, gotPath;
    EXPECT_EQ(file->get_Name(gotName.put()), S_OK);
    EXPECT_EQ(file->get_Path(gotPath.put()), S_OK);
    EXPECT_EQ(gotName.str(), L"x.dll");
    EXPECT_EQ(gotPath.str(), L"C:\\dir");
}

// ---------------------------------------------------------------------------------------------------
// Late binding: the dual interfaces through the type library, registered in a scratch HKEY_CLASSES_ROOT.

TEST_F(DepFileContract, NameIsTheDefaultValueThroughIDispatch) {
    registry_override classes(HKEY_CLASSES_ROOT);
    com_ptr<ITypeLib> lib;
    ASSERT_EQ(LoadTypeLibEx(dll.path().c_str(), REGKIND_NONE, lib.put()), S_OK);
    std::wstring path = dll.path();
    ASSERT_EQ(RegisterTypeLib(lib.get(), path.data(), nullptr), S_OK);

    com_ptr<IDepFileTarn> file = create();
    ASSERT_TRUE(file);
    bstr name(L"comctl32.ocx");
    ASSERT_EQ(file->PutName(name.get()), S_OK);
    ASSERT_EQ(file->PutSelfReg(VARIANT_TRUE), S_OK);

    com_ptr<IDispatch> dispatch = file.query<IDispatch>(IID_IDispatch);
    ASSERT_TRUE(dispatch);
    UINT count = 0;
    EXPECT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 1u);

    struct row {
        const wchar_t* member;
        DISPID id;
    };
    const row names[] = {{L"Name", DISPID_VALUE}, {L"SelfRegistering", 5}, {L"GetDotNet", 15}, {L"PutName", 11}};
    for (const row& r : names) {
        LPOLESTR text = const_cast<LPOLESTR>(r.member);
        DISPID id = 12345;
        EXPECT_EQ(dispatch->GetIDsOfNames(IID_NULL, &text, 1, LOCALE_USER_DEFAULT, &id), S_OK) << narrow(r.member);
        EXPECT_EQ(id, r.id) << narrow(r.member);
    }

    DISPPARAMS none = {};
    VARIANT result;
    VariantInit(&result);
    ASSERT_EQ(dispatch->Invoke(DISPID_VALUE, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &none, &result,
                               nullptr, nullptr),
              S_OK);
    EXPECT_EQ(result.vt, VT_BSTR);
    if (result.vt == VT_BSTR) {
        EXPECT_STREQ(result.bstrVal, L"comctl32.ocx");
    }
    VariantClear(&result);

    ASSERT_EQ(
        dispatch->Invoke(5, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &none, &result, nullptr, nullptr),
        S_OK);
    EXPECT_EQ(result.vt, VT_BOOL);
    EXPECT_EQ(result.boolVal, VARIANT_TRUE);
    VariantClear(&result);

    // A method of the later interface, late-bound: PutName with one argument.
    VARIANT argument;
    VariantInit(&argument);
    argument.vt = VT_BSTR;
    argument.bstrVal = SysAllocString(L"renamed.dll");
    DISPPARAMS one = {&argument, nullptr, 1, 0};
    EXPECT_EQ(dispatch->Invoke(11, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &one, nullptr, nullptr, nullptr),
              S_OK);
    VariantClear(&argument);
    bstr renamed;
    EXPECT_EQ(file->get_Name(renamed.put()), S_OK);
    EXPECT_EQ(renamed.str(), L"renamed.dll");
}

} // namespace
