// The command line of qvscan: what each command takes, as one table of options per command that the parser
// reads (and a --help could be made from), and the usage text. A wrong command line is a usage_error with
// the words for the person; no other module reads argv.
#pragma once

#include <windows.h>

#include <span>
#include <string>
#include <vector>

namespace qvscan {

struct usage_error {
    std::string message;
};
// Help asked for (--help, -h, help [COMMAND], COMMAND --help): of one command, or of the tool when empty.
struct help_request {
    std::wstring command;
};
// --version asked for.
struct version_request {};

struct options {
    std::wstring command, file, lang;
    std::vector<std::wstring> names; // static: more files or folders; ini: the section and the key asked for
    long type = 0;                   // static: the scan mode, with 32768 to leave the merge-module catalog out
    bool filter = true, json = false;
    bool user = false; // register and unregister: for the user alone
    // trace and attach
    std::vector<std::wstring> arguments; // the target's own
    std::wstring directory, tag;
    bool thisProcessOnly = false;
    DWORD processId = 0;
    double timeout = 0; // seconds; 0 waits as long as the target runs
    // vbp
    std::wstring depFile;
    bool rebuild = false, keepGoing = false;
    // The folder of merge modules (--merge-modules, else QV_MERGE_MODULES, else the system's own).
    std::wstring mergeModules;
    // static: what the target machine provides (--target), and whether the scan's extensions are on
    // (delay-loaded imports, entry points, passed-over copies, the target's answers).
    std::wstring target = L"windows-x64-net48";
    bool extensions = true;
    // static, vbp, trace: exit 5 when a needed file is missing (1), delay-loaded ones counted too (2).
    int failOnMissing = 0;
    // static: the closure as a tree instead of the table; the graph written in Graphviz form to dotFile.
    bool tree = false;
    std::wstring dotFile;
    // why: every chain, not the first ten.
    bool all = false;
    // static and bundle: the WiX source to write, and what goes into it; bundle: its folder and rules.
    std::wstring wxsFile, wxsInclude, productName, manufacturer, productVersion, outDir;
    bool noMergeModules = false, keepDestinations = false, force = false, linuxSources = false;
};

struct option_spec {
    const char* name;      // "--lang"
    const char* valueName; // "TEXT"; null for a switch
    const char* help;
    // Sets the field; a usage_error for a value the option cannot take (a switch is given an empty value).
    void (*apply)(options& o, const std::wstring& value);
};

struct command_spec {
    const wchar_t* name;
    const char* synopsis; // what follows the command's name in its usage line, options aside
    const char* summary;  // what the command does, for its help
    std::span<const option_spec> table; // its options
    // Arguments that are not options, at most (SIZE_MAX: any number); the next is an unexpected argument.
    size_t most;
    // trace: after the first argument, what looks like an option and is none of the tool's is the target's;
    // after "--" every argument is. Elsewhere an unknown option is a usage error and "--" is one.
    bool targetArguments;
    // Every argument as it is, options or not (setup's one command line).
    bool verbatim;
    // Puts the arguments that are not options into their fields; a usage_error when they do not do.
    void (*place)(options& o, std::vector<std::wstring>& arguments);
};

extern const std::span<const command_spec> commands;
extern const char* const usage_text;

// The options of the command line (argv[0] is the tool); a usage_error when they are wrong, a help_request
// or a version_request when they ask for those.
options parse(int argc, const wchar_t* const* argv);

// The help of one command (its usage line, what it does, its options from its table, the exit codes), or of
// the tool for an empty name.
std::string help_text(const std::wstring& command);

// The target's command line made of its arguments, each as its C runtime will split it back out.
std::wstring quote_arguments(const std::vector<std::wstring>& arguments);

} // namespace qvscan
