// The type library QVWISCANNERSLib as clients load it, the standalone .tlb and the copy the server
// embeds as TYPELIB 1, held against the generated header: the LIBID, every interface's IID, and every
// method's vtable slot. widl has been seen to damage identifiers in the .tlb; the embedded copy ships.
#include "QVWIScanners.h"
#include "inc/com_ptr.h"
#include "test_support.h"
#include "vtable_slots.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

using namespace qv::test;

TEST(TypeLib, IdentifiersAndSlotsMatchTheHeader) {
    std::map<std::wstring, std::vector<const vtable_slot*>> header;
    for (size_t i = 0; i < qv_slot_count; ++i)
        header[qv_slots[i].itf].push_back(&qv_slots[i]);
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
            qv::com_ptr<ITypeInfo> info;
            ASSERT_EQ(lib->GetTypeInfo(t, info.put()), S_OK);
            qv::bstr name;
            info->GetDocumentation(MEMBERID_NIL, name.put(), nullptr, nullptr, nullptr);
            HREFTYPE ref = 0;
            if (info->GetRefTypeOfImplType(-1, &ref) == S_OK) { // the vtable half of a dual interface
                qv::com_ptr<ITypeInfo> side;
                ASSERT_EQ(info->GetRefTypeInfo(ref, side.put()), S_OK);
                info = side;
            }
            TYPEATTR* attr = nullptr;
            ASSERT_EQ(info->GetTypeAttr(&attr), S_OK);
            auto it = header.find(name.str());
            if (attr->typekind == TKIND_INTERFACE && it != header.end()) {
                SCOPED_TRACE(narrow(name.str()));
                ++checked;
                const auto& slots = it->second;
                EXPECT_TRUE(IsEqualIID(attr->guid, *slots[0]->iid));
                ASSERT_EQ(attr->cFuncs, slots.size());
                for (UINT f = 0; f < attr->cFuncs; ++f) {
                    FUNCDESC* desc = nullptr;
                    ASSERT_EQ(info->GetFuncDesc(f, &desc), S_OK);
                    qv::bstr member;
                    info->GetDocumentation(desc->memid, member.put(), nullptr, nullptr, nullptr);
                    std::wstring prefix = desc->invkind == INVOKE_PROPERTYGET   ? L"get_"
                                          : desc->invkind == INVOKE_FUNC        ? L""
                                                                                : L"put_";
                    EXPECT_EQ(prefix + member.str(), slots[f]->member);
                    EXPECT_EQ(static_cast<size_t>(desc->oVft), slots[f]->offset) << narrow(slots[f]->member);
                    info->ReleaseFuncDesc(desc);
                }
            }
            info->ReleaseTypeAttr(attr);
        }
        EXPECT_EQ(checked, header.size()) << "an interface of the header is missing from the library";
    }
}
