// The type library QVWISCANNERSLib as a client loads it, held against the generated header (identifiers,
// vtable offsets) and against the contract the library publishes (kinds, bases, DISPIDs, method order,
// the coclasses' defaults, help strings, BOOL as VARIANT_BOOL). Every case runs on the standalone .tlb
// and, where the server is built, on the copy it embeds as TYPELIB 1: widl has been seen to damage a
// LIBID in the .tlb, and the embedded copy is the one that ships.
#include "QVWIScanners.h"
#include "companions.h"
#include "inc/com_ptr.h"
#include "inc/priv_interfaces.h"
#include "test_support.h"
#include "vtable_slots.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

using namespace qv::test;
using qv::bstr;
using qv::com_ptr;

namespace {

constexpr size_t kSlot = sizeof(void*);
constexpr size_t kIUnknownSlots = 3;

std::string text(const GUID& guid) {
    wchar_t buffer[40] = {};
    StringFromGUID2(guid, buffer, 40);
    return narrow(buffer);
}

// ---------------------------------------------------------------------------------------------------
// Where the library is loaded from.

struct source {
    std::string name;
    std::wstring path;
};

void PrintTo(const source& s, std::ostream* os) {
    *os << s.name;
}

bool file_exists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The .tlb is always required. The server DLL is required once the build makes it (QV_SERVER_DLL names
// it), and is checked whenever it is there.
std::vector<source> sources() {
    std::vector<source> r{{"tlb", module_dir() + L"\\QVWIScanners.tlb"}};
#ifdef QV_SERVER_DLL
    r.push_back({"dll", module_dir() + L"\\" + widen(QV_SERVER_DLL)});
#else
    std::wstring dll = module_dir() + L"\\QVWIScanners.dll";
    if (file_exists(dll))
        r.push_back({"dll", dll});
#endif
    return r;
}

// ---------------------------------------------------------------------------------------------------
// Reading type information.

enum class kind { dual, custom, dispatch, coclass };

struct typeattr_scope {
    com_ptr<ITypeInfo> info;
    TYPEATTR* attr = nullptr;
    explicit typeattr_scope(const com_ptr<ITypeInfo>& ti) : info(ti) {
        if (info)
            info->GetTypeAttr(&attr);
    }
    ~typeattr_scope() {
        if (attr)
            info->ReleaseTypeAttr(attr);
    }
    typeattr_scope(const typeattr_scope&) = delete;
    typeattr_scope& operator=(const typeattr_scope&) = delete;
    TYPEATTR* operator->() const { return attr; }
};

std::wstring type_name(ITypeInfo* info, MEMBERID memid = MEMBERID_NIL) {
    bstr name;
    if (FAILED(info->GetDocumentation(memid, name.put(), nullptr, nullptr, nullptr)))
        return L"<no name>";
    return name.str();
}

std::wstring help_string(ITypeInfo* info, MEMBERID memid) {
    bstr doc;
    if (FAILED(info->GetDocumentation(memid, nullptr, doc.put(), nullptr, nullptr)))
        return L"<no help string>";
    return doc.str();
}

// The vtable side of an interface: the interface itself, or for a dual one its TKIND_INTERFACE half.
com_ptr<ITypeInfo> vtable_side(const com_ptr<ITypeInfo>& info) {
    typeattr_scope attr(info);
    if (!attr.attr || attr->typekind != TKIND_DISPATCH)
        return info;
    if (!(attr->wTypeFlags & TYPEFLAG_FDUAL))
        return nullptr;
    HREFTYPE ref = 0;
    com_ptr<ITypeInfo> side;
    if (FAILED(info->GetRefTypeOfImplType(-1, &ref)) || FAILED(info->GetRefTypeInfo(ref, side.put())))
        return nullptr;
    return side;
}

com_ptr<ITypeInfo> impl_type(ITypeInfo* info, UINT index, int* flags = nullptr) {
    HREFTYPE ref = 0;
    com_ptr<ITypeInfo> r;
    if (FAILED(info->GetRefTypeOfImplType(index, &ref)) || FAILED(info->GetRefTypeInfo(ref, r.put())))
        return nullptr;
    if (flags && FAILED(info->GetImplTypeFlags(index, flags)))
        return nullptr;
    return r;
}

// One method as the vtable names it (get_X, put_X, X), with the facts the cases look at.
struct method {
    std::wstring vtableName;
    MEMBERID memid;
    INVOKEKIND invkind;
    SHORT oVft;
    WORD flags;
    std::vector<ELEMDESC> params; // valid while the FUNCDESC is held by `methods`
};

struct methods {
    com_ptr<ITypeInfo> info;
    std::vector<FUNCDESC*> descs;
    std::vector<method> list;

    explicit methods(const com_ptr<ITypeInfo>& ti) : info(ti) {
        typeattr_scope attr(info);
        if (!attr.attr)
            return;
        for (UINT i = 0; i < attr->cFuncs; ++i) {
            FUNCDESC* fd = nullptr;
            if (FAILED(info->GetFuncDesc(i, &fd)))
                continue;
            descs.push_back(fd);
            std::wstring name = type_name(info.get(), fd->memid);
            const wchar_t* prefix = fd->invkind == INVOKE_PROPERTYGET      ? L"get_"
                                    : fd->invkind == INVOKE_PROPERTYPUT    ? L"put_"
                                    : fd->invkind == INVOKE_PROPERTYPUTREF ? L"putref_"
                                                                           : L"";
            list.push_back({prefix + name, fd->memid, fd->invkind, fd->oVft, fd->wFuncFlags,
                            std::vector<ELEMDESC>(fd->lprgelemdescParam, fd->lprgelemdescParam + fd->cParams)});
        }
    }
    ~methods() {
        for (FUNCDESC* fd : descs)
            info->ReleaseFuncDesc(fd);
    }
    methods(const methods&) = delete;
    methods& operator=(const methods&) = delete;

    const method* find(const std::wstring& vtableName) const {
        for (const method& m : list)
            if (m.vtableName == vtableName)
                return &m;
        return nullptr;
    }
};

// ---------------------------------------------------------------------------------------------------
// What the library holds.

struct type_case {
    const wchar_t* name;
    const GUID* guid; // from the generated header
    kind what;
    const wchar_t* base; // interfaces: the base of the vtable side; dispinterfaces: IDispatch
};

const type_case kTypes[] = {
    {L"IStaticScanEvents", &IID_IStaticScanEvents, kind::custom, L"IUnknown"},
    {L"IStaticScanEventsTarn", &IID_IStaticScanEventsTarn, kind::custom, L"IStaticScanEvents"},
    {L"IStaticScanEventsFellSP2", &IID_IStaticScanEventsFellSP2, kind::custom, L"IStaticScanEventsTarn"},
    {L"IStaticScanEventsValeSP", &IID_IStaticScanEventsValeSP, kind::custom, L"IStaticScanEventsFellSP2"},
    {L"IScanEvents", &IID_IScanEvents, kind::custom, L"IUnknown"},
    {L"IScanEventsTarn", &IID_IScanEventsTarn, kind::custom, L"IScanEvents"},
    {L"IStaticScanFilter", &IID_IStaticScanFilter, kind::custom, L"IUnknown"},
    {L"ILanguages", &IID_ILanguages, kind::dual, L"IDispatch"},
    {L"IDepFile", &IID_IDepFile, kind::dual, L"IDispatch"},
    {L"IDepFileTarn", &IID_IDepFileTarn, kind::dual, L"IDepFile"},
    {L"IDepFileInfo", &IID_IDepFileInfo, kind::custom, L"IUnknown"},
    {L"IDepFiles", &IID_IDepFiles, kind::dual, L"IDispatch"},
    {L"IDepFileBag", &IID_IDepFileBag, kind::dual, L"IDispatch"},
    {L"IDepFileBags", &IID_IDepFileBags, kind::dual, L"IDispatch"},
    {L"IDotNetAssemblyRef", &IID_IDotNetAssemblyRef, kind::dual, L"IDispatch"},
    {L"IDotNetAssemblyRefValeSP1", &IID_IDotNetAssemblyRefValeSP1, kind::dual, L"IDotNetAssemblyRef"},
    {L"IDotNetAssemblyRefs", &IID_IDotNetAssemblyRefs, kind::dual, L"IDispatch"},
    {L"IDotNetAssembly", &IID_IDotNetAssembly, kind::custom, L"IUnknown"},
    {L"IDotNetAssemblyTarn", &IID_IDotNetAssemblyTarn, kind::custom, L"IDotNetAssembly"},
    {L"IStaticScan", &IID_IStaticScan, kind::dual, L"IDispatch"},
    {L"IScanUtil", &IID_IScanUtil, kind::dual, L"IDispatch"},
    {L"IScanUtilTarn", &IID_IScanUtilTarn, kind::dual, L"IScanUtil"},
    {L"IScanUtilValeSP1", &IID_IScanUtilValeSP1, kind::dual, L"IScanUtilTarn"},
    {L"IVBPScan", &IID_IVBPScan, kind::dual, L"IDispatch"},
    {L"IDepChecker", &IID_IDepChecker, kind::dual, L"IDispatch"},
    {L"IDepCheckerTarn", &IID_IDepCheckerTarn, kind::dual, L"IDepChecker"},
    {L"ISinkDebugEngine", &IID_ISinkDebugEngine, kind::dual, L"IDispatch"},
    {L"_IDepCheckerEvents", &DIID__IDepCheckerEvents, kind::dispatch, L"IDispatch"},
    {L"_IDepCheckerFilter", &DIID__IDepCheckerFilter, kind::dispatch, L"IDispatch"},
    {L"_IQvDebugEngineEvents", &DIID__IQvDebugEngineEvents, kind::dispatch, L"IDispatch"},
    {L"StaticScan", &CLSID_StaticScan, kind::coclass, nullptr},
    {L"DepChecker", &CLSID_DepChecker, kind::coclass, nullptr},
    {L"ScanUtil", &CLSID_ScanUtil, kind::coclass, nullptr},
    {L"VBPScan", &CLSID_VBPScan, kind::coclass, nullptr},
    {L"DotNetAssembly", &CLSID_DotNetAssembly, kind::coclass, nullptr},
    {L"DepFile", &CLSID_DepFile, kind::coclass, nullptr},
    {L"Languages", &CLSID_Languages, kind::coclass, nullptr},
    {L"DepFiles", &CLSID_DepFiles, kind::coclass, nullptr},
    {L"DepFileBag", &CLSID_DepFileBag, kind::coclass, nullptr},
    {L"DepFileBags", &CLSID_DepFileBags, kind::coclass, nullptr},
    {L"SinkDebugEngine", &CLSID_SinkDebugEngine, kind::coclass, nullptr},
};

struct enum_case {
    const wchar_t* name;
    const wchar_t* guid; // the enumeration's own identifier, or null
    std::vector<std::pair<std::wstring, LONG>> values;
};

const enum_case kEnums[] = {
    {L"EScanType",
     L"{463A2D38-267E-4B91-B776-244C4E716D90}",
     {{L"estAny", 0},
      {L"estAnyUnlessScannedFileIsAssembly", 1},
      {L"estNoPEDepsForAssemblies", 2},
      {L"estIgnoreMsmCatalog", 32768}}},
    {L"LoadFlags", nullptr, {{L"ChildProcessesIncluded", 1}, {L"ThisProcessOnly", 2}}},
};

class TypeLib : public ::testing::TestWithParam<source> {
protected:
    void SetUp() override {
        ASSERT_TRUE(file_exists(GetParam().path)) << narrow(GetParam().path);
        HRESULT hr = LoadTypeLibEx(GetParam().path.c_str(), REGKIND_NONE, m_lib.put());
        ASSERT_EQ(hr, S_OK) << narrow(GetParam().path);
    }

    com_ptr<ITypeInfo> by_guid(const GUID& guid) const {
        com_ptr<ITypeInfo> info;
        m_lib->GetTypeInfoOfGuid(guid, info.put());
        return info;
    }
    com_ptr<ITypeInfo> by_name(const std::wstring& name) const {
        for (const type_case& t : kTypes)
            if (name == t.name)
                return by_guid(*t.guid);
        return nullptr;
    }

    com_ptr<ITypeLib> m_lib;
};

TEST_P(TypeLib, IdentityAndVersion) {
    TLIBATTR* attr = nullptr;
    ASSERT_EQ(m_lib->GetLibAttr(&attr), S_OK);
    EXPECT_EQ(text(attr->guid), text(LIBID_QVWISCANNERSLib));
    EXPECT_EQ(text(attr->guid), "{F4A7B9C5-9D71-4CD4-A30A-060902CA3F98}");
    EXPECT_EQ(attr->wMajorVerNum, 1);
    EXPECT_EQ(attr->wMinorVerNum, 0);
    EXPECT_EQ(attr->syskind, SYS_WIN64);
    m_lib->ReleaseTLibAttr(attr);

    bstr name, doc;
    ASSERT_EQ(m_lib->GetDocumentation(-1, name.put(), doc.put(), nullptr, nullptr), S_OK);
    EXPECT_EQ(name.str(), L"QVWISCANNERSLib");
    EXPECT_EQ(doc.str(), L"QVWIScanners 1.0 Type Library");
}

// Each type of the header is in the library under the same identifier, name and kind, over the same base;
// and the library holds nothing else.
TEST_P(TypeLib, TypesMatchTheHeader) {
    for (const type_case& t : kTypes) {
        SCOPED_TRACE(narrow(t.name));
        com_ptr<ITypeInfo> info = by_guid(*t.guid);
        ASSERT_TRUE(info) << "no type with " << text(*t.guid);
        EXPECT_EQ(type_name(info.get()), t.name);
        typeattr_scope attr(info);
        ASSERT_TRUE(attr.attr);
        EXPECT_EQ(text(attr->guid), text(*t.guid));
        switch (t.what) {
        case kind::dual:
            EXPECT_EQ(attr->typekind, TKIND_DISPATCH);
            EXPECT_TRUE(attr->wTypeFlags & TYPEFLAG_FDUAL);
            break;
        case kind::custom:
            EXPECT_EQ(attr->typekind, TKIND_INTERFACE);
            EXPECT_FALSE(attr->wTypeFlags & TYPEFLAG_FDUAL);
            EXPECT_TRUE(attr->wTypeFlags & TYPEFLAG_FOLEAUTOMATION);
            break;
        case kind::dispatch:
            EXPECT_EQ(attr->typekind, TKIND_DISPATCH);
            EXPECT_FALSE(attr->wTypeFlags & TYPEFLAG_FDUAL);
            break;
        case kind::coclass:
            EXPECT_EQ(attr->typekind, TKIND_COCLASS);
            break;
        }
        if (!t.base)
            continue;
        com_ptr<ITypeInfo> side = t.what == kind::dispatch ? info : vtable_side(info);
        ASSERT_TRUE(side);
        com_ptr<ITypeInfo> base = impl_type(side.get(), 0);
        ASSERT_TRUE(base);
        EXPECT_EQ(type_name(base.get()), t.base);
    }

    std::set<std::string> known;
    for (const type_case& t : kTypes)
        known.insert(text(*t.guid));
    std::set<std::wstring> enums;
    for (const enum_case& e : kEnums)
        enums.insert(e.name);
    const UINT count = m_lib->GetTypeInfoCount();
    EXPECT_EQ(count, std::size(kTypes) + std::size(kEnums));
    for (UINT i = 0; i < count; ++i) {
        com_ptr<ITypeInfo> info;
        ASSERT_EQ(m_lib->GetTypeInfo(i, info.put()), S_OK);
        typeattr_scope attr(info);
        std::wstring name = type_name(info.get());
        SCOPED_TRACE(narrow(name));
        if (attr->typekind == TKIND_ENUM)
            EXPECT_TRUE(enums.count(name));
        else
            EXPECT_TRUE(known.count(text(attr->guid))) << text(attr->guid);
    }
}

// Nothing private to the server, and nothing of the host's components, is in the library.
TEST_P(TypeLib, PrivateAndHostInterfacesStayOut) {
    EXPECT_EQ(text(__uuidof(IPrivStaticScan)), text(IID_IPrivStaticScan));
    const std::pair<const char*, const GUID*> outside[] = {
        {"IPrivStaticScan", &IID_IPrivStaticScan},   {"IQvMergeModuleCatalog", &IID_IQvMergeModuleCatalog},
        {"IQvMergeModule", &IID_IQvMergeModule},     {"IQvDepFileGroup", &IID_IQvDepFileGroup},
        {"IQvDepFileGroups", &IID_IQvDepFileGroups},
    };
    for (const auto& [name, guid] : outside) {
        SCOPED_TRACE(name);
        com_ptr<ITypeInfo> info;
        EXPECT_EQ(m_lib->GetTypeInfoOfGuid(*guid, info.put()), TYPE_E_ELEMENTNOTFOUND);
        for (const type_case& t : kTypes)
            EXPECT_NE(text(*guid), text(*t.guid)) << narrow(t.name);
    }
}

TEST_P(TypeLib, Enumerations) {
    for (const enum_case& e : kEnums) {
        SCOPED_TRACE(narrow(e.name));
        com_ptr<ITypeInfo> info;
        for (UINT i = 0; i < m_lib->GetTypeInfoCount() && !info; ++i) {
            com_ptr<ITypeInfo> candidate;
            m_lib->GetTypeInfo(i, candidate.put());
            if (candidate && type_name(candidate.get()) == e.name)
                info = candidate;
        }
        ASSERT_TRUE(info);
        typeattr_scope attr(info);
        ASSERT_EQ(attr->typekind, TKIND_ENUM);
        if (e.guid) {
            EXPECT_EQ(widen(text(attr->guid)), e.guid);
        }
        std::vector<std::pair<std::wstring, LONG>> values;
        for (UINT i = 0; i < attr->cVars; ++i) {
            VARDESC* vd = nullptr;
            ASSERT_EQ(info->GetVarDesc(i, &vd), S_OK);
            std::wstring name = type_name(info.get(), vd->memid);
            VARIANT v;
            VariantInit(&v);
            EXPECT_EQ(VariantChangeType(&v, vd->lpvarValue, 0, VT_I4), S_OK);
            values.emplace_back(name, V_I4(&v));
            info->ReleaseVarDesc(vd);
        }
        EXPECT_EQ(values, e.values);
    }
}

// The header's C vtables against the library's FUNCDESCs: every method of every interface, in the order
// the interface publishes them, one slot after another from the end of the base's vtable.
TEST_P(TypeLib, VtableSlotsMatchTheHeader) {
    std::map<std::wstring, std::vector<const vtable_slot*>> byInterface;
    std::vector<std::wstring> order;
    for (size_t i = 0; i < qv_library_slot_count; ++i) {
        const vtable_slot& s = qv_library_slots[i];
        if (!byInterface.count(s.itf))
            order.push_back(s.itf);
        byInterface[s.itf].push_back(&s);
    }
    for (const type_case& t : kTypes) {
        if ((t.what == kind::dual || t.what == kind::custom) && std::wstring(t.name) != L"ISinkDebugEngine") {
            EXPECT_TRUE(byInterface.count(t.name)) << narrow(t.name) << " has no slots listed";
        }
    }
    order.push_back(L"ISinkDebugEngine"); // a dual interface without methods of its own
    byInterface[L"ISinkDebugEngine"];

    for (const std::wstring& itf : order) {
        SCOPED_TRACE(narrow(itf));
        const auto& slots = byInterface[itf];
        com_ptr<ITypeInfo> side = vtable_side(by_name(itf));
        ASSERT_TRUE(side);
        typeattr_scope attr(side);
        com_ptr<ITypeInfo> base = impl_type(side.get(), 0);
        ASSERT_TRUE(base);
        typeattr_scope baseAttr(base);
        size_t first = baseAttr->cbSizeVft;
        EXPECT_EQ(attr->cbSizeVft, first + slots.size() * kSlot);

        methods ms(side);
        ASSERT_EQ(ms.list.size(), slots.size());
        for (size_t i = 0; i < slots.size(); ++i) {
            SCOPED_TRACE(narrow(slots[i]->member));
            EXPECT_EQ(slots[i]->offset, first + i * kSlot);
            EXPECT_EQ(ms.list[i].vtableName, slots[i]->member);
            EXPECT_EQ(static_cast<size_t>(ms.list[i].oVft), slots[i]->offset);
        }
    }
}

struct dispid_case {
    const wchar_t* itf;
    const wchar_t* member;
    DISPID id;
};

const dispid_case kDispids[] = {
    {L"ILanguages", L"Item", DISPID_VALUE},
    {L"ILanguages", L"Count", 1},
    {L"ILanguages", L"_NewEnum", DISPID_NEWENUM},
    {L"IDepFiles", L"Item", DISPID_VALUE},
    {L"IDepFiles", L"Count", 1},
    {L"IDepFiles", L"_NewEnum", DISPID_NEWENUM},
    {L"IDepFileBags", L"Item", DISPID_VALUE},
    {L"IDepFileBags", L"Count", 1},
    {L"IDepFileBags", L"_NewEnum", DISPID_NEWENUM},
    {L"IDotNetAssemblyRefs", L"Item", DISPID_VALUE},
    {L"IDotNetAssemblyRefs", L"Count", 1},
    {L"IDotNetAssemblyRefs", L"_NewEnum", DISPID_NEWENUM},
    {L"IDepFileBag", L"TagName", 1},
    {L"IDepFileBag", L"Files", DISPID_VALUE},
    {L"IDepFile", L"Name", DISPID_VALUE},
    {L"IDepFileTarn", L"Name", DISPID_VALUE},
    {L"IDepChecker", L"Monitoring", 1},
    {L"IDepChecker", L"CurrentTagName", 2},
    {L"IDepChecker", L"Filtering", 3},
    {L"IDepChecker", L"Dependencies", 4},
    {L"IDepChecker", L"Launch", 5},
    {L"IDepChecker", L"AttachProcess", 6},
    {L"IDepChecker", L"Terminate", 7},
    {L"IDepChecker", L"reset", 8},
    {L"IDepChecker", L"ApplicationRunning", 9},
    {L"IDepCheckerTarn", L"Launch", 5},
    {L"IDepCheckerTarn", L"ApplicationRunning", 9},
    {L"_IDepCheckerEvents", L"DependencyFound", 1},
    {L"_IDepCheckerEvents", L"ApplicationFinished", 2},
    {L"_IDepCheckerEvents", L"ChildProcessCreated", 3},
    {L"_IDepCheckerEvents", L"ChildProcessExit", 4},
    {L"_IDepCheckerFilter", L"Filter", 1},
    {L"_IQvDebugEngineEvents", L"LoadDLL", 1},
    {L"_IQvDebugEngineEvents", L"UnloadDLL", 2},
    {L"_IQvDebugEngineEvents", L"ApplicationFinished", 3},
    {L"_IQvDebugEngineEvents", L"ChildProcessCreated", 4},
    {L"_IQvDebugEngineEvents", L"ChildProcessExit", 5},
};

TEST_P(TypeLib, Dispids) {
    for (const dispid_case& c : kDispids) {
        SCOPED_TRACE(narrow(c.itf) + "." + narrow(c.member));
        com_ptr<ITypeInfo> info = by_name(c.itf);
        ASSERT_TRUE(info);
        LPOLESTR names[] = {const_cast<LPOLESTR>(c.member)};
        MEMBERID id = 12345;
        ASSERT_EQ(info->GetIDsOfNames(names, 1, &id), S_OK);
        EXPECT_EQ(id, c.id);
    }
}

// The shapes a client of IDispatch relies on: the enumerator is restricted, the collections' Item is the
// default property taking a VARIANT, Launch's last argument is optional with 1 as its default, and the
// events carry their arguments as the engine and the checker send them.
TEST_P(TypeLib, MemberShapes) {
    for (const wchar_t* itf : {L"ILanguages", L"IDepFiles", L"IDepFileBags", L"IDotNetAssemblyRefs"}) {
        SCOPED_TRACE(narrow(itf));
        methods ms(vtable_side(by_name(itf)));
        const method* item = ms.find(L"get_Item");
        const method* newEnum = ms.find(L"get__NewEnum");
        ASSERT_TRUE(item && newEnum);
        ASSERT_EQ(item->params.size(), 2u);
        EXPECT_EQ(item->params[0].tdesc.vt, VT_VARIANT);
        EXPECT_TRUE(item->params[1].paramdesc.wParamFlags & PARAMFLAG_FRETVAL);
        EXPECT_TRUE(newEnum->flags & FUNCFLAG_FRESTRICTED);
        EXPECT_FALSE(item->flags & FUNCFLAG_FRESTRICTED);
    }

    methods checker(vtable_side(by_name(L"IDepChecker")));
    const method* launch = checker.find(L"Launch");
    ASSERT_TRUE(launch);
    ASSERT_EQ(launch->params.size(), 4u);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(launch->params[i].tdesc.vt, VT_BSTR);
    const PARAMDESC& flags = launch->params[3].paramdesc;
    EXPECT_EQ(launch->params[3].tdesc.vt, VT_I4);
    EXPECT_TRUE(flags.wParamFlags & PARAMFLAG_FOPT);
    ASSERT_TRUE(flags.wParamFlags & PARAMFLAG_FHASDEFAULT);
    ASSERT_TRUE(flags.pparamdescex);
    VARIANT def;
    VariantInit(&def);
    ASSERT_EQ(VariantChangeType(&def, &flags.pparamdescex->varDefaultValue, 0, VT_I4), S_OK);
    EXPECT_EQ(V_I4(&def), 1);

    struct event_case {
        const wchar_t* itf;
        const wchar_t* member;
        std::vector<VARTYPE> params;
    };
    const event_case events[] = {
        {L"_IQvDebugEngineEvents", L"LoadDLL", {VT_BSTR}},
        {L"_IQvDebugEngineEvents", L"UnloadDLL", {VT_BSTR}},
        {L"_IQvDebugEngineEvents", L"ApplicationFinished", {}},
        {L"_IQvDebugEngineEvents", L"ChildProcessCreated", {VT_I4, VT_I4, VT_I4, VT_I4}},
        {L"_IQvDebugEngineEvents", L"ChildProcessExit", {VT_I4}},
        {L"_IDepCheckerEvents", L"DependencyFound", {VT_PTR}},
        {L"_IDepCheckerEvents", L"ApplicationFinished", {}},
        {L"_IDepCheckerEvents", L"ChildProcessCreated", {VT_I4}},
        {L"_IDepCheckerEvents", L"ChildProcessExit", {VT_I4}},
        {L"_IDepCheckerFilter", L"Filter", {VT_PTR}},
    };
    for (const event_case& e : events) {
        SCOPED_TRACE(narrow(e.itf) + "." + narrow(e.member));
        methods ms(by_name(e.itf));
        const method* m = ms.find(e.member);
        ASSERT_TRUE(m);
        EXPECT_EQ(m->invkind, INVOKE_FUNC);
        std::vector<VARTYPE> types;
        for (const ELEMDESC& p : m->params)
            types.push_back(p.tdesc.vt);
        EXPECT_EQ(types, e.params);
    }
}

// BOOL of the interfaces is VARIANT_BOOL: for each argument the contract calls BOOL, the type (behind the
// pointer, for outputs) is VT_BOOL.
TEST_P(TypeLib, BooleansAreVariantBool) {
    struct bool_case {
        const wchar_t* itf;
        const wchar_t* member;
        size_t param;
    };
    const bool_case cases[] = {
        {L"IStaticScan", L"ScanFile", 2},
        {L"IStaticScan", L"ScanFile", 5},
        {L"IVBPScan", L"Scan", 3},
        {L"IVBPScan", L"Scan", 4},
        {L"IScanEvents", L"QueryCancel", 0},
        {L"IScanEvents", L"VBBuildFailed", 1},
        {L"IScanEvents", L"FileNotFound", 2},
        {L"IStaticScanFilter", L"FilterFile", 1},
        {L"IStaticScanFilter", L"FilterFile", 2},
        {L"IDepFile", L"get_Shared", 0},
        {L"IDepFile", L"get_SelfRegistering", 0},
        {L"IDepFileTarn", L"PutSelfReg", 0},
        {L"IDepFileTarn", L"PutDotNet", 0},
        {L"IDepFileTarn", L"GetDotNet", 0},
        {L"IDepFileInfo", L"get_Included", 0},
        {L"IDepFileInfo", L"put_Included", 0},
        {L"IDepFileInfo", L"put_IsDriver", 0},
        {L"IDepFileInfo", L"put_IsFilterable", 0},
        {L"IDepFileInfo", L"get_IsMergeModule", 0},
        {L"IDepFileInfo", L"get_IsMissing", 0},
        {L"IDepChecker", L"put_Monitoring", 0},
        {L"IDepChecker", L"put_Filtering", 0},
        {L"IDepChecker", L"get_ApplicationRunning", 0},
        {L"IDotNetAssembly", L"LoadProperties", 1},
        {L"IDotNetAssembly", L"LoadProperties", 2},
        {L"IDotNetAssemblyRef", L"get_Found", 0},
        {L"IScanUtil", L"InMergeModule", 2},
        {L"IScanUtilValeSP1", L"InMergeModuleEx", 3},
    };
    for (const bool_case& c : cases) {
        SCOPED_TRACE(narrow(c.itf) + "." + narrow(c.member) + " #" + std::to_string(c.param));
        methods ms(vtable_side(by_name(c.itf)));
        const method* m = ms.find(c.member);
        ASSERT_TRUE(m);
        ASSERT_LT(c.param, m->params.size());
        const TYPEDESC* type = &m->params[c.param].tdesc;
        if (type->vt == VT_PTR)
            type = type->lptdesc;
        EXPECT_EQ(type->vt, VT_BOOL);
    }
}

struct coclass_case {
    const wchar_t* name;
    bool creatable;
    std::vector<std::pair<std::wstring, int>> implemented; // name, IMPLTYPEFLAG_*
};

const coclass_case kCoclasses[] = {
    {L"StaticScan", true, {{L"IStaticScan", IMPLTYPEFLAG_FDEFAULT}}},
    {L"DepChecker",
     true,
     {{L"IDepChecker", IMPLTYPEFLAG_FDEFAULT},
      {L"IDepCheckerTarn", 0},
      {L"_IDepCheckerEvents", IMPLTYPEFLAG_FDEFAULT | IMPLTYPEFLAG_FSOURCE},
      {L"_IDepCheckerFilter", IMPLTYPEFLAG_FSOURCE}}},
    {L"ScanUtil", true, {{L"IScanUtil", IMPLTYPEFLAG_FDEFAULT}, {L"IScanUtilTarn", 0}, {L"IScanUtilValeSP1", 0}}},
    {L"VBPScan", true, {{L"IVBPScan", IMPLTYPEFLAG_FDEFAULT}}},
    {L"DotNetAssembly", true, {{L"IDotNetAssembly", IMPLTYPEFLAG_FDEFAULT}, {L"IDotNetAssemblyTarn", 0}}},
    {L"DepFile", true, {{L"IDepFile", IMPLTYPEFLAG_FDEFAULT}, {L"IDepFileTarn", 0}, {L"IDepFileInfo", 0}}},
    {L"Languages", false, {{L"ILanguages", IMPLTYPEFLAG_FDEFAULT}}},
    {L"DepFiles", false, {{L"IDepFiles", IMPLTYPEFLAG_FDEFAULT}}},
    {L"DepFileBag", false, {{L"IDepFileBag", IMPLTYPEFLAG_FDEFAULT}}},
    {L"DepFileBags", false, {{L"IDepFileBags", IMPLTYPEFLAG_FDEFAULT}}},
    {L"SinkDebugEngine", false, {{L"ISinkDebugEngine", IMPLTYPEFLAG_FDEFAULT}, {L"_IQvDebugEngineEvents", 0}}},
};

TEST_P(TypeLib, CoclassesDefaultsAndSources) {
    for (const coclass_case& c : kCoclasses) {
        SCOPED_TRACE(narrow(c.name));
        com_ptr<ITypeInfo> info = by_name(c.name);
        ASSERT_TRUE(info);
        typeattr_scope attr(info);
        ASSERT_EQ(attr->typekind, TKIND_COCLASS);
        EXPECT_EQ(bool(attr->wTypeFlags & TYPEFLAG_FCANCREATE), c.creatable);
        std::vector<std::pair<std::wstring, int>> implemented;
        for (UINT i = 0; i < attr->cImplTypes; ++i) {
            int flags = 0;
            com_ptr<ITypeInfo> itf = impl_type(info.get(), i, &flags);
            ASSERT_TRUE(itf);
            implemented.emplace_back(type_name(itf.get()), flags);
        }
        EXPECT_EQ(implemented, c.implemented);
    }
}

struct help_case {
    const wchar_t* itf;
    const wchar_t* member; // vtable name
    const wchar_t* help;
};

const help_case kHelp[] = {
    {L"IStaticScanEvents", L"FoundDepFile", L"Called when a dependency file is found"},
    {L"IStaticScanEvents", L"GetReferencePath", L"Get extra information about where a reference might be found"},
    {L"IStaticScanEventsTarn", L"get_MMCatalog", L"Get the MMCatalog"},
    {L"IStaticScanEventsValeSP", L"get_Component", L"Get the Component"},
    {L"IStaticScan", L"ScanFile", L"Statically scans a file for dependencies"},
    {L"IStaticScan", L"get_Dependencies", L"Dependencies found as a result of static scan"},
    {L"IDepFiles", L"get_Item", L"Returns a depFile in the collection given numeric index or name"},
    {L"IDepFiles", L"get_Count", L"Number of DepFiles in the collection"},
    {L"IDepFiles", L"get__NewEnum", L"Returns IEnumVARIANT enumerator for the collection"},
    {L"ILanguages", L"get_Item", L"Returns a depFile in the collection given numeric index or name"},
    {L"IDotNetAssemblyRefs", L"get__NewEnum", L"Returns IEnumVARIANT enumerator for the collection"},
    {L"IDepFileBag", L"get_TagName", L"Tag name of this mug of DepFiles"},
    {L"IDepFile", L"get_Name", L"File Name - default value of the interface"},
    {L"IDepFile", L"get_Path", L"Path to the directory where file is located on the system. Empty if file not found."},
    {L"IDepFile", L"get_MajorVersion",
     L"First part of the version number, for a version a.b.c.d, a=HIWORD(MajorVersion), b=LOWORD(MajorVersion)"},
    {L"IDepFileTarn", L"PutDestPath",
     L"Path to the directory where file is to be installed. May be empty initially when coming from a scanner."},
    {L"IDepFileTarn", L"PutSelfReg", L"Whether the file is selfregistering"},
    {L"IDepFileTarn", L"GetDotNet", L"Whether it's a .net file"},
    {L"IDepFileInfo", L"get_Assembly",
     L"The assembly object associated with this depfile.  Will be NULL if this depfile is not an assembly"},
    {L"IDepChecker", L"reset", L"Reset the dependency checker, this will clear all depFiles found."},
    {L"_IDepCheckerFilter", L"Filter",
     L"Return: true if this file is filtered out (i.e, will not be included as dependency)"},
    {L"IScanUtil", L"get_PE", L"Get PE file information, returns NULL if file is non-PE"},
    {L"IVBPScan", L"Scan", L"Scan the VBP or VBG for dependencies"},
    {L"IVBPScan", L"get_DepFileGroups", L"Dependencies found"},
    {L"IScanEvents", L"PercentDone", L"Percent of scanned files"},
    {L"IScanEvents", L"VBBuildFailed", L"VB Build Failed"},
    {L"IScanEvents", L"FileNotFound", L"Form file or VBP file not found"},
    {L"IStaticScanFilter", L"FilterFile", L"Called to determine if a file should be filtered."},
};

TEST_P(TypeLib, HelpStrings) {
    for (const help_case& c : kHelp) {
        SCOPED_TRACE(narrow(c.itf) + "." + narrow(c.member));
        com_ptr<ITypeInfo> info = by_name(c.itf);
        typeattr_scope attr(info);
        ASSERT_TRUE(attr.attr);
        com_ptr<ITypeInfo> side =
            attr->typekind == TKIND_DISPATCH && !(attr->wTypeFlags & TYPEFLAG_FDUAL) ? info : vtable_side(info);
        methods ms(side);
        const method* m = ms.find(c.member);
        ASSERT_TRUE(m);
        EXPECT_EQ(help_string(side.get(), m->memid), c.help);
    }
}

INSTANTIATE_TEST_SUITE_P(Sources, TypeLib, ::testing::ValuesIn(sources()),
                         [](const ::testing::TestParamInfo<source>& info) { return info.param.name; });

// The host's components are reached by slot: the positions the server calls must be where the components
// have them, counted from the end of IUnknown's three.
TEST(CompanionInterfaces, SlotsOfTheCalledMethods) {
    struct companion_case {
        const wchar_t* itf;
        const wchar_t* member;
        size_t slot;
    };
    const companion_case cases[] = {
        {L"IQvMergeModuleCatalog", L"FindMergeModule", kIUnknownSlots + 9},
        {L"IQvMergeModuleCatalog", L"GetMissingMergeModuleKey", kIUnknownSlots + 9 + 1 + 5},
        {L"IQvMergeModuleCatalog", L"GetMissingMergeModuleSubject", kIUnknownSlots + 9 + 1 + 5 + 1},
        {L"IQvMergeModule", L"get_ModuleId", kIUnknownSlots + 7},
        {L"IQvMergeModule", L"get_ModuleKey", kIUnknownSlots + 7 + 1},
        {L"IQvMergeModule", L"get_ModuleName", kIUnknownSlots + 7 + 2 + 2},
        {L"IQvDepFileGroup", L"Init", kIUnknownSlots + 6},
        {L"IQvDepFileGroups", L"Add", kIUnknownSlots + 3},
    };
    ASSERT_EQ(qv_companion_slot_count, std::size(cases));
    for (const companion_case& c : cases) {
        SCOPED_TRACE(narrow(c.itf) + "." + narrow(c.member));
        const vtable_slot* found = nullptr;
        for (size_t i = 0; i < qv_companion_slot_count; ++i)
            if (std::wstring(qv_companion_slots[i].itf) == c.itf &&
                std::wstring(qv_companion_slots[i].member) == c.member)
                found = &qv_companion_slots[i];
        ASSERT_TRUE(found);
        EXPECT_EQ(found->offset, c.slot * kSlot);
    }
}

TEST(CompanionInterfaces, Identifiers) {
    const std::pair<const GUID*, const char*> cases[] = {
        {&IID_IQvMergeModuleCatalog, "{980BA856-BF42-4180-9159-E102A6933222}"},
        {&IID_IQvMergeModule, "{D7DA1253-5BD4-45BE-81CA-E9D65676F981}"},
        {&IID_IQvDepFileGroup, "{07FAF6F3-4DB3-4014-BA28-8117D9984901}"},
        {&IID_IQvDepFileGroups, "{1723675A-B9A8-4970-AB78-C4A1896E7BF1}"},
    };
    for (const auto& [guid, expected] : cases)
        EXPECT_EQ(text(*guid), expected);
    EXPECT_EQ(text(__uuidof(IQvMergeModuleCatalog)), text(IID_IQvMergeModuleCatalog));
    EXPECT_EQ(text(__uuidof(IQvMergeModule)), text(IID_IQvMergeModule));
}

} // namespace
