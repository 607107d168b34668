// The filters over the lists of the support folder: filters.xml, the Visual Basic chain, shipped data, MSXML.
#include "filter/qvwi_filter.h"
#include "filter/vb_filter.h"
#include "toolkit/xml_loader.h"
#include "inc/com_error.h"
#include "library_support.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

namespace {

class Filter : public Companion {};

struct probe_filter : CQVWIFilter { using CQVWIFilter::Match; };

TEST_F(Filter, ListsAndTheirLoading) {
    m_support.write(L"filters.xml", R"(<Filters><Include><File name="both.dll"/><File name="keep.dll"/></Include>
  <Exclude><File name="both.dll"/><File name="foo.dll"/><File name="bar.ni.dll"/><File name="Upper.dll"/></Exclude>
</Filters>)");
    probe_filter filter;
    for (auto [name, filtering, inList] : {std::tuple{L"both.dll", true, false}, {L"keep.dll", true, false},
                                           {L"Foo.Dll", true, true}, {L"foo.dll", false, true}, {L"Upper.dll", true, false},
                                           {L"FOO.NI.DLL", true, true}, {L"both.ni.dll", true, false},
                                           {L"bar.ni.dll", true, true}, {L"foo.ni.dll.old", true, false}}) {
        filter.SetFiltering(filtering);
        bool listed = !inList, dropped = !inList;
        EXPECT_EQ(filter.Match(name, listed, dropped), inList) << narrow(name);
        EXPECT_EQ(std::tuple(listed, dropped, filter.Filter(name, listed)),
                  std::tuple(inList, inList && filtering, inList && filtering)) << narrow(name);
    }
    bool listed = true; // names go into the query unescaped: a double quote breaks it
    EXPECT_TRUE(FAILED(Thrown([&] { filter.Filter(L"a\"b.dll", listed); })) && !listed);
    const wstring start = L"cannot load " + m_support / L"filters.xml" + L": ";
    DeleteFileW((m_support / L"filters.xml").c_str()); // lists that cannot be loaded are thrown with the reason
    EXPECT_EQ(Thrown([&] { filter.SetFiltering(true); }), E_FAIL);
    EXPECT_EQ(qv::take_error_description(), start + L"the file does not exist");
    for (const char* text : {"", "kernel32.dll\n", "<Filters><Exclude/>", "<Filters/><Filters/>"}) {
        m_support.write(L"filters.xml", text);
        EXPECT_EQ(Thrown([&] { filter.SetFiltering(false); }), E_FAIL) << text;
        const wstring why = qv::take_error_description(), prefix = start + L"it is not a well-formed XML document (";
        const size_t end = why.rfind(L" at line ") == wstring::npos ? why.size() - 1 : why.rfind(L" at line ");
        ASSERT_TRUE(why.compare(0, prefix.size(), prefix) == 0 && end > prefix.size()) << narrow(why);
        EXPECT_TRUE(!iswspace(why[end - 1]) && why.back() == L')') << narrow(why); // the parser's reason, trimmed
    }
    ExpectChild({}, {L"filter"}, {kMissing}); // in a child without the services library beside it
}

TEST_F(Filter, VbFilterChainsTheXmlListsVbSystemAndVb6dep) {
    m_support.write(L"filters.xml", R"(<Filters><Include><File name="both.dll"/></Include><Exclude><File name="x.dll"/>
                                       <File name="both.dll"/></Exclude></Filters>)");
    m_support.write(L"VBSystem.ini", "; the runtime\r\n[System]\r\nMSVBVM60.DLL\r\nboth.dll=\r\n=no name\r\n[Other]\r\nother.dll\r\n");
    registry_override classes(HKEY_CLASSES_ROOT);
    EXPECT_EQ(FindVbDir(), L""); // no .vbp association: the list is read from a relative path, and is empty
    temp_dir vb;
    vb.write(L"Wizards\\PDWizard\\Vb6dep.ini", "[Do Not Redistribute]\nDnr.dll=\n");
    const wstring progId = L"VisualBasic.Project\0", command = vb.path() + L"\\vb6.exe /make %1\0";
    registry_override::set_value(HKEY_CLASSES_ROOT, L".vbp", nullptr, REG_SZ, progId.data(), DWORD(progId.size() * 2));
    registry_override::set_value(HKEY_CLASSES_ROOT, L"VisualBasic.Project\\shell\\Make\\command", nullptr, REG_SZ,
                                 command.data(), DWORD(command.size() * 2));
    wstring upper = vb.path() + L"\\";
    CharUpperW(upper.data());
    EXPECT_EQ(FindVbDir(), upper);
    CQVWIVBFilter filter;
    for (bool filtering : {true, false}) {
        filter.SetFiltering(filtering);
        // An Include entry keeps a name off the Exclude list only; the ini lists take names in any case.
        for (auto [name, listed] : {std::pair{L"msvbvm60.dll", true}, {L"BOTH.DLL", true}, {L"x.dll", true},
                                    {L"dnr.DLL", true}, {L"other.dll", false}, {L"", false}, {L"no name", false}}) {
            bool inList = !listed;
            EXPECT_EQ(std::pair(filter.Filter(name, inList), inList), std::pair(listed && filtering, listed)) << narrow(name);
        }
    }
    DeleteFileW((m_support / L"VBSystem.ini").c_str()); // gone meanwhile: the names read before stay
    filter.SetFiltering(true);
    bool inList = false;
    EXPECT_TRUE(filter.Filter(L"MSVBVM60.dll", inList) && inList);
}

TEST_F(Filter, ShippedDataAndMsxmlVersions) {
    env_scope shipped(L"QV_SUPPORT_DIR", nullptr);
    CQVWIFilter filter;
    filter.SetFiltering(true);
    for (auto [name, dropped] : {std::pair{L"kernel32.dll", true}, {L"OLE32.DLL", true}, {L"kernel32.ni.dll", true},
                                 {L"api-ms-win-crt-runtime-l1-1-0.dll", true}, {L"msvcp140.dll", false}, {kCompanion, false}}) {
        bool inList = !dropped;
        EXPECT_EQ(std::pair(filter.Filter(name, inList), inList), std::pair(dropped, dropped)) << narrow(name);
    }
    CQVWIVBFilter vb; // the shipped VBSystem.ini holds the Visual Basic runtime
    vb.SetFiltering(true);
    bool inList = false;
    EXPECT_TRUE(vb.Filter(L"msvbvm60.dll", inList) && inList && !vb.Filter(L"msvcp140.dll", inList));
    // MSXML: the newest version the machine has, known by the name it registers; unknown classes passed over.
    auto classOf = [](std::span<const CLSID> classes) {
        qv::com_ptr<IPersistStreamInit> persist;
        CLSID clsid = {};
        detail::CreateXmlDocument(classes)->QueryInterface(IID_IPersistStreamInit, persist.put_void());
        return persist && SUCCEEDED(persist->GetClassID(&clsid)), clsid;
    };
    CLSID newest = {}, oldest = {};
    ASSERT_EQ(CLSIDFromProgID(L"Msxml2.DOMDocument.6.0", &newest) | CLSIDFromProgID(L"Msxml2.DOMDocument.3.0", &oldest), S_OK);
    EXPECT_EQ(classOf(kXmlDocumentClasses), newest);
    EXPECT_EQ(classOf(std::vector{CLSID_NULL, oldest, newest}), oldest);
    qv::com_ptr<IUnknown> object; // without a library name, CoCreateFromLibrary is plain CoCreateInstance
    EXPECT_EQ(CoCreateFromLibrary(L"", newest, IID_IUnknown, object.put()), S_OK);
    EXPECT_EQ(CoCreateFromLibrary(L"", CLSID_NULL, IID_IUnknown, object.put()), REGDB_E_CLASSNOTREG);
}

// "filter": what turning the filter off throws, as an HRESULT.
const child_command kFilter(L"filter", [](const wstring&) -> std::wstring {
    return Hex(Thrown([] { CQVWIFilter().SetFiltering(false); })) + L"\n";
});

} // namespace
