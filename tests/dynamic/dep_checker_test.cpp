// The dynamic scanner as its clients meet it: DepChecker from the server DLL with a real engine process.
// Reports are either caused by fixture programs the engine runs (fixtures/trace/host.exe) or sent through
// the engine's Report command, which fires an event as if the debuggee had caused it: the checker sees
// both on the same wire. The engine object is found the way the library finds it, in the running object
// table.
#include "QVWIScanners.h"
#include "event_recorder.h"
#include "inc/com_ptr.h"
#include "inc/engine_wire.h"
#include "server_support.h"
#include "test_support.h"
#include "toolkit/process_launcher.h"

#include <gtest/gtest.h>

#include <olectl.h>

#include <algorithm>
#include <map>
#include <set>

using namespace qv::test;
using qv::com_ptr;

namespace {

std::wstring trace_fixture(const std::wstring& rel) { return fixture(L"trace\\" + rel); }

// The objects of the running object table by their monikers' display names ("!{GUID}" for an engine).
std::map<std::wstring, com_ptr<IUnknown>> running_objects() {
    std::map<std::wstring, com_ptr<IUnknown>> objects;
    com_ptr<IRunningObjectTable> table;
    com_ptr<IEnumMoniker> monikers;
    com_ptr<IBindCtx> context;
    if (FAILED(GetRunningObjectTable(0, table.put())) || FAILED(table->EnumRunning(monikers.put())) ||
        FAILED(CreateBindCtx(0, context.put())))
        return objects;
    for (com_ptr<IMoniker> m; monikers->Next(1, m.put(), nullptr) == S_OK;) {
        LPOLESTR name = nullptr;
        if (SUCCEEDED(m->GetDisplayName(context.get(), nullptr, &name)))
            table->GetObject(m.get(), objects[name].put()), CoTaskMemFree(name);
    }
    return objects;
}

// Counts the processes of the given names (in lower case) that this test started: its children, and the
// children of its engines. Other tests' processes in the same prefix do not count.
int processes_named(std::set<std::wstring> names) {
    const auto tree = qv::detail::ReadProcessTree(false);
    const DWORD self = GetCurrentProcessId();
    auto ours = [&](DWORD parent) {
        const auto up = tree.find(parent);
        return parent == self || (up != tree.end() && up->second.parent == self && lower(up->second.name) == L"tracehost64.exe");
    };
    return int(std::count_if(tree.begin(), tree.end(), [&](auto& e) { return names.count(lower(e.second.name)) && ours(e.second.parent); }));
}

VARIANT number(long value) { return index_of(value); } // a VT_I4

using bag_map = std::map<std::wstring, std::map<std::wstring, std::wstring>>; // tag -> key -> marks

// One checker with its engine, its events recorded.
struct checker {
    com_ptr<IDepCheckerTarn> object;
    com_ptr<IDispatch> engine; // the same engine object the checker holds
    com_ptr<IConnectionPoint> point;
    event_recorder events;
    DWORD cookie = 0;
    long marks = 0;

    checker() {
        events.events_iid = DIID__IDepCheckerEvents;
        const auto before = running_objects();
        EXPECT_EQ(server().Create(CLSID_DepChecker, nullptr, IID_IDepCheckerTarn, object.put_void()), S_OK);
        if (!object)
            return;
        for (const auto& [name, found] : running_objects())
            if (!before.count(name) && name.starts_with(L"!"))
                engine = found.query<IDispatch>(IID_IDispatch);
        EXPECT_TRUE(engine) << "the new engine is in the running object table";
        auto container = object.query<IConnectionPointContainer>(IID_IConnectionPointContainer);
        EXPECT_EQ(container->FindConnectionPoint(DIID__IDepCheckerEvents, point.put()), S_OK);
        EXPECT_EQ(point->Advise(&events, &cookie), S_OK);
    }
    ~checker() { EXPECT_TRUE(!point || point->Unadvise(cookie) == S_OK); }

    // The engine fires each event; a last ChildProcessExit with a number of its own tells when all came.
    void report(std::vector<std::pair<long, std::wstring>> reported) {
        const std::wstring mark = std::to_wstring(900000 + ++marks);
        reported.emplace_back(5, mark);
        for (const auto& [kind, text] : reported) {
            const qv::bstr path(text);
            VARIANT arguments[2] = {{}, number(kind)}; // rgvarg takes them last to first
            V_VT(&arguments[0]) = VT_BSTR, V_BSTR(&arguments[0]) = path.get();
            DISPPARAMS params{arguments, nullptr, 2, 0};
            EXPECT_EQ(engine->Invoke(qv::engine::command::report, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr,
                                     nullptr, nullptr), S_OK);
        }
        EXPECT_TRUE(pump_until([&] { return !events.events.empty() && events.events.back().second == mark; }));
        events.events.pop_back();
    }

    // Each bag's tag and its files' keys in lower case, with the marks F (filterable), G (merge module),
    // M (missing) and R (self-registering) of each record.
    bag_map bags() {
        bag_map out;
        com_ptr<IDepFileBags> all;
        long count = 0;
        EXPECT_EQ(object->get_Dependencies(all.put()), S_OK);
        all->get_Count(&count);
        for (long i = 1; i <= count; ++i) {
            com_ptr<IDepFileBag> bag;
            com_ptr<IDepFiles> files;
            qv::bstr tag;
            all->get_Item(index_of(i), bag.put());
            bag->get_TagName(tag.put()), bag->get_Files(files.put());
            out[tag.str()]; // an empty bag too
            for (const auto& [name, r] : records(files.get()))
                out[tag.str()][r.module ? r.name + L"@" + r.path : lower(r.path.empty() ? r.name : r.path + L"\\" + r.name)] =
                    std::wstring(r.filterable ? L"F" : L"") + (r.module ? L"G" : L"") + (r.missing ? L"M" : L"") +
                    (r.selfReg ? L"R" : L"");
        }
        return out;
    }
    std::wstring tag() {
        qv::bstr text;
        return object->get_CurrentTagName(text.put()) != S_OK ? L"(failed)" : text.get() ? text.str() : L"(null)";
    }
};

class DepChecker : public ::testing::Test {
protected:
    void TearDown() override {
        pump_until([] { return processes_named({L"tracehost64.exe", L"host.exe"}) == 0; }, 10000);
        EXPECT_EQ(processes_named({L"tracehost64.exe", L"host.exe"}), 0) << "a process was left behind";
    }
    com_apartment apartment;
    const std::wstring plugin = trace_fixture(L"plugins\\plugin.dll"), host = trace_fixture(L"host.exe");
    const std::wstring sys = lower(system_dir());
};

TEST_F(DepChecker, TagsStartBagsButNeverReturnToThemAndResetLeavesOneEmptyBag) {
    checker c;
    ASSERT_TRUE(c.engine);
    VARIANT_BOOL monitoring = 0, filtering = 0, running = 7;
    c.object->get_Monitoring(&monitoring), c.object->get_Filtering(&filtering), c.object->get_ApplicationRunning(&running);
    EXPECT_TRUE(monitoring == VARIANT_TRUE && filtering == VARIANT_TRUE && running == 0 && c.tag() == L"(null)");
    EXPECT_EQ(c.bags(), (bag_map{{L"", {}}}));

    // B starts a bag, A another; B again changes the tag but records keep going to A.
    const std::wstring other = lower(host);
    c.object->put_CurrentTagName(qv::bstr(L"B").get());
    c.report({{1, plugin}});
    c.object->put_CurrentTagName(qv::bstr(L"A").get());
    c.object->put_CurrentTagName(qv::bstr(L"B").get());
    c.object->put_CurrentTagName(qv::bstr(L"B").get()); // the tag it has: nothing changes
    c.report({{1, host}});
    EXPECT_EQ(c.tag(), L"B");
    EXPECT_EQ(c.bags(), (bag_map{{L"", {}}, {L"B", {{lower(plugin), L"R"}}}, {L"A", {{other, L""}}}}));

    // Monitoring off leaves no trace; on again, the same report is recorded.
    c.object->put_Monitoring(VARIANT_FALSE);
    c.report({{1, plugin}});
    c.object->put_Monitoring(VARIANT_TRUE);
    EXPECT_EQ(c.events.count(1), 2u);
    c.report({{1, plugin}});
    EXPECT_EQ(c.bags()[L"A"], (std::map<std::wstring, std::wstring>{{other, L""}, {lower(plugin), L"R"}}));

    EXPECT_TRUE(c.object->reset() == S_OK && c.tag() == L"");
    EXPECT_EQ(c.bags(), (bag_map{{L"", {}}}));
    c.report({{1, plugin}});
    EXPECT_EQ(c.bags(), (bag_map{{L"", {{lower(plugin), L"R"}}}}));
}

TEST_F(DepChecker, EachReportIsRecordedOnceUnlessExcludedFilteredOrInAMergeModule) {
    temp_dir dir;
    const std::wstring listed = dir.copy(plugin, L"aclui.dll"), second = dir.copy(plugin, L"second.dll");
    fake_module module(L"{MODULE-ID}", L"Plugins.msm", L"The plug-ins");
    fake_catalog catalog;
    catalog.answers[L"plugin.dll:x64"] = {&module, VARIANT_TRUE};
    catalog.answers[L"second.dll:x64"] = {&module, VARIANT_TRUE};
    const std::wstring kernel32 = system_dir() + L"\\KERNEL32.DLL";
    const struct {
        const char* what; VARIANT_BOOL filtering; bool withCatalog; std::vector<std::pair<long, std::wstring>> reports;
        std::map<std::wstring, std::wstring> recorded; size_t found, children = 0;
    } rows[] = {
        {"a system name is never recorded while filtering", -1, false, {{1, kernel32}}, {}, 0},
        {"without filtering it is, marked filterable", 0, false, {{1, kernel32}}, {{sys + L"\\kernel32.dll", L"F"}}, 1},
        {"a name on the filter's lists likewise", -1, false, {{1, listed}}, {}, 0},
        {"...", 0, false, {{1, listed}}, {{lower(listed), L"FR"}}, 1},
        {"one key per bag, whatever the case", -1, false, {{1, plugin}, {1, lower(plugin)}}, {{lower(plugin), L"R"}}, 1},
        {"an empty path is a path, of a missing file", -1, false, {{1, L""}}, {{L"", L"M"}}, 1},
        {"unloads and children change no bag", -1, false, {{2, plugin}, {4, L"77"}, {5, L"77"}}, {}, 0, 2},
        {"a merge module enters once under its key", 0, true, {{1, plugin}, {1, second}}, {{L"The plug-ins@Plugins.msm", L"GR"}}, 1},
    };
    checker c;
    ASSERT_TRUE(c.engine);
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        c.object->reset();
        c.object->put_Filtering(r.filtering);
        EXPECT_EQ(c.object->put_MMCatalog(r.withCatalog ? static_cast<IUnknown*>(&catalog) : nullptr), S_OK);
        c.events.events.clear();
        c.report(r.reports);
        EXPECT_EQ(c.bags(), (bag_map{{L"", r.recorded}}));
        EXPECT_EQ(c.events.count(1), r.found);
        EXPECT_EQ(c.events.count(3) + c.events.count(4), r.children) << "children only reach the client";
    }
    c.object->put_MMCatalog(nullptr);
}

TEST_F(DepChecker, LaunchRecordsWhatTheTargetAndItsChildrenLoad) {
    temp_dir dir;
    const std::wstring childPlugin = dir.copy(plugin, L"child_plugin.dll");
    const std::wstring arguments = L"cycle 100 \"" + plugin + L"\" child \"\\\"" + host + L"\\\" load \\\"" +
                                   childPlugin + L"\\\"\" exit 3";
    for (long flags : {long{ChildProcessesIncluded}, long{ThisProcessOnly}}) {
        SCOPED_TRACE(flags);
        checker c;
        ASSERT_TRUE(c.engine);
        EXPECT_EQ(c.object->Launch(qv::bstr(host).get(), qv::bstr(arguments).get(), qv::bstr(dir.path()).get(), flags),
                  S_OK);
        VARIANT_BOOL running = 0;
        EXPECT_TRUE(c.object->get_ApplicationRunning(&running) == S_OK && running == 1) << "the number 1";
        ASSERT_TRUE(pump_until([&] { return c.events.count(2) > 0; }));
        EXPECT_EQ(c.events.events.back().first, 2) << "the end comes last";
        EXPECT_TRUE(c.object->get_ApplicationRunning(&running) == S_OK && running == 0);
        auto files = c.bags()[L""];
        EXPECT_EQ(files.count(lower(plugin)), 1u) << "loaded 100 times, recorded once";
        EXPECT_EQ(files.count(lower(childPlugin)), flags == ChildProcessesIncluded ? 1u : 0u);
        EXPECT_EQ(c.events.count(3), flags == ChildProcessesIncluded ? 1u : 0u);
        EXPECT_EQ(c.events.count(4), c.events.count(3));
        for (const auto& [key, marks] : files)
            EXPECT_EQ(key.find(sys + L"\\kernel32.dll"), std::wstring::npos) << "filtered";
    }
}

TEST_F(DepChecker, TwoCheckersRunSideBySideWithoutCrossedEvents) {
    temp_dir dir;
    const std::wstring first = dir.copy(plugin, L"first.dll"), second = dir.copy(plugin, L"second.dll");
    checker a, b;
    ASSERT_TRUE(a.engine && b.engine);
    EXPECT_NE(a.engine.get(), b.engine.get());
    a.object->Launch(qv::bstr(host).get(), qv::bstr(L"load \"" + first + L"\" sleep 300").get(), nullptr, 1);
    b.object->Launch(qv::bstr(host).get(), qv::bstr(L"load \"" + second + L"\" sleep 300").get(), nullptr, 1);
    ASSERT_TRUE(pump_until([&] { return a.events.count(2) && b.events.count(2); }));
    EXPECT_EQ(a.bags(), (bag_map{{L"", {{lower(first), L"R"}}}}));
    EXPECT_EQ(b.bags(), (bag_map{{L"", {{lower(second), L"R"}}}}));
}

TEST_F(DepChecker, AttachTerminateAndTheEnginesAbsence) {
    {
        checker c;
        ASSERT_TRUE(c.engine);
        // A process that does not exist: the engine gives up, and says the application finished.
        EXPECT_EQ(c.object->AttachProcess(0x7FFFFFF0), S_OK);
        ASSERT_TRUE(pump_until([&] { return c.events.count(2) > 0; }));
        // Its own client is not debugged (that would stop the thread that takes the events): the same end.
        EXPECT_EQ(c.object->AttachProcess(static_cast<long>(GetCurrentProcessId())), S_OK);
        ASSERT_TRUE(pump_until([&] { return c.events.count(2) > 1; }));
        c.events.events.clear();
        // A running one: attached, not marked running; Terminate ends it and the end is told once.
        ASSERT_EQ(qv::LaunchAndWait(L"", L"\"" + host + L"\" load \"" + plugin + L"\" sleep 20000", L"", 0, 0, SW_HIDE,
                                    0, L"open"),
                  0);
        const DWORD id = qv::LastLaunch().process.dwProcessId;
        pump_until([] { return false; }, 300); // let it load its plug-in first
        EXPECT_EQ(c.object->AttachProcess(static_cast<long>(id)), S_OK);
        VARIANT_BOOL running = 7;
        EXPECT_TRUE(c.object->get_ApplicationRunning(&running) == S_OK && running == 0);
        ASSERT_TRUE(pump_until([&] { return c.bags()[L""].count(lower(plugin)) > 0; })) << "loaded modules replayed";
        EXPECT_EQ(c.object->Terminate(), S_OK);
        ASSERT_TRUE(pump_until([&] { return c.events.count(2) == 1; }));
        EXPECT_EQ(processes_named({L"host.exe"}), 0);

        // The connection points: the filter's takes connections and never calls; cookies are checked.
        com_ptr<IConnectionPoint> filterPoint;
        com_ptr<IEnumConnectionPoints> points;
        IConnectionPoint* got[3] = {};
        ULONG fetched = 0;
        auto container = c.object.query<IConnectionPointContainer>(IID_IConnectionPointContainer);
        EXPECT_EQ(container->FindConnectionPoint(DIID__IDepCheckerFilter, filterPoint.put()), S_OK);
        EXPECT_TRUE(container->EnumConnectionPoints(points.put()) == S_OK && points->Next(3, got, &fetched) == S_FALSE);
        for (ULONG i = 0; i < fetched; ++i)
            got[i]->Release();
        EXPECT_EQ(fetched, 2u);
        event_recorder plain; // answers IDispatch only
        DWORD cookie = 0;
        EXPECT_EQ(c.point->Advise(&plain, &cookie), CONNECT_E_CANNOTCONNECT);
        EXPECT_EQ(c.point->Unadvise(c.cookie + 5), CONNECT_E_NOCONNECTION);
        plain.events_iid = DIID__IDepCheckerFilter;
        EXPECT_EQ(filterPoint->Advise(&plain, &cookie), S_OK);
        EXPECT_EQ(filterPoint->Unadvise(cookie), S_OK);
    }
    env_scope nowhere(L"QV_PROGRAMS_DIR", L"C:\\no such folder");
    com_ptr<IDepChecker> none;
    EXPECT_EQ(server().Create(CLSID_DepChecker, nullptr, IID_IDepChecker, none.put_void()),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
}

} // namespace
