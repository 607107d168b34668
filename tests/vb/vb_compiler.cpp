// A stand-in for the Visual Basic compiler, registered as the Make command of .vbp files by the tests:
//   vb_compiler.exe /m|/l "PROJECT.vbp" /out "ERRORS.txt"
// A project line "BuildOutcome=fail" writes a compile error, "BuildOutcome=hang" never ends; otherwise
// the built file (a copy of this program, named by ExeName32 in the project's folder) is made and the
// success line written. The switch it was given is the first line of the error file.
#include <windows.h>

#include <fstream>
#include <string>

int wmain(int argc, wchar_t** argv) {
    if (argc != 5)
        return 2;
    const std::wstring project = argv[2], errors = argv[4];
    std::ifstream in(project.c_str());
    std::string line, outcome, exeName = "built.exe";
    while (std::getline(in, line)) {
        if (line.rfind("BuildOutcome=", 0) == 0)
            outcome = line.substr(13);
        if (line.rfind("ExeName32=\"", 0) == 0 && line.size() > 12)
            exeName = line.substr(11, line.size() - 12);
    }
    if (outcome == "hang")
        Sleep(INFINITE);
    std::ofstream out(errors.c_str());
    out << "switch " << (argv[1][1] == L'l' ? "/l" : "/m") << "\n";
    if (outcome == "fail") {
        out << "Compile error in file 'Form1.frm', line 3 : Variable not defined\n";
        return 1;
    }
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    const std::wstring built = project.substr(0, project.find_last_of(L'\\') + 1) + std::wstring(exeName.begin(), exeName.end());
    CopyFileW(self, built.c_str(), FALSE);
    out << "Build of '" << exeName << "' succeeded.\n";
    return 0;
}
