// QvAppServices.dll as the library reaches it: by file name through CoCreateFromLibrary, from beside this
// program. The services object's folders (defaults and environment overrides), the settings document by
// selector 8, the strong-name export against tokens worked out on the build machine, and the result
// groups and their collection, read back. After every case no object of the companion is alive.
#include "companions.h"
#include "dotnet/sibling_module_cache.h"
#include "inc/com_ptr.h"
#include "test_support.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using qv::test::lower;
using qv::test::narrow;

constexpr wchar_t kCompanion[] = L"QvAppServices.dll";

const wchar_t* const kKnobs[] = {L"QV_SUPPORT_DIR", L"QV_PROGRAMS_DIR", L"QV_SETTINGS_PATH", L"QV_STRONGNAME_LIBRARY"};

HRESULT CompanionCanUnloadNow() {
    HMODULE module = CSiblingModuleCache::Instance().Loaded(kCompanion);
    if (!module)
        return S_OK; // never loaded: nothing of it can be alive
    auto canUnload = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
        reinterpret_cast<void (*)()>(GetProcAddress(module, "DllCanUnloadNow")));
    return canUnload ? canUnload() : E_NOTIMPL;
}

// Every case: an apartment, none of the companion's variables set, and no object left at the end.
class AppServices : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(CompanionCanUnloadNow(), S_OK) << "an object of the companion is alive"; }

    template <class T> qv::com_ptr<T> Create(REFCLSID clsid, REFIID iid) {
        qv::com_ptr<T> object;
        HRESULT hr = CoCreateFromLibrary(kCompanion, clsid, iid, object.put());
        EXPECT_EQ(hr, S_OK);
        return object;
    }
    qv::com_ptr<IQvAppServices> Services() { return Create<IQvAppServices>(CLSID_QvAppServices, IID_IQvAppServices); }

    static std::wstring Here() { return qv::test::module_dir(); }

    qv::test::com_apartment m_apartment;
    qv::test::env_scope m_support{kKnobs[0], nullptr};
    qv::test::env_scope m_programs{kKnobs[1], nullptr};
    qv::test::env_scope m_settings{kKnobs[2], nullptr};
    qv::test::env_scope m_strongName{kKnobs[3], nullptr};
};

// ---- The services object -------------------------------------------------------------------------------

// One knob: its variable, how the answer is read, and the answer with the variable unset.
struct knob {
    const wchar_t* variable;
    const char* what;
    HRESULT (*read)(IQvAppServices*, BSTR*);
    std::wstring (*fallback)();
};

const knob kKnobTable[] = {
    {L"QV_SUPPORT_DIR", "support folder", [](IQvAppServices* s, BSTR* b) { return s->GetSupportFolder(b); },
     [] { return qv::test::module_dir() + L"\\Support"; }},
    {L"QV_PROGRAMS_DIR", "programs folder", [](IQvAppServices* s, BSTR* b) { return s->GetProgramsFolder(b); },
     [] { return qv::test::module_dir(); }},
    {L"QV_SETTINGS_PATH", "settings document", [](IQvAppServices* s, BSTR* b) { return s->GetPath(8, b); },
     [] { return qv::test::module_dir() + L"\\QvSettings.xml"; }},
    {L"QV_STRONGNAME_LIBRARY", "strong-name library",
     [](IQvAppServices* s, BSTR* b) {
         qv::com_ptr<IQvStrongNameServices> strong;
         HRESULT hr = s->QueryInterface(IID_IQvStrongNameServices, strong.put_void());
         return FAILED(hr) ? hr : strong->GetStrongNameLibrary(b);
     },
     [] { return qv::test::module_dir() + L"\\QvAppServices.dll"; }},
};

std::wstring Read(const knob& k, IQvAppServices* services) {
    qv::bstr answer;
    EXPECT_EQ(k.read(services, answer.put()), S_OK) << k.what;
    return answer.str();
}

TEST_F(AppServices, DefaultsLieBesideTheLibrary) {
    auto services = Services();
    ASSERT_TRUE(services);
    for (const knob& k : kKnobTable)
        EXPECT_EQ(lower(Read(k, services.get())), lower(k.fallback())) << k.what;
    // The build puts the default support folder's data there.
    EXPECT_NE(GetFileAttributesW((Here() + L"\\Support\\filters.xml").c_str()), INVALID_FILE_ATTRIBUTES);
}

// Each variable overrides its answer alone, as it is set, read anew at every call; an empty one does not count.
TEST_F(AppServices, EnvironmentOverridesEachAnswer) {
    auto services = Services();
    ASSERT_TRUE(services);
    const std::wstring values[] = {L"D:\\Tool Data\\Here", L"relative\\left as it is", L"C:\\trailing\\"};
    for (const knob& k : kKnobTable) {
        SCOPED_TRACE(k.what);
        for (const std::wstring& value : values) {
            qv::test::env_scope set(k.variable, value.c_str());
            EXPECT_EQ(Read(k, services.get()), value);
            for (const knob& other : kKnobTable) {
                if (&other == &k)
                    continue;
                EXPECT_EQ(lower(Read(other, services.get())), lower(other.fallback())) << other.what;
            }
        }
        qv::test::env_scope empty(k.variable, L"");
        EXPECT_EQ(lower(Read(k, services.get())), lower(k.fallback()));
    }
}

TEST_F(AppServices, SelectorEightIsTheSettingsDocumentAndNothingElseAnswers) {
    auto services = Services();
    ASSERT_TRUE(services);
    for (long selector : {-1L, 0L, 1L, 2L, 7L, 9L, 16L, 0x7FFFFFFFL, static_cast<long>(0x80000000UL)}) {
        qv::bstr untouched(L"untouched");
        BSTR answer = untouched.get();
        EXPECT_EQ(services->GetPath(selector, &answer), E_INVALIDARG) << selector;
        EXPECT_EQ(answer, nullptr) << selector;
    }
    qv::bstr settings;
    EXPECT_EQ(services->GetPath(QvAppPathSettingsDocument, settings.put()), S_OK);
    EXPECT_EQ(lower(settings.str()), lower(Here() + L"\\QvSettings.xml"));
}

TEST_F(AppServices, NullOutPointersAreRefused) {
    auto services = Services();
    ASSERT_TRUE(services);
    EXPECT_EQ(services->GetSupportFolder(nullptr), E_POINTER);
    EXPECT_EQ(services->GetProgramsFolder(nullptr), E_POINTER);
    EXPECT_EQ(services->GetPath(8, nullptr), E_POINTER);
    EXPECT_EQ(services->GetPath(3, nullptr), E_POINTER);
    qv::com_ptr<IQvStrongNameServices> strong;
    ASSERT_EQ(services->QueryInterface(IID_IQvStrongNameServices, strong.put_void()), S_OK);
    EXPECT_EQ(strong->GetStrongNameLibrary(nullptr), E_POINTER);
}

TEST_F(AppServices, OneObjectTwoInterfaces) {
    auto services = Services();
    ASSERT_TRUE(services);
    auto strong = Create<IQvStrongNameServices>(CLSID_QvAppServices, IID_IQvStrongNameServices);
    ASSERT_TRUE(strong);
    qv::com_ptr<IQvStrongNameServices> viaQuery;
    ASSERT_EQ(services->QueryInterface(IID_IQvStrongNameServices, viaQuery.put_void()), S_OK);
    qv::com_ptr<IQvAppServices> back;
    ASSERT_EQ(viaQuery->QueryInterface(IID_IQvAppServices, back.put_void()), S_OK);
    EXPECT_EQ(back.get(), services.get());
    qv::com_ptr<IUnknown> a, b;
    services->QueryInterface(IID_IUnknown, a.put_void());
    viaQuery->QueryInterface(IID_IUnknown, b.put_void());
    EXPECT_EQ(a.get(), b.get());
    qv::com_ptr<IUnknown> none;
    EXPECT_EQ(services->QueryInterface(IID_IDispatch, none.put_void()), E_NOINTERFACE);
    EXPECT_FALSE(none);
    EXPECT_EQ(services->QueryInterface(IID_IQvDepFileGroup, none.put_void()), E_NOINTERFACE);
}

// ---- The class objects ---------------------------------------------------------------------------------

TEST_F(AppServices, ClassObjects) {
    HMODULE module = nullptr;
    {
        auto services = Services(); // loads the companion
        module = CSiblingModuleCache::Instance().Loaded(kCompanion);
    }
    ASSERT_TRUE(module);
    auto getClassObject = reinterpret_cast<HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**)>(
        reinterpret_cast<void (*)()>(GetProcAddress(module, "DllGetClassObject")));
    ASSERT_TRUE(getClassObject);

    const CLSID unknownClass = {0x5B0C3E4A, 0x7A43, 0x4C55, {0x9E, 0x1B, 0x2F, 0x3D, 0x6A, 0x0B, 0x9C, 0x11}};
    qv::com_ptr<IClassFactory> factory;
    EXPECT_EQ(getClassObject(unknownClass, IID_IClassFactory, factory.put_void()), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_FALSE(factory);

    struct row {
        const char* name;
        const CLSID* clsid;
        const IID* iid;
    };
    const row rows[] = {{"services", &CLSID_QvAppServices, &IID_IQvAppServices},
                        {"group", &CLSID_QvDepFileGroup, &IID_IQvDepFileGroup},
                        {"groups", &CLSID_QvDepFileGroups, &IID_IQvDepFileGroups}};
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_EQ(getClassObject(*r.clsid, IID_IClassFactory, factory.put_void()), S_OK);
        // A factory held keeps the library; so does LockServer, until it is undone.
        EXPECT_EQ(CompanionCanUnloadNow(), S_FALSE);
        qv::com_ptr<IUnknown> object;
        qv::com_ptr<IUnknown> outer;
        factory->QueryInterface(IID_IUnknown, outer.put_void());
        EXPECT_EQ(factory->CreateInstance(outer.get(), IID_IUnknown, object.put_void()), CLASS_E_NOAGGREGATION);
        EXPECT_EQ(factory->CreateInstance(nullptr, IID_IDispatch, object.put_void()), E_NOINTERFACE);
        EXPECT_EQ(factory->CreateInstance(nullptr, *r.iid, object.put_void()), S_OK);
        EXPECT_TRUE(object);
        object.reset();
        outer.reset();
        EXPECT_EQ(factory->LockServer(TRUE), S_OK);
        factory.reset();
        EXPECT_EQ(CompanionCanUnloadNow(), S_FALSE);
        // The lock is on the module, not on a factory: another factory can undo it.
        ASSERT_EQ(getClassObject(*r.clsid, IID_IClassFactory, factory.put_void()), S_OK);
        EXPECT_EQ(factory->LockServer(FALSE), S_OK);
        factory.reset();
        EXPECT_EQ(CompanionCanUnloadNow(), S_OK);
    }
}

// ---- The strong-name export ----------------------------------------------------------------------------

using token_fn = BOOLEAN(__stdcall*)(BYTE*, ULONG, BYTE**, ULONG*);
using free_fn = VOID(__stdcall*)(BYTE*);
using error_fn = HRESULT(__stdcall*)();

// The library GetStrongNameLibrary names, loaded for the scope, with its three exports.
class strong_name_library {
public:
    explicit strong_name_library(const std::wstring& path) : m_module(LoadLibraryW(path.c_str())) {
        if (m_module) {
            token = reinterpret_cast<token_fn>(
                reinterpret_cast<void (*)()>(GetProcAddress(m_module, "StrongNameTokenFromPublicKey")));
            free = reinterpret_cast<free_fn>(
                reinterpret_cast<void (*)()>(GetProcAddress(m_module, "StrongNameFreeBuffer")));
            error = reinterpret_cast<error_fn>(
                reinterpret_cast<void (*)()>(GetProcAddress(m_module, "StrongNameErrorInfo")));
        }
    }
    ~strong_name_library() {
        if (m_module)
            FreeLibrary(m_module);
    }
    strong_name_library(const strong_name_library&) = delete;
    strong_name_library& operator=(const strong_name_library&) = delete;

    // The token as lower-case hex, or "FALSE <error>" when the export says no.
    std::string operator()(std::vector<std::uint8_t> blob) const {
        BYTE* out = reinterpret_cast<BYTE*>(1);
        ULONG size = 99;
        if (!token(blob.data(), static_cast<ULONG>(blob.size()), &out, &size)) {
            char text[32];
            snprintf(text, sizeof text, "FALSE %08lX", static_cast<unsigned long>(error()));
            return text + std::string(out == nullptr && size == 0 ? "" : " (outputs not cleared)");
        }
        std::string hex;
        for (ULONG i = 0; i < size; ++i) {
            char byte[3];
            snprintf(byte, sizeof byte, "%02x", out[i]);
            hex += byte;
        }
        free(out);
        return hex;
    }

    token_fn token = nullptr;
    free_fn free = nullptr;
    error_fn error = nullptr;

private:
    HMODULE m_module;
};

std::vector<std::uint8_t> FixtureKey() {
    const std::string bytes = qv::test::read_file(qv::test::fixture(L"appservices\\public_key.bin"));
    return std::vector<std::uint8_t>(bytes.begin(), bytes.end());
}

std::string FixtureToken() {
    std::string text = qv::test::read_file(qv::test::fixture(L"appservices\\public_key.token"));
    return text.substr(0, text.find_first_of("\r\n"));
}

std::wstring StrongNameLibraryPath(IQvAppServices* services) {
    qv::com_ptr<IQvStrongNameServices> strong;
    EXPECT_EQ(services->QueryInterface(IID_IQvStrongNameServices, strong.put_void()), S_OK);
    qv::bstr path;
    if (strong) {
        EXPECT_EQ(strong->GetStrongNameLibrary(path.put()), S_OK);
    }
    return path.str();
}

TEST_F(AppServices, StrongNameTokensMatchTheBuildMachinesSha1) {
    auto services = Services();
    ASSERT_TRUE(services);
    strong_name_library sn(StrongNameLibraryPath(services.get()));
    ASSERT_TRUE(sn.token && sn.free && sn.error);

    const std::vector<std::uint8_t> key = FixtureKey();
    ASSERT_EQ(key.size(), 160u);
    ASSERT_EQ(FixtureToken().size(), 16u);
    EXPECT_EQ(sn(key), FixtureToken());
    // The standard public key of the common language infrastructure, whose token is published with it.
    EXPECT_EQ(sn({0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0}), "b77a5c561934e089");

    // The whole blob is hashed: a change in the header or in the key gives another token.
    for (size_t at : {size_t{0}, size_t{4}, size_t{12}, size_t{80}, key.size() - 1}) {
        std::vector<std::uint8_t> changed = key;
        changed[at] ^= 0x01;
        const std::string token = sn(changed);
        EXPECT_EQ(token.size(), 16u) << at;
        EXPECT_NE(token, FixtureToken()) << at;
    }
}

TEST_F(AppServices, StrongNameRefusesWhatIsNoKeyBlob) {
    auto services = Services();
    ASSERT_TRUE(services);
    strong_name_library sn(StrongNameLibraryPath(services.get()));
    ASSERT_TRUE(sn.token);
    const std::vector<std::uint8_t> key = FixtureKey();
    ASSERT_EQ(key.size(), 160u);

    // Every shorter prefix, the empty one at a real address included: the length field no longer matches
    // what follows.
    std::vector<std::uint8_t> copy = key;
    BYTE* out = nullptr;
    ULONG size = 0;
    EXPECT_FALSE(sn.token(copy.data(), 0, &out, &size));
    EXPECT_EQ(sn.error(), static_cast<HRESULT>(0x8013141E));
    for (size_t n = 1; n < key.size(); ++n)
        EXPECT_EQ(sn(std::vector<std::uint8_t>(key.begin(), key.begin() + n)), "FALSE 8013141E") << n;
    // One byte more than the length field says, and a length field off by one either way.
    std::vector<std::uint8_t> longer = key;
    longer.push_back(0);
    EXPECT_EQ(sn(longer), "FALSE 8013141E");
    for (int delta : {-1, 1}) {
        std::vector<std::uint8_t> wrong = key;
        wrong[8] = static_cast<std::uint8_t>(wrong[8] + delta);
        EXPECT_EQ(sn(wrong), "FALSE 8013141E") << delta;
    }

    EXPECT_FALSE(sn.token(nullptr, 16, &out, &size));
    EXPECT_EQ(sn.error(), E_POINTER);
    EXPECT_FALSE(sn.token(copy.data(), static_cast<ULONG>(copy.size()), nullptr, &size));
    EXPECT_FALSE(sn.token(copy.data(), static_cast<ULONG>(copy.size()), &out, nullptr));
    EXPECT_EQ(out, nullptr);
    // And a good call afterwards leaves no error behind.
    EXPECT_EQ(sn(key), FixtureToken());
    EXPECT_EQ(sn.error(), S_OK);
}

// ---- Result groups -------------------------------------------------------------------------------------

// A files collection that only counts references: the group must hold it, hand it back and release it,
// and call nothing else.
class fake_files : public IDepFiles {
public:
    LONG refs = 1;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || IsEqualIID(iid, IID_IDepFiles)) {
            *ppv = static_cast<IDepFiles*>(this);
            AddRef();
            return S_OK;
        }
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++refs); }
    ULONG STDMETHODCALLTYPE Release() override {
        if (refs <= 1)
            ADD_FAILURE() << "the files were released more often than referenced";
        return static_cast<ULONG>(--refs);
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return Unexpected("GetTypeInfoCount"); }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return Unexpected("GetTypeInfo"); }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
        return Unexpected("GetIDsOfNames");
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
        return Unexpected("Invoke");
    }
    HRESULT STDMETHODCALLTYPE get_Item(VARIANT, IDepFile**) override { return Unexpected("Item"); }
    HRESULT STDMETHODCALLTYPE get_Count(long*) override { return Unexpected("Count"); }
    HRESULT STDMETHODCALLTYPE get__NewEnum(IUnknown**) override { return Unexpected("_NewEnum"); }

private:
    static HRESULT Unexpected(const char* method) {
        ADD_FAILURE() << "unexpected call of IDepFiles::" << method;
        return E_NOTIMPL;
    }
};

std::wstring Name(IQvDepFileGroup* group) {
    qv::bstr name;
    EXPECT_EQ(group->get_Name(name.put()), S_OK);
    EXPECT_NE(name.get(), nullptr); // an empty name is an empty text, not a null one
    return name.str();
}

IDepFiles* Files(IQvDepFileGroup* group) {
    qv::com_ptr<IDepFiles> files;
    EXPECT_EQ(group->get_Files(files.put()), S_OK);
    return files.get(); // compared only; the reference went with the com_ptr
}

TEST_F(AppServices, GroupInitAndReadBack) {
    fake_files first, second;
    {
        auto group = Create<IQvDepFileGroup>(CLSID_QvDepFileGroup, IID_IQvDepFileGroup);
        ASSERT_TRUE(group);
        EXPECT_EQ(Name(group.get()), L"");
        EXPECT_EQ(Files(group.get()), nullptr);

        EXPECT_EQ(group->Init(&first, qv::bstr(L"C:\\app\\Project1.vbp").get()), S_OK);
        EXPECT_EQ(first.refs, 2);
        EXPECT_EQ(Name(group.get()), L"C:\\app\\Project1.vbp");
        EXPECT_EQ(Files(group.get()), &first);
        EXPECT_EQ(first.refs, 2); // the read-back reference is gone again

        // A second Init replaces both and lets the first files go; a null name is the empty one.
        EXPECT_EQ(group->Init(&second, nullptr), S_OK);
        EXPECT_EQ(first.refs, 1);
        EXPECT_EQ(second.refs, 2);
        EXPECT_EQ(Name(group.get()), L"");
        EXPECT_EQ(Files(group.get()), &second);

        // Null files are refused and change nothing.
        EXPECT_EQ(group->Init(nullptr, qv::bstr(L"other").get()), E_POINTER);
        EXPECT_EQ(Name(group.get()), L"");
        EXPECT_EQ(Files(group.get()), &second);

        EXPECT_EQ(group->get_Name(nullptr), E_POINTER);
        EXPECT_EQ(group->get_Files(nullptr), E_POINTER);
        for (HRESULT hr : {group->Reserved3(), group->Reserved4(), group->Reserved5(), group->Reserved6()})
            EXPECT_EQ(hr, E_NOTIMPL);
    }
    EXPECT_EQ(second.refs, 1); // the group's release lets its files go
}

// The caller's name stays the caller's: Init copies it.
TEST_F(AppServices, GroupCopiesTheName) {
    fake_files files;
    auto group = Create<IQvDepFileGroup>(CLSID_QvDepFileGroup, IID_IQvDepFileGroup);
    ASSERT_TRUE(group);
    {
        qv::bstr name(L"first.exe");
        ASSERT_EQ(group->Init(&files, name.get()), S_OK);
        name.get()[0] = L'F';
        EXPECT_EQ(Name(group.get()), L"first.exe");
        // An embedded null character is part of a BSTR's text.
        qv::bstr withNull(std::wstring(L"a\0b", 3));
        ASSERT_EQ(group->Init(&files, withNull.get()), S_OK);
    }
    EXPECT_EQ(Name(group.get()), std::wstring(L"a\0b", 3));
    group.reset();
    EXPECT_EQ(files.refs, 1);
}

// The server calls Init by its slot: the seventh method after IUnknown's, whatever a header calls it.
TEST_F(AppServices, GroupInitSitsInTheSlotTheServerCalls) {
    fake_files files;
    auto group = Create<IQvDepFileGroup>(CLSID_QvDepFileGroup, IID_IQvDepFileGroup);
    ASSERT_TRUE(group);
    using init_fn = HRESULT(STDMETHODCALLTYPE*)(IUnknown*, IDepFiles*, BSTR);
    void** vtable = *reinterpret_cast<void***>(group.get());
    auto init = reinterpret_cast<init_fn>(vtable[3 + 6]);
    EXPECT_EQ(init(group.get(), &files, qv::bstr(L"by slot").get()), S_OK);
    EXPECT_EQ(Name(group.get()), L"by slot");
    group.reset();
    EXPECT_EQ(files.refs, 1);
}

TEST_F(AppServices, CollectionAddAndReadBack) {
    fake_files files;
    auto groups = Create<IQvDepFileGroups>(CLSID_QvDepFileGroups, IID_IQvDepFileGroups);
    ASSERT_TRUE(groups);
    long count = -1;
    EXPECT_EQ(groups->get_Count(&count), S_OK);
    EXPECT_EQ(count, 0);

    auto a = Create<IQvDepFileGroup>(CLSID_QvDepFileGroup, IID_IQvDepFileGroup);
    auto b = Create<IQvDepFileGroup>(CLSID_QvDepFileGroup, IID_IQvDepFileGroup);
    ASSERT_TRUE(a && b);
    ASSERT_EQ(a->Init(&files, qv::bstr(L"a.exe").get()), S_OK);
    ASSERT_EQ(b->Init(&files, qv::bstr(L"b.dll").get()), S_OK);

    EXPECT_EQ(groups->Add(a.get()), S_OK);
    EXPECT_EQ(groups->Add(b.get()), S_OK);
    EXPECT_EQ(groups->Add(a.get()), S_OK); // the same group again is another entry
    EXPECT_EQ(groups->Add(nullptr), E_POINTER);
    EXPECT_EQ(groups->get_Count(&count), S_OK);
    EXPECT_EQ(count, 3);

    const IQvDepFileGroup* expected[] = {a.get(), b.get(), a.get()};
    for (long i = 1; i <= 3; ++i) {
        qv::com_ptr<IQvDepFileGroup> item;
        EXPECT_EQ(groups->get_Item(i, item.put()), S_OK) << i;
        EXPECT_EQ(item.get(), expected[i - 1]) << i;
    }
    for (long bad : {0L, 4L, -1L, static_cast<long>(0x80000000UL)}) {
        IQvDepFileGroup* item = reinterpret_cast<IQvDepFileGroup*>(1);
        EXPECT_EQ(groups->get_Item(bad, &item), E_INVALIDARG) << bad;
        EXPECT_EQ(item, nullptr) << bad;
    }
    EXPECT_EQ(groups->get_Item(1, nullptr), E_POINTER);
    EXPECT_EQ(groups->get_Count(nullptr), E_POINTER);
    EXPECT_EQ(groups->Reserved3(), E_NOTIMPL);

    // The collection holds its groups: with the test's references gone they still read back.
    a.reset();
    b.reset();
    qv::com_ptr<IQvDepFileGroup> second;
    ASSERT_EQ(groups->get_Item(2, second.put()), S_OK);
    EXPECT_EQ(Name(second.get()), L"b.dll");
    EXPECT_EQ(Files(second.get()), &files);
    second.reset();
    EXPECT_EQ(CompanionCanUnloadNow(), S_FALSE);
    groups.reset();
    EXPECT_EQ(files.refs, 1);
}

// The server calls Add by its slot: the fourth method after IUnknown's.
TEST_F(AppServices, CollectionAddSitsInTheSlotTheServerCalls) {
    fake_files files;
    auto groups = Create<IQvDepFileGroups>(CLSID_QvDepFileGroups, IID_IQvDepFileGroups);
    auto group = Create<IQvDepFileGroup>(CLSID_QvDepFileGroup, IID_IQvDepFileGroup);
    ASSERT_TRUE(groups && group);
    ASSERT_EQ(group->Init(&files, qv::bstr(L"x").get()), S_OK);
    using add_fn = HRESULT(STDMETHODCALLTYPE*)(IUnknown*, IUnknown*);
    void** vtable = *reinterpret_cast<void***>(groups.get());
    auto add = reinterpret_cast<add_fn>(vtable[3 + 3]);
    EXPECT_EQ(add(groups.get(), group.get()), S_OK);
    long count = 0;
    EXPECT_EQ(groups->get_Count(&count), S_OK);
    EXPECT_EQ(count, 1);
}

} // namespace
