// CQVWIFilter over MSXML, with filters.xml from the support folder that QvAppServices.dll (beside this
// program) names: QV_SUPPORT_DIR points each case at a scratch folder of its own, or, for the shipped
// data, is left unset. One case runs this program copied alone into a scratch folder, where no
// QvAppServices.dll can be found.
#include "test_support.h"
#include "companions.h"
#include "dotnet/sibling_module_cache.h"
#include "filter/qvwi_filter.h"
#include "filter/xml_loader.h"
#include "test_support.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <ocidl.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

namespace {

using qv::test::lower;
using qv::test::narrow;

constexpr wchar_t kChildFlag[] = L"--no-companion-child";
constexpr wchar_t kProgram[] = L"qvwi_filter_test.exe";

// The filter with its decision visible.
class probe_filter : public CQVWIFilter {
public:
    using CQVWIFilter::Match;
};

HRESULT CompanionCanUnloadNow() {
    HMODULE module = CSiblingModuleCache::Instance().Loaded(L"QvAppServices.dll");
    if (!module)
        return S_OK;
    auto canUnload = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
        reinterpret_cast<void (*)()>(GetProcAddress(module, "DllCanUnloadNow")));
    return canUnload ? canUnload() : E_NOTIMPL;
}

// The result of fn's com_exception, or S_OK when it throws none.
template <class Fn> HRESULT Thrown(Fn&& fn) {
    try {
        fn();
    } catch (const com_exception& e) {
        return e.Error();
    }
    return S_OK;
}

std::string Document(const std::string& body) {
    return "<?xml version=\"1.0\"?>\n" + body + "\n";
}

// Every case: an apartment, a support folder of its own, and no object of the companion left.
class FilterTest : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(CompanionCanUnloadNow(), S_OK) << "an object of the companion is alive"; }
    void Lists(const std::string& xml) const { m_support.write(L"filters.xml", xml); }

    qv::test::com_apartment m_apartment;
    qv::test::temp_dir m_support;
    qv::test::env_scope m_supportVariable{L"QV_SUPPORT_DIR", m_support.path().c_str()};
};

// ---- The lists -----------------------------------------------------------------------------------------

const std::string kMain = Document(R"(<Filters>
  <Include><File name="both.dll"/><File name="keep.dll"/></Include>
  <Exclude>
    <File name="both.dll"/><File name="foo.dll"/><File name="bar.ni.dll"/><File name="a.dll.ni.dll"/>
    <File name="foo.dll.old"/><File name="Upper.dll"/><File name="q'uote.dll"/>
  </Exclude>
</Filters>)");
const std::string kIncludeFoo = Document(
    R"(<Filters><Exclude><File name="foo.dll"/></Exclude><Include><File name="foo.dll"/></Include></Filters>)");
const std::string kEmptyRoot = Document("<Filters/>");
// Lists anywhere in the document, under any root.
const std::string kDeep = Document(R"(<Root><Any><Exclude><File name="deep.dll"/></Exclude></Any>
  <Include><Other name="keep.dll"/></Include><Exclude><File name="keep.dll"/></Exclude></Root>)");

struct match_case {
    const char* name;
    const std::string* lists;
    const wchar_t* file;
    bool filtering;
    bool inList;  // bInFilterList
    bool dropped; // Filter's result
};

class Match : public FilterTest, public ::testing::WithParamInterface<match_case> {};

TEST_P(Match, Answers) {
    const match_case& c = GetParam();
    Lists(*c.lists);
    probe_filter filter;
    filter.SetFiltering(c.filtering);
    bool inList = !c.inList;
    EXPECT_EQ(filter.Filter(c.file, inList), c.dropped);
    EXPECT_EQ(inList, c.inList);
    bool bInList = !c.inList, bFilter = !c.dropped;
    EXPECT_EQ(filter.Match(c.file, bInList, bFilter), c.inList) << "decided by the lists";
    EXPECT_EQ(bInList, c.inList);
    EXPECT_EQ(bFilter, c.dropped);
}

INSTANTIATE_TEST_SUITE_P(
    Filter, Match,
    ::testing::Values(
        match_case{"IncludeBeatsExclude", &kMain, L"both.dll", true, false, false},
        match_case{"IncludeOnly", &kMain, L"keep.dll", true, false, false},
        match_case{"ExcludedAndFiltering", &kMain, L"foo.dll", true, true, true},
        match_case{"ExcludedFilteringOff", &kMain, L"foo.dll", false, true, false},
        match_case{"NameLowerCased", &kMain, L"FOO.DLL", true, true, true},
        match_case{"NameMixedCase", &kMain, L"Foo.Dll", true, true, true},
        match_case{"ListEntriesAreNotLowerCased", &kMain, L"Upper.dll", true, false, false},
        match_case{"NativeImageOfAnExcludedName", &kMain, L"FOO.NI.DLL", true, true, true},
        match_case{"NativeImageFilteringOff", &kMain, L"foo.ni.dll", false, true, false},
        match_case{"NativeImageOfAnIncludedName", &kIncludeFoo, L"FOO.NI.DLL", true, false, false},
        match_case{"NativeImageListedItself", &kMain, L"bar.ni.dll", true, true, true},
        match_case{"NativeImageSuffixOnlyAtTheEnd", &kMain, L"foo.ni.dll.old", true, false, false},
        match_case{"NativeImageFirstOccurrenceReplaced", &kMain, L"a.ni.dll.ni.dll", true, true, true},
        match_case{"InNeitherList", &kMain, L"unknown.dll", true, false, false},
        match_case{"InNeitherListFilteringOff", &kMain, L"unknown.dll", false, false, false},
        match_case{"EmptyRoot", &kEmptyRoot, L"foo.dll", true, false, false},
        match_case{"EmptyRootNativeImage", &kEmptyRoot, L"foo.ni.dll", true, false, false},
        match_case{"ListsAnywhereInTheDocument", &kDeep, L"deep.dll", true, true, true},
        match_case{"OnlyFileElementsCount", &kDeep, L"keep.dll", true, true, true},
        match_case{"ApostropheNeedsNoEscape", &kMain, L"Q'UOTE.DLL", true, true, true},
        match_case{"BracketInsideTheQuotes", &kMain, L"a]b.dll", true, false, false},
        match_case{"EmptyName", &kMain, L"", true, false, false},
        // A quote that still leaves a valid query changes what is asked: here, any File of an Exclude list.
        match_case{"UnescapedNameBecomesPartOfTheQuery", &kDeep, L"zzz\" or \"x", true, true, true}),
    [](const ::testing::TestParamInfo<match_case>& info) { return std::string(info.param.name); });

// Names go into the query unescaped: a double quote breaks it, and the query's failure is thrown.
TEST_F(FilterTest, DoubleQuoteInANameIsThrown) {
    Lists(kMain);
    CQVWIFilter filter;
    filter.SetFiltering(true);
    for (const wchar_t* name : {L"a\"b.dll", L"\"", L"foo.dll\"]"}) {
        bool inList = true;
        const HRESULT hr = Thrown([&] { filter.Filter(name, inList); });
        EXPECT_TRUE(FAILED(hr)) << narrow(name);
        EXPECT_FALSE(inList) << narrow(name);
    }
}

TEST_F(FilterTest, AskingBeforeSetFilteringIsThrown) {
    Lists(kMain);
    CQVWIFilter filter;
    bool inList = true;
    EXPECT_EQ(Thrown([&] { filter.Filter(L"foo.dll", inList); }), E_UNEXPECTED);
    EXPECT_FALSE(inList);
}

// AskFilter cuts a path to its name.
TEST_F(FilterTest, AskFilterTakesTheFileName) {
    Lists(kMain);
    CQVWIFilter filter;
    filter.SetFiltering(true);
    struct row {
        const wchar_t* path;
        bool inList;
    };
    for (const row& r : {row{L"C:\\windows\\system32\\FOO.DLL", true}, row{L"foo.dll\\unknown.dll", false},
                         row{L"C:\\both.dll\\foo.dll", true}, row{L"\\\\host\\share\\bar.ni.dll", true}}) {
        bool inList = false, dropped = false;
        EXPECT_EQ(AskFilter(&filter, r.path, inList, dropped), r.inList) << narrow(r.path);
        EXPECT_EQ(inList, r.inList) << narrow(r.path);
        EXPECT_EQ(dropped, r.inList) << narrow(r.path);
    }
}

// ---- Loading -------------------------------------------------------------------------------------------

TEST_F(FilterTest, ListsThatCannotBeLoadedAreThrown) {
    struct row {
        const char* name;
        const char* content; // nullptr: no filters.xml at all
    };
    const row rows[] = {{"missing", nullptr},
                        {"empty", ""},
                        {"not XML", "kernel32.dll\nuser32.dll\n"},
                        {"unclosed", "<Filters><Exclude><File name=\"a.dll\"/></Exclude>"},
                        {"two roots", "<Filters/><Filters/>"}};
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        DeleteFileW((m_support / L"filters.xml").c_str());
        if (r.content)
            Lists(r.content);
        for (bool on : {true, false}) {
            CQVWIFilter filter;
            EXPECT_EQ(Thrown([&] { filter.SetFiltering(on); }), E_FAIL) << "filtering " << on;
        }
    }
}

// Document-type declarations are allowed and nothing is validated against them.
TEST_F(FilterTest, DocumentTypeDeclarationsAreAllowed) {
    Lists("<?xml version=\"1.0\"?>\n<!DOCTYPE Filters [\n  <!ELEMENT Filters (Exclude)>\n"
          "  <!ELEMENT Exclude EMPTY>\n]>\n<Filters><Include/><Exclude><File name=\"foo.dll\"/></Exclude></Filters>\n");
    CQVWIFilter filter;
    ASSERT_EQ(Thrown([&] { filter.SetFiltering(true); }), S_OK);
    bool inList = false;
    EXPECT_TRUE(filter.Filter(L"foo.dll", inList));
    EXPECT_TRUE(inList);
}

// Every SetFiltering reloads the lists, whatever the flag; a failed reload keeps the earlier lists.
TEST_F(FilterTest, SetFilteringReloads) {
    Lists(kMain);
    CQVWIFilter filter;
    filter.SetFiltering(true);
    bool inList = false;
    EXPECT_TRUE(filter.Filter(L"foo.dll", inList));

    Lists(Document(R"(<Filters><Exclude><File name="other.dll"/></Exclude></Filters>)"));
    filter.SetFiltering(true);
    EXPECT_FALSE(filter.Filter(L"foo.dll", inList));
    EXPECT_FALSE(inList);
    EXPECT_TRUE(filter.Filter(L"other.dll", inList));

    Lists(kMain);
    filter.SetFiltering(false);
    EXPECT_FALSE(filter.Filter(L"foo.dll", inList));
    EXPECT_TRUE(inList);
    EXPECT_FALSE(filter.Filtering());

    Lists("no longer XML");
    EXPECT_EQ(Thrown([&] { filter.SetFiltering(true); }), E_FAIL);
    EXPECT_TRUE(filter.Filtering());
    EXPECT_TRUE(filter.Filter(L"foo.dll", inList));
    EXPECT_TRUE(inList);
}

// The support folder is asked once per filter and kept; another filter asks again.
TEST_F(FilterTest, SupportFolderKeptForTheFiltersLife) {
    qv::test::temp_dir other;
    other.write(L"filters.xml", Document(R"(<Filters><Exclude><File name="other.dll"/></Exclude></Filters>)"));
    Lists(kMain);
    CQVWIFilter first;
    first.SetFiltering(true);
    EXPECT_EQ(lower(first.GetSupportDir()), lower(m_support.path()));
    {
        qv::test::env_scope moved(L"QV_SUPPORT_DIR", other.path().c_str());
        first.SetFiltering(true);
        EXPECT_EQ(lower(first.GetSupportDir()), lower(m_support.path()));
        bool inList = false;
        EXPECT_TRUE(first.Filter(L"foo.dll", inList));
        EXPECT_FALSE(first.Filter(L"other.dll", inList));

        CQVWIFilter second;
        second.SetFiltering(true);
        EXPECT_EQ(lower(second.GetSupportDir()), lower(other.path()));
        EXPECT_TRUE(second.Filter(L"other.dll", inList));
        EXPECT_FALSE(second.Filter(L"foo.dll", inList));
    }
}

// A support folder given with a trailing backslash is joined with one backslash only.
TEST_F(FilterTest, SupportFolderWithTrailingBackslash) {
    Lists(kMain);
    qv::test::env_scope slash(L"QV_SUPPORT_DIR", (m_support.path() + L"\\").c_str());
    CQVWIFilter filter;
    ASSERT_EQ(Thrown([&] { filter.SetFiltering(true); }), S_OK);
    bool inList = false;
    EXPECT_TRUE(filter.Filter(L"foo.dll", inList));
}

// ---- The shipped data ----------------------------------------------------------------------------------

class ShippedData : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(CompanionCanUnloadNow(), S_OK); }
    qv::test::com_apartment m_apartment;
    qv::test::env_scope m_supportVariable{L"QV_SUPPORT_DIR", nullptr};
};

std::vector<std::wstring> Names(IXMLDOMDocument2* document, const wchar_t* query) {
    std::vector<std::wstring> names;
    qv::com_ptr<IXMLDOMNodeList> nodes;
    EXPECT_EQ(document->selectNodes(qv::bstr(query).get(), nodes.put()), S_OK);
    if (!nodes)
        return names;
    for (;;) {
        qv::com_ptr<IXMLDOMNode> node;
        if (nodes->nextNode(node.put()) != S_OK || !node)
            break;
        qv::com_ptr<IXMLDOMNamedNodeMap> attributes;
        node->get_attributes(attributes.put());
        qv::com_ptr<IXMLDOMNode> name;
        if (attributes)
            attributes->getNamedItem(qv::bstr(L"name").get(), name.put());
        VARIANT value;
        VariantInit(&value);
        if (name)
            name->get_nodeValue(&value);
        names.push_back(value.vt == VT_BSTR && value.bstrVal ? value.bstrVal : L"");
        VariantClear(&value);
    }
    return names;
}

TEST_F(ShippedData, FiltersTheSystemsOwnFiles) {
    CQVWIFilter filter;
    filter.SetFiltering(true);
    EXPECT_EQ(lower(filter.GetSupportDir()), lower(qv::test::module_dir() + L"\\Support"));
    struct row {
        const wchar_t* name;
        bool inList;
    };
    const row rows[] = {
        {L"kernel32.dll", true},
        {L"KERNEL32.DLL", true},
        {L"user32.dll", true},
        {L"gdi32.dll", true},
        {L"advapi32.dll", true},
        {L"ntdll.dll", true},
        {L"ole32.dll", true},
        {L"oleaut32.dll", true},
        {L"shell32.dll", true},
        {L"comctl32.dll", true},
        {L"comdlg32.dll", true},
        {L"msvcrt.dll", true},
        {L"ucrtbase.dll", true},
        {L"winspool.drv", true},
        {L"stdole2.tlb", true},
        {L"msxml6.dll", true},
        {L"mscoree.dll", true},
        {L"api-ms-win-crt-runtime-l1-1-0.dll", true},
        {L"api-ms-win-core-synch-l1-2-0.dll", true},
        {L"kernel32.ni.dll", true},
        {L"msvcp140.dll", false},
        {L"vcruntime140.dll", false},
        {L"vcruntime140_1.dll", false},
        {L"mfc140u.dll", false},
        {L"msvcr120.dll", false},
        {L"concrt140.dll", false},
        {L"QVWIScanners.dll", false},
        {L"QvAppServices.dll", false},
        {L"myapp.exe", false},
    };
    for (const row& r : rows) {
        bool inList = !r.inList;
        EXPECT_EQ(filter.Filter(r.name, inList), r.inList) << narrow(r.name);
        EXPECT_EQ(inList, r.inList) << narrow(r.name);
    }
}

// Every name is lower case and free of double quotes, listed once, and never in both lists.
TEST_F(ShippedData, ListsAreWellFormed) {
    auto document = LoadXml(qv::test::module_dir() + L"\\Support\\filters.xml");
    const std::vector<std::wstring> include = Names(document.get(), L"//Include/File");
    const std::vector<std::wstring> exclude = Names(document.get(), L"//Exclude/File");
    EXPECT_GE(include.size(), 40u);
    EXPECT_GE(exclude.size(), 500u);
    std::set<std::wstring> seen;
    for (const auto* list : {&include, &exclude}) {
        for (const std::wstring& name : *list) {
            EXPECT_FALSE(name.empty());
            EXPECT_EQ(name, lower(name)) << narrow(name);
            EXPECT_EQ(name.find(L'"'), std::wstring::npos) << narrow(name);
            EXPECT_TRUE(seen.insert(name).second) << narrow(name) << " listed twice";
        }
    }
}

// Every library of the running system folder is on one of the lists: the filter drops it, or the
// Include list keeps it on purpose.
TEST_F(ShippedData, CoversTheSystemFolder) {
    CQVWIFilter filter;
    filter.SetFiltering(true);
    auto document = LoadXml(qv::test::module_dir() + L"\\Support\\filters.xml");
    const std::vector<std::wstring> include = Names(document.get(), L"//Include/File");
    const std::set<std::wstring> kept(include.begin(), include.end());

    size_t files = 0;
    std::vector<std::wstring> unlisted;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((qv::test::system_dir() + L"\\*.dll").c_str(), &data);
    ASSERT_NE(find, INVALID_HANDLE_VALUE);
    do {
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            continue;
        ++files;
        bool inList = false;
        filter.Filter(data.cFileName, inList);
        if (!inList && !kept.count(lower(data.cFileName)))
            unlisted.push_back(data.cFileName);
    } while (FindNextFileW(find, &data));
    FindClose(find);
    EXPECT_GE(files, 100u);
    std::string names;
    for (const std::wstring& name : unlisted)
        names += " " + narrow(name);
    EXPECT_TRUE(unlisted.empty()) << unlisted.size() << " libraries of the system folder are on no list"
                                  << " (regenerate data/filters.xml with data/make_filters.py):" << names;
}

// ---- MSXML ---------------------------------------------------------------------------------------------

std::wstring ClassOf(IXMLDOMDocument2* document) {
    qv::com_ptr<IPersistStreamInit> persist;
    CLSID clsid = {};
    if (SUCCEEDED(document->QueryInterface(IID_IPersistStreamInit, persist.put_void())))
        persist->GetClassID(&clsid);
    wchar_t text[40] = {};
    StringFromGUID2(clsid, text, 40);
    return text;
}

std::wstring Text(const CLSID& clsid) {
    wchar_t text[40] = {};
    StringFromGUID2(clsid, text, 40);
    return text;
}

const CLSID kUnregistered = {0x5B0C3E4A, 0x7A43, 0x4C55, {0x9E, 0x1B, 0x2F, 0x3D, 0x6A, 0x0B, 0x9C, 0x11}};

TEST(Msxml, DocumentClassesInOrder) {
    const wchar_t* expected[] = {L"{88D96A05-F192-11D4-A65F-0040963251E5}", L"{88D969C0-F192-11D4-A65F-0040963251E5}",
                                 L"{F5078F32-C551-11D3-89B9-0000F81FE221}"};
    ASSERT_EQ(std::size(kXmlDocumentClasses), std::size(expected));
    for (size_t i = 0; i < std::size(expected); ++i)
        EXPECT_EQ(Text(kXmlDocumentClasses[i]), expected[i]) << i;
}

// The first class that can be made is taken; which ones can be made depends on the machine.
TEST(Msxml, FirstCreatableClassWins) {
    qv::test::com_apartment apartment;
    std::vector<CLSID> creatable;
    for (const CLSID& clsid : kXmlDocumentClasses) {
        qv::com_ptr<IXMLDOMDocument2> document;
        if (SUCCEEDED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_QvXmlDocument2, document.put_void())))
            creatable.push_back(clsid);
    }
    ASSERT_FALSE(creatable.empty());
    EXPECT_EQ(ClassOf(detail::CreateXmlDocument(kXmlDocumentClasses).get()), Text(creatable.front()));

    // Unknown classes are passed over; the last failure is thrown when nothing can be made.
    for (const CLSID& clsid : creatable) {
        const CLSID list[] = {kUnregistered, clsid, kXmlDocumentClasses[0]};
        EXPECT_EQ(ClassOf(detail::CreateXmlDocument(list).get()), Text(clsid));
    }
    const CLSID none[] = {kUnregistered, kUnregistered};
    EXPECT_EQ(Thrown([&] { detail::CreateXmlDocument(none); }), REGDB_E_CLASSNOTREG);
    EXPECT_EQ(Thrown([&] { detail::CreateXmlDocument({}); }), E_INVALIDARG);
}

// Every version the machine has takes the settings LoadXml makes, loads a document with a DTD, and
// reports a file that is not XML as E_FAIL.
TEST(Msxml, EveryVersionLoadsTheSameWay) {
    qv::test::com_apartment apartment;
    qv::test::temp_dir dir;
    const std::wstring withDtd =
        dir.write(L"dtd.xml", "<?xml version=\"1.0\"?>\n<!DOCTYPE Filters [<!ELEMENT Filters ANY>]>\n<Filters/>\n");
    const std::wstring notXml = dir.write(L"not.xml", "not XML");
    int versions = 0;
    for (const CLSID& clsid : kXmlDocumentClasses) {
        qv::com_ptr<IXMLDOMDocument2> probe;
        if (FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_QvXmlDocument2, probe.put_void())))
            continue;
        ++versions;
        SCOPED_TRACE(narrow(Text(clsid)));
        const CLSID only[] = {clsid};
        qv::com_ptr<IXMLDOMDocument2> document;
        EXPECT_EQ(Thrown([&] { document = detail::LoadXml(withDtd, only); }), S_OK);
        EXPECT_TRUE(document);
        EXPECT_EQ(Thrown([&] { detail::LoadXml(notXml, only); }), E_FAIL);
        EXPECT_EQ(Thrown([&] { detail::LoadXml(dir / L"absent.xml", only); }), E_FAIL);
    }
    EXPECT_GE(versions, 1);
}

// ---- Without QvAppServices.dll ---------------------------------------------------------------------------

// The child: SetFiltering's exception, as hex, into args[0].
int NoCompanionChild(const std::vector<std::wstring>& args) {
    if (args.size() != 1)
        return 2;
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 3;
    HRESULT hr = S_OK;
    {
        CQVWIFilter filter;
        hr = Thrown([&] { filter.SetFiltering(false); });
    }
    CoUninitialize();
    char text[16];
    snprintf(text, sizeof text, "%08lX", static_cast<unsigned long>(hr));
    HANDLE file =
        CreateFileW(args[0].c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return 4;
    DWORD written = 0;
    WriteFile(file, text, 8, &written, nullptr);
    CloseHandle(file);
    return written == 8 ? 0 : 5;
}

// A server that cannot reach its support folder cannot filter at all, also with filtering off.
TEST(FilterAlone, NoServicesLibraryIsThrown) {
    qv::test::temp_dir dir;
    const std::wstring program = dir.copy(qv::test::module_dir() + L"\\" + kProgram, kProgram);
    const std::wstring out = dir / L"out.txt";
    std::string why;
    auto code = qv::test::run_child(program, std::wstring(kChildFlag) + L" \"" + out + L"\"", dir.path(), &why);
    ASSERT_TRUE(code) << why;
    EXPECT_EQ(*code, 0u);
    EXPECT_EQ(qv::test::read_file(out), "80040154");
}

} // namespace

int main(int argc, char** argv) {
    if (auto args = qv::test::child_arguments(kChildFlag))
        return NoCompanionChild(*args);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
