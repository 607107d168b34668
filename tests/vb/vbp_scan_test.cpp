// The Visual Basic project scan through its interfaces: a project written into a scratch folder with its
// controls as fixture images, its type libraries, ProgID and .vbp association in a private HKEY_CLASSES_ROOT,
// and the stand-in compiler (vb_compiler.exe) as the Make command. The sink logs every event in order.
#include "QVWIScanners.h"
#include "companions.h"
#include "inc/com_ptr.h"
#include "recording_sink.h"
#include "server_support.h"
#include "test_support.h"

#include <gtest/gtest.h>

using namespace qv::test;
using qv::com_ptr;
using std::wstring;
using log_lines = std::vector<wstring>;

namespace {

const wstring kGrid = L"{5C5E1A00-0000-4000-8000-00000000AB11}", kRef = L"{5C5E1A00-0000-4000-8000-00000000AB10}";

// The host's sink: each event a line of the log, answers as set; the static scans' events are recorded too.
struct vb_sink : IScanEventsTarn, recording_sink {
    log_lines log;
    VARIANT_BOOL notFound = VARIANT_TRUE, build = VARIANT_TRUE, cancel = 0; // the answers
    wstring cancelFrom;                                                     // answer cancel once a status has this
    bool cancelling = false;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IScanEvents) && !IsEqualIID(iid, IID_IScanEventsTarn))
            return recording_sink::QueryInterface(iid, ppv);
        return *ppv = static_cast<IScanEventsTarn*>(this), AddRef(), S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return recording_sink::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return recording_sink::Release(); }
    HRESULT STDMETHODCALLTYPE get_MMCatalog(IUnknown** c) override { return *c = nullptr, S_OK; }
    HRESULT STDMETHODCALLTYPE PercentDone(long p) override { return log.push_back(std::to_wstring(p) + L"%"), S_OK; }
    HRESULT STDMETHODCALLTYPE QueryCancel(VARIANT_BOOL* c) override { return *c = cancelling ? cancel : 0, S_OK; }
    HRESULT STDMETHODCALLTYPE Status(BSTR s) override {
        cancelling |= !cancelFrom.empty() && wstring(s).find(cancelFrom) != wstring::npos;
        return log.push_back(s), S_OK;
    }
    HRESULT STDMETHODCALLTYPE VBBuildFailed(BSTR command, VARIANT_BOOL* cont) override {
        return log.push_back(L"build failed: " + wstring(command)), *cont = build, S_OK;
    }
    HRESULT STDMETHODCALLTYPE FileNotFound(BSTR project, BSTR forms, VARIANT_BOOL* cont) override {
        return log.push_back(L"not found: " + wstring(project) + L"|" + forms), *cont = notFound, S_OK;
    }
};

bool file_exists(const wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

wstring upper(wstring text) { return CharUpperBuffW(text.data(), DWORD(text.size())), text; }

void set(const wstring& key, const wstring& value) {
    registry_override::set_value(HKEY_CLASSES_ROOT, key, nullptr, REG_SZ, value.c_str(),
                                 DWORD((value.size() + 1) * sizeof(wchar_t)));
}

class VBPScan : public ::testing::Test {
protected:
    void SetUp() override {
        set(L"TypeLib\\" + kRef + L"\\a.0\\0\\win32", p(L"ref.tlb"));
        set(L"TypeLib\\" + kGrid + L"\\1.0\\0\\win32", p(L"grid.ocx"));
        set(L"Fixture.Server\\CLSID", L"{5C5E1A00-0000-4000-8000-00000000AB12}");
        set(L"CLSID\\{5C5E1A00-0000-4000-8000-00000000AB12}\\LocalServer32", p(L"server.exe"));
        set(L".vbp", L"VBProject");
        set(L"VBProject\\shell\\Make\\command", module_dir() + L"\\vb_compiler.exe /make \"%1\"");
        dir.write(L"p\\ref.tlb", "not an image");
        dir.copy(fixture(L"walk\\app\\beta.dll"), L"p\\grid.ocx");
        dir.copy(fixture(L"walk\\lib\\delta.dll"), L"p\\helper.dll");
        dir.copy(fixture(L"walk\\lib\\noimports.exe"), L"p\\server.exe");
        dir.copy(fixture(L"pe\\app.exe"), L"p\\app.exe");
        dir.write(L"p\\grid.dep", "[grid.ocx]\r\nUses1=helper.dll\r\nUses2=loop.dll\r\nUses4=skipped.dll\r\n"
                                  "[grid.ocx <0009>]\r\nUses1=lang.dll\r\n[loop.dll]\r\nUses1=grid.ocx\r\n");
        dir.write(L"p\\form1.frm", qv::test::narrow(L"VERSION 5.00\r\nObject = \"" + kGrid + L"#1.0#0\"; \"grid.ocx\"\r\n"
                                                    L"Object={00000000-0000-0000-0000-000000000001}#1.0#0; x.ocx\r\n"));
        project = dir.write(L"p\\proj.vbp", "Type=Exe\r\n"
                                            "Reference=*\\G{00020430-0000-0000-C000-000000000046}#2.0#0#"
                                            "C:\\windows\\system32\\stdole2.tlb#OLE Automation\r\n"
                                            "Reference=*\\G" + narrow(kRef) + "#10.0#0#..\\gone\\ref.tlb#Ref\r\n"
                                            "Object=" + narrow(kGrid) + "#1.0#0; grid.ocx\r\n"
                                            "Object=Fixture.Server; server.exe\r\nForm=form1.frm\r\nForm=missing.frm\r\n"
                                            "ExeName32=\"app.exe\"\r\n\r\nObject={}#1.0#0; never.ocx\r\n");
        ASSERT_EQ(server().Create(CLSID_VBPScan, nullptr, IID_IVBPScan, scan.put_void()), S_OK);
    }

    wstring p(const wstring& name) const { return dir.path() + L"\\p\\" + name; }

    HRESULT Scan(const wstring& file, VARIANT_BOOL rebuild = 0, VARIANT_BOOL filter = 1) {
        return scan->Scan(qv::bstr(file).get(), qv::bstr(L"").get(), &sink, filter, rebuild, qv::bstr(L"0009").get());
    }

    // The groups by name, each with the lower-case names of its files.
    std::vector<std::pair<wstring, std::set<wstring>>> groups() {
        com_ptr<IUnknown> unknown;
        EXPECT_EQ(scan->get_DepFileGroups(unknown.put()), S_OK);
        auto all = unknown.query<IQvDepFileGroups>(IID_IQvDepFileGroups);
        long count = 0;
        all->get_Count(&count);
        std::vector<std::pair<wstring, std::set<wstring>>> out;
        for (long i = 1; i <= count; ++i) {
            com_ptr<IQvDepFileGroup> group;
            com_ptr<IDepFiles> files;
            qv::bstr name;
            EXPECT_EQ(all->get_Item(i, group.put()), S_OK);
            group->get_Name(name.put()), group->get_Files(files.put());
            out.emplace_back(name.str(), names(files.get()));
        }
        return out;
    }

    com_apartment apartment;
    registry_override classes{HKEY_CLASSES_ROOT};
    temp_dir dir;
    vb_sink sink;
    wstring project;
    com_ptr<IVBPScan> scan;
};

TEST_F(VBPScan, ProjectWithReferencesObjectsAndFormsOneMissing) {
    ASSERT_EQ(Scan(project), S_OK);
    const wstring circle = L"The sections of the .dep file name each other in a circle back to [grid.ocx], which is walked once";
    EXPECT_EQ(sink.log, (log_lines{L"0%", L"Reading " + project, L"10%", L"53%", L"97%",
                                   L"not found: " + project + L"|missing.frm", L"0%", L"16%", L"Scanning " + p(L"app.exe"),
                                   L"Scanning C:\\windows\\system32\\stdole2.tlb", L"33%", L"Scanning " + p(L"ref.tlb"),
                                   L"50%", L"Scanning " + p(L"grid.ocx"), circle, L"66%", L"Scanning " + p(L"server.exe"),
                                   L"83%", L"Scanning " + p(L"grid.ocx"), L"100%", L"Scan completed"}));
    const std::set<wstring> bag = {L"app.exe", L"ref.tlb", L"grid.ocx", L"helper.dll", L"loop.dll", L"lang.dll",
                                   L"server.exe"};
    const auto got = groups();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].first, p(L"app.exe"));
    EXPECT_EQ(got[0].second, (std::set<wstring>{L"pefix_one.dll", L"pefix_two.dll", L"pefix_three.dll"}));
    EXPECT_EQ(got[1].first, p(L"grid.ocx"));
    EXPECT_TRUE(got[1].second.count(L"delta.dll") && got[1].second.count(L"gamma.dll")) << got[1].second.size();
    EXPECT_EQ(got[2], std::make_pair(project, bag)) << "the project group comes last, stdole2.tlb filtered";
    EXPECT_TRUE(sink.found.empty() && sink.errors.empty() && sink.unexpected.empty())
        << "the static scans report to the project scan, which keeps their file and error events to itself";

    // A second scan on the same object, unfiltered, adds to the same bag and the same groups.
    sink.log.clear();
    ASSERT_EQ(Scan(project, 0, 0), S_OK);
    const auto again = groups();
    ASSERT_EQ(again.size(), 4u) << "files already in the bag are not scanned again; the project group is";
    EXPECT_TRUE(again[3].second.count(L"stdole2.tlb") && again[3].second.size() == bag.size() + 1);
    EXPECT_EQ(sink.log[5], L"not found: " + project + L"|missing.frm;missing.frm") << "the missing list grows";
}

TEST_F(VBPScan, AnswersEndOrCancelTheScan) {
    sink.notFound = 0; // the sink that leaves the answer alone ends the scan
    ASSERT_EQ(Scan(project), S_OK);
    EXPECT_EQ(sink.log.back(), L"not found: " + project + L"|missing.frm");
    EXPECT_TRUE(groups().empty());

    sink = vb_sink();
    sink.cancelFrom = L"ref.tlb", sink.cancel = 1; // only -1 cancels
    ASSERT_EQ(Scan(project), S_OK);
    EXPECT_EQ(sink.log.back(), L"Scan completed");

    for (const wstring& file : {wstring(), p(L"form1.frm"), p(L"absent.vbp")})
        EXPECT_EQ(Scan(file), E_INVALIDARG) << file;
    sink = vb_sink();
    sink.cancelFrom = L"ref.tlb", sink.cancel = VARIANT_TRUE;
    ASSERT_EQ(Scan(dir.copy(project, L"p\\again.VBPX")), S_OK) << "the extension test takes four characters";
    EXPECT_EQ(sink.log.back(), L"Scan cancelled by the user");
    EXPECT_EQ(log_lines(sink.log.end() - 3, sink.log.end() - 1), (log_lines{L"Scanning " + p(L"ref.tlb"), L"50%"}))
        << "the step ends, nothing after it";
    EXPECT_EQ(groups().back().first, p(L"again.VBPX")) << "a cancelled scan keeps its project group";
}

TEST_F(VBPScan, GroupFileScansEachProjectInFileOrder) {
    dir.write(L"p\\lone.vbp", "Type=Control\r\n");
    dir.write(L"g.vbg", "VBGROUP 5.0\r\nStartupProject=p\\lone.vbp\r\nProject=p\\absent.vbp\r\nProject=" +
                            narrow(p(L"lone.vbp")) + "\r\n");
    ASSERT_EQ(Scan(dir / L"g.vbg"), S_OK);
    const wstring lone = p(L"lone.vbp"), built = L"Scanning " + p(L"lone.OCX");
    EXPECT_EQ(sink.log, (log_lines{L"0%", L"Reading " + lone, L"0%", L"100%", built, L"not found: " + p(L"absent.vbp") + L"|",
                                   L"0%", L"Reading " + lone, L"0%", L"100%", built, L"Scan completed"}));
    ASSERT_EQ(groups().size(), 1u);
    EXPECT_EQ(groups()[0], std::make_pair(dir / L"g.vbg", std::set<wstring>{L"lone.ocx"})) << "missing, still listed";
}

TEST_F(VBPScan, RebuildRunsTheCompilerAndJudgesItsErrorFile) {
    DeleteFileW(p(L"app.exe").c_str());
    ASSERT_EQ(Scan(project, 1), S_OK);
    EXPECT_EQ(std::count(sink.log.begin(), sink.log.end(), L"Rebuilding " + project), 0) << "only -1 rebuilds";
    sink.log.clear();
    ASSERT_EQ(Scan(project, VARIANT_TRUE), S_OK);
    EXPECT_EQ(sink.log[7], L"Rebuilding " + project);
    EXPECT_TRUE(file_exists(p(L"app.exe"))) << "the stand-in built it";
    EXPECT_FALSE(file_exists(p(L"_QvVbErr.txt"))) << "the error file never stays";

    // A failed build: the sink is given the whole command line and decides.
    dir.write(L"p\\bad.vbp", "Type=OleDll\r\nClass=c\r\nBuildOutcome=fail\r\n");
    const wstring command = L"\"" + upper(module_dir() + L"\\vb_compiler.exe") + L"\" /l \"" + p(L"bad.vbp") +
                            L"\" /out \"" + p(L"_QvVbErr.txt") + L"\"";
    for (VARIANT_BOOL answer : {VARIANT_TRUE, VARIANT_FALSE}) {
        sink = vb_sink();
        sink.build = answer;
        const size_t before = groups().size();
        ASSERT_EQ(Scan(p(L"bad.vbp"), VARIANT_TRUE), S_OK);
        EXPECT_EQ(sink.log[4], L"build failed: " + command);
        EXPECT_EQ(sink.log.back(), answer ? L"Scan completed" : L"build failed: " + command);
        EXPECT_EQ(groups().size(), before + (answer ? 1 : 0)) << "a stop adds no project group";
        EXPECT_FALSE(file_exists(p(L"_QvVbErr.txt")));
    }

    // A compiler that hangs is ended after the time-out; with no error file there is no verdict.
    env_scope timeout(L"QVWI_VB_BUILD_TIMEOUT", L"2");
    dir.write(L"p\\hang.vbp", "Type=Exe\r\nBuildOutcome=hang\r\n");
    sink = vb_sink();
    ASSERT_EQ(Scan(p(L"hang.vbp"), VARIANT_TRUE), S_OK);
    EXPECT_EQ(sink.log, (log_lines{L"0%", L"Reading " + p(L"hang.vbp"), L"0%", L"Rebuilding " + p(L"hang.vbp"), L"100%",
                                   L"Scanning " + p(L"hang.EXE"), L"Scan completed"}));
}

} // namespace
