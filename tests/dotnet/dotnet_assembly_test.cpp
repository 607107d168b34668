// The .NET assembly objects as clients meet them: DotNetAssembly from the server DLL over real assemblies
// that mcs built (fixtures/dotnet), the identity its two readers give, and the references one level deep.
// Under Wine the runtime hands out no metadata dispenser, so these run over the library's own reader.
#include "QVWIScanners.h"
#include "companions.h"
#include "inc/com_error.h"
#include "inc/com_ptr.h"
#include "recording_sink.h"
#include "server_support.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>

using namespace qv::test;
using qv::com_ptr;

namespace {

std::wstring dotnet(const std::wstring& rel) { return fixture(L"dotnet\\" + rel); }

const std::wstring FixtureToken = L"A964CED94CF79D20";
const wchar_t* const FixtureLibId = L"{6387719D-EC3E-4CFB-B508-A37013D0B541}";

com_ptr<IDotNetAssembly> make_assembly() {
    com_ptr<IDotNetAssembly> a;
    EXPECT_EQ(server().Create(CLSID_DotNetAssembly, nullptr, IID_IDotNetAssembly, a.put_void()), S_OK);
    return a;
}

using identity = std::array<std::wstring, 4>; // name, version, token, culture
identity identity_of(IDotNetAssembly* a) {
    qv::bstr n, v, t, c;
    EXPECT_EQ(a->get_Name(n.put()) | a->get_Version(v.put()) | a->get_PublicKeyToken(t.put()) | a->get_Culture(c.put()),
              S_OK);
    return {n.str(), v.str(), t.str(), c.str()};
}

// A reference as the tests compare it: "found" or "missing", the machine asked, and the child's name.
struct ref {
    std::wstring path;
    bool found = false;
    long machine = 0;
    std::wstring child;
};
std::map<std::wstring, ref> refs_of(IDotNetAssembly* a, IStaticScanEvents* events) {
    std::map<std::wstring, ref> out;
    com_ptr<IDotNetAssemblyRefs> refs;
    EXPECT_EQ(a->get_Dependencies(events, refs.put()), S_OK);
    long count = 0;
    refs->get_Count(&count);
    for (long i = 1; i <= count; ++i) {
        com_ptr<IDotNetAssemblyRef> r;
        EXPECT_EQ(refs->get_Item(index_of(i), r.put()), S_OK);
        qv::bstr path;
        VARIANT_BOOL found = 0;
        r->get_FileName(path.put()), r->get_Found(&found);
        ref entry{path.str(), found != 0};
        r.query<IDotNetAssemblyRefValeSP1>(IID_IDotNetAssemblyRefValeSP1)->get_Machine(&entry.machine);
        com_ptr<IDotNetAssembly> child;
        EXPECT_EQ(r->get_DotNetAssembly(child.put()), S_OK);
        if (child)
            entry.child = identity_of(child.get())[0];
        out[lower(path.str().substr(path.str().find_last_of(L'\\') + 1))] = entry;
    }
    return out;
}

// The host's answers: paths for references the location cannot find, extra files, and whether the
// component is a 64-bit one.
struct component : fake<IQvProjectComponent> {
    VARIANT_BOOL is64 = VARIANT_FALSE;
    HRESULT STDMETHODCALLTYPE get_Component64Bit(VARIANT_BOOL* p) override { return *p = is64, S_OK; }
};
struct host_sink : recording_sink {
    std::map<std::wstring, std::wstring> paths; // simple name -> path
    std::vector<std::wstring> others;
    component* owner = nullptr;
    std::vector<std::wstring> asked;
    HRESULT STDMETHODCALLTYPE GetReferencePath(BSTR name, BSTR* out) override {
        asked.push_back(name);
        auto it = paths.find(name);
        *out = it == paths.end() ? nullptr : SysAllocString(it->second.c_str());
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetOtherReferences(VARIANT* out) override {
        SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(others.size()));
        for (LONG i = 0; i < static_cast<LONG>(others.size()); ++i)
            SafeArrayPutElement(array, &i, qv::bstr(others[i]).get());
        V_VT(out) = VT_ARRAY | VT_BSTR;
        V_ARRAY(out) = array;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_Component(IUnknown** out) override {
        if ((*out = owner))
            owner->AddRef();
        return S_OK;
    }
};

TEST(DotNetAssembly, LoadAndLoadPropertiesReadTheIdentityEachInItsOwnWay) {
    // LoadProperties' result and culture (null: it failed) follow what Load gives.
    const struct { const wchar_t* file; HRESULT load; identity byLoad; HRESULT properties; const wchar_t* culture; } rows[] = {
        {L"app\\App.exe", S_OK, {L"App", L"1.0.0.0", L"", L"neutral"}, S_OK, L"neutral"},
        {L"app\\Lib.dll", S_OK, {L"Lib", L"1.2.3.4", FixtureToken, L"neutral"}, S_OK, L"neutral"},
        // A satellite: Load says "neutral", LoadProperties tells its culture.
        {L"app\\de\\Lib.resources.dll", S_OK, {L"Lib.resources", L"1.2.3.4", FixtureToken, L"neutral"}, S_OK, L"de"},
        // A module of a multi-file assembly opens but has no assembly row.
        {L"app\\Part.netmodule", static_cast<HRESULT>(0x80131130), {L"", L"0.0.0.0", L"", L"neutral"}, S_OK,
         L"neutral"},
        {L"native64\\qvnative.dll", static_cast<HRESULT>(0x8007000B), {}, static_cast<HRESULT>(0x8007000B), nullptr},
        {L"no-such.dll", HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), {}, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), nullptr},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(narrow(r.file));
        auto a = make_assembly();
        const std::wstring path = dotnet(r.file);
        EXPECT_EQ(a->Load(qv::bstr(path).get()), r.load);
        EXPECT_EQ(identity_of(a.get()), r.byLoad);
        qv::bstr fileName;
        a.query<IDotNetAssemblyTarn>(IID_IDotNetAssemblyTarn)->get_FileName(fileName.put());
        EXPECT_EQ(fileName.str(), path);

        auto b = make_assembly();
        VARIANT_BOOL notFound = 0, done = 0;
        EXPECT_EQ(b->LoadProperties(qv::bstr(path).get(), &notFound, &done), r.properties);
        // The provider of the services library computes tokens, so "not found" stays true throughout.
        EXPECT_EQ(notFound, VARIANT_TRUE);
        EXPECT_EQ(done, r.culture ? VARIANT_TRUE : VARIANT_FALSE);
        if (r.culture) // the real culture, and the same token
            EXPECT_EQ(identity_of(b.get())[3] + L"|" + identity_of(b.get())[2], r.culture + (L"|" + r.byLoad[2]));
        // LoadProperties leaves the file name alone.
        b.query<IDotNetAssemblyTarn>(IID_IDotNetAssemblyTarn)->get_FileName(fileName.put());
        EXPECT_EQ(fileName.str(), L"");
    }
}

// The process keeps what Load read of a file while the file stays the same: a second object loaded from what was
// kept has the identity and, once asked, the references of the first; a file rewritten is read again.
TEST(DotNetAssembly, ALoadKeptForTheProcessAnswersAsTheFileDoes) {
    temp_dir tmp;
    const std::wstring app = tmp.copy(dotnet(L"app\\App.exe"), L"App.exe");
    tmp.copy(dotnet(L"app\\Lib.dll"), L"Lib.dll");
    cwd_scope cwd(tmp.path());
    host_sink sink;
    auto first = make_assembly(), second = make_assembly();
    ASSERT_EQ(first->Load(qv::bstr(app).get()), S_OK);
    ASSERT_EQ(second->Load(qv::bstr(app).get()), S_OK);
    EXPECT_EQ(identity_of(second.get()), identity_of(first.get()));
    const auto refs = refs_of(second.get(), &sink);
    EXPECT_EQ(refs.size(), refs_of(first.get(), &sink).size());
    EXPECT_TRUE(refs.count(L"lib.dll") && refs.at(L"lib.dll").found && refs.at(L"lib.dll").child == L"Lib");
    first.reset(), second.reset(); // their open scopes let no one write the file
    tmp.copy(dotnet(L"app\\Lib.dll"), L"App.exe"); // another size: another file
    auto third = make_assembly();
    ASSERT_EQ(third->Load(qv::bstr(app).get()), S_OK);
    EXPECT_EQ(identity_of(third.get()), (identity{L"Lib", L"1.2.3.4", FixtureToken, L"neutral"}));
}

TEST(DotNetAssembly, ReferencesAreBuiltOnceWhateverEventsLaterCallsName) {
    cwd_scope cwd(dotnet(L"app"));
    host_sink sink, other;
    auto a = make_assembly();
    ASSERT_EQ(a->Load(qv::bstr(dotnet(L"app\\App.exe")).get()), S_OK);
    // Assemblies beside the application are found and loaded as children, and ask for no machine.
    const ref lib = refs_of(a.get(), &sink)[L"lib.dll"];
    EXPECT_TRUE(lib.found && lib.child == L"Lib" && lib.machine == 0);
    EXPECT_EQ(lower(lib.path), lower(dotnet(L"app\\Lib.dll")));
    com_ptr<IDotNetAssemblyRefs> first, second;
    a->get_Dependencies(&sink, first.put());
    a->get_Dependencies(&other, second.put());
    EXPECT_EQ(first.get(), second.get());
    EXPECT_TRUE(other.asked.empty() && other.unexpected.empty());
}

TEST(DotNetAssembly, MissingReferencesAskTheHostAndStandUnderTheirSimpleName) {
    // Unknown to the host: under its simple name, not found; known: found there, and loaded.
    for (bool knows : {false, true}) {
        host_sink sink;
        if (knows)
            sink.paths[L"Chain3"] = dotnet(L"obj\\Chain3.dll");
        auto a = make_assembly();
        ASSERT_EQ(a->Load(qv::bstr(dotnet(L"app\\Chain2.dll")).get()), S_OK);
        auto refs = refs_of(a.get(), &sink);
        const ref chain3 = refs[knows ? L"chain3.dll" : L"chain3"];
        EXPECT_EQ(chain3.found, knows);
        EXPECT_EQ(chain3.path, knows ? dotnet(L"obj\\Chain3.dll") : L"Chain3");
        EXPECT_EQ(chain3.child, knows ? L"Chain3" : L"");
        EXPECT_NE(std::find(sink.asked.begin(), sink.asked.end(), L"Chain3"), sink.asked.end());
    }
}

TEST(DotNetAssembly, NativeMachineFollowsTheImageAndTheComponent) {
    const struct { const wchar_t* file; bool component64; long machine; } rows[] = {
        {L"bits\\X86.exe", true, 332},     // 32-bit required wins over the component
        {L"bits\\X64.exe", false, 34404},  // a 64-bit image
        {L"bits\\AnyCpu.exe", false, 332}, // AnyCPU: the component decides
        {L"bits\\AnyCpu.exe", true, 34404},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(narrow(r.file) + (r.component64 ? " 64" : " 32"));
        component owner;
        owner.is64 = r.component64 ? VARIANT_TRUE : VARIANT_FALSE;
        host_sink sink;
        sink.owner = &owner;
        cwd_scope cwd(dotnet(r.machine == 332 ? L"native32" : L"native64"));
        auto a = make_assembly();
        ASSERT_EQ(a->Load(qv::bstr(dotnet(r.file)).get()), S_OK);
        auto refs = refs_of(a.get(), &sink);
        ASSERT_TRUE(refs.count(L"qvnative.dll"));
        EXPECT_EQ(refs[L"qvnative.dll"].machine, r.machine);
        EXPECT_TRUE(refs[L"qvnative.dll"].found) << "the flavour of that machine lies in the current folder";
    }
}

TEST(DotNetAssembly, ModuleFilesAndOtherReferences) {
    cwd_scope cwd(dotnet(L"app"));
    host_sink sink;
    // Part.netmodule, seen as a module file already, is no other reference.
    sink.others = {dotnet(L"app\\Lib.dll"), dotnet(L"app\\Lib.dll"), L"", dotnet(L"app\\gone.dll"), L"Part.netmodule"};
    auto a = make_assembly();
    ASSERT_EQ(a->Load(qv::bstr(dotnet(L"app\\Multi.dll")).get()), S_OK);
    auto refs = refs_of(a.get(), &sink);
    ASSERT_TRUE(refs.count(L"part.netmodule"));
    EXPECT_TRUE(refs[L"part.netmodule"].found);
    EXPECT_EQ(refs[L"part.netmodule"].child, L"");
    // Named twice, kept once; an empty or missing file is skipped.
    ASSERT_TRUE(refs.count(L"lib.dll"));
    EXPECT_EQ(refs[L"lib.dll"].child, L"Lib");
    EXPECT_FALSE(refs.count(L"gone.dll"));
}

TEST(DotNetAssembly, InteropAssembliesNameTheirRegisteredTypeLibrary) {
    registry_override classes(HKEY_CLASSES_ROOT);
    const std::wstring tlb = dotnet(L"interop\\fixturelib.tlb");
    const std::wstring key = std::wstring(L"TypeLib\\") + FixtureLibId + L"\\2.5\\0\\win64";
    registry_override::set_value(HKEY_CLASSES_ROOT, key, nullptr, REG_SZ, tlb.c_str(),
                                 static_cast<DWORD>((tlb.size() + 1) * sizeof(wchar_t)));
    // The primary interop assembly asks for version 0.0, which is not registered.
    const struct { const wchar_t* file; bool typeLibrary; } rows[] = {{L"interop\\Interop.FixtureLib.dll", true},
                        {L"interop\\Pia.FixtureLib.dll", false},
                        {L"interop\\GuidOnly.dll", false}};
    for (const auto& r : rows) {
        SCOPED_TRACE(narrow(r.file));
        host_sink sink;
        auto a = make_assembly();
        ASSERT_EQ(a->Load(qv::bstr(dotnet(r.file)).get()), S_OK);
        auto refs = refs_of(a.get(), &sink);
        EXPECT_EQ(refs.size(), r.typeLibrary ? 2u : 1u) << "mscorlib, and the type library when it is one";
        EXPECT_EQ(refs[L"fixturelib.tlb"].found, r.typeLibrary);
    }
}

TEST(DotNetAssembly, TheStaticScanFollowsTheWholeTreeOfBothWorlds) {
    com_apartment apartment;
    const std::set<std::wstring> tree = {L"chain1.dll", L"chain2.dll", L"cyclea.dll", L"cycleb.dll",
                                         L"interop.fixturelib.dll", L"lib.dll", L"multi.dll", L"part.netmodule"};
    // Missing: the end of the chain, the framework (none in this prefix) and the 32-bit native library.
    const std::set<std::wstring> missing = {L"chain3", L"mscorlib", L"qvnative.dll"};
    // The module file is no assembly: it is walked as an image, and its import of the 32-bit runtime's
    // mscoree.dll finds no 32-bit file, unless import tables are not read.
    std::set<std::wstring> withImports = missing;
    withImports.insert(L"mscoree.dll");
    const struct { long type; std::set<std::wstring> found, missing; } rows[] = {{estAny, tree, withImports}, {estNoPEDepsForAssemblies, tree, missing},
                        {estAnyUnlessScannedFileIsAssembly, {}, {}}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.type);
        com_ptr<IStaticScan> scan;
        ASSERT_EQ(server().Create(CLSID_StaticScan, nullptr, IID_IStaticScan, scan.put_void()), S_OK);
        host_sink sink;
        VARIANT_BOOL completed = 0;
        ASSERT_EQ(scan->ScanFile(qv::bstr(dotnet(L"app\\App.exe")).get(), &sink, VARIANT_FALSE, qv::bstr(L"").get(),
                                 static_cast<EScanType>(r.type), &completed),
                  S_OK);
        com_ptr<IDepFiles> files;
        ASSERT_EQ(scan->get_Dependencies(files.put()), S_OK);
        std::set<std::wstring> found, absent;
        for (const auto& [name, rec] : records(files.get()))
            (rec.missing ? absent : found).insert(name);
        EXPECT_EQ(found, r.found);
        EXPECT_EQ(absent, r.missing);
        // Each assembly's record carries its assembly object; a module file's does not.
        for (long i = 1, count = (files->get_Count(&count), count); i <= count; ++i) {
            com_ptr<IDepFile> f;
            files->get_Item(index_of(i), f.put());
            com_ptr<IDotNetAssembly> assembly;
            f.query<IDepFileInfo>(IID_IDepFileInfo)->get_Assembly(assembly.put());
            const std::wstring name = lower(read(f.get()).name);
            EXPECT_EQ(static_cast<bool>(assembly), tree.count(name) && name != L"part.netmodule") << narrow(name);
        }
    }
}

} // namespace
