// The result collections from inside the library: CDepFiles, CDepFileBags and the languages collection
// (the collection templates), CDepFileBag, and the IEnumVARIANT over a collection. Items are fakes that
// count their references and fail on any call the collection has no business making. Late binding goes
// through the type library of QVWIScanners.dll, registered only in a scratch HKEY_CLASSES_ROOT.
#include "QVWIScanners.h"
#include "inc/com_collection.h"
#include "inc/com_module.h"
#include "inc/com_ptr.h"
#include "test_support.h"
#include "server/dep_files.h"
#include "server/languages.h"
#include "test_support.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace qv::test;
using qv::bstr;
using qv::com_ptr;

namespace {

// ---------------------------------------------------------------------------------------------------
// Fakes and helpers

// A VARIANT that clears itself.
struct variant : VARIANT {
    variant() { VariantInit(this); }
    ~variant() { VariantClear(this); }
    variant(const variant&) = delete;
    variant& operator=(const variant&) = delete;
};

// An item the collection holds. The test owns one reference for the fake's whole life (it lives on the
// stack); the count must be back to that one when the fake dies. Every call other than AddRef and
// Release is a failure unless the case allows it.
template <class I> class fake_item : public I {
public:
    fake_item(const IID& iid, std::string name, std::vector<std::string>* releases = nullptr)
        : m_iid(iid), m_name(std::move(name)), m_releases(releases) {}
    ~fake_item() { EXPECT_EQ(m_refs, 1) << m_name << ": a reference was kept or given back twice"; }
    fake_item(const fake_item&) = delete;
    fake_item& operator=(const fake_item&) = delete;

    // The client's own reference plus those the collection and its clients hold.
    LONG refs() const { return m_refs; }
    int add_refs() const { return m_addRefs; }
    int releases() const { return m_releases_count; }

    // Lets QueryInterface answer IUnknown, IDispatch and the item's interface.
    void allow_query() { m_allowQuery = true; }
    // Lets Invoke answer a get of the default member (DISPID_VALUE) with this text.
    void allow_default_value(const wchar_t* text) { m_defaultValue = text; }

    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        if (m_allowQuery &&
            (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || IsEqualIID(iid, m_iid))) {
            *ppv = static_cast<I*>(this);
            AddRef();
            return S_OK;
        }
        if (!m_allowQuery)
            ADD_FAILURE() << m_name << ": unexpected QueryInterface";
        return E_NOINTERFACE;
    }
    STDMETHOD_(ULONG, AddRef)() override {
        ++m_addRefs;
        return static_cast<ULONG>(++m_refs);
    }
    STDMETHOD_(ULONG, Release)() override {
        ++m_releases_count;
        if (m_releases)
            m_releases->push_back(m_name);
        if (m_refs <= 1) {
            ADD_FAILURE() << m_name << ": released more often than referenced";
            return 1;
        }
        return static_cast<ULONG>(--m_refs);
    }

    STDMETHOD(GetTypeInfoCount)(UINT*) override { return unexpected("GetTypeInfoCount"); }
    STDMETHOD(GetTypeInfo)(UINT, LCID, ITypeInfo**) override { return unexpected("GetTypeInfo"); }
    STDMETHOD(GetIDsOfNames)(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return unexpected("GetIDsOfNames"); }
    STDMETHOD(Invoke)
    (DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO*, UINT*) override {
        if (!m_defaultValue || id != DISPID_VALUE || !(flags & DISPATCH_PROPERTYGET) || !result ||
            (params && params->cArgs != 0))
            return unexpected("Invoke");
        V_VT(result) = VT_BSTR;
        V_BSTR(result) = SysAllocString(m_defaultValue);
        return S_OK;
    }

protected:
    HRESULT unexpected(const char* what) {
        ADD_FAILURE() << m_name << ": unexpected call of " << what;
        return E_NOTIMPL;
    }

private:
    IID m_iid;
    std::string m_name;
    std::vector<std::string>* m_releases;
    LONG m_refs = 1;
    int m_addRefs = 0;
    int m_releases_count = 0;
    bool m_allowQuery = false;
    const wchar_t* m_defaultValue = nullptr;
};

class fake_file : public fake_item<IDepFile> {
public:
    explicit fake_file(std::string name, std::vector<std::string>* releases = nullptr)
        : fake_item(IID_IDepFile, std::move(name), releases) {}
    STDMETHOD(get_Name)(BSTR*) override { return unexpected("get_Name"); }
    STDMETHOD(get_ModifiedTime)(DATE*) override { return unexpected("get_ModifiedTime"); }
    STDMETHOD(get_Size)(LONG*) override { return unexpected("get_Size"); }
    STDMETHOD(get_Path)(BSTR*) override { return unexpected("get_Path"); }
    STDMETHOD(get_Shared)(VARIANT_BOOL*) override { return unexpected("get_Shared"); }
    STDMETHOD(get_SelfRegistering)(VARIANT_BOOL*) override { return unexpected("get_SelfRegistering"); }
    STDMETHOD(get_Languages)(ILanguages**) override { return unexpected("get_Languages"); }
    STDMETHOD(get_MajorVersion)(LONG*) override { return unexpected("get_MajorVersion"); }
    STDMETHOD(get_MinorVersion)(LONG*) override { return unexpected("get_MinorVersion"); }
};

class fake_bag : public fake_item<IDepFileBag> {
public:
    explicit fake_bag(std::string name, std::vector<std::string>* releases = nullptr)
        : fake_item(IID_IDepFileBag, std::move(name), releases) {}
    STDMETHOD(get_TagName)(BSTR*) override { return unexpected("get_TagName"); }
    STDMETHOD(get_Files)(IDepFiles**) override { return unexpected("get_Files"); }
};

// A new object of the library, held by one reference.
template <class C> com_ptr<C> make() {
    qv::com_object<C>* p = nullptr;
    EXPECT_EQ(qv::com_object<C>::CreateInstance(&p), S_OK);
    return com_ptr<C>(p);
}

com_ptr<CDepFileBag> make_bag(std::wstring_view tag) {
    qv::com_object<CDepFileBag>* p = nullptr;
    EXPECT_EQ(qv::com_object<CDepFileBag>::CreateInstance(&p, tag), S_OK);
    return com_ptr<CDepFileBag>(p);
}

// The reference count of a COM object, read without changing it.
ULONG ref_count(IUnknown* p) {
    p->AddRef();
    return p->Release();
}

com_ptr<IUnknown> identity(IUnknown* p) {
    com_ptr<IUnknown> unk;
    EXPECT_EQ(p->QueryInterface(IID_IUnknown, unk.put_void()), S_OK);
    return unk;
}

com_ptr<IEnumVARIANT> new_enum(IDepFiles* files) {
    com_ptr<IUnknown> unk;
    EXPECT_EQ(files->get__NewEnum(unk.put()), S_OK);
    com_ptr<IEnumVARIANT> e = unk.query<IEnumVARIANT>(IID_IEnumVARIANT);
    EXPECT_TRUE(e);
    EXPECT_EQ(static_cast<IUnknown*>(e.get()), unk.get()) << "_NewEnum hands out the IEnumVARIANT itself";
    return e;
}

// Every case ends with no object of the library alive.
class Collections : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(qv::g_module.LockCount(), 0) << "an earlier case left an object alive"; }
    void TearDown() override { EXPECT_EQ(qv::g_module.LockCount(), 0) << "an object of the library is still alive"; }
    com_apartment apartment;
};

// A CDepFiles holding fakes under the given keys, in order.
struct files_fixture {
    explicit files_fixture(std::vector<std::wstring> keys, std::vector<std::string>* releases = nullptr) {
        collection = make<CDepFiles>();
        for (const auto& key : keys)
            items.push_back(std::make_unique<fake_file>(qv::test::narrow(key), releases));
        for (size_t i = 0; i < keys.size(); ++i)
            collection->Add(keys[i], items[i].get());
        itf = collection.query<IDepFiles>(IID_IDepFiles);
    }
    fake_file& operator[](size_t i) { return *items[i]; }
    // The collection goes before the items, whose destructors check their counts.
    ~files_fixture() {
        itf.reset();
        collection.reset();
    }

    std::vector<std::unique_ptr<fake_file>> items;
    com_ptr<CDepFiles> collection;
    com_ptr<IDepFiles> itf;
};

// The keys of a collection, in order.
template <class C> std::vector<std::wstring> keys_of(const C* c) {
    std::vector<std::wstring> keys;
    for (const auto& e : c->Items())
        keys.push_back(e.key);
    return keys;
}

// ---------------------------------------------------------------------------------------------------
// Item: numbers and names

// Entries: 1 "kernel32.dll", 2 "3", 3 "2", 4 "2147483648". A name that looks like a number tells a
// lookup by name from one by place.
struct index_case {
    const char* label;
    std::function<void(VARIANT& v, VARIANT& inner, VARIANT& inner2, LONG& number)> build;
    int expected; // one-based place of the entry found; 0 for a miss
};

const index_case index_cases[] = {
    {"I4 1 is the first", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_I4, V_I4(&v) = 1; }, 1},
    {"I4 4 is the last", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_I4, V_I4(&v) = 4; }, 4},
    {"I4 0 misses", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_I4, V_I4(&v) = 0; }, 0},
    {"I4 Count+1 misses", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_I4, V_I4(&v) = 5; }, 0},
    {"I4 -1 misses", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_I4, V_I4(&v) = -1; }, 0},
    {"I2 2 is the second", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_I2, V_I2(&v) = 2; }, 2},
    {"UI2 3 is the third", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_UI2, V_UI2(&v) = 3; }, 3},
    {"UI4 1 is the first", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_UI4, V_UI4(&v) = 1; }, 1},
    {"UI4 2^31 does not fit I4 and misses, though a name reads so",
     [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_UI4, V_UI4(&v) = 0x80000000u; }, 0},
    {"BYREF I4 2 is the second",
     [](auto& v, auto&, auto&, LONG& n) { n = 2, V_VT(&v) = VT_BYREF | VT_I4, V_I4REF(&v) = &n; }, 2},
    {"BSTR name in another case",
     [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_BSTR, V_BSTR(&v) = SysAllocString(L"KERNEL32.DLL"); }, 1},
    {"BSTR \"3\" is a name, not the third",
     [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_BSTR, V_BSTR(&v) = SysAllocString(L"3"); }, 2},
    {"BSTR unknown name misses",
     [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_BSTR, V_BSTR(&v) = SysAllocString(L"user32.dll"); }, 0},
    {"BSTR null reads as the empty name, absent here",
     [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_BSTR, V_BSTR(&v) = nullptr; }, 0},
    {"R8 2.0 is the name \"2\"", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_R8, V_R8(&v) = 2.0; }, 3},
    {"R8 3.0 is the name \"3\"", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_R8, V_R8(&v) = 3.0; }, 2},
    {"R8 1.0 misses: no name \"1\"", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_R8, V_R8(&v) = 1.0; }, 0},
    {"UI1 3 is the name \"3\"", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_UI1, V_UI1(&v) = 3; }, 2},
    {"I8 2 is the name \"2\"", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_I8, V_I8(&v) = 2; }, 3},
    {"I8 2^31 is a name", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_I8, V_I8(&v) = 0x80000000LL; }, 4},
    {"EMPTY misses", [](auto&, auto&, auto&, auto&) {}, 0},
    {"NULL misses", [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_NULL; }, 0},
    {"ERROR (a missing argument) misses",
     [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_ERROR, V_ERROR(&v) = DISP_E_PARAMNOTFOUND; }, 0},
    {"BYREF VARIANT to I4 1 is the first",
     [](auto& v, auto& in, auto&, auto&) {
         V_VT(&in) = VT_I4, V_I4(&in) = 1;
         V_VT(&v) = VT_BYREF | VT_VARIANT, V_VARIANTREF(&v) = &in;
     },
     1},
    {"BYREF VARIANT to BYREF VARIANT to a name",
     [](auto& v, auto& in, auto& in2, auto&) {
         V_VT(&in2) = VT_BSTR, V_BSTR(&in2) = SysAllocString(L"Kernel32.Dll");
         V_VT(&in) = VT_BYREF | VT_VARIANT, V_VARIANTREF(&in) = &in2;
         V_VT(&v) = VT_BYREF | VT_VARIANT, V_VARIANTREF(&v) = &in;
     },
     1},
    {"BYREF VARIANT to R8 2.0 is still a name",
     [](auto& v, auto& in, auto&, auto&) {
         V_VT(&in) = VT_R8, V_R8(&in) = 2.0;
         V_VT(&v) = VT_BYREF | VT_VARIANT, V_VARIANTREF(&v) = &in;
     },
     3},
    {"BYREF VARIANT to null misses",
     [](auto& v, auto&, auto&, auto&) { V_VT(&v) = VT_BYREF | VT_VARIANT, V_VARIANTREF(&v) = nullptr; }, 0},
    {"BYREF VARIANT loop misses",
     [](auto& v, auto& in, auto&, auto&) {
         V_VT(&in) = VT_BYREF | VT_VARIANT, V_VARIANTREF(&in) = &v;
         V_VT(&v) = VT_BYREF | VT_VARIANT, V_VARIANTREF(&v) = &in;
     },
     0},
};

TEST_F(Collections, ItemTakesAOneBasedNumberOrAName) {
    files_fixture f({L"kernel32.dll", L"3", L"2", L"2147483648"});
    for (const index_case& c : index_cases) {
        SCOPED_TRACE(c.label);
        VARIANT v, inner, inner2;
        VariantInit(&v);
        VariantInit(&inner);
        VariantInit(&inner2);
        LONG number = 0;
        c.build(v, inner, inner2, number);
        IDepFile* got = reinterpret_cast<IDepFile*>(0x1);
        HRESULT hr = f.itf->get_Item(v, &got);
        if (c.expected == 0) {
            EXPECT_EQ(hr, E_INVALIDARG);
            EXPECT_EQ(got, nullptr) << "a miss clears the output";
        } else {
            EXPECT_EQ(hr, S_OK);
            EXPECT_EQ(got, static_cast<IDepFile*>(&f[c.expected - 1]));
            if (got)
                got->Release();
        }
        // Only the outermost VARIANT owns what it holds; references point at the others.
        if (V_VT(&v) != (VT_BYREF | VT_VARIANT))
            VariantClear(&v);
        if (V_VT(&inner) != (VT_BYREF | VT_VARIANT))
            VariantClear(&inner);
        VariantClear(&inner2);
    }
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(f[i].refs(), 2) << "each Item reference was given back; the collection keeps one";
}

TEST_F(Collections, ItemOfAnObjectLooksUpItsDefaultValue) {
    files_fixture f({L"a.dll", L"b.dll"});
    fake_file index("index");
    index.allow_query();
    index.allow_default_value(L"B.DLL");
    variant v;
    V_VT(&v) = VT_DISPATCH;
    V_DISPATCH(&v) = &index;
    index.AddRef(); // owned by v
    com_ptr<IDepFile> got;
    EXPECT_EQ(f.itf->get_Item(v, got.put()), S_OK);
    EXPECT_EQ(got.get(), static_cast<IDepFile*>(&f[1]));
}

TEST_F(Collections, ItemAndCountRefuseANullOutput) {
    files_fixture f({L"a.dll"});
    variant one;
    V_VT(&one) = VT_I4;
    V_I4(&one) = 1;
    EXPECT_EQ(f.itf->get_Item(one, nullptr), E_POINTER);
    EXPECT_EQ(f.itf->get_Count(nullptr), E_POINTER);
    EXPECT_EQ(f.itf->get__NewEnum(nullptr), E_POINTER);
    EXPECT_EQ(f[0].refs(), 2);
}

TEST_F(Collections, EmptyKeyIsFoundByAnEmptyName) {
    fake_file a("a"), b("b");
    auto files = make<CDepFiles>();
    files->Add(static_cast<const wchar_t*>(nullptr), &a);
    files->Add(L"b.dll", &b);
    EXPECT_EQ(files->Find(L""), &a) << "a null key is the empty key";
    EXPECT_EQ(files->Find(static_cast<const wchar_t*>(nullptr)), &a);
    EXPECT_TRUE(files->Contains(static_cast<const wchar_t*>(nullptr)));
    EXPECT_EQ(keys_of(files.get()), (std::vector<std::wstring>{L"", L"b.dll"}));

    struct row {
        const char* label;
        VARTYPE vt;
    };
    for (const row& r : {row{"EMPTY converts to the empty text", VT_EMPTY}, row{"null BSTR", VT_BSTR}}) {
        SCOPED_TRACE(r.label);
        variant v;
        V_VT(&v) = r.vt;
        com_ptr<IDepFile> got;
        EXPECT_EQ(files->get_Item(v, got.put()), S_OK);
        EXPECT_EQ(got.get(), static_cast<IDepFile*>(&a));
    }
}

TEST_F(Collections, CountFollowsAddAndRemove) {
    files_fixture f({L"a", L"b", L"c"});
    long count = -1;
    EXPECT_EQ(f.itf->get_Count(&count), S_OK);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(f.collection->Remove(1), S_OK);
    EXPECT_EQ(f.itf->get_Count(&count), S_OK);
    EXPECT_EQ(count, 2);
    f.collection->Clear();
    EXPECT_EQ(f.itf->get_Count(&count), S_OK);
    EXPECT_EQ(count, 0);
}

// ---------------------------------------------------------------------------------------------------
// Add, Find, Contains

TEST_F(Collections, AddUnderAKeyInAnotherCaseReplacesInPlace) {
    std::vector<std::string> releases;
    fake_file first("first", &releases), second("second", &releases), other("other", &releases);
    auto files = make<CDepFiles>();
    files->Add(L"Kernel32.dll", &first);
    files->Add(L"other.dll", &other);
    files->Add(L"KERNEL32.DLL", &second);

    EXPECT_EQ(files->Size(), 2u);
    EXPECT_EQ(keys_of(files.get()), (std::vector<std::wstring>{L"Kernel32.dll", L"other.dll"}))
        << "the entry keeps its place and its first spelling";
    EXPECT_EQ(files->Find(L"kernel32.dll"), &second);
    EXPECT_EQ(releases, std::vector<std::string>{"first"}) << "the replaced item is released once";
    EXPECT_EQ(first.refs(), 1);
    EXPECT_EQ(second.refs(), 2);

    variant one;
    V_VT(&one) = VT_I4;
    V_I4(&one) = 1;
    com_ptr<IDepFile> got;
    EXPECT_EQ(files->get_Item(one, got.put()), S_OK);
    EXPECT_EQ(got.get(), static_cast<IDepFile*>(&second));
}

TEST_F(Collections, AddingTheSameItemAgainKeepsOneReference) {
    fake_file a("a");
    auto files = make<CDepFiles>();
    files->Add(L"a.dll", &a);
    files->Add(L"A.DLL", &a);
    files->Add(L"a.dll", files->Find(L"a.dll")); // the collection's reference may be the only one
    EXPECT_EQ(a.refs(), 2);
    EXPECT_EQ(files->Size(), 1u);
}

TEST_F(Collections, FindAndContainsIgnoreCaseAndGiveNoReference) {
    files_fixture f({L"kernel32.dll", L"user32.dll"});
    struct row {
        const wchar_t* key;
        int expected; // one-based, 0 absent
    };
    const row rows[] = {{L"kernel32.dll", 1}, {L"KERNEL32.DLL", 1}, {L"User32.Dll", 2},
                        {L"gdi32.dll", 0},    {L"kernel32", 0},     {L"", 0},
                        {nullptr, 0}};
    for (const row& r : rows) {
        SCOPED_TRACE(r.key ? narrow(r.key) : "null");
        IDepFile* found = f.collection->Find(r.key);
        EXPECT_EQ(found, r.expected ? static_cast<IDepFile*>(&f[r.expected - 1]) : nullptr);
        EXPECT_EQ(f.collection->Contains(r.key), r.expected != 0);
        EXPECT_EQ(f.collection->Position(r.key), r.expected ? size_t(r.expected - 1) : CDepFiles::npos);
    }
    EXPECT_EQ(f[0].refs(), 2);
    EXPECT_EQ(f[1].refs(), 2);
    EXPECT_EQ(f[0].add_refs(), 1) << "only Add took a reference";
}

TEST_F(Collections, StorageGrowsByHalfItsCapacity) {
    auto languages = make<CLanguages>();
    std::vector<size_t> capacities;
    for (long i = 0; i < 14; ++i) {
        languages->Add(std::to_wstring(i), i);
        capacities.push_back(languages->Items().capacity());
    }
    EXPECT_EQ(capacities, (std::vector<size_t>{1, 2, 3, 4, 6, 6, 9, 9, 9, 13, 13, 13, 13, 19}));
}

// ---------------------------------------------------------------------------------------------------
// Remove and Clear

TEST_F(Collections, RemoveMovesLaterEntriesForwardAndKeepsTheIndex) {
    const std::vector<std::wstring> keys = {L"a.dll", L"b.dll", L"c.dll"};
    for (size_t removed = 0; removed < keys.size(); ++removed) {
        SCOPED_TRACE("removing position " + std::to_string(removed));
        std::vector<std::string> releases;
        files_fixture f(keys, &releases);
        EXPECT_EQ(f.collection->Remove(removed), S_OK);
        EXPECT_EQ(releases, std::vector<std::string>{narrow(keys[removed])});
        EXPECT_EQ(f[removed].refs(), 1);

        std::vector<std::wstring> left = keys;
        left.erase(left.begin() + static_cast<std::ptrdiff_t>(removed));
        EXPECT_EQ(keys_of(f.collection.get()), left);
        EXPECT_FALSE(f.collection->Contains(keys[removed]));
        // Every name still leads to the entry at its new place.
        for (size_t i = 0; i < left.size(); ++i) {
            SCOPED_TRACE(narrow(left[i]));
            EXPECT_EQ(f.collection->Position(left[i].c_str()), i);
            variant byName, byPlace;
            V_VT(&byName) = VT_BSTR;
            V_BSTR(&byName) = SysAllocString(left[i].c_str());
            V_VT(&byPlace) = VT_I4;
            V_I4(&byPlace) = static_cast<LONG>(i + 1);
            com_ptr<IDepFile> a, b;
            EXPECT_EQ(f.itf->get_Item(byName, a.put()), S_OK);
            EXPECT_EQ(f.itf->get_Item(byPlace, b.put()), S_OK);
            EXPECT_EQ(a.get(), b.get());
            EXPECT_NE(a.get(), nullptr);
        }
    }
}

TEST_F(Collections, RemoveOfTheFirstMakesTheSecondItemOne) {
    files_fixture f({L"first", L"second", L"third"});
    ASSERT_EQ(f.collection->Remove(0), S_OK);
    variant one;
    V_VT(&one) = VT_I4;
    V_I4(&one) = 1;
    com_ptr<IDepFile> got;
    EXPECT_EQ(f.itf->get_Item(one, got.put()), S_OK);
    EXPECT_EQ(got.get(), static_cast<IDepFile*>(&f[1]));
    // An added entry after a removal gets the next place and its own name.
    fake_file fourth("fourth");
    f.collection->Add(L"fourth", &fourth);
    EXPECT_EQ(f.collection->Position(L"fourth"), 2u);
    EXPECT_EQ(f.collection->Position(L"third"), 1u);
    f.collection->Clear();
}

TEST_F(Collections, RemovePastTheEndIsInvalid) {
    files_fixture f({L"a", L"b"});
    for (size_t position : {size_t(2), size_t(3), CDepFiles::npos}) {
        SCOPED_TRACE(position);
        EXPECT_EQ(f.collection->Remove(position), E_INVALIDARG);
    }
    EXPECT_EQ(f.collection->Size(), 2u);
    EXPECT_EQ(f[0].refs(), 2);
    EXPECT_EQ(f[1].refs(), 2);
    EXPECT_EQ(f.collection->Remove(f.collection->Position(L"absent")), E_INVALIDARG);
}

TEST_F(Collections, ClearReleasesLastToFirstAndEmptiesTheIndex) {
    std::vector<std::string> releases;
    files_fixture f({L"a", L"b", L"c"}, &releases);
    f.collection->Clear();
    EXPECT_EQ(releases, (std::vector<std::string>{"c", "b", "a"}));
    EXPECT_EQ(f.collection->Size(), 0u);
    EXPECT_FALSE(f.collection->Contains(L"a"));
    // Usable again: a name that stood before comes back at place one.
    f.collection->Add(L"B", &f[1]);
    EXPECT_EQ(keys_of(f.collection.get()), std::vector<std::wstring>{L"B"});
    EXPECT_EQ(f.collection->Position(L"b"), 0u);
}

TEST_F(Collections, DestructionReleasesEveryItemOnce) {
    std::vector<std::string> releases;
    fake_file a("a", &releases), b("b", &releases);
    {
        auto files = make<CDepFiles>();
        files->Add(L"a", &a);
        files->Add(L"b", &b);
        EXPECT_EQ(qv::g_module.LockCount(), 1) << "a live collection holds the module";
    }
    EXPECT_EQ(releases, (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(a.refs(), 1);
    EXPECT_EQ(b.refs(), 1);
}

// ---------------------------------------------------------------------------------------------------
// The enumerator

TEST_F(Collections, NextDeliversWhatIsLeftAndSaysWhetherItWasAll) {
    files_fixture f({L"a", L"b", L"c"});
    com_ptr<IEnumVARIANT> e = new_enum(f.itf.get());
    VARIANT buffer[5];
    for (VARIANT& v : buffer) {
        VariantInit(&v);
        V_VT(&v) = VT_I2; // a mark that Next must leave where it delivers nothing
        V_I2(&v) = 77;
    }
    ULONG fetched = 99;
    EXPECT_EQ(e->Next(5, buffer, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 3u);
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(V_VT(&buffer[i]), VT_DISPATCH);
        EXPECT_EQ(V_DISPATCH(&buffer[i]), static_cast<IDispatch*>(&f[i]));
        EXPECT_EQ(f[i].refs(), 3) << "the collection's reference and the VARIANT's own";
    }
    EXPECT_EQ(V_VT(&buffer[3]), VT_I2);
    EXPECT_EQ(V_I2(&buffer[4]), 77);
    for (size_t i = 0; i < 3; ++i)
        VariantClear(&buffer[i]);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(f[i].refs(), 2);

    fetched = 99;
    EXPECT_EQ(e->Next(1, buffer, &fetched), S_FALSE) << "nothing left";
    EXPECT_EQ(fetched, 0u);
}

TEST_F(Collections, NextChecksItsPointers) {
    files_fixture f({L"a", L"b", L"c"});
    com_ptr<IEnumVARIANT> e = new_enum(f.itf.get());
    variant v;
    ULONG fetched = 0;
    struct row {
        const char* label;
        ULONG celt;
        bool buffer;
        bool count;
        HRESULT expected;
        ULONG delivered;
    };
    const row rows[] = {
        {"no buffer", 1, false, true, E_POINTER, 0},
        {"no buffer, no items asked", 0, false, true, E_POINTER, 0},
        {"two without a count", 2, true, false, E_POINTER, 0},
        {"none without a count", 0, true, false, E_POINTER, 0},
        {"none asked", 0, true, true, S_OK, 0},
        {"one without a count", 1, true, false, S_OK, 1},
        {"one with a count", 1, true, true, S_OK, 1},
    };
    ULONG position = 0;
    for (const row& r : rows) {
        SCOPED_TRACE(r.label);
        fetched = 42;
        HRESULT hr = e->Next(r.celt, r.buffer ? &v : nullptr, r.count ? &fetched : nullptr);
        EXPECT_EQ(hr, r.expected);
        if (r.count && SUCCEEDED(hr)) {
            EXPECT_EQ(fetched, r.delivered);
        }
        if (r.delivered) {
            EXPECT_EQ(V_DISPATCH(&v), static_cast<IDispatch*>(&f[position]));
            VariantClear(&v);
        }
        position += r.delivered;
    }
}

TEST_F(Collections, SkipSaysOkOnlyAtTheEnd) {
    struct row {
        const char* label;
        size_t entries;
        ULONG before; // places skipped first
        ULONG celt;
        HRESULT expected;
        int next; // one-based place Next delivers afterwards, 0 for none
    };
    const row rows[] = {
        {"one of three", 3, 0, 1, S_FALSE, 2},
        {"none at the start", 3, 0, 0, S_FALSE, 1},
        {"to the end exactly", 3, 0, 3, S_OK, 0},
        {"beyond the end stops there", 3, 0, 10, S_OK, 0},
        {"the rest after one", 3, 1, 2, S_OK, 0},
        {"at the end already", 3, 3, 1, S_OK, 0},
        {"none on an empty collection", 0, 0, 0, S_OK, 0},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.label);
        std::vector<std::wstring> keys;
        for (size_t i = 0; i < r.entries; ++i)
            keys.push_back(std::to_wstring(i));
        files_fixture f(keys);
        com_ptr<IEnumVARIANT> e = new_enum(f.itf.get());
        if (r.before)
            e->Skip(r.before);
        EXPECT_EQ(e->Skip(r.celt), r.expected);
        variant v;
        ULONG fetched = 0;
        EXPECT_EQ(e->Next(1, &v, &fetched), r.next ? S_OK : S_FALSE);
        if (r.next) {
            EXPECT_EQ(V_DISPATCH(&v), static_cast<IDispatch*>(&f[r.next - 1]));
        }
    }
}

TEST_F(Collections, ResetAndCloneKeepTheirOwnPositions) {
    files_fixture f({L"a", L"b", L"c"});
    com_ptr<IEnumVARIANT> e = new_enum(f.itf.get());
    auto next_is = [&](IEnumVARIANT* en, int place) {
        variant v;
        ULONG fetched = 0;
        HRESULT hr = en->Next(1, &v, &fetched);
        if (place == 0) {
            EXPECT_EQ(hr, S_FALSE);
            EXPECT_EQ(fetched, 0u);
        } else {
            EXPECT_EQ(hr, S_OK);
            EXPECT_EQ(V_DISPATCH(&v), static_cast<IDispatch*>(&f[place - 1]));
        }
    };
    next_is(e.get(), 1);
    com_ptr<IEnumVARIANT> clone;
    EXPECT_EQ(e->Clone(clone.put()), S_OK);
    ASSERT_TRUE(clone);
    EXPECT_NE(clone.get(), e.get());
    EXPECT_EQ(qv::g_module.LockCount(), 3) << "collection, enumerator, clone";
    next_is(clone.get(), 2);
    next_is(clone.get(), 3);
    next_is(e.get(), 2); // the original's position did not move with the clone

    EXPECT_EQ(clone->Reset(), S_OK);
    next_is(clone.get(), 1);
    e.reset(); // the clone lives on without the original
    next_is(clone.get(), 2);
    EXPECT_EQ(clone->Clone(nullptr), E_POINTER);

    // A clone of an enumerator at its end is at its end, and Reset brings it back.
    clone->Skip(5);
    com_ptr<IEnumVARIANT> late;
    EXPECT_EQ(clone->Clone(late.put()), S_OK);
    next_is(late.get(), 0);
    EXPECT_EQ(late->Reset(), S_OK);
    next_is(late.get(), 1);
}

TEST_F(Collections, EnumeratorHoldsNoReferenceOnTheCollection) {
    files_fixture f({L"a"});
    ULONG before = ref_count(f.itf.get());
    com_ptr<IEnumVARIANT> e = new_enum(f.itf.get());
    EXPECT_EQ(ref_count(f.itf.get()), before);
    EXPECT_EQ(qv::g_module.LockCount(), 2) << "the enumerator holds the module on its own";

    // Its identity: IEnumVARIANT and IUnknown, nothing of the collection.
    com_ptr<IUnknown> unk;
    EXPECT_EQ(e->QueryInterface(IID_IUnknown, unk.put_void()), S_OK);
    EXPECT_EQ(unk.get(), static_cast<IUnknown*>(e.get()));
    for (const IID* iid : {&IID_IDispatch, &IID_IDepFiles, &IID_IEnumUnknown}) {
        void* p = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(e->QueryInterface(*iid, &p), E_NOINTERFACE);
        EXPECT_EQ(p, nullptr);
    }
}

TEST_F(Collections, EnumeratorOfAChangedCollectionStopsAtItsEnd) {
    files_fixture f({L"a", L"b"});
    com_ptr<IEnumVARIANT> e = new_enum(f.itf.get());
    f.collection->Remove(1);
    variant v[2];
    ULONG fetched = 0;
    EXPECT_EQ(e->Next(2, v, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 1u);
    EXPECT_EQ(V_DISPATCH(&v[0]), static_cast<IDispatch*>(&f[0]));
}

TEST_F(Collections, LanguagesAreValuesSeenAsI4) {
    auto languages = make<CLanguages>();
    languages->Add(L"1", 1033L);
    languages->Add(L"1", 1031L); // a second translation replaces the first under the same key
    languages->Add(L"x", 0x0804L);
    com_ptr<ILanguages> itf = languages.query<ILanguages>(IID_ILanguages);
    ASSERT_TRUE(itf);

    long count = 0;
    EXPECT_EQ(itf->get_Count(&count), S_OK);
    EXPECT_EQ(count, 2);
    struct row {
        const char* label;
        VARTYPE vt;
        LONG number;
        const wchar_t* name;
        HRESULT expected;
        long value;
    };
    const row rows[] = {
        {"first by place", VT_I4, 1, nullptr, S_OK, 1031},    {"second by place", VT_I4, 2, nullptr, S_OK, 0x0804},
        {"by name", VT_BSTR, 0, L"X", S_OK, 0x0804},          {"the key \"1\" by name", VT_BSTR, 0, L"1", S_OK, 1031},
        {"past the end", VT_I4, 3, nullptr, E_INVALIDARG, 0}, {"unknown name", VT_BSTR, 0, L"y", E_INVALIDARG, 0},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.label);
        variant v;
        V_VT(&v) = r.vt;
        if (r.vt == VT_I4)
            V_I4(&v) = r.number;
        else
            V_BSTR(&v) = SysAllocString(r.name);
        long value = -7;
        EXPECT_EQ(itf->get_Item(v, &value), r.expected);
        EXPECT_EQ(value, r.value);
    }

    com_ptr<IUnknown> unk;
    ASSERT_EQ(itf->get__NewEnum(unk.put()), S_OK);
    com_ptr<IEnumVARIANT> e = unk.query<IEnumVARIANT>(IID_IEnumVARIANT);
    ASSERT_TRUE(e);
    variant v[3];
    ULONG fetched = 0;
    EXPECT_EQ(e->Next(3, v, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 2u);
    EXPECT_EQ(V_VT(&v[0]), VT_I4);
    EXPECT_EQ(V_I4(&v[0]), 1031);
    EXPECT_EQ(V_VT(&v[1]), VT_I4);
    EXPECT_EQ(V_I4(&v[1]), 0x0804);
    EXPECT_EQ(languages->Find(L"absent"), 0);
}

// ---------------------------------------------------------------------------------------------------
// The three collection classes as COM objects

template <class C> struct collection_traits;
template <> struct collection_traits<CDepFiles> {
    using itf = IDepFiles;
    static const IID& iid() { return IID_IDepFiles; }
};
template <> struct collection_traits<CDepFileBags> {
    using itf = IDepFileBags;
    static const IID& iid() { return IID_IDepFileBags; }
};
template <> struct collection_traits<CLanguages> {
    using itf = ILanguages;
    static const IID& iid() { return IID_ILanguages; }
};

template <class C> class CollectionClass : public Collections {};
using collection_classes = ::testing::Types<CDepFiles, CDepFileBags, CLanguages>;
TYPED_TEST_SUITE(CollectionClass, collection_classes);

TYPED_TEST(CollectionClass, AnswersItsInterfaceAndIDispatchOnly) {
    using traits = collection_traits<TypeParam>;
    auto c = make<TypeParam>();
    EXPECT_EQ(qv::g_module.LockCount(), 1);
    com_ptr<typename traits::itf> itf = c.template query<typename traits::itf>(traits::iid());
    ASSERT_TRUE(itf);
    com_ptr<IDispatch> dispatch = c.template query<IDispatch>(IID_IDispatch);
    ASSERT_TRUE(dispatch);
    EXPECT_EQ(identity(itf.get()).get(), identity(dispatch.get()).get());
    EXPECT_EQ(identity(itf.get()).get(), static_cast<IUnknown*>(itf.get())) << "the interface is the identity";

    const IID* refused[] = {&IID_IEnumVARIANT, &IID_ISupportErrorInfo, &IID_IDepFileBag, &IID_IDepFile, &IID_IPersist};
    for (const IID* iid : refused) {
        if (IsEqualIID(*iid, traits::iid()))
            continue;
        void* p = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(itf->QueryInterface(*iid, &p), E_NOINTERFACE);
        EXPECT_EQ(p, nullptr);
    }
    for (const IID* other : {&IID_IDepFiles, &IID_IDepFileBags, &IID_ILanguages}) {
        if (IsEqualIID(*other, traits::iid()))
            continue;
        void* p = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(itf->QueryInterface(*other, &p), E_NOINTERFACE);
        EXPECT_EQ(p, nullptr);
    }
}

TYPED_TEST(CollectionClass, StartsEmptyAndMissesEveryIndex) {
    using traits = collection_traits<TypeParam>;
    auto c = make<TypeParam>();
    com_ptr<typename traits::itf> itf = c.template query<typename traits::itf>(traits::iid());
    long count = -1;
    EXPECT_EQ(itf->get_Count(&count), S_OK);
    EXPECT_EQ(count, 0);
    variant one;
    V_VT(&one) = VT_I4;
    V_I4(&one) = 1;
    typename TypeParam::item_type item{};
    EXPECT_EQ(itf->get_Item(one, &item), E_INVALIDARG);
    EXPECT_EQ(item, typename TypeParam::item_type{});
    com_ptr<IUnknown> unk;
    ASSERT_EQ(itf->get__NewEnum(unk.put()), S_OK);
    com_ptr<IEnumVARIANT> e = unk.template query<IEnumVARIANT>(IID_IEnumVARIANT);
    ASSERT_TRUE(e);
    variant v;
    ULONG fetched = 7;
    EXPECT_EQ(e->Next(1, &v, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 0u);
    EXPECT_EQ(V_VT(&v), VT_EMPTY);
}

// ---------------------------------------------------------------------------------------------------
// The bag and the bags

TEST_F(Collections, BagFilesIsTheSameCollectionEveryTime) {
    auto bag = make_bag(L"first run");
    EXPECT_EQ(qv::g_module.LockCount(), 2) << "the bag and its collection";
    com_ptr<IDepFiles> a, b;
    EXPECT_EQ(bag->get_Files(a.put()), S_OK);
    EXPECT_EQ(bag->get_Files(b.put()), S_OK);
    ASSERT_TRUE(a);
    EXPECT_EQ(a.get(), b.get());
    EXPECT_EQ(a.get(), static_cast<IDepFiles*>(bag->DepFiles()));
    long count = -1;
    EXPECT_EQ(a->get_Count(&count), S_OK);
    EXPECT_EQ(count, 0) << "a new bag starts with an empty collection";

    // What the bag's owner adds, a client finds through the default member.
    fake_file record("record");
    bag->DepFiles()->Add(L"msvbvm60.dll", &record);
    com_ptr<IDepFile> found;
    variant name;
    V_VT(&name) = VT_BSTR;
    V_BSTR(&name) = SysAllocString(L"MSVBVM60.DLL");
    EXPECT_EQ(a->get_Item(name, found.put()), S_OK);
    EXPECT_EQ(found.get(), static_cast<IDepFile*>(&record));
    found.reset();

    // The collection outlives the bag while a client holds it.
    bag.reset();
    EXPECT_EQ(qv::g_module.LockCount(), 1);
    EXPECT_EQ(a->get_Count(&count), S_OK);
    EXPECT_EQ(count, 1);
    a.reset();
    b.reset();
    EXPECT_EQ(record.refs(), 1);
}

TEST_F(Collections, BagTagNameIsACopy) {
    struct row {
        const char* label;
        std::wstring_view tag;
        bool null;
    };
    const row rows[] = {
        {"a tag", L"Run 1", false},
        {"an empty tag", std::wstring_view(L"", 0), false},
        {"no tag", std::wstring_view(), true},
        {"a tag with a NUL inside", std::wstring_view(L"a\0b", 3), false},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.label);
        auto bag = make_bag(r.tag);
        bstr first, second;
        EXPECT_EQ(bag->get_TagName(first.put()), S_OK);
        EXPECT_EQ(bag->get_TagName(second.put()), S_OK);
        if (r.null) {
            EXPECT_EQ(first.get(), nullptr);
            EXPECT_EQ(bag->Tag(), nullptr);
            continue;
        }
        ASSERT_NE(first.get(), nullptr);
        EXPECT_NE(first.get(), second.get()) << "each call hands out its own BSTR";
        EXPECT_NE(first.get(), bag->Tag()) << "not the bag's own";
        EXPECT_EQ(first.view(), r.tag);
        EXPECT_EQ(second.view(), r.tag);
    }
}

TEST_F(Collections, BagRefusesNullOutputsAndAnswersErrorInfoForItsInterface) {
    auto bag = make_bag(L"t");
    EXPECT_EQ(bag->get_TagName(nullptr), E_POINTER);
    EXPECT_EQ(bag->get_Files(nullptr), E_POINTER);

    com_ptr<ISupportErrorInfo> info = bag.query<ISupportErrorInfo>(IID_ISupportErrorInfo);
    ASSERT_TRUE(info);
    struct row {
        const IID* iid;
        HRESULT expected;
    };
    for (const row& r : {row{&IID_IDepFileBag, S_OK}, row{&IID_IDispatch, S_FALSE}, row{&IID_IDepFiles, S_FALSE},
                         row{&IID_IDepFileBags, S_FALSE}, row{&IID_IUnknown, S_FALSE}})
        EXPECT_EQ(info->InterfaceSupportsErrorInfo(*r.iid), r.expected);

    com_ptr<IDepFileBag> itf = bag.query<IDepFileBag>(IID_IDepFileBag);
    com_ptr<IDispatch> dispatch = bag.query<IDispatch>(IID_IDispatch);
    ASSERT_TRUE(itf);
    ASSERT_TRUE(dispatch);
    EXPECT_EQ(identity(itf.get()).get(), identity(info.get()).get());
    EXPECT_EQ(identity(dispatch.get()).get(), static_cast<IUnknown*>(itf.get()));
    for (const IID* iid : {&IID_IDepFiles, &IID_IEnumVARIANT, &IID_IDepFileBags}) {
        void* p = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(itf->QueryInterface(*iid, &p), E_NOINTERFACE);
        EXPECT_EQ(p, nullptr);
    }
}

TEST_F(Collections, BagsHoldBagsUnderTheirTags) {
    auto bags = make<CDepFileBags>();
    auto first = make_bag(L"Startup");
    auto second = make_bag(L"Print");
    bags->Add(first->Tag(), first.get());
    bags->Add(second->Tag(), second.get());
    EXPECT_EQ(qv::g_module.LockCount(), 5);

    // A record in the first bag, reached by a client through the bags, the bag and its files.
    fake_file record("record");
    first->DepFiles()->Add(L"comdlg32.ocx", &record);
    com_ptr<IDepFileBags> itf = bags.query<IDepFileBags>(IID_IDepFileBags);
    variant tag;
    V_VT(&tag) = VT_BSTR;
    V_BSTR(&tag) = SysAllocString(L"STARTUP");
    com_ptr<IDepFileBag> bag;
    ASSERT_EQ(itf->get_Item(tag, bag.put()), S_OK);
    EXPECT_EQ(bag.get(), static_cast<IDepFileBag*>(first.get()));
    com_ptr<IDepFiles> files;
    ASSERT_EQ(bag->get_Files(files.put()), S_OK);
    variant one;
    V_VT(&one) = VT_I4;
    V_I4(&one) = 1;
    com_ptr<IDepFile> got;
    EXPECT_EQ(files->get_Item(one, got.put()), S_OK);
    EXPECT_EQ(got.get(), static_cast<IDepFile*>(&record));
    got.reset();
    files.reset();
    bag.reset();

    // A bag added under a tag that stands replaces the old one, which dies with its collection.
    first.reset();
    auto again = make_bag(L"startup");
    bags->Add(again->Tag(), again.get());
    EXPECT_EQ(record.refs(), 1) << "the replaced bag released its records";
    EXPECT_EQ(qv::g_module.LockCount(), 5) << "bags, two bags, two collections";
    EXPECT_EQ(keys_of(bags.get()), (std::vector<std::wstring>{L"Startup", L"Print"}));
    EXPECT_EQ(bags->Find(L"STARTUP"), static_cast<IDepFileBag*>(again.get()));
}

TEST_F(Collections, BagsReleaseFakeBagsLikeAnyItem) {
    std::vector<std::string> releases;
    fake_bag a("a", &releases), b("b", &releases);
    {
        auto bags = make<CDepFileBags>();
        bags->Add(L"a", &a);
        bags->Add(L"b", &b);
        com_ptr<IDepFileBags> itf = bags.query<IDepFileBags>(IID_IDepFileBags);
        com_ptr<IUnknown> unk;
        ASSERT_EQ(itf->get__NewEnum(unk.put()), S_OK);
        com_ptr<IEnumVARIANT> e = unk.query<IEnumVARIANT>(IID_IEnumVARIANT);
        variant v;
        ASSERT_EQ(e->Next(1, &v, nullptr), S_OK);
        EXPECT_EQ(V_DISPATCH(&v), static_cast<IDispatch*>(&a));
        EXPECT_EQ(a.refs(), 3);
        releases.clear(); // what Next took and gave back on its way
        EXPECT_EQ(bags->Remove(0), S_OK);
        EXPECT_EQ(a.refs(), 2) << "the enumerated VARIANT still holds its own";
    }
    EXPECT_EQ(releases, (std::vector<std::string>{"a", "a", "b"})) << "Remove, the VARIANT, destruction";
}

// ---------------------------------------------------------------------------------------------------
// Late binding, as a script sees the collections. The collections take their type information from
// the registered type library; it is registered here in a scratch HKEY_CLASSES_ROOT only. Each case
// uses one interface, so that a case that runs in a process with others never sees type information
// that another case loaded (the library keeps it until it ends).

class LateBound : public Collections {
protected:
    void SetUp() override {
        Collections::SetUp();
        m_realRegistration = real_registration_exists();
    }
    void TearDown() override {
        m_classes.reset();
        EXPECT_EQ(real_registration_exists(), m_realRegistration) << "the real registry was touched";
        Collections::TearDown();
    }

    // Redirects HKEY_CLASSES_ROOT and registers QVWIScanners.dll's type library there.
    void register_typelib() {
        m_classes = std::make_unique<registry_override>(HKEY_CLASSES_ROOT);
        std::wstring path = module_dir() + L"\\QVWIScanners.dll";
        com_ptr<ITypeLib> lib;
        ASSERT_EQ(LoadTypeLibEx(path.c_str(), REGKIND_NONE, lib.put()), S_OK);
        ASSERT_EQ(RegisterTypeLib(lib.get(), path.data(), nullptr), S_OK);
        // It went to the scratch key.
        HKEY key = nullptr;
        ASSERT_EQ(
            RegOpenKeyExW(m_classes->key(), L"TypeLib\\{F4A7B9C5-9D71-4CD4-A30A-060902CA3F98}\\1.0", 0, KEY_READ, &key),
            ERROR_SUCCESS);
        RegCloseKey(key);
    }

    static bool real_registration_exists() {
        HKEY key = nullptr;
        if (RegOpenKeyExW(HKEY_CLASSES_ROOT, L"TypeLib\\{F4A7B9C5-9D71-4CD4-A30A-060902CA3F98}", 0, KEY_READ, &key) !=
            ERROR_SUCCESS)
            return false;
        RegCloseKey(key);
        return true;
    }

    static DISPID id_of(IDispatch* d, const wchar_t* name) {
        LPOLESTR text = const_cast<LPOLESTR>(name);
        DISPID id = 12345;
        EXPECT_EQ(d->GetIDsOfNames(IID_NULL, &text, 1, LOCALE_USER_DEFAULT, &id), S_OK) << narrow(name);
        return id;
    }

    // A property get with no argument or one.
    static HRESULT get(IDispatch* d, DISPID id, VARIANT* arg, VARIANT* result, EXCEPINFO* excep = nullptr) {
        DISPPARAMS params = {arg, nullptr, arg ? 1u : 0u, 0};
        UINT argErr = 0;
        return d->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET | DISPATCH_METHOD, &params, result,
                         excep, &argErr);
    }

    // Before registration the registry holder finds nothing.
    static void expect_unregistered(IDispatch* d) {
        LPOLESTR text = const_cast<LPOLESTR>(L"Count");
        DISPID id = 12345;
        EXPECT_TRUE(FAILED(d->GetIDsOfNames(IID_NULL, &text, 1, LOCALE_USER_DEFAULT, &id)))
            << "the type information comes from the registry, where nothing is registered";
        com_ptr<ITypeInfo> info;
        EXPECT_TRUE(FAILED(d->GetTypeInfo(0, LOCALE_USER_DEFAULT, info.put())));
    }

private:
    std::unique_ptr<registry_override> m_classes;
    bool m_realRegistration = false;
};

TEST_F(LateBound, FilesAnswerCountItemAndNewEnumByName) {
    files_fixture f({L"kernel32.dll", L"user32.dll", L"gdi32.dll"});
    for (size_t i = 0; i < 3; ++i)
        f[i].allow_query(); // a result of Invoke may be queried for IDispatch
    com_ptr<IDispatch> d = f.collection.query<IDispatch>(IID_IDispatch);
    ASSERT_TRUE(d);
    {
        registry_override empty(HKEY_CLASSES_ROOT);
        expect_unregistered(d.get());
    }
    register_typelib();

    UINT count = 0;
    EXPECT_EQ(d->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 1u);
    com_ptr<ITypeInfo> info;
    ASSERT_EQ(d->GetTypeInfo(0, LOCALE_USER_DEFAULT, info.put()), S_OK);
    TYPEATTR* attr = nullptr;
    ASSERT_EQ(info->GetTypeAttr(&attr), S_OK);
    EXPECT_TRUE(IsEqualIID(attr->guid, IID_IDepFiles));
    info->ReleaseTypeAttr(attr);
    EXPECT_EQ(d->GetTypeInfo(1, LOCALE_USER_DEFAULT, info.put()), DISP_E_BADINDEX);

    EXPECT_EQ(id_of(d.get(), L"Count"), 1);
    EXPECT_EQ(id_of(d.get(), L"Item"), DISPID_VALUE);
    EXPECT_EQ(id_of(d.get(), L"_NewEnum"), DISPID_NEWENUM);

    variant result;
    ASSERT_EQ(get(d.get(), 1, nullptr, &result), S_OK);
    EXPECT_EQ(V_VT(&result), VT_I4);
    EXPECT_EQ(V_I4(&result), 3);

    struct row {
        const char* label;
        VARTYPE vt;
        LONG number;
        const wchar_t* name;
        int expected;
    };
    const row rows[] = {
        {"by place", VT_I4, 2, nullptr, 2},
        {"by place, a short", VT_I2, 3, nullptr, 3},
        {"by name", VT_BSTR, 0, L"KERNEL32.DLL", 1},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.label);
        variant arg, out;
        V_VT(&arg) = r.vt;
        if (r.vt == VT_BSTR)
            V_BSTR(&arg) = SysAllocString(r.name);
        else if (r.vt == VT_I2)
            V_I2(&arg) = static_cast<SHORT>(r.number);
        else
            V_I4(&arg) = r.number;
        ASSERT_EQ(get(d.get(), DISPID_VALUE, &arg, &out), S_OK);
        ASSERT_EQ(V_VT(&out), VT_DISPATCH);
        EXPECT_EQ(identity(V_DISPATCH(&out)).get(), static_cast<IUnknown*>(&f[r.expected - 1]));
    }

    // A miss reaches the script as an exception carrying E_INVALIDARG.
    variant arg, out;
    V_VT(&arg) = VT_I4;
    V_I4(&arg) = 4;
    EXCEPINFO excep = {};
    HRESULT hr = get(d.get(), DISPID_VALUE, &arg, &out, &excep);
    EXPECT_EQ(hr, DISP_E_EXCEPTION);
    EXPECT_EQ(excep.scode, E_INVALIDARG);
    SysFreeString(excep.bstrSource);
    SysFreeString(excep.bstrDescription);
    SysFreeString(excep.bstrHelpFile);

    // For Each: _NewEnum gives an enumerator over the items in order.
    variant en;
    ASSERT_EQ(get(d.get(), DISPID_NEWENUM, nullptr, &en), S_OK);
    ASSERT_EQ(V_VT(&en), VT_UNKNOWN);
    com_ptr<IEnumVARIANT> e;
    ASSERT_EQ(V_UNKNOWN(&en)->QueryInterface(IID_IEnumVARIANT, e.put_void()), S_OK);
    variant items[3];
    ULONG fetched = 0;
    EXPECT_EQ(e->Next(3, items, &fetched), S_OK);
    EXPECT_EQ(fetched, 3u);
    for (size_t i = 0; i < fetched; ++i)
        EXPECT_EQ(V_DISPATCH(&items[i]), static_cast<IDispatch*>(&f[i]));
}

TEST_F(LateBound, LanguagesItemIsANumber) {
    auto languages = make<CLanguages>();
    languages->Add(L"1", 1033L);
    com_ptr<IDispatch> d = languages.query<IDispatch>(IID_IDispatch);
    ASSERT_TRUE(d);
    {
        registry_override empty(HKEY_CLASSES_ROOT);
        expect_unregistered(d.get());
    }
    register_typelib();
    EXPECT_EQ(id_of(d.get(), L"Item"), DISPID_VALUE);
    EXPECT_EQ(id_of(d.get(), L"Count"), 1);
    variant arg, out;
    V_VT(&arg) = VT_I4;
    V_I4(&arg) = 1;
    ASSERT_EQ(get(d.get(), DISPID_VALUE, &arg, &out), S_OK);
    EXPECT_EQ(V_VT(&out), VT_I4);
    EXPECT_EQ(V_I4(&out), 1033);
}

TEST_F(LateBound, BagDefaultMemberIsItsFiles) {
    auto bag = make_bag(L"Run");
    com_ptr<IDispatch> d = bag.query<IDispatch>(IID_IDispatch);
    ASSERT_TRUE(d);
    {
        registry_override empty(HKEY_CLASSES_ROOT);
        expect_unregistered(d.get());
    }
    register_typelib();
    EXPECT_EQ(id_of(d.get(), L"Files"), DISPID_VALUE);
    EXPECT_EQ(id_of(d.get(), L"TagName"), 1);

    variant files, tag;
    ASSERT_EQ(get(d.get(), DISPID_VALUE, nullptr, &files), S_OK);
    ASSERT_EQ(V_VT(&files), VT_DISPATCH);
    EXPECT_EQ(identity(V_DISPATCH(&files)).get(), static_cast<IUnknown*>(static_cast<IDepFiles*>(bag->DepFiles())));
    ASSERT_EQ(get(d.get(), 1, nullptr, &tag), S_OK);
    ASSERT_EQ(V_VT(&tag), VT_BSTR);
    EXPECT_EQ(std::wstring(V_BSTR(&tag)), L"Run");
}

TEST_F(LateBound, BagsItemByTag) {
    auto bags = make<CDepFileBags>();
    auto bag = make_bag(L"Run");
    bags->Add(bag->Tag(), bag.get());
    com_ptr<IDispatch> d = bags.query<IDispatch>(IID_IDispatch);
    ASSERT_TRUE(d);
    {
        registry_override empty(HKEY_CLASSES_ROOT);
        expect_unregistered(d.get());
    }
    register_typelib();
    EXPECT_EQ(id_of(d.get(), L"Item"), DISPID_VALUE);
    variant arg, out;
    V_VT(&arg) = VT_BSTR;
    V_BSTR(&arg) = SysAllocString(L"run");
    ASSERT_EQ(get(d.get(), DISPID_VALUE, &arg, &out), S_OK);
    ASSERT_EQ(V_VT(&out), VT_DISPATCH);
    EXPECT_EQ(identity(V_DISPATCH(&out)).get(), identity(static_cast<IDepFileBag*>(bag.get())).get());
}

// After all cases, no object of the library may be alive.
class lock_check : public ::testing::Environment {
public:
    void TearDown() override { EXPECT_EQ(qv::g_module.LockCount(), 0) << "an object of the library is still alive"; }
};

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new lock_check);
    return RUN_ALL_TESTS();
}
