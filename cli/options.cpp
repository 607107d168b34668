#include "options.h"

#include "text_output.h"

#include <cerrno>
#include <cstdint>
#include <cwchar>

namespace qvscan {

const char* const usage_text =
    "usage: qvscan static FILE|FOLDER... [--lang TEXT] [--type N] [--no-filter] [--merge-modules DIR]\n"
    "                     [--target NAME|FILE.json] [--no-extensions] [--fail-on-missing[=all]] [--tree]\n"
    "                     [--dot FILE] [--wxs FILE [--no-merge-modules] [--product-name TEXT]\n"
    "                     [--manufacturer TEXT] [--product-version X.Y.Z] [--wxs-include FILE]] [--json]\n"
    "       qvscan bundle APP|FOLDER... OUTDIR [--keep-destinations] [--force] [--fail-on-missing] [--wxs FILE]\n"
    "       qvscan why APP NAME [--all] [--lang TEXT] [--no-filter] [--target NAME]\n"
    "       qvscan pe FILE [--json]\n"
    "       qvscan assembly FILE [--json]\n"
    "       qvscan vbp PROJECT.vbp|GROUP.vbg [--rebuild] [--dep FILE] [--lang TEXT]\n"
    "                  [--no-filter] [--keep-going] [--merge-modules DIR] [--fail-on-missing] [--json]\n"
    "       qvscan msm DIR [--json]\n"
    "       qvscan ini FILE [SECTION [KEY]]\n"
    "       qvscan trace APP [ARGS...] [--dir D] [--tag T] [--this-process-only] [--no-filter]\n"
    "                    [--merge-modules DIR] [--fail-on-missing] [--json] [--timeout S]   (after \"--\": APP's)\n"
    "       qvscan attach PID [--tag T] [--no-filter] [--fail-on-missing] [--json] [--timeout S]\n"
    "       qvscan setup \"COMMAND LINE\"\n"
    "       qvscan register [--user]\n"
    "       qvscan unregister [--user]\n"
    "       qvscan help [COMMAND] | COMMAND --help | --version\n";

namespace {

void set_lang(options& o, const std::wstring& value) {
    if (value.size() > 64)
        throw usage_error{"--lang wants a language of a .dep file (such as 0409 or enu), not " +
                          std::to_string(value.size()) + " characters"};
    o.lang = value;
}

void set_type(options& o, const std::wstring& value) {
    wchar_t* end = nullptr;
    errno = 0;
    const long long n = std::wcstoll(value.c_str(), &end, 0);
    // The scan mode in the low bits (0, 1 or 2), and 32768 to leave the merge-module catalog out.
    if (value.empty() || *end != L'\0' || errno == ERANGE || n < 0 || n > 32770 || (n & 32767) > 2)
        throw usage_error{"--type wants 0, 1 or 2, optionally with 32768 added"};
    o.type = static_cast<long>(n);
}

void set_timeout(options& o, const std::wstring& value) {
    wchar_t* end = nullptr;
    errno = 0;
    const double seconds = std::wcstod(value.c_str(), &end);
    if (value.empty() || *end || errno == ERANGE || !(seconds > 0) || seconds > 86400 * 365)
        throw usage_error{"--timeout wants a number of seconds above 0"};
    o.timeout = seconds;
}

constexpr option_spec json_option{"--json", nullptr, "write one JSON document on standard output",
                                  [](options& o, const std::wstring&) { o.json = true; }};
constexpr option_spec no_filter{"--no-filter", nullptr, "keep the operating system's own files in the list",
                                [](options& o, const std::wstring&) { o.filter = false; }};
constexpr option_spec merge_modules{"--merge-modules", "DIR", "read the merge modules of DIR into the catalog",
                                    [](options& o, const std::wstring& v) { o.mergeModules = v; }};
constexpr option_spec lang{"--lang", "TEXT", "the language of the sections of .dep files to read", set_lang};
constexpr option_spec tag{"--tag", "T", "name the bag the run's files go to",
                          [](options& o, const std::wstring& v) { o.tag = v; }};
constexpr option_spec timeout{"--timeout", "S", "end the target (or let the process go) after S seconds", set_timeout};
constexpr option_spec fail_on_missing{"--fail-on-missing", nullptr,
                                      "exit 5 when a file needed at load time is missing (not a delay-loaded one)",
                                      [](options& o, const std::wstring&) { o.failOnMissing = 1; }};
constexpr option_spec fail_on_any_missing{"--fail-on-missing=all", nullptr,
                                          "exit 5 when any needed file is missing, delay-loaded ones too",
                                          [](options& o, const std::wstring&) { o.failOnMissing = 2; }};

constexpr option_spec target{"--target", "NAME",
                             "the machine the installer targets: a profile of Support\\targets, or a .json file",
                             [](options& o, const std::wstring& v) { o.target = v; }};
constexpr option_spec wxs{"--wxs", "FILE", "write WiX v3 source of an installer of the closure to FILE",
                          [](options& o, const std::wstring& v) { o.wxsFile = v; }};
constexpr option_spec no_merge_modules{"--no-merge-modules", nullptr,
                                       "leave merge modules out of the WiX source (wixl cannot build them)",
                                       [](options& o, const std::wstring&) { o.noMergeModules = true; }};
constexpr option_spec linux_sources{"--linux-sources", nullptr,
                                    "the WiX source names its files by Linux paths, for wixl beside Wine",
                                    [](options& o, const std::wstring&) { o.linuxSources = true; }};
constexpr option_spec product_name{"--product-name", "TEXT", "the product's name (else the version resource's)",
                                   [](options& o, const std::wstring& v) { o.productName = v; }};
constexpr option_spec manufacturer{"--manufacturer", "TEXT", "the manufacturer (else the version resource's)",
                                   [](options& o, const std::wstring& v) { o.manufacturer = v; }};
constexpr option_spec product_version{"--product-version", "X.Y.Z", "the product's version (else the file's)",
                                      [](options& o, const std::wstring& v) { o.productVersion = v; }};
constexpr option_spec wxs_include{"--wxs-include", "FILE",
                                  "name FILE, a WiX include of what no scan finds (data, registration), in the source",
                                  [](options& o, const std::wstring& v) { o.wxsInclude = v; }};
constexpr option_spec static_options[] = {
    lang,
    {"--type", "N", "the scan mode (0, 1 or 2), with 32768 added to leave the merge-module catalog out", set_type},
    no_filter,
    merge_modules,
    target,
    {"--no-extensions", nullptr, "only the records a COM client of the scanner gets: no delay loads, no target",
     [](options& o, const std::wstring&) { o.extensions = false; }},
    fail_on_missing,
    fail_on_any_missing,
    {"--tree", nullptr, "the closure as an indented tree, each file under the file that first needs it",
     [](options& o, const std::wstring&) { o.tree = true; }},
    {"--dot", "FILE", "write the graph in Graphviz form to FILE (dot -Tsvg FILE > graph.svg draws it)",
     [](options& o, const std::wstring& v) { o.dotFile = v; }},
    wxs,
    no_merge_modules,
    linux_sources,
    product_name,
    manufacturer,
    product_version,
    wxs_include,
    json_option,
};
constexpr option_spec bundle_options[] = {
    {"--keep-destinations", nullptr, "keep a file the records send to a system folder in a folder of that name",
     [](options& o, const std::wstring&) { o.keepDestinations = true; }},
    {"--force", nullptr, "replace a file of OUTDIR that has other bytes", [](options& o, const std::wstring&) { o.force = true; }},
    lang,
    target,
    fail_on_missing,
    wxs,
    no_merge_modules,
    linux_sources,
    product_name,
    manufacturer,
    product_version,
    wxs_include,
};
constexpr option_spec why_options[] = {
    {"--all", nullptr, "every chain, not the first ten", [](options& o, const std::wstring&) { o.all = true; }},
    lang,
    no_filter,
    target,
};
constexpr option_spec json_only[] = {json_option};
constexpr option_spec vbp_options[] = {
    {"--rebuild", nullptr, "build the project before it is scanned",
     [](options& o, const std::wstring&) { o.rebuild = true; }},
    {"--dep", "FILE", "the .dep file of the project", [](options& o, const std::wstring& v) { o.depFile = v; }},
    lang,
    no_filter,
    {"--keep-going", nullptr, "go on past a missing form or project, or a failed build",
     [](options& o, const std::wstring&) { o.keepGoing = true; }},
    merge_modules,
    fail_on_missing,
    wxs,
    no_merge_modules,
    linux_sources,
    product_name,
    manufacturer,
    product_version,
    wxs_include,
    json_option,
};
constexpr option_spec trace_options[] = {
    {"--dir", "D", "the folder the target starts in", [](options& o, const std::wstring& v) { o.directory = v; }},
    tag,
    {"--this-process-only", nullptr, "leave the target's child processes alone",
     [](options& o, const std::wstring&) { o.thisProcessOnly = true; }},
    no_filter,
    merge_modules,
    fail_on_missing,
    json_option,
    timeout,
};
constexpr option_spec attach_options[] = {tag, no_filter, merge_modules, fail_on_missing, json_option, timeout};
constexpr option_spec register_options[] = {
    {"--user", nullptr, "for the user alone", [](options& o, const std::wstring&) { o.user = true; }},
};

constexpr size_t any = SIZE_MAX;

void place_file(options& o, std::vector<std::wstring>& arguments) {
    if (arguments.empty())
        throw usage_error{utf8(o.command) + " needs a FILE"};
    o.file = arguments[0];
    o.names.assign(arguments.begin() + 1, arguments.end());
}

void place_bundle(options& o, std::vector<std::wstring>& arguments) {
    if (arguments.size() < 2)
        throw usage_error{"bundle needs an APP (or files and folders) and the OUTDIR to fill"};
    o.outDir = arguments.back();
    arguments.pop_back();
    o.file = arguments[0];
    o.names.assign(arguments.begin() + 1, arguments.end());
}

void place_why(options& o, std::vector<std::wstring>& arguments) {
    if (arguments.size() != 2)
        throw usage_error{"why needs an APP and the NAME of a file"};
    o.file = arguments[0];
    o.names = {arguments[1]};
}

void place_project(options& o, std::vector<std::wstring>& arguments) {
    if (arguments.empty())
        throw usage_error{"vbp needs a PROJECT (.vbp) or GROUP (.vbg)"};
    o.file = arguments[0];
}

void place_nothing(options&, std::vector<std::wstring>&) {}

void place_application(options& o, std::vector<std::wstring>& arguments) {
    if (arguments.empty())
        throw usage_error{"trace needs an APP to run"};
    o.file = arguments[0];
    o.arguments.assign(arguments.begin() + 1, arguments.end());
}

void place_process(options& o, std::vector<std::wstring>& arguments) {
    if (arguments.empty())
        throw usage_error{"attach needs the ID of a running process"};
    const std::wstring& target = arguments[0];
    wchar_t* end = nullptr;
    errno = 0;
    const unsigned long long id = std::wcstoull(target.c_str(), &end, 0);
    if (*end || errno == ERANGE || id == 0 || id > 0xFFFFFFFFull || target[0] == L'-')
        throw usage_error{"attach wants a process ID, not '" + utf8(target) + "'"};
    o.processId = static_cast<DWORD>(id);
}

void place_command_line(options& o, std::vector<std::wstring>& arguments) {
    if (arguments.size() != 1 || arguments[0].empty())
        throw usage_error{"setup needs one COMMAND LINE (quote it)"};
    o.file = arguments[0];
}

constexpr command_spec command_table[] = {
    {L"static", "FILE|FOLDER...",
     "Scans each file (a folder: each Windows image in it) for every file it needs: import and delay-import\n"
     "tables, .dep files, .NET references, down the whole tree.",
     static_options, any, false, false, place_file},
    {L"bundle", "APP|FOLDER... OUTDIR",
     "Copies APP and every file of its closure that the system and the target do not provide into OUTDIR,\n"
     "beside the program; names the merge modules an installer must merge and what is missing.",
     bundle_options, any, false, false, place_bundle},
    {L"why", "APP NAME", "Every chain of files that leads from APP to NAME, shortest first (NAME: a file name).",
     why_options, 2, false, false, place_why},
    {L"pe", "FILE", "The record of one file: folder, version, size, languages, flags.", json_only, 1, false, false,
     place_file},
    {L"assembly", "FILE", "A .NET assembly's identity and references, and the static scan of its tree.", json_only,
     1, false, false, place_file},
    {L"vbp", "PROJECT.vbp|GROUP.vbg", "Scans a Visual Basic 6 project or group: its references, components and "
                                      "their files.",
     vbp_options, 1, false, false, place_project},
    {L"msm", "DIR", "The merge modules of a folder, as the catalog reads them.", json_only, 1, false, false,
     place_file},
    {L"ini", "FILE [SECTION [KEY]]", "What the profile reader makes of a .dep or list file.", {}, 3, false, false,
     place_file},
    {L"trace", "APP [ARGS...]", "Runs APP under the debug engine and lists every module it loads (after \"--\"\n"
                                "every argument is APP's).",
     trace_options, any, true, false, place_application},
    {L"attach", "PID", "Watches a running process and lists every module it loads.", attach_options, 1, true, false,
     place_process},
    {L"setup", "\"COMMAND LINE\"", "Runs a setup program and waits for it and the children it leaves.", {}, any,
     false, true, place_command_line},
    {L"register", "", "Writes the registration entries that script hosts need.", register_options, 0, false, false,
     place_nothing},
    {L"unregister", "", "Removes the registration entries.", register_options, 0, false, false, place_nothing},
};

const char* const exit_codes =
    "exit codes: 0 done; 1 the scan failed; 2 wrong arguments; 3 no file to scan (or a project stopped at a\n"
    "missing form or project); 4 the traced target was ended, or a project scan cancelled; 5 a needed file is\n"
    "missing (with --fail-on-missing); why: 3 when NAME is not in APP's closure\n";

const command_spec* find_command(const std::wstring& name) {
    for (const command_spec& c : command_table)
        if (name == c.name)
            return &c;
    return nullptr;
}

const option_spec* find_option(const command_spec& command, const std::wstring& argument) {
    for (const option_spec& o : command.table)
        if (argument == wide(o.name))
            return &o;
    return nullptr;
}

} // namespace

const std::span<const command_spec> commands = command_table;

options parse(int argc, const wchar_t* const* argv) {
    if (argc < 2)
        throw usage_error{"no command given"};
    options o;
    o.command = argv[1];
    if (o.command == L"--version")
        throw version_request{};
    if (o.command == L"-h" || o.command == L"--help" || o.command == L"help") {
        if (argc > 2 && o.command == L"help" && !find_command(argv[2]))
            throw usage_error{"unknown command '" + utf8(argv[2]) + "'"};
        throw help_request{argc > 2 && o.command == L"help" ? argv[2] : L""};
    }
    const command_spec* command = find_command(o.command);
    if (!command)
        throw usage_error{"unknown command '" + utf8(o.command) + "'"};
    std::vector<std::wstring> arguments;
    bool rest = false; // after "--"
    for (int i = 2; i < argc; ++i) {
        const std::wstring a = argv[i];
        const bool plain = command->verbatim || rest;
        const option_spec* option = plain ? nullptr : find_option(*command, a);
        const bool ours = !plain && !(command->targetArguments && !arguments.empty()); // not the target's
        // setup's one argument is its command line, unless that is all a person asks.
        const bool alone = command->verbatim && argc == 3;
        if ((ours || alone) && (a == L"--help" || a == L"-h"))
            throw help_request{o.command};
        if (!plain && command->targetArguments && a == L"--") {
            rest = true;
        } else if (option) {
            if (option->valueName && i + 1 >= argc)
                throw usage_error{std::string(option->name) + " needs a value"};
            option->apply(o, option->valueName ? argv[++i] : L"");
        } else if (ours && a.size() > 1 && a[0] == L'-') {
            throw usage_error{"unknown option '" + utf8(a) + "' for " + utf8(o.command)};
        } else if (arguments.size() >= command->most) {
            throw usage_error{"unexpected argument '" + utf8(a) + "'"};
        } else {
            arguments.push_back(a);
        }
    }
    command->place(o, arguments);
    return o;
}

std::string help_text(const std::wstring& name) {
    const command_spec* command = find_command(name);
    if (!command)
        return std::string(usage_text) + "\n'qvscan help COMMAND' (or 'qvscan COMMAND --help') tells a command's "
                                         "options; 'qvscan --version' the tool's version.\n" + exit_codes;
    std::string text = "usage: qvscan " + utf8(command->name) + (*command->synopsis ? " " : "") + command->synopsis +
                       (command->table.empty() ? "" : " [options]") + "\n\n" + command->summary + "\n\noptions:\n";
    auto line = [&text](std::string left, const char* help) {
        left = "  " + left;
        left.resize(std::max<size_t>(left.size() + 2, 26), ' ');
        text += left + help + "\n";
    };
    for (const option_spec& o : command->table)
        line(std::string(o.name) + (o.valueName ? std::string(" ") + o.valueName : ""), o.help);
    line("--help", "this text");
    return text + "\n" + exit_codes;
}

std::wstring quote_arguments(const std::vector<std::wstring>& arguments) {
    std::wstring line;
    for (const std::wstring& argument : arguments) {
        line += line.empty() ? L"" : L" ";
        if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
            line += argument;
            continue;
        }
        line += L'"';
        size_t backslashes = 0;
        for (wchar_t c : argument) {
            if (c == L'\\') {
                ++backslashes;
                continue;
            }
            line.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
            backslashes = 0;
            line += c;
        }
        line.append(backslashes * 2, L'\\');
        line += L'"';
    }
    return line;
}

} // namespace qvscan
