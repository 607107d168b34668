// The companions as the library reaches them: QvAppServices.dll, SectionLoader.dll, QVObjMgr.DLL.
#include "library_support.h"
#include "traits/project_traits.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

class AppServices : public Companion {};

TEST_F(AppServices, FoldersStrongNameAndResultGroups) {
    env_scope support(L"QV_SUPPORT_DIR", nullptr);
    auto services = Create<IQvAppServices>(CLSID_QvAppServices, IID_IQvAppServices);
    auto strong = Create<IQvStrongNameServices>(CLSID_QvAppServices, IID_IQvStrongNameServices);
    auto answers = [&] {
        qv::bstr a[4];
        EXPECT_EQ(services->GetSupportFolder(a[0].put()) | services->GetProgramsFolder(a[1].put()) |
                      services->GetPath(8, a[2].put()) | strong->GetStrongNameLibrary(a[3].put()), S_OK);
        return std::vector<wstring>{lower(a[0].str()), lower(a[1].str()), lower(a[2].str()), lower(a[3].str())};
    };
    const wstring here = lower(module_dir());
    const std::vector<wstring> defaults{here + L"\\support", here, here + L"\\qvsettings.xml", here + L"\\qvappservices.dll"};
    EXPECT_EQ(answers(), defaults);
    const wchar_t* variables[] = {L"QV_SUPPORT_DIR", L"QV_PROGRAMS_DIR", L"QV_SETTINGS_PATH", L"QV_STRONGNAME_LIBRARY"};
    for (size_t i = 0; i < 4; ++i) {
        env_scope set(variables[i], L"D:\\Tool Data\\x");
        std::vector<wstring> expected = defaults;
        expected[i] = L"d:\\tool data\\x";
        EXPECT_EQ(answers(), expected) << narrow(variables[i]);
        env_scope empty(variables[i], L""); // an empty variable does not count
        EXPECT_EQ(answers(), defaults) << narrow(variables[i]);
    }
    auto token = Export<BOOLEAN(__stdcall*)(BYTE*, ULONG, BYTE**, ULONG*)>("StrongNameTokenFromPublicKey");
    auto release = Export<void(__stdcall*)(BYTE*)>("StrongNameFreeBuffer");
    auto tokenOf = [&](std::string blob) {
        BYTE* out = nullptr;
        ULONG size = 0;
        std::string hex = token(reinterpret_cast<BYTE*>(blob.data()), ULONG(blob.size()), &out, &size) ? "" : "no";
        for (ULONG i = 0; i < size; ++i)
            hex += "0123456789abcdef"[out[i] >> 4], hex += "0123456789abcdef"[out[i] & 15];
        return release(out), hex;
    };
    const std::string key = read_file(fixture(L"appservices\\public_key.bin"));
    EXPECT_EQ(tokenOf(key), read_file(fixture(L"appservices\\public_key.token")).substr(0, 16));
    EXPECT_EQ(tokenOf(std::string("\0\0\0\0\0\0\0\0\4\0\0\0\0\0\0\0", 16)), "b77a5c561934e089"); // the published one
    EXPECT_EQ(tokenOf(key.substr(0, 159)), "no");

    auto group = Create<IQvDepFileGroup>(CLSID_QvDepFileGroup, IID_IQvDepFileGroup);
    auto groups = Create<IQvDepFileGroups>(CLSID_QvDepFileGroups, IID_IQvDepFileGroups);
    auto files = reinterpret_cast<IDepFiles*>(services.get()); // a group only holds its files and hands them back
    // The server calls Init by its slot, the seventh method after IUnknown's, and Add, the fourth.
    void* init = (*reinterpret_cast<void***>(group.get()))[3 + 6];
    void* add = (*reinterpret_cast<void***>(groups.get()))[3 + 3];
    qv::bstr name(L"C:\\app\\Project1.vbp");
    EXPECT_EQ(reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(void*, IDepFiles*, BSTR)>(init)(group.get(), files, name.get()) |
              reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(void*, void*)>(add)(groups.get(), group.get()), S_OK);
    group.reset();
    EXPECT_EQ(CanUnloadNow(), S_FALSE);
    long count = 0;
    qv::com_ptr<IQvDepFileGroup> item;
    qv::com_ptr<IDepFiles> back;
    ASSERT_EQ(groups->get_Count(&count) | groups->get_Item(1, item.put()), S_OK);
    EXPECT_EQ(item->get_Name(name.put()) | item->get_Files(back.put()), S_OK);
    EXPECT_EQ(std::tuple(count, name.str(), back.get()), std::tuple(1L, wstring(L"C:\\app\\Project1.vbp"), files));
}

TEST(SectionLoader, SectionsAndEntriesByNameAndNumberThroughTheInterface) {
    com_apartment apartment;
    temp_dir dir;
    const wstring good = dir.write(L"comp.dep", "[comp.ocx]\r\nUses1=a.dll\r\nUses2=\r\n[comp.ocx <0409>]\r\nUses1=enu.dll\r\n");
    const wstring cut = dir.write(L"cut.dep", "[s]\nk=v\n[t\nj=w"), absent = dir / L"absent.dep";
    auto text = [](auto* object, HRESULT (STDMETHODCALLTYPE std::remove_pointer_t<decltype(object)>::*get)(BSTR*)) {
        qv::bstr out;
        return object && SUCCEEDED((object->*get)(out.put())) ? out.str() : L"(none)";
    };
    auto by = [](auto index) {
        VARIANT v;
        if constexpr (std::is_integral_v<decltype(index)>)
            V_VT(&v) = VT_I4, V_I4(&v) = index;
        else
            V_VT(&v) = VT_BSTR, V_BSTR(&v) = SysAllocString(index);
        return v;
    };
    {
        qv::com_ptr<IQvSectionLoader> loader;
        ASSERT_EQ(CoCreateFromLibrary(L"SectionLoader.dll", CLSID_QvSectionLoader, IID_IQvSectionLoader, loader.put()), S_OK);
        qv::com_ptr<IQvSections> root;
        qv::com_ptr<IQvSection> section, none;
        qv::com_ptr<IQvEntries> entries;
        qv::com_ptr<IQvEntry> first, second, missing;
        long sections = 0, count = 0;
        VARIANT name = by(L"COMP.OCX <0409>"), other = by(L"comp.dll"), bad = by(0);
        V_VT(&bad) = VT_UNKNOWN; // not a name nor a number
        ASSERT_EQ(loader->Load(qv::bstr(good).get()), S_OK);
        ASSERT_EQ(loader->get_Root(root.put()), S_OK);
        EXPECT_TRUE(root->get_Count(&sections) == S_OK && sections == 2);
        EXPECT_TRUE(root->Item(name, section.put()) == S_OK && root->Item(other, none.put()) == S_OK && !none);
        EXPECT_EQ(root->Item(bad, none.put()), E_INVALIDARG);
        EXPECT_EQ(text(section.get(), &IQvSection::get_Name), L"comp.ocx <0409>");
        ASSERT_TRUE(root->Item(by(1), section.put()) == S_OK && section->get_Entries(entries.put()) == S_OK);
        EXPECT_TRUE(entries->get_Count(&count) == S_OK && count == 2);
        VARIANT key = by(L"uses2");
        EXPECT_TRUE(entries->Item(by(1), first.put()) == S_OK && entries->Item(key, second.put()) == S_OK);
        EXPECT_TRUE(entries->Item(by(3), missing.put()) == S_OK && !missing);
        EXPECT_EQ(text(first.get(), &IQvEntry::get_Name) + L"=" + text(first.get(), &IQvEntry::get_Value), L"Uses1=a.dll");
        EXPECT_EQ(text(second.get(), &IQvEntry::get_Name) + L"=" + text(second.get(), &IQvEntry::get_Value), L"Uses2=");
        // A bad line ends the read: what came before stands, and the loader says what and where.
        EXPECT_EQ(loader->Load(qv::bstr(cut).get()), S_FALSE);
        EXPECT_EQ(text(loader.get(), &IQvSectionLoader::get_Problem), L"line 3: a section header without ']'");
        EXPECT_EQ(loader->Load(qv::bstr(absent).get()), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
        for (VARIANT* v : {&name, &other, &key})
            VariantClear(v);
    }
    EXPECT_EQ(Export<HRESULT(STDAPICALLTYPE*)()>("DllCanUnloadNow", L"SectionLoader.dll")(), S_OK);
}

TEST(ProjectType, FromTheVariableElseTheRegistry) {
    env_scope unset(L"QV_ACTIVE_PROJECT_TYPE", nullptr);
    registry_override user(HKEY_CURRENT_USER);
    EXPECT_EQ(GetActiveProjectType(), 0);
    const ULONGLONG one = 1; // a REG_DWORD's 4 bytes, or a REG_QWORD's 8
    const struct { DWORD type; const void* data; DWORD size; const wchar_t* variable; int expected; } rows[] = {
        {REG_DWORD, &one, 4, nullptr, 1}, {REG_SZ, L"1", 4, nullptr, 0}, {REG_QWORD, &one, 8, nullptr, 0},
        {REG_DWORD, &one, 4, L"0", 0}, {REG_DWORD, &one, 4, L"5", 0}, {REG_SZ, L"1", 4, L" 1 ", 1}, {REG_SZ, L"1", 4, L"+01", 1},
        {REG_SZ, L"1", 4, L"1x", 0}, {REG_SZ, L"1", 4, L"4294967297", 0}, {REG_DWORD, &one, 4, L"", 1}}; // "": unset
    for (const auto& r : rows) {
        registry_override::set_value(HKEY_CURRENT_USER, L"Software\\QVWI\\QVObjMgr", L"ActiveProjectType", r.type,
                                     r.data, r.size);
        env_scope variable(L"QV_ACTIVE_PROJECT_TYPE", r.variable);
        EXPECT_EQ(GetActiveProjectType(), r.expected) << "row " << &r - rows;
    }
}
