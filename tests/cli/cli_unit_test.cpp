// The command line's own logic, without the server: option parsing (argv to fields or to the exact usage
// error), the quoting of a target's arguments, the translation of Linux paths (real files in a temporary
// folder, made through Wine's \\?\unix\ prefix where Windows cannot spell their names), and the layout of
// JSON documents.
#include "inc/com_ptr.h"
#include "inc/unique_handles.h"
#include "json_writer.h"
#include "linux_paths.h"
#include "dependency_graph.h"
#include "image_writer.h"
#include "installer.h"
#include "options.h"
#include "progress.h"
#include "records.h"
#include "server_dll.h"
#include "target_profile.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <shellapi.h>

#include <algorithm>
#include <memory>

using namespace qvscan;
using namespace qv::test;

namespace {

// The fields a command line set, those that differ from their defaults; or "usage: " and the message.
std::string parsed(std::vector<std::wstring> args) {
    args.insert(args.begin(), L"qvscan");
    std::vector<const wchar_t*> argv;
    for (const std::wstring& a : args)
        argv.push_back(a.c_str());
    options o;
    try {
        o = parse(static_cast<int>(argv.size()), argv.data());
    } catch (const usage_error& e) {
        return "usage: " + e.message;
    } catch (const help_request& e) {
        return "help: " + narrow(e.command);
    } catch (const version_request&) {
        return "version";
    }
    auto list = [](const std::vector<std::wstring>& items) {
        std::string text;
        for (const std::wstring& item : items)
            text += (text.empty() ? "" : ",") + narrow(item);
        return text;
    };
    std::string s = narrow(o.command);
    auto add = [&](bool on, const std::string& field) { s += on ? " " + field : ""; };
    add(!o.file.empty(), "file=" + narrow(o.file));
    add(!o.names.empty(), "names=" + list(o.names));
    add(!o.arguments.empty(), "args=" + list(o.arguments));
    add(!o.lang.empty(), "lang=" + narrow(o.lang));
    add(o.type != 0, "type=" + std::to_string(o.type));
    add(!o.filter, "nofilter");
    add(!o.mergeModules.empty(), "merge=" + narrow(o.mergeModules));
    add(o.json, "json");
    add(o.user, "user");
    add(!o.directory.empty(), "dir=" + narrow(o.directory));
    add(!o.tag.empty(), "tag=" + narrow(o.tag));
    add(o.thisProcessOnly, "thisonly");
    add(o.processId != 0, "pid=" + std::to_string(o.processId));
    add(o.timeout != 0, "timeout=" + std::to_string(static_cast<int>(o.timeout * 10)) + "ds");
    add(!o.depFile.empty(), "dep=" + narrow(o.depFile));
    add(o.rebuild, "rebuild");
    add(o.keepGoing, "keepgoing");
    add(o.target != L"windows-x64-net48", "target=" + narrow(o.target));
    add(!o.extensions, "noext");
    add(o.failOnMissing != 0, "failmissing=" + std::to_string(o.failOnMissing));
    return s;
}

TEST(Options, EachCommandLineSetsItsFieldsOrSaysWhatIsWrong) {
    const std::wstring lang65(65, L'x');
    const std::pair<std::vector<std::wstring>, std::string> rows[] = {
        {{}, "usage: no command given"},
        {{L"--help"}, "help: "},
        {{L"help"}, "help: "},
        {{L"help", L"vbp"}, "help: vbp"},
        {{L"help", L"nosuch"}, "usage: unknown command 'nosuch'"},
        {{L"--version"}, "version"},
        {{L"static", L"a", L"--help"}, "help: static"},
        {{L"trace", L"-h"}, "help: trace"},
        {{L"trace", L"app", L"--help"}, "trace file=app args=--help"}, // the target's own
        {{L"setup", L"--help"}, "help: setup"},
        {{L"setup", L"x.exe --help"}, "setup file=x.exe --help"}, // setup's command line as it is
        {{L"static", L"a", L"--fail-on-missing"}, "static file=a failmissing=1"},
        {{L"static", L"a", L"--fail-on-missing=all"}, "static file=a failmissing=2"},
        {{L"vbp", L"p.vbp", L"--fail-on-missing=all"}, "usage: unknown option '--fail-on-missing=all' for vbp"},
        {{L"bogus"}, "usage: unknown command 'bogus'"},
        {{L"static", L"a", L"dir", L"--lang", L"0409", L"--type", L"0x8002", L"--no-filter", L"--merge-modules", L"M",
          L"--json"},
         "static file=a names=dir lang=0409 type=32770 nofilter merge=M json"},
        {{L"static", L"-"}, "static file=-"},
        {{L"static"}, "usage: static needs a FILE"},
        {{L"static", L"x", L"--type"}, "usage: --type needs a value"},
        {{L"static", L"x", L"--type", L"abc"}, "usage: --type wants 0, 1 or 2, optionally with 32768 added"},
        {{L"static", L"x", L"--type", L"3"}, "usage: --type wants 0, 1 or 2, optionally with 32768 added"},
        {{L"static", L"x", L"--type", L"4294967296"}, "usage: --type wants 0, 1 or 2, optionally with 32768 added"},
        {{L"static", L"x", L"--lang", lang65},
         "usage: --lang wants a language of a .dep file (such as 0409 or enu), not 65 characters"},
        {{L"static", L"x", L"--frob"}, "usage: unknown option '--frob' for static"},
        {{L"pe", L"a", L"--json"}, "pe file=a json"},
        {{L"pe", L"a", L"b", L"--frob"}, "usage: unexpected argument 'b'"},
        {{L"assembly", L"x", L"--no-filter"}, "usage: unknown option '--no-filter' for assembly"},
        {{L"msm"}, "usage: msm needs a FILE"},
        {{L"ini", L"f", L"s", L"k"}, "ini file=f names=s,k"},
        {{L"ini", L"f", L"--json"}, "usage: unknown option '--json' for ini"},
        {{L"ini", L"f", L"s", L"k", L"x"}, "usage: unexpected argument 'x'"},
        {{L"vbp", L"p.vbp", L"--rebuild", L"--dep", L"d.dep", L"--keep-going", L"--lang", L"enu"},
         "vbp file=p.vbp lang=enu dep=d.dep rebuild keepgoing"},
        {{L"vbp"}, "usage: vbp needs a PROJECT (.vbp) or GROUP (.vbg)"},
        {{L"trace", L"--json", L"app", L"a", L"--tag", L"T", L"-x", L"--", L"--json", L"--dir", L"D"},
         "trace file=app args=a,-x,--json,--dir,D json tag=T"},
        {{L"trace", L"app", L"--dir", L"D", L"--this-process-only", L"--timeout", L"1.5"},
         "trace file=app dir=D thisonly timeout=15ds"},
        {{L"trace", L"--", L"--app"}, "trace file=--app"},
        {{L"trace"}, "usage: trace needs an APP to run"},
        {{L"trace", L"--bogus", L"app"}, "usage: unknown option '--bogus' for trace"},
        {{L"trace", L"app", L"--timeout", L"0"}, "usage: --timeout wants a number of seconds above 0"},
        {{L"trace", L"app", L"--timeout", L"1e400"}, "usage: --timeout wants a number of seconds above 0"},
        {{L"trace", L"app", L"--timeout", L"2x"}, "usage: --timeout wants a number of seconds above 0"},
        {{L"trace", L"app", L"--timeout", L"-3"}, "usage: --timeout wants a number of seconds above 0"},
        {{L"trace", L"app", L"--timeout", L"31536001"}, "usage: --timeout wants a number of seconds above 0"},
        {{L"trace", L"app", L"--timeout", L"31536000"}, "trace file=app timeout=315360000ds"},
        {{L"static", L"a", L"--target", L"windows-x64", L"--no-extensions"}, "static file=a target=windows-x64 noext"},
        {{L"static", L"a", L"--target"}, "usage: --target needs a value"},
        {{L"pe", L"a", L"--target", L"t"}, "usage: unknown option '--target' for pe"},
        {{L"attach", L"0x10", L"--timeout", L"2", L"--no-filter"}, "attach nofilter pid=16 timeout=20ds"},
        {{L"attach"}, "usage: attach needs the ID of a running process"},
        {{L"attach", L"12x"}, "usage: attach wants a process ID, not '12x'"},
        {{L"attach", L"4294967296"}, "usage: attach wants a process ID, not '4294967296'"},
        {{L"attach", L"--", L"-5"}, "usage: attach wants a process ID, not '-5'"},
        {{L"attach", L"1", L"--dir", L"C:\\"}, "usage: unexpected argument '--dir'"},
        {{L"attach", L"abc", L"--bogus"}, "usage: unexpected argument '--bogus'"},
        {{L"setup", L"a b --json"}, "setup file=a b --json"},
        {{L"setup"}, "usage: setup needs one COMMAND LINE (quote it)"},
        {{L"setup", L"a", L"b"}, "usage: setup needs one COMMAND LINE (quote it)"},
        {{L"register", L"--user"}, "register user"},
        {{L"unregister", L"x"}, "usage: unexpected argument 'x'"},
        {{L"register", L"--"}, "usage: unknown option '--' for register"},
    };
    for (const auto& [args, expected] : rows)
        EXPECT_EQ(parsed(args), expected) << (args.empty() ? "(none)" : narrow(args[0]));
}

// The library asks the project-kind companion at every record; the tool asks it once when it loads the library
// and pins the answer in the companion's variable, which a variable already set overrides.
TEST(ServerDll, PinsTheProjectKindTheCompanionTellsOnce) {
    registry_override user(HKEY_CURRENT_USER);
    const DWORD angle = 1;
    registry_override::set_value(HKEY_CURRENT_USER, L"Software\\QVWI\\QVObjMgr", L"ActiveProjectType", REG_DWORD,
                                 &angle, sizeof angle);
    const struct { const wchar_t* given; std::wstring pinned; } rows[] = {{nullptr, L"1"}, {L"0", L"0"}, {L"", L"1"}};
    for (const auto& r : rows) {
        env_scope variable(L"QV_ACTIVE_PROJECT_TYPE", r.given);
        const server_dll dll(server_dll::scanners_path());
        wchar_t value[16] = {};
        GetEnvironmentVariableW(L"QV_ACTIVE_PROJECT_TYPE", value, 16);
        EXPECT_EQ(std::wstring(value), r.pinned) << (r.given ? narrow(r.given) : "unset");
    }
}

TEST(Options, EveryCommandsHelpShowsItsOptionTable) {
    const std::string general = help_text(L"");
    for (const command_spec& command : commands) {
        SCOPED_TRACE(narrow(command.name));
        EXPECT_NE(general.find("qvscan " + narrow(command.name)), std::string::npos);
        const std::string help = help_text(command.name);
        EXPECT_EQ(help.rfind("usage: qvscan " + narrow(command.name), 0), 0u);
        EXPECT_NE(help.find(command.summary), std::string::npos);
        EXPECT_NE(help.find("exit codes: 0 done"), std::string::npos);
        for (const option_spec& option : command.table) {
            EXPECT_TRUE(option.name[0] == '-' && option.help && *option.help) << option.name;
            const size_t at = help.find(std::string("\n  ") + option.name + (option.valueName ? " " : ""));
            ASSERT_NE(at, std::string::npos) << option.name;
            const std::string line = help.substr(at + 1, help.find('\n', at + 1) - at - 1);
            EXPECT_NE(line.find(option.help), std::string::npos) << line;
            EXPECT_EQ(line.find(option.valueName ? option.valueName : "\x01") != std::string::npos, option.valueName != nullptr);
        }
    }
}

TEST(Arguments, QuotedAsTheTargetsRuntimeSplitsThemBack) {
    const std::pair<std::vector<std::wstring>, std::wstring> rows[] = {
        {{}, L""},
        {{L"a", L"b"}, L"a b"},
        {{L"a b"}, L"\"a b\""},
        {{L""}, L"\"\""},
        {{L"a\"b"}, L"\"a\\\"b\""},
        {{L"c:\\dir\\"}, L"c:\\dir\\"},
        {{L"c:\\my dir\\"}, L"\"c:\\my dir\\\\\""},
        {{L"a\\\"b"}, L"\"a\\\\\\\"b\""},
        {{L"tab\there", L"x"}, L"\"tab\there\" x"},
    };
    for (const auto& [args, line] : rows) {
        EXPECT_EQ(quote_arguments(args), line);
        int count = 0;
        const std::unique_ptr<LPWSTR, decltype(&LocalFree)> back(
            CommandLineToArgvW((L"prog " + quote_arguments(args)).c_str(), &count), LocalFree);
        ASSERT_TRUE(back);
        EXPECT_EQ(std::vector<std::wstring>(back.get() + 1, back.get() + count), args) << narrow(line);
    }
}

// A Linux path as Windows programs reach it under Wine, whatever its names hold.
std::wstring unix_form(const std::string& linux) {
    std::wstring path = L"\\\\?\\unix" + widen(linux);
    std::replace(path.begin(), path.end(), L'/', L'\\');
    return path;
}

TEST(LinuxPaths, AFileGivenByItsLinuxPathIsReachedUnderItsWindowsPath) {
    if (!GetProcAddress(GetModuleHandleW(L"kernel32"), "wine_get_dos_file_name"))
        GTEST_SKIP() << "not under Wine";
    // A folder of Linux's /tmp (the Z: drive): the files are made and removed through their Linux names.
    const std::string root = "/tmp/qvscan-unit-" + std::to_string(GetCurrentProcessId());
    ASSERT_TRUE(CreateDirectoryW(unix_form(root).c_str(), nullptr));
    const std::string deep = std::string(120, 'a') + "/" + std::string(120, 'b') + "/" + std::string(40, 'c');
    // Wine's short name of a name holding ':' keeps the ':' (which then reads as a stream's name): such a file is
    // named inside its folder, but cannot be opened.
    const std::pair<std::string, bool> files[] = {
        {"plain.exe", true},          {"a*b.exe", true},          {"q\"u<o>t?e|.dll", true},
        {"we\"ird/p\"rog.exe", true}, {deep + "/long.exe", true}, {deep + "/c*c/s|s.exe", true},
        {"co:lon.dll", false},
    };
    std::vector<std::wstring> made{unix_form(root)};
    const qv::scope_exit remove([&] {
        for (auto path = made.rbegin(); path != made.rend(); ++path)
            DeleteFileW(path->c_str()) || RemoveDirectoryW(path->c_str());
    });
    for (const auto& [name, readable] : files) {
        for (size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1))
            if (CreateDirectoryW(unix_form(root + "/" + name.substr(0, slash)).c_str(), nullptr))
                made.push_back(unix_form(root + "/" + name.substr(0, slash)));
        const qv::unique_hfile file(
            CreateFileW(unix_form(root + "/" + name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        DWORD written = 0;
        ASSERT_TRUE(file && WriteFile(file.get(), name.data(), static_cast<DWORD>(name.size()), &written, nullptr));
        made.push_back(unix_form(root + "/" + name));
    }
    for (const auto& [name, readable] : files) {
        const std::wstring windows = from_linux(widen(root + "/" + name));
        EXPECT_TRUE(windows.starts_with(L"Z:\\tmp\\") && windows.find(L'/') == std::wstring::npos) << narrow(windows);
        EXPECT_EQ(read_file(L"\\\\?\\" + windows), readable ? name : "") << narrow(windows);
    }
    std::wstring plain = L"Z:" + widen(root) + L"\\plain.exe";
    std::replace(plain.begin(), plain.end(), L'/', L'\\');
    EXPECT_EQ(from_linux(widen(root + "/plain.exe")), plain);
}

TEST(LinuxPaths, OtherPathsAreTakenAsTheyAre) {
    for (const wchar_t* path :
         {L"", L"rel\\x.exe", L"x/y.exe", L"C:\\x\\y.exe", L"C:/x/y.exe", L"\\\\server\\share\\z"})
        EXPECT_EQ(from_linux(path), path);
}

TEST(JsonWriter, LaysADocumentOutAsItsLayoutSays) {
    const struct {
        const char* document;
        json_layout layout;
        const char* text;
    } rows[] = {
        {R"({"a":1,"b":[1,-2],"c":{"d":null,"e":true},"f":"x"})",
         {},
         R"({"a": 1, "b": [1, -2], "c": {"d": null, "e": true}, "f": "x"})"},
        {R"({"a":18446744073709551615,"b":[],"c":{}})",
         {{""}},
         "{\n  \"a\": 18446744073709551615,\n  \"b\": [],\n  \"c\": {}\n}"},
        {R"({"bags":[{"tag":"t","dependencies":[{"n":1},{"n":2}]},{"tag":"","dependencies":[]}]})",
         {{"", "bags", "bags/*/dependencies"}},
         "{\n  \"bags\": [\n    {\"tag\": \"t\", \"dependencies\": [\n      {\"n\": 1},\n      {\"n\": 2}\n    ]},\n"
         "    {\"tag\": \"\", \"dependencies\": []}\n  ]\n}"},
        {R"({"files":[{"file":"a","dependencies":[{"n":[1,2]}]}],"summary":{"scanned":1}})",
         {{"", "files", "files/*", "files/*/dependencies"}},
         "{\n  \"files\": [\n    {\n      \"file\": \"a\",\n      \"dependencies\": [\n        {\"n\": [1, 2]}\n"
         "      ]\n    }\n  ],\n  \"summary\": {\"scanned\": 1}\n}"},
        {R"({"files":[],"kinds":{}})", {{"", "files", "kinds"}}, "{\n  \"files\": [],\n  \"kinds\": {}\n}"},
        {R"({"s":"q\"b\\s/\n\r\t\b\f\u0001\u001f\u007f é 日本 😀","k\"e\ny":0})",
         {},
         "{\"s\": \"q\\\"b\\\\s/\\n\\r\\t\\b\\f\\u0001\\u001f\x7f é 日本 😀\", \"k\\\"e\\ny\": 0}"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(json_text(json::parse(row.document), row.layout), row.text) << row.document;
    // Invalid UTF-8 (a stray byte, a cut sequence) becomes U+FFFD.
    EXPECT_EQ(json_text(json{{"bad", std::string("a\xff"
                                                 "b\xe6\x97")}},
                        {}),
              "{\"bad\": \"a\xef\xbf\xbd"
              "b\xef\xbf\xbd\"}");
}

} // namespace

TEST(TargetProfile, ContractsAndWhatTheTargetProvides) {
    const qvscan::target_profile target = qvscan::parse_target(R"({"name": "t", "systemFiles": ["d3d12.dll"],
        "apiSets": {"api-ms-win-core-synch-l1-2": "kernelbase.dll", "ext-ms-win-known-l1-1": null},
        "frameworkAssemblies": [{"name": "System.Data", "publicKeyToken": "b77a5c561934e089"}]})");
    struct row {
        const wchar_t* name;
        bool missing;
        const char* providedBy; // after the profile; null: left as it was
        const wchar_t* host;
    };
    const row table[] = {
        {L"api-ms-win-core-synch-l1-2-9.dll", true, "os", L"kernelbase.dll"}, // a newer revision of a family
        {L"API-MS-WIN-CORE-SYNCH-L1-2-0.DLL", false, "os", L"kernelbase.dll"},
        {L"ext-ms-win-known-l1-1-0.dll", true, "os", L""},
        {L"ext-ms-win-unknown-l1-1-0.dll", true, "os", L""}, // an optional extension of the OS
        {L"api-ms-win-nothing", true, "os", L""},
        {L"D3D12.dll", true, "target", L""},
        {L"d3d12.dll", false, nullptr, L""}, // found: stays the scan's
        {L"System.Data", true, "target", L""},
        {L"System.Data.dll", true, "target", L""},
        {L"Vendor.Widgets", true, nullptr, L""},
        {L"apix.dll", true, nullptr, L""},
    };
    for (const bool filter : {false, true}) {
        std::vector<qvscan::record> records;
        for (const row& r : table)
            records.push_back({.name = r.name, .missing = r.missing});
        const size_t gone = qvscan::apply_target(records, target, filter);
        size_t provided = 0;
        for (const row& r : table) {
            SCOPED_TRACE(qv::test::narrow(r.name) + (filter ? " filtered" : ""));
            provided += r.providedBy != nullptr;
            const auto it = std::find_if(records.begin(), records.end(), [&](const auto& x) { return x.name == r.name; });
            ASSERT_EQ(it == records.end(), filter && r.providedBy);
            if (it == records.end())
                continue;
            EXPECT_EQ(std::string(it->providedBy ? it->providedBy : ""), r.providedBy ? r.providedBy : "");
            EXPECT_EQ(it->missing, r.missing && !r.providedBy);
            EXPECT_EQ(it->filterable, r.providedBy != nullptr);
            EXPECT_EQ(it->host, r.host);
        }
        EXPECT_EQ(gone, filter ? provided : 0);
    }
    EXPECT_EQ(qvscan::api_set_family(L"Api-MS-Win-Core-Synch-L1-2-0.dll"), L"api-ms-win-core-synch-l1-2");
    EXPECT_EQ(qvscan::api_set_family(L"kernel32.dll"), L"");
    for (const char* text : {"", "[]", "{\"systemFiles\": []}", "{\"name\": \"x\", \"systemFiles\": [1]}",
                             "{\"name\": \"x\", \"frameworkAssemblies\": [{}]}", "{\"name\": \"x\""})
        EXPECT_ANY_THROW(qvscan::parse_target(text)) << text;
}

TEST(Records, MarksNotesAndJsonOfWhatTheDetailsTell) {
    using qvscan::record;
    record plain{.name = L"a.dll", .path = L"C:\\app", .size = 10};
    record delayed{.name = L"b.dll", .missing = true, .via = "delay"};
    delayed.passedOver = {{L"C:\\app\\b.dll", L"x86"}};
    record lacking{.name = L"c.dll", .path = L"C:\\app", .selfRegistering = true};
    lacking.missingEntries = {{L"C:\\app\\app.exe", {L"f", L"#7"}, 3}};
    record contract{.name = L"api-ms-win-x-l1-1-0.dll", .filterable = true, .providedBy = "os", .host = L"k.dll"};
    record provided{.name = L"System.Data", .filterable = true, .providedBy = "target"};
    const struct {
        const record& r;
        const char* marks;
        const char* note; // in the table under the rows; null: none
    } table[] = {
        {plain, "--------", nullptr},
        {delayed, "M-----L-", "  b.dll: x86 copy at C:\\app\\b.dll passed over\n"},
        {lacking, "----R--E", "  c.dll lacks f, #7 and 3 more (called by C:\\app\\app.exe)\n"},
        {contract, "-F------", "  api-ms-win-x-l1-1-0.dll: API-set contract, resolved to k.dll\n"},
        {provided, "-F------", "  System.Data: provided by the target\n"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(narrow(row.r.name));
        EXPECT_EQ(qvscan::marks(row.r), row.marks);
        const std::string text = qvscan::records_table({row.r});
        EXPECT_EQ(text.substr(text.find('\n', text.find('\n') + 1) + 1), row.note ? row.note : "");
    }
    const auto json = qvscan::records_json({plain, delayed, lacking, contract, provided});
    EXPECT_FALSE(json[0].contains("providedBy") || json[0].contains("missingEntryPoints") ||
                 json[0].contains("passedOver") || json[0].contains("host"));
    EXPECT_EQ(json[1]["via"], "delay");
    EXPECT_EQ(json[1]["passedOver"].dump(), R"([{"path":"C:\\app\\b.dll","machine":"x86"}])");
    EXPECT_EQ(json[2]["missingEntryPoints"].dump(), R"([{"importer":"C:\\app\\app.exe","names":["f","#7"],"more":3}])");
    EXPECT_EQ(json[3]["providedBy"], "os");
    EXPECT_EQ(json[3]["host"], "k.dll");
    EXPECT_EQ(json[4]["providedBy"], "target");
    EXPECT_EQ(json[4]["filterable"], true);
}

TEST(ProgressSink, AnswersTheEventInterfacesOfAScanOnly) {
    qvscan::progress_sink sink;
    const IID* answered[] = {&IID_IUnknown, &IID_IStaticScanEvents, &IID_IStaticScanEventsTarn,
                             &IID_IStaticScanEventsFellSP2, &IID_IStaticScanEventsValeSP};
    for (const IID* iid : answered) {
        void* p = nullptr;
        EXPECT_EQ(sink.QueryInterface(*iid, &p), S_OK);
        EXPECT_EQ(p, static_cast<IStaticScanEventsValeSP*>(&sink));
    }
    void* p = &sink;
    EXPECT_EQ(sink.QueryInterface(IID_IDispatch, &p), E_NOINTERFACE);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(sink.QueryInterface(IID_IUnknown, nullptr), E_POINTER);
    qv::bstr one(L"C:\\App\\One.dll");
    sink.FoundDepFile(one.get());
    sink.FoundDepFile(nullptr);
    EXPECT_EQ(sink.files, 2);
    EXPECT_EQ(sink.named, (std::set<std::wstring>{L"c:\\app\\one.dll", L""}));
}

// A graph from "from>to" edges of the kind given by the arrow: '>' import, '~' delay, ':' .dep, '@' assembly,
// '!' to a missing name.
qvscan::dependency_graph graph_of(const std::vector<std::string>& edges, std::vector<qvscan::record> records = {},
                                  bool filter = false) {
    std::wstring lines;
    for (const std::string& e : edges) {
        const size_t at = e.find_first_of(">~:@!");
        const char* kind = e[at] == '~' ? "delay" : e[at] == ':' ? "dep" : e[at] == '@' ? "assembly" : "import";
        lines += widen(e.substr(0, at) + "\t" + e.substr(at + 1) + "\t" + kind + (e[at] == '!' ? "\tmissing" : "") + "\n");
    }
    return qvscan::dependency_graph(lines, L"C:\\app\\app.exe", records, filter);
}

std::vector<std::string> chain_texts(const qvscan::dependency_graph& g, const std::wstring& name, size_t limit) {
    std::vector<std::string> texts;
    for (const auto& chain : g.chains(g.find(name), limit).chains)
        texts.push_back(g.chain_text(chain));
    return texts;
}

TEST(DependencyGraph, TreeChainsAndPictureOfTheWalksEdges) {
    // app.exe imports a.dll and b.dll; both need gone.dll; b.dll imports app.exe back (a cycle); a.dll delay-loads
    // late.dll, whose .dep file names helper.dll; helper.dll references an assembly; sys.dll is the system's.
    const auto g = graph_of({"app.exe>a.dll", "app.exe>b.dll", "app.exe>sys.dll", "a.dll!gone.dll", "a.dll~late.dll",
                             "b.dll>app.exe", "b.dll!gone.dll", "late.dll:helper.dll", "helper.dll@Lib.Core",
                             "b.dll>a.dll"},
                            {{.name = L"a.dll"}, {.name = L"b.dll"}, {.name = L"gone.dll", .missing = true},
                             {.name = L"late.dll"}, {.name = L"helper.dll"}, {.name = L"Lib.Core"}},
                            true);
    EXPECT_EQ(g.tree(), "app.exe\n"
                        "  a.dll\n"
                        "    gone.dll  MISSING\n"
                        "    late.dll [delay]\n"
                        "      helper.dll [.dep]\n"
                        "        Lib.Core [assembly]\n"
                        "  b.dll\n"
                        "    app.exe (see above)\n"
                        "    gone.dll  MISSING\n"
                        "    a.dll (see above)\n");
    const struct {
        const wchar_t* name;
        size_t limit;
        std::vector<std::string> chains;
        bool complete;
    } table[] = {
        {L"gone.dll", 10, {"a.dll <- app.exe", "b.dll <- app.exe", "a.dll <- b.dll <- app.exe"}, true},
        {L"gone.dll", 2, {"a.dll <- app.exe", "b.dll <- app.exe"}, false},
        {L"Lib.Core", 10, {"helper.dll <- late.dll <- a.dll <- app.exe", "helper.dll <- late.dll <- a.dll <- b.dll <- app.exe"}, true},
        {L"C:\\elsewhere\\A.DLL", 10, {"app.exe", "b.dll <- app.exe"}, true}, // a path is taken by its name
        {L"app.exe", 10, {""}, true},
        {L"sys.dll", 10, {}, true}, // the system's: not shown with the filter on
        {L"nosuch.dll", 10, {}, true},
    };
    for (const auto& row : table)
        EXPECT_EQ(chain_texts(g, row.name, row.limit), row.chains) << narrow(row.name) << " " << row.limit;
    EXPECT_FALSE(g.chains(g.find(L"gone.dll"), 2).complete);
    const std::string dot = g.dot();
    for (const char* part : {"n0 [label=\"app.exe\", style=bold]", "[label=\"gone.dll\", color=red",
                             "system [label=\"system files\"", "-> system [color=grey]", "[style=dashed]", "[style=dotted]"})
        EXPECT_NE(dot.find(part), std::string::npos) << part;
    EXPECT_EQ(dot.find("sys.dll"), std::string::npos);
    // Lines that are no edge (a name left out, too few fields) are passed over.
    const qvscan::dependency_graph odd(L"\tx.dll\timport\napp.exe\t\timport\napp.exe\ty.dll\napp.exe\tz.dll\timport\n",
                                       L"app.exe", {}, false);
    ASSERT_EQ(odd.nodes().size(), 2u);
    EXPECT_EQ(odd.tree(), "app.exe\n  z.dll\n");
    // Without the filter the system's file is a node of its own, grey, and has its chain.
    const auto all = graph_of({"app.exe>sys.dll", "app.exe>a.dll"}, {{.name = L"a.dll"}});
    EXPECT_NE(all.dot().find("[label=\"sys.dll\", color=grey"), std::string::npos);
    EXPECT_EQ(chain_texts(all, L"sys.dll", 5), std::vector<std::string>{"app.exe"});
}

TEST(DependencyGraph, DeepChainsAndDiamondsCostTheirSizeOnly) {
    // 100,000 files each importing the next: one chain, and a tree 100,000 deep, without recursion.
    constexpr int deep = 100000;
    std::vector<std::string> edges{"app.exe>d0.dll"};
    for (int i = 0; i + 1 < deep; ++i)
        edges.push_back("d" + std::to_string(i) + ".dll>d" + std::to_string(i + 1) + ".dll");
    const auto chain = graph_of(edges);
    const auto found = chain.chains(chain.find(L"d99999.dll"), 10);
    ASSERT_EQ(found.chains.size(), 1u);
    EXPECT_EQ(found.chains[0].size(), static_cast<size_t>(deep));
    EXPECT_TRUE(found.complete);
    const std::string tall = chain.tree();
    EXPECT_EQ(std::count(tall.begin(), tall.end(), '\n'), deep + 1);
    EXPECT_NE(tall.find("\n" + std::string(64, ' ') + "d31.dll\n" + std::string(64, ' ') + "[33] d32.dll\n"),
              std::string::npos);
    EXPECT_NE(tall.find(std::string(64, ' ') + "[100000] d99999.dll\n"), std::string::npos);
    // A diamond of 30 levels, two files a level each importing both of the next: 2^30 chains to the bottom.
    edges = {"app.exe>l0a.dll", "app.exe>l0b.dll"};
    for (int level = 0; level + 1 < 30; ++level)
        for (const char* from : {"a", "b"})
            for (const char* to : {"a", "b"})
                edges.push_back("l" + std::to_string(level) + from + ".dll>l" + std::to_string(level + 1) + to + ".dll");
    edges.push_back("l29a.dll!bottom.dll");
    edges.push_back("l29b.dll!bottom.dll");
    const auto diamond = graph_of(edges);
    const auto some = diamond.chains(diamond.find(L"bottom.dll"), 1010);
    EXPECT_EQ(some.chains.size(), 1010u);
    EXPECT_FALSE(some.complete);
    for (const auto& c : some.chains)
        EXPECT_EQ(c.size(), 31u);
    const std::string wide = diamond.tree();
    EXPECT_EQ(std::count(wide.begin(), wide.end(), '\n'), 1 + 60 + 1 + 59); // each file but the first of a level once more as a leaf
}

TEST(Installer, PlanAndWixSourceOfAClosure) {
    qv::test::temp_dir dir;
    const std::wstring main = dir.write(L"app\\app.exe", qv::test::image_writer().dll(false).build().str());
    dir.write(L"app\\fr\\app.resources.dll", "satellite");
    dir.write(L"app\\a&b 'x' é.dll", "odd name");
    dir.write(L"lib\\same.dll", "one"), dir.write(L"other\\same.dll", "two");
    using qvscan::record;
    const std::vector<record> records = {
        {.name = L"app.resources.dll", .path = dir / L"app\\fr"},
        {.name = L"a&b 'x' é.dll", .path = dir / L"app", .shared = true},
        {.name = L"same.dll", .path = dir / L"lib", .selfRegistering = true},
        {.name = L"same.dll", .path = dir / L"other"},        // another file of the name: named, not shipped
        {.name = L"kernel32.dll", .path = L"C:\\windows\\system32", .filterable = true},
        {.name = L"System.Data", .filterable = true, .providedBy = "target"},
        {.name = L"gone.dll", .missing = true},
        {.name = L"Widgets Module", .path = L"widgets.msm", .mergeModule = true},
        {.name = L"Lacking Module", .path = L"lack.msm", .missing = true, .mergeModule = true},
    };
    const qvscan::package_plan plan = qvscan::plan_package({main}, records, false);
    std::vector<std::wstring> shipped;
    for (const auto& f : plan.files)
        shipped.push_back(f.folder + L"|" + f.name);
    EXPECT_EQ(shipped, (std::vector<std::wstring>{L"|app.exe", L"fr|app.resources.dll", L"|a&b 'x' é.dll", L"|same.dll"}));
    EXPECT_EQ(plan.passedOver, std::vector<std::wstring>{dir / L"other\\same.dll"});
    EXPECT_EQ(plan.missing, (std::vector<std::wstring>{L"gone.dll", L"Lacking Module (a merge module the catalog lacks)"}));
    ASSERT_EQ(plan.mergeModules.size(), 1u);
    EXPECT_EQ(plan.mergeModules[0].name + L"|" + plan.mergeModules[0].file, L"Widgets Module|widgets.msm");
    EXPECT_EQ(plan.machine, 0x8664u);

    const std::string source = qvscan::wix_source(plan, {L"Prod & Co", L"", L"2.0.1", false, L"C:\\mm"}, false);
    EXPECT_EQ(source, qvscan::wix_source(plan, {L"Prod & Co", L"", L"2.0.1", false, L"C:\\mm"}, false)); // every run
    for (const char* part : {"Name=\"Prod &amp; Co\"", "Version=\"2.0.1\"", "Platform=\"x64\"", "Win64=\"yes\"",
                             "Name=\"a&amp;b &apos;x&apos; \xC3\xA9.dll\"", "SharedDllRefCount=\"yes\"", "SelfRegCost=\"0\"",
                             "<Directory Id=\"ProgramFiles64Folder\">", "Name=\"fr\"", "<!-- missing, nothing ships it: gone.dll -->",
                             "<MergeRef Id=\"M", "SourceFile=\"C:\\mm\\widgets.msm\""})
        EXPECT_NE(source.find(part), std::string::npos) << part;
    const std::string plain = qvscan::wix_source(plan, {L"Prod & Co", L"", L"2.0.1"}, true);
    EXPECT_EQ(plain.find("<Merge"), std::string::npos);
    EXPECT_NE(plain.find("<!-- merge module left out: Widgets Module (widgets.msm) -->"), std::string::npos);
    EXPECT_EQ(plain.find("<?include"), std::string::npos);
    // An include of the author's: inside the product, after the feature, its path as it stands.
    const std::string included = qvscan::wix_source(plan, {L"Prod & Co", L"", L"2.0.1", false, L"", L"C:\\a&b\\x.wxi"}, true);
    EXPECT_NE(included.find("    </Feature>\n    <?include C:\\a&b\\x.wxi ?>\n  </Product>"), std::string::npos);
    // The source is written whole or not at all.
    EXPECT_THROW(qvscan::write_whole_file(dir / L"no\\such\\folder\\a.wxs", source), std::runtime_error);
    const std::wstring written = dir / L"a.wxs";
    qvscan::write_whole_file(written, source);
    EXPECT_EQ(qv::test::read_file(written), source);
    EXPECT_EQ(GetFileAttributesW((written + L".qvscan-partial").c_str()), INVALID_FILE_ATTRIBUTES);
    // Name-based GUIDs: stable, of version 5 and the RFC's variant, different for different texts.
    const std::wstring guid = qvscan::name_guid(L"upgrade|prod & co");
    EXPECT_EQ(guid, qvscan::name_guid(L"upgrade|prod & co"));
    EXPECT_NE(guid, qvscan::name_guid(L"upgrade|prod & co2"));
    ASSERT_EQ(guid.size(), 36u);
    EXPECT_EQ(guid[14], L'5');
    EXPECT_NE(std::wstring(L"89AB").find(guid[19]), std::wstring::npos);
}
