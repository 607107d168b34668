// The server as clients meet it, through its interfaces: collections, aggregation, late binding, class table, setup
// export. main() sets the Path of this program's static scans: lib ; (empty) ; path64 ; path32 ; system ; windows.
#include "server_support.h"
#include "toolkit/process_launcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace qv::test;
using qv::com_ptr;

namespace {

class Server : public scan_client {};

TEST_F(Server, CollectionsByNumberNameAndEnumerator) {
    run(walk(L"lib\\upper.exe"));
    com_ptr<IDepFiles> files = dependencies();
    com_ptr<IDepFile> byName, byNumber;
    qv::bstr path(walk(L"LIB\\Gamma.DLL")); // found files stand under their path, in any case
    VARIANT key;
    V_VT(&key) = VT_BSTR;
    V_BSTR(&key) = path.get();
    EXPECT_EQ(files->get_Item(key, byName.put()), S_OK);
    EXPECT_EQ(files->get_Item(index_of(1), byNumber.put()), S_OK);
    ASSERT_TRUE(byName && byNumber);
    EXPECT_EQ(byName.get(), byNumber.get());
    for (long bad : {0L, 2L, -1L}) {
        com_ptr<IDepFile> none;
        EXPECT_TRUE(FAILED(files->get_Item(index_of(bad), none.put()))) << bad;
    }

    // A second scan makes a new collection; the first stays as it was. app32.exe takes the 32-bit shadow.dll
    // behind the 64-bit one earlier on the Path; only64.dll exists only for the other machine: missing.
    run(walk(L"app32\\app32.exe"));
    com_ptr<IDepFiles> second = dependencies();
    EXPECT_EQ(names(files.get()), (std::set<std::wstring>{L"gamma.dll"}));
    auto got = records(second.get());
    EXPECT_EQ(lower(got[L"shadow.dll"].path), lower(walk(L"path32")));
    EXPECT_EQ(got[L"only64.dll"].missing, VARIANT_TRUE);

    // The enumerator: Next what is left, Skip past the end, Reset, Clone at its own position.
    com_ptr<IUnknown> unk;
    ASSERT_EQ(second->get__NewEnum(unk.put()), S_OK);
    auto e = unk.query<IEnumVARIANT>(IID_IEnumVARIANT);
    ASSERT_TRUE(e);
    VARIANT items[3];
    ULONG fetched = 99;
    EXPECT_EQ(e->Next(3, items, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 2u);
    EXPECT_TRUE(V_VT(&items[0]) == VT_DISPATCH && V_VT(&items[1]) == VT_DISPATCH);
    VariantClear(&items[0]), VariantClear(&items[1]);
    EXPECT_EQ(e->Reset(), S_OK);
    EXPECT_EQ(e->Skip(1), S_FALSE); // items remain
    com_ptr<IEnumVARIANT> clone;
    ASSERT_EQ(e->Clone(clone.put()), S_OK);
    EXPECT_EQ(e->Skip(1), S_OK); // at the end now
    EXPECT_EQ(e->Next(1, items, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 0u);
    EXPECT_EQ(clone->Next(1, items, &fetched), S_OK);
    EXPECT_EQ(fetched, 1u);
    VariantClear(&items[0]);
}

TEST_F(Server, AggregationAndLateBinding) {
    struct outer_object : IUnknown {
        LONG refs = 1;
        IUnknown* inner = nullptr;
        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
            return IsEqualIID(iid, IID_IUnknown) ? (*ppv = this, AddRef(), S_OK) : inner->QueryInterface(iid, ppv);
        }
        ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
        ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    } outer;
    for (const CLSID* clsid : {&CLSID_StaticScan, &CLSID_ScanUtil}) {
        ASSERT_EQ(server().Create(*clsid, &outer, IID_IUnknown, reinterpret_cast<void**>(&outer.inner)), S_OK);
        com_ptr<IDispatch> through;
        com_ptr<IUnknown> back;
        ASSERT_EQ(outer.QueryInterface(IID_IDispatch, through.put_void()), S_OK);
        ASSERT_EQ(through->QueryInterface(IID_IUnknown, back.put_void()), S_OK);
        EXPECT_EQ(back.get(), static_cast<IUnknown*>(&outer)) << "the inner object's interfaces delegate";
        back.reset(), through.reset();
        EXPECT_EQ(outer.refs, 1);
        outer.inner->Release();
    }
    void* record = nullptr; // a record is never a part of another object
    EXPECT_EQ(server().Create(CLSID_DepFile, &outer, IID_IUnknown, &record), CLASS_E_NOAGGREGATION);

    // A script's view of the results: the type library registered in a scratch HKEY_CLASSES_ROOT only.
    registry_override classes(HKEY_CLASSES_ROOT);
    std::wstring path = module_dir() + L"\\QVWIScanners.dll";
    com_ptr<ITypeLib> lib;
    ASSERT_EQ(LoadTypeLibEx(path.c_str(), REGKIND_NONE, lib.put()), S_OK);
    ASSERT_EQ(RegisterTypeLib(lib.get(), path.data(), nullptr), S_OK);
    run(walk(L"lib\\upper.exe"));
    auto invoke = [](IDispatch* d, const wchar_t* name, VARIANT* arg) {
        LPOLESTR text = const_cast<LPOLESTR>(name);
        DISPID id = 0;
        EXPECT_EQ(d->GetIDsOfNames(IID_NULL, &text, 1, LOCALE_USER_DEFAULT, &id), S_OK) << narrow(name);
        DISPPARAMS params = {arg, nullptr, arg ? 1u : 0u, 0};
        VARIANT result;
        VariantInit(&result);
        HRESULT hr = d->Invoke(id, IID_NULL, 0, DISPATCH_PROPERTYGET | DISPATCH_METHOD, &params, &result, nullptr, nullptr);
        EXPECT_EQ(hr, S_OK) << narrow(name);
        return result;
    };
    auto files = dependencies().query<IDispatch>(IID_IDispatch);
    VARIANT count = invoke(files.get(), L"Count", nullptr);
    EXPECT_TRUE(V_VT(&count) == VT_I4 && V_I4(&count) == 1);
    VARIANT one = index_of(1);
    VARIANT item = invoke(files.get(), L"Item", &one);
    ASSERT_EQ(V_VT(&item), VT_DISPATCH);
    VARIANT name = invoke(V_DISPATCH(&item), L"Name", nullptr);
    EXPECT_EQ(lower(V_BSTR(&name)), L"gamma.dll");
    VariantClear(&name);
    VariantClear(&item);
}

// A script hands StaticScan.ScanFile a ScanEvents object through late binding (its own objects lack the events
// interface), then reads what the scan told it.
TEST_F(Server, AScriptsSinkMadeByTheServer) {
    com_ptr<IDispatch> events, scanner = scan.query<IDispatch>(IID_IDispatch);
    ASSERT_EQ(server().Create(CLSID_ScanEvents, nullptr, IID_IDispatch, events.put_void()), S_OK);
    registry_override classes(HKEY_CLASSES_ROOT);
    std::wstring path = module_dir() + L"\\QVWIScanners.dll";
    com_ptr<ITypeLib> lib;
    ASSERT_EQ(LoadTypeLibEx(path.c_str(), REGKIND_NONE, lib.put()), S_OK);
    ASSERT_EQ(RegisterTypeLib(lib.get(), path.data(), nullptr), S_OK);
    auto id_of = [](IDispatch* d, const wchar_t* name) {
        LPOLESTR text = const_cast<LPOLESTR>(name);
        DISPID id = 0;
        return SUCCEEDED(d->GetIDsOfNames(IID_NULL, &text, 1, LOCALE_USER_DEFAULT, &id)) ? id : DISPID_UNKNOWN;
    };
    auto get = [&](const wchar_t* name) {
        VARIANT result;
        VariantInit(&result);
        DISPPARAMS none = {};
        EXPECT_EQ(events->Invoke(id_of(events.get(), name), IID_NULL, 0, DISPATCH_PROPERTYGET, &none, &result,
                                 nullptr, nullptr), S_OK) << narrow(name);
        return result;
    };
    // ScanFile(file, events, filter, language, type), arguments in reverse order as Invoke takes them.
    VARIANT args[5];
    V_VT(&args[0]) = VT_I4, V_I4(&args[0]) = 0;
    V_VT(&args[1]) = VT_BSTR, V_BSTR(&args[1]) = SysAllocString(L"");
    V_VT(&args[2]) = VT_BOOL, V_BOOL(&args[2]) = VARIANT_FALSE;
    V_VT(&args[3]) = VT_DISPATCH, V_DISPATCH(&args[3]) = events.get();
    const std::wstring file = walk(L"lib\\upper.exe");
    V_VT(&args[4]) = VT_BSTR, V_BSTR(&args[4]) = SysAllocString(file.c_str());
    DISPPARAMS params = {args, nullptr, 5, 0};
    VARIANT completed;
    VariantInit(&completed);
    ASSERT_EQ(scanner->Invoke(id_of(scanner.get(), L"ScanFile"), IID_NULL, 0, DISPATCH_METHOD, &params, &completed,
                              nullptr, nullptr), S_OK);
    SysFreeString(V_BSTR(&args[1]));
    SysFreeString(V_BSTR(&args[4]));
    EXPECT_TRUE(V_VT(&completed) == VT_BOOL && V_BOOL(&completed) == VARIANT_TRUE);
    long count = 0;
    ASSERT_EQ(dependencies()->get_Count(&count), S_OK);
    EXPECT_GT(count, 0);
    VARIANT found = get(L"found");
    EXPECT_TRUE(V_VT(&found) == VT_I4 && V_I4(&found) >= count) << "each file the walk met was reported";
    VARIANT errors = get(L"Errors");
    ASSERT_EQ(V_VT(&errors), VT_BSTR);
    EXPECT_EQ(SysStringLen(V_BSTR(&errors)), 0u);
    VariantClear(&errors);
    // An error the scan tells is kept as a line; a name the object lacks is unknown.
    auto sink = events.query<IStaticScanEvents>(IID_IStaticScanEvents);
    EXPECT_EQ(sink->ErrorEncountered(qv::bstr(L"a.dep").get(), 0x8007000D, qv::bstr(L"bad data").get()), S_OK);
    errors = get(L"Errors");
    EXPECT_EQ(std::wstring(V_BSTR(&errors)), L"a.dep: 0x8007000D: bad data\n");
    VariantClear(&errors);
    EXPECT_EQ(id_of(events.get(), L"Dependencies"), DISPID_UNKNOWN);
}

TEST(ServerFrame, SetupExportWaitsForTheChildTheSetupProgramLeaves) {
    using launch_fn = int(__stdcall*)(const char*);
    auto launch = reinterpret_cast<launch_fn>(reinterpret_cast<void (*)()>(
        GetProcAddress(server().module(), "LaunchSetupExeAppAndWaitForChildProcesses")));
    ASSERT_TRUE(launch);
    // host.exe under a name of its own, apart from the dynamic scan's tests that may run meanwhile.
    temp_dir dir;
    const std::string spawn = narrow(dir.copy(fixture(L"trace\\host.exe"), L"setup_child.exe")) + " spawn";
    EXPECT_EQ(launch((spawn + " 0 1 " + spawn + " 700 7").c_str()), 0);
    for (const auto& [id, entry] : qv::detail::ReadProcessTree(false))
        EXPECT_NE(lower(entry.name), L"setup_child.exe") << "the child was waited for";
    EXPECT_EQ(launch(""), -1);
}

// Every class of the table is made by the tests of its own folder; one that is not in the table is not available.
TEST(ServerFrame, AClassOutsideTheTableIsNotAvailable) {
    com_apartment apartment;
    void* factory = reinterpret_cast<void*>(1);
    EXPECT_EQ(server().GetClassObject(IID_IUnknown, IID_IClassFactory, &factory), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(factory, nullptr);
}

} // namespace

const std::wstring& qv::test::path_tail_folder(int which) {
    static const temp_dir folders;
    static const std::wstring made[] = {folders.mkdir(L"first"), folders.mkdir(L"second")};
    return made[which];
}

int main(int argc, char** argv) {
    std::wstring path = walk(L"lib") + L";;" + walk(L"path64") + L";" + walk(L"path32") + L";" + system_dir() + L";" +
                        windows_dir() + L";" + path_tail_folder(0) + L";" + path_tail_folder(1);
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
