// QvAppServices.dll as the library reaches it: its folders and their variables, the strong-name token it
// exports, and the result groups.
#include "library_support.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

namespace {

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

} // namespace
