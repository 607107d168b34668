// The server frame as a client meets it: exports, the class table, cached class factories, the module
// lock, the empty registration exports, the embedded type library and the string resources.
#include "QVWIScanners.h"
#include "inc/unique_handles.h"
#include "test_support.h"
#include "test_support.h"

#include <gtest/gtest.h>

using namespace qv::test;

namespace {

class ServerFrame : public ::testing::Test {
protected:
    com_apartment apartment;
    server_library& dll = server();
};

TEST_F(ServerFrame, ClassesAnswerAsTheyAreBuilt) {
    struct row {
        const char* name;
        const CLSID* clsid;
        HRESULT expected;
    };
    const row table[] = {
        {"StaticScan", &CLSID_StaticScan, S_OK},
        {"DepChecker", &CLSID_DepChecker, CLASS_E_CLASSNOTAVAILABLE},
        {"ScanUtil", &CLSID_ScanUtil, S_OK},
        {"VBPScan", &CLSID_VBPScan, CLASS_E_CLASSNOTAVAILABLE},
        {"DotNetAssembly", &CLSID_DotNetAssembly, CLASS_E_CLASSNOTAVAILABLE},
        {"DepFile", &CLSID_DepFile, S_OK},
        {"an unknown class", &IID_IUnknown, CLASS_E_CLASSNOTAVAILABLE},
    };
    for (const auto& r : table) {
        SCOPED_TRACE(r.name);
        void* factory = reinterpret_cast<void*>(0x1);
        HRESULT hr = dll.GetClassObject(*r.clsid, IID_IClassFactory, &factory);
        EXPECT_EQ(hr, r.expected);
        if (SUCCEEDED(hr)) {
            ASSERT_NE(factory, nullptr);
            static_cast<IClassFactory*>(factory)->Release();
        } else {
            EXPECT_EQ(factory, nullptr) << "the out-pointer is cleared on failure";
        }
    }
}

TEST_F(ServerFrame, NullOutPointerIsEPointer) {
    EXPECT_EQ(dll.GetClassObject(CLSID_DepFile, IID_IClassFactory, nullptr), E_POINTER);
    EXPECT_EQ(dll.GetClassObject(IID_IUnknown, IID_IClassFactory, nullptr), E_POINTER);
}

TEST_F(ServerFrame, RegistrationExportsSucceedAndWriteNothing) {
    // Both roots go to scratch keys, so that anything written would be seen, and nothing real touched.
    qv::unique_hkey scratchRoot, scratchClasses;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\QVWITest\\frame\\hklm", 0, nullptr, 0, KEY_ALL_ACCESS,
                              nullptr, scratchRoot.put(), nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\QVWITest\\frame\\hkcr", 0, nullptr, 0, KEY_ALL_ACCESS,
                              nullptr, scratchClasses.put(), nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, scratchRoot.get()), ERROR_SUCCESS);
    ASSERT_EQ(RegOverridePredefKey(HKEY_CLASSES_ROOT, scratchClasses.get()), ERROR_SUCCESS);
    HRESULT reg = dll.RegisterServer();
    HRESULT unreg = dll.UnregisterServer();
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegOverridePredefKey(HKEY_CLASSES_ROOT, nullptr);
    EXPECT_EQ(reg, S_OK);
    EXPECT_EQ(unreg, S_OK);
    for (HKEY key : {scratchRoot.get(), scratchClasses.get()}) {
        DWORD subkeys = 1, values = 1;
        ASSERT_EQ(RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr,
                                   nullptr, nullptr, nullptr),
                  ERROR_SUCCESS);
        EXPECT_EQ(subkeys, 0u);
        EXPECT_EQ(values, 0u);
    }
    scratchRoot.reset();
    scratchClasses.reset();
    RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\QVWITest\\frame");
}

TEST_F(ServerFrame, StringResources) {
    const std::pair<UINT, const wchar_t*> table[] = {{109, L"1"},
                                                     {110, L"Reading"},
                                                     {111, L"Rebuilding"},
                                                     {112, L"Scanning"},
                                                     {113, L"Scan completed"},
                                                     {114, L"Scan cancelled by the user"}};
    for (const auto& [id, text] : table) {
        wchar_t buffer[256] = {};
        int n = LoadStringW(dll.module(), id, buffer, 256);
        EXPECT_EQ(std::wstring(buffer, n), text) << id;
    }
}

TEST_F(ServerFrame, EmbeddedTypeLibraryAndVersion) {
    ITypeLib* lib = nullptr;
    ASSERT_EQ(LoadTypeLibEx(dll.path().c_str(), REGKIND_NONE, &lib), S_OK);
    TLIBATTR* attr = nullptr;
    ASSERT_EQ(lib->GetLibAttr(&attr), S_OK);
    EXPECT_TRUE(IsEqualGUID(attr->guid, LIBID_QVWISCANNERSLib));
    EXPECT_EQ(attr->wMajorVerNum, 1);
    EXPECT_EQ(attr->wMinorVerNum, 0);
    lib->ReleaseTLibAttr(attr);
    BSTR doc = nullptr;
    ASSERT_EQ(lib->GetDocumentation(-1, nullptr, &doc, nullptr, nullptr), S_OK);
    EXPECT_STREQ(doc, L"QVWIScanners 1.0 Type Library");
    SysFreeString(doc);
    lib->Release();

    DWORD handle = 0;
    EXPECT_GT(GetFileVersionInfoSizeW(dll.path().c_str(), &handle), 0u) << "the server carries a version resource";
}

} // namespace
