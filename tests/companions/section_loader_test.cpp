// SectionLoader.dll through its interfaces: sections and entries by name and by number, and a bad line.
#include "library_support.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

namespace {

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
    using can_unload = HRESULT(STDAPICALLTYPE*)();
    EXPECT_EQ(reinterpret_cast<can_unload>(reinterpret_cast<void (*)()>(
                  GetProcAddress(GetModuleHandleW(L"SectionLoader.dll"), "DllCanUnloadNow")))(), S_OK);
}

} // namespace
