// The main() of a test program of the library's own code, its children, and the companion's helpers.
#include "library_support.h"

#include "toolkit/path_helpers.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

namespace qv::test {

namespace {

std::map<std::wstring, child_command_fn>& commands() {
    static std::map<std::wstring, child_command_fn> registered;
    return registered;
}

// The child of commands: args[0] the output file, then one "verb|argument" each.
int RunCommands(const std::vector<std::wstring>& args) {
    std::wstring out;
    com_apartment apartment;
    registry_override machine(HKEY_LOCAL_MACHINE);
    for (size_t i = 1; i < args.size(); ++i) {
        const std::wstring verb = args[i].substr(0, args[i].find(L'|'));
        const std::wstring argument = args[i].substr(verb.size() + (verb != args[i]));
        const auto command = commands().find(verb);
        if (command == commands().end())
            return 2;
        out += command->second(argument);
    }
    std::ofstream file(std::filesystem::path(args.empty() ? L"" : args[0]), std::ios::binary);
    return file.write(narrow(out).data(), narrow(out).size()).flush() ? 0 : 3;
}

const child_command kSet(L"set", [](const std::wstring& assignment) -> std::wstring {
    const size_t equals = assignment.find(L'=');
    const bool set = SetEnvironmentVariableW(assignment.substr(0, equals).c_str(), assignment.substr(equals + 1).c_str());
    return set ? L"" : L"(not set: " + assignment + L")\n";
});

} // namespace

child_command::child_command(const wchar_t* verb, child_command_fn run) {
    commands()[verb] = run;
}

void ExpectChild(const lines& companions, const lines& commands, const lines& expected) {
    temp_dir dir;
    const std::wstring program = qv::FileNamePart(program_path()), app = L"root\\one\\two\\app\\";
    for (const std::wstring& file : {program, std::wstring(L"QVObjMgr.DLL")})
        dir.copy(module_dir() + L"\\" + file, app + file);
    for (const std::wstring& to : companions) // a folder for QvAppServices.dll, or a file name of its own
        dir.copy(module_dir() + L"\\" + kCompanion,
                 to.substr(4) + (to.ends_with(L".dll") ? L"" : std::wstring(L"\\") + kCompanion));
    std::wstring line = std::wstring(kChildFlag) + L" \"" + (dir / L"out.txt") + L"\"";
    for (const std::wstring& command : commands)
        line += L" \"" + std::regex_replace(command, std::wregex(L"\\{T\\}"), dir.path()) + L"\"";
    ASSERT_EQ(run_child(dir / (app + program), line, dir.path()), std::optional<DWORD>(0));
    std::wstring want;
    for (const std::wstring& text : expected)
        want += text + L"\n";
    EXPECT_EQ(lower(widen(read_file(dir / L"out.txt"))),
              lower(std::regex_replace(want, std::wregex(L"\\{T\\}"), dir.path())));
}

} // namespace qv::test

int main(int argc, char** argv) {
    if (auto args = qv::test::child_arguments(qv::test::kChildFlag))
        return qv::test::RunCommands(*args);
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
