// The type library QVWISCANNERSLib as clients load it, the standalone .tlb and the copy the server
// embeds as TYPELIB 1, held against the generated header: the LIBID, and for every interface its IID
// and the size of its vtable. widl has been seen to damage identifiers in the .tlb; the embedded copy ships.
#include "QVWIScanners.h"
#include "inc/com_ptr.h"
#include "test_support.h"
#include "vtables.h"

#include <gtest/gtest.h>

#include <map>

using namespace qv::test;

TEST(TypeLib, IdentifiersAndVtablesMatchTheHeader) {
    std::map<std::wstring, const vtable_size*> header;
    for (size_t i = 0; i < qv_vtable_count; ++i)
        header[qv_vtables[i].itf] = &qv_vtables[i];
    for (const wchar_t* file : {L"QVWIScanners.tlb", L"QVWIScanners.dll"}) {
        SCOPED_TRACE(narrow(file));
        qv::com_ptr<ITypeLib> lib;
        ASSERT_EQ(LoadTypeLibEx((module_dir() + L"\\" + file).c_str(), REGKIND_NONE, lib.put()), S_OK);
        TLIBATTR* libAttr = nullptr;
        ASSERT_EQ(lib->GetLibAttr(&libAttr), S_OK);
        EXPECT_TRUE(IsEqualGUID(libAttr->guid, LIBID_QVWISCANNERSLib));
        EXPECT_EQ(libAttr->wMajorVerNum * 100 + libAttr->wMinorVerNum, 100);
        lib->ReleaseTLibAttr(libAttr);
        size_t checked = 0;
        for (UINT t = 0; t < lib->GetTypeInfoCount(); ++t) {
            qv::com_ptr<ITypeInfo> info, side;
            ASSERT_EQ(lib->GetTypeInfo(t, info.put()), S_OK);
            qv::bstr name;
            info->GetDocumentation(MEMBERID_NIL, name.put(), nullptr, nullptr, nullptr);
            HREFTYPE ref = 0;
            if (info->GetRefTypeOfImplType(-1, &ref) == S_OK && info->GetRefTypeInfo(ref, side.put()) == S_OK)
                info = side; // the vtable half of a dual interface
            TYPEATTR* attr = nullptr;
            ASSERT_EQ(info->GetTypeAttr(&attr), S_OK);
            auto it = header.find(name.str());
            if (attr->typekind == TKIND_INTERFACE && it != header.end()) {
                ++checked;
                EXPECT_TRUE(IsEqualIID(attr->guid, *it->second->iid)) << narrow(name.str());
                EXPECT_EQ(attr->cbSizeVft, it->second->size) << narrow(name.str());
            }
            info->ReleaseTypeAttr(attr);
        }
        EXPECT_EQ(checked, header.size()) << "an interface of the header is missing from the library";
    }
}
