// CSiblingModuleCache and CoCreateFromLibrary. The cache is process-wide and searches relative to the
// program that holds it, so every case that loads a library runs in a child: this program copied into a
// scratch tree, given a small script of requests. The child redirects HKEY_LOCAL_MACHINE to a scratch
// key holding only the CommonFilesDir the case asks for. The library found is told apart by its own
// answer: QvAppServices.dll reports its own folder as the programs folder.
#include "test_support.h"
#include "companions.h"
#include "dotnet/sibling_module_cache.h"
#include "inc/com_ptr.h"
#include "test_support.h"
#include "test_support.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qv::test::lower;
using qv::test::narrow;

constexpr wchar_t kChildFlag[] = L"--sibling-child";
constexpr wchar_t kCompanion[] = L"QvAppServices.dll";
constexpr wchar_t kProgram[] = L"sibling_module_cache_test.exe";
constexpr HRESULT kNotRegistered = REGDB_E_CLASSNOTREG;

// A class no library offers. {5B0C3E4A-7A43-4C55-9E1B-2F3D6A0B9C11}
constexpr CLSID kUnknownClass = {0x5B0C3E4A, 0x7A43, 0x4C55, {0x9E, 0x1B, 0x2F, 0x3D, 0x6A, 0x0B, 0x9C, 0x11}};

std::wstring hex(HRESULT hr) {
    wchar_t text[16];
    swprintf(text, 16, L"%08lX", static_cast<unsigned long>(hr));
    return text;
}

// Makes a folder and the folders above it.
void make_dirs(const std::wstring& folder) {
    for (size_t at = folder.find(L'\\', 3); at != std::wstring::npos; at = folder.find(L'\\', at + 1))
        CreateDirectoryW(folder.substr(0, at).c_str(), nullptr);
    CreateDirectoryW(folder.c_str(), nullptr);
}

std::wstring environment(const wchar_t* name) {
    DWORD n = GetEnvironmentVariableW(name, nullptr, 0);
    std::wstring value(n, L'\0');
    n = GetEnvironmentVariableW(name, value.data(), n);
    value.resize(n);
    return value;
}

std::vector<std::wstring> split_tabs(const std::wstring& line) {
    std::vector<std::wstring> fields;
    size_t start = 0;
    for (size_t tab; (tab = line.find(L'\t', start)) != std::wstring::npos; start = tab + 1)
        fields.push_back(line.substr(start, tab - start));
    fields.push_back(line.substr(start));
    return fields;
}

// ---- The child side ------------------------------------------------------------------------------------

// Runs the script at args[0] and writes one line per command to args[1]:
//   commonfiles <path>      CommonFilesDir in the scratch HKLM        -> "ok"
//   get <name>              create the services object from <name>     -> "<hr> <programs folder>" or "<hr>"
//   clsid <name>            create an unknown class from <name>        -> "<hr>"
//   move <from> <to>        rename a file                              -> "ok" or "error <code>"
//   rawload <path>          LoadLibraryW without the cache             -> "ok" or "error <code>"
//   cwd                     the current folder                         -> the folder
// then "unload <name> <hr>" for each library it created objects from that exports DllCanUnloadNow.
int RunChild(const std::vector<std::wstring>& args) {
    if (args.size() != 2)
        return 2;
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)))
        return 3;
    std::wstring out;
    std::vector<std::wstring> requested;
    {
        qv::test::registry_override machine(HKEY_LOCAL_MACHINE);
        for (const std::wstring& line : qv::test::split_lines(qv::test::widen(qv::test::read_file(args[0])))) {
            const std::vector<std::wstring> f = split_tabs(line);
            const std::wstring& command = f[0];
            if (command == L"commonfiles" && f.size() == 2) {
                machine.set_value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion",
                                  L"CommonFilesDir", REG_SZ, f[1].c_str(),
                                  static_cast<DWORD>((f[1].size() + 1) * sizeof(wchar_t)));
                out += L"ok\n";
            } else if (command == L"get" && f.size() == 2) {
                requested.push_back(f[1]);
                qv::com_ptr<IQvAppServices> services;
                HRESULT hr = CoCreateFromLibrary(f[1], CLSID_QvAppServices, IID_IQvAppServices, services.put());
                out += hex(hr);
                if (SUCCEEDED(hr)) {
                    qv::bstr folder;
                    hr = services->GetProgramsFolder(folder.put());
                    out += L" " + (SUCCEEDED(hr) ? folder.str() : L"folder failed " + hex(hr));
                }
                out += L"\n";
            } else if (command == L"clsid" && f.size() == 2) {
                requested.push_back(f[1]);
                qv::com_ptr<IUnknown> object;
                out += hex(CoCreateFromLibrary(f[1], kUnknownClass, IID_IUnknown, object.put())) + L"\n";
            } else if (command == L"move" && f.size() == 3) {
                make_dirs(f[2].substr(0, f[2].find_last_of(L'\\')));
                out += MoveFileW(f[1].c_str(), f[2].c_str()) ? L"ok\n"
                                                             : L"error " + std::to_wstring(GetLastError()) + L"\n";
            } else if (command == L"rawload" && f.size() == 2) {
                HMODULE module = LoadLibraryW(f[1].c_str());
                out += module ? L"ok\n" : L"error " + std::to_wstring(GetLastError()) + L"\n";
                if (module)
                    FreeLibrary(module);
            } else if (command == L"cwd") {
                wchar_t folder[MAX_PATH * 2];
                GetCurrentDirectoryW(MAX_PATH * 2, folder);
                out += std::wstring(folder) + L"\n";
            } else {
                out += L"bad command: " + line + L"\n";
            }
        }
    }
    for (const std::wstring& name : requested) {
        HMODULE module = CSiblingModuleCache::Instance().Loaded(name);
        auto canUnload = module ? reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
                                      reinterpret_cast<void (*)()>(GetProcAddress(module, "DllCanUnloadNow")))
                                : nullptr;
        if (canUnload)
            out += L"unload " + name + L" " + hex(canUnload()) + L"\n";
    }
    CoUninitialize();
    HANDLE file =
        CreateFileW(args[1].c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return 4;
    const std::string bytes = narrow(out);
    DWORD written = 0;
    BOOL ok = WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(file);
    return ok && written == bytes.size() ? 0 : 5;
}

// ---- The parent side -----------------------------------------------------------------------------------

// The scratch tree of one case:
//   {T}\root\one\two\app\   the program: the server's folder F, three folders below {T}\root
//   {T}\common\             what CommonFilesDir names, when the case sets it
//   {T}\cwd\                the child's current folder
// Texts may hold {T} and {F}, which stand for these folders.
class scratch_tree {
public:
    scratch_tree() {
        m_server = m_dir.mkdir(L"root\\one\\two\\app");
        m_dir.mkdir(L"cwd");
        m_dir.copy(qv::test::module_dir() + L"\\" + kProgram, L"root\\one\\two\\app\\" + std::wstring(kProgram));
    }

    std::wstring expand(std::wstring text) const {
        for (auto [key, value] : {std::pair<std::wstring, std::wstring>{L"{T}", m_dir.path()}, {L"{F}", m_server}})
            for (size_t at; (at = text.find(key)) != std::wstring::npos;)
                text.replace(at, key.size(), value);
        return text;
    }
    // Copies the companion into a folder of the tree ("{F}\System").
    void companion_in(const std::wstring& folder) const {
        copy_to(qv::test::module_dir() + L"\\" + kCompanion, folder);
    }
    void copy_to(const std::wstring& from, const std::wstring& folder) const {
        const std::wstring to = expand(folder) + L"\\" + from.substr(from.find_last_of(L'\\') + 1);
        make_dirs(expand(folder));
        if (!CopyFileW(from.c_str(), to.c_str(), FALSE))
            throw std::runtime_error("cannot copy to " + narrow(to));
    }
    // Writes bytes to a file of the tree ("{F}\\x.dll").
    void write(const std::wstring& file, const std::string& bytes) const {
        const std::wstring path = expand(file);
        make_dirs(path.substr(0, path.find_last_of(L'\\')));
        HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (h == INVALID_HANDLE_VALUE)
            throw std::runtime_error("cannot write " + narrow(path));
        DWORD written = 0;
        WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        CloseHandle(h);
    }

    // Runs the script in the child; its lines, or a failure.
    std::vector<std::wstring> run(const std::vector<std::wstring>& script, const wchar_t* pathPrefix = nullptr) const {
        std::wstring text;
        for (const std::wstring& line : script)
            text += expand(line) + L"\n";
        const std::wstring scriptFile = m_dir.write(L"script.txt", narrow(text));
        const std::wstring outFile = m_dir / L"out.txt";
        const std::wstring path = environment(L"PATH");
        qv::test::env_scope programs(L"QV_PROGRAMS_DIR", nullptr);
        qv::test::env_scope pathScope(L"PATH", pathPrefix ? (expand(pathPrefix) + L";" + path).c_str() : path.c_str());
        std::string why;
        auto code = qv::test::run_child(m_server + L"\\" + kProgram,
                                        std::wstring(kChildFlag) + L" \"" + scriptFile + L"\" \"" + outFile + L"\"",
                                        m_dir / L"cwd", &why);
        if (!code) {
            ADD_FAILURE() << why;
            return {};
        }
        EXPECT_EQ(*code, 0u) << "the child failed";
        return qv::test::split_lines(qv::test::widen(qv::test::read_file(outFile)));
    }

    const std::wstring& root() const { return m_dir.path(); }

private:
    qv::test::temp_dir m_dir;
    std::wstring m_server;
};

// Compares the child's lines with the expected ones, ignoring case (folders) and expanding {T} and {F}.
void ExpectLines(const scratch_tree& tree, const std::vector<std::wstring>& actual,
                 const std::vector<std::wstring>& expected) {
    std::vector<std::wstring> want;
    for (const std::wstring& line : expected)
        want.push_back(lower(tree.expand(line)));
    std::vector<std::wstring> got;
    for (const std::wstring& line : actual)
        got.push_back(lower(line));
    EXPECT_EQ(got, want);
}

const std::wstring kFound = L"00000000 ";
const std::wstring kMissing = hex(kNotRegistered);
const std::wstring kUnloadable = L"unload QvAppServices.dll 00000000";

// ---- The ladder ----------------------------------------------------------------------------------------

struct ladder_case {
    const char* name;
    std::vector<std::wstring> copies; // folders that hold a copy of the companion
    bool commonFiles;                 // CommonFilesDir = {T}\common
    std::wstring expected;            // the child's answer to "get QvAppServices.dll"
};

class Ladder : public ::testing::TestWithParam<ladder_case> {};

TEST_P(Ladder, FirstExistingFolderWins) {
    const ladder_case& c = GetParam();
    scratch_tree tree;
    for (const std::wstring& folder : c.copies)
        tree.companion_in(folder);
    std::vector<std::wstring> script;
    if (c.commonFiles)
        script.push_back(L"commonfiles\t{T}\\common");
    script.push_back(L"get\tQvAppServices.dll");
    std::vector<std::wstring> expected;
    if (c.commonFiles)
        expected.push_back(L"ok");
    expected.push_back(c.expected);
    if (c.expected != kMissing)
        expected.push_back(kUnloadable);
    ExpectLines(tree, tree.run(script), expected);
}

const std::vector<std::wstring> kAllFolders = {
    L"{F}",
    L"{F}\\System",
    L"{T}\\common\\Qorvex",
    L"{T}\\common\\Qorvex\\Zephal",
    L"{T}\\root\\one\\two\\System\\x64",
    L"{T}\\root\\one\\System\\x64",
    L"{T}\\root\\System\\x64",
};

std::vector<std::wstring> From(size_t first) {
    return {kAllFolders.begin() + first, kAllFolders.end()};
}

INSTANTIATE_TEST_SUITE_P(
    Sibling, Ladder,
    ::testing::Values(ladder_case{"ServerFolderFirst", From(0), true, kFound + L"{F}"},
                      ladder_case{"ThenItsSystemFolder", From(1), true, kFound + L"{F}\\System"},
                      ladder_case{"ThenQorvexUnderCommonFiles", From(2), true, kFound + L"{T}\\common\\Qorvex"},
                      ladder_case{"ThenZephalBelowQorvex", From(3), true, kFound + L"{T}\\common\\Qorvex\\Zephal"},
                      ladder_case{"ThenTheNearestParent", From(4), true, kFound + L"{T}\\root\\one\\two\\System\\x64"},
                      ladder_case{"ThenAFartherParent", From(5), true, kFound + L"{T}\\root\\one\\System\\x64"},
                      ladder_case{"ParentsUpTheTree", From(6), true, kFound + L"{T}\\root\\System\\x64"},
                      ladder_case{"CommonFilesUnsetSkipsItsFolders",
                                  {L"{T}\\common\\Qorvex", L"{T}\\root\\System\\x64"},
                                  false,
                                  kFound + L"{T}\\root\\System\\x64"},
                      ladder_case{"NotTheServersOwnSystemX64", {L"{F}\\System\\x64"}, true, kMissing},
                      ladder_case{"NotQorvexBelowTheCurrentFolderWithoutCommonFiles",
                                  {L"{T}\\cwd\\Qorvex", L"{T}\\root\\System\\x64"},
                                  false,
                                  kFound + L"{T}\\root\\System\\x64"},
                      ladder_case{"NothingAnywhere", {}, true, kMissing}),
    [](const ::testing::TestParamInfo<ladder_case>& info) { return std::string(info.param.name); });

// The root of the drive is never walked: a copy in <root>\System\x64 is not found. The root is the
// prefix's C:, shared with nothing else that searches it (no correct search ever looks there).
TEST(SiblingSearch, NotTheRootOfTheDrive) {
    scratch_tree tree;
    const std::wstring root = tree.root().substr(0, 3); // "C:\"
    const std::wstring system = root + L"System";
    const std::wstring x64 = system + L"\\x64";
    const std::wstring copy = x64 + L"\\" + kCompanion;
    if (GetFileAttributesW(system.c_str()) != INVALID_FILE_ATTRIBUTES)
        GTEST_SKIP() << narrow(system) << " exists already; not touching it";
    ASSERT_TRUE(CreateDirectoryW(system.c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW(x64.c_str(), nullptr));
    ASSERT_TRUE(CopyFileW((qv::test::module_dir() + L"\\" + kCompanion).c_str(), copy.c_str(), FALSE));
    auto atRoot = tree.run({L"get\tQvAppServices.dll"});
    DeleteFileW(copy.c_str());
    RemoveDirectoryW(x64.c_str());
    RemoveDirectoryW(system.c_str());
    ExpectLines(tree, atRoot, {kMissing});
}

// ---- Names with a folder, and what is taken to exist ---------------------------------------------------

TEST(SiblingSearch, NameWithAFolderIsLoadedFromThereOnly) {
    scratch_tree tree;
    tree.companion_in(L"{F}");
    tree.companion_in(L"{T}\\elsewhere");
    ExpectLines(tree,
                tree.run({L"get\t{T}\\elsewhere\\QvAppServices.dll", L"get\t{T}\\nowhere\\QvAppServices.dll",
                          L"get\t{T}\\elsewhere\\..\\elsewhere\\QvAppServices.dll"}),
                {kFound + L"{T}\\elsewhere", kMissing, kFound + L"{T}\\elsewhere",
                 L"unload {T}\\elsewhere\\QvAppServices.dll 00000000",
                 L"unload {T}\\elsewhere\\..\\elsewhere\\QvAppServices.dll 00000000"});
}

TEST(SiblingSearch, BareNameLeftToTheLoadersSearch) {
    scratch_tree tree;
    tree.companion_in(L"{T}\\onpath");
    ExpectLines(tree, tree.run({L"get\tQvAppServices.dll"}, L"{T}\\onpath"), {kFound + L"{T}\\onpath", kUnloadable});
}

// The first candidate that exists is taken even when it is no library: the search does not go on.
TEST(SiblingSearch, FirstExistingCandidateIsTakenEvenIfItCannotLoad) {
    struct row {
        const char* name;
        bool folder; // a folder of that name rather than a text file
    };
    for (const row& r : {row{"a text file", false}, row{"a folder", true}}) {
        SCOPED_TRACE(r.name);
        scratch_tree tree;
        tree.companion_in(L"{F}\\System");
        const std::wstring inF = tree.expand(L"{F}\\") + kCompanion;
        if (r.folder)
            ASSERT_TRUE(CreateDirectoryW(inF.c_str(), nullptr));
        else
            tree.write(inF, "not a library");
        ExpectLines(tree, tree.run({L"get\tQvAppServices.dll"}), {kMissing});
    }
}

// ---- The cache -----------------------------------------------------------------------------------------

// A name seen before is neither searched nor loaded again, even when its file has gone; another
// spelling of it is another entry, searched and loaded on its own.
TEST(SiblingCache, KeyedByTheExactSpelling) {
    scratch_tree tree;
    tree.companion_in(L"{T}\\common\\Qorvex");
    tree.companion_in(L"{T}\\root\\one\\two\\System\\x64");
    ExpectLines(tree,
                tree.run({L"commonfiles\t{T}\\common", L"get\tQvAppServices.dll",
                          L"move\t{T}\\common\\Qorvex\\QvAppServices.dll\t{T}\\gone\\QvAppServices.dll",
                          L"get\tQvAppServices.dll", L"get\tqvappservices.dll", L"get\tQVAPPSERVICES.DLL",
                          L"get\tQvAppServices.dll"}),
                {L"ok", kFound + L"{T}\\common\\Qorvex", L"ok", kFound + L"{T}\\common\\Qorvex",
                 kFound + L"{T}\\root\\one\\two\\System\\x64", kFound + L"{T}\\root\\one\\two\\System\\x64",
                 kFound + L"{T}\\common\\Qorvex", kUnloadable, kUnloadable, L"unload qvappservices.dll 00000000",
                 L"unload QVAPPSERVICES.DLL 00000000", kUnloadable});
}

TEST(SiblingCache, FailedLoadsAreNotEntered) {
    // Not there at first; once a copy appears, the next request searches again and finds it.
    scratch_tree tree;
    tree.companion_in(L"{T}\\stash");
    ExpectLines(tree,
                tree.run({L"commonfiles\t{T}\\common", L"get\tQvAppServices.dll",
                          L"move\t{T}\\stash\\QvAppServices.dll\t{T}\\common\\Qorvex\\QvAppServices.dll",
                          L"get\tQvAppServices.dll"}),
                {L"ok", kMissing, L"ok", kFound + L"{T}\\common\\Qorvex", kUnloadable, kUnloadable});
}

// ---- Loading and the class object ----------------------------------------------------------------------

// The current folder is the library's own while it loads, so an import from its neighbour resolves, and
// it is put back afterwards. Without the switch the same load fails.
TEST(SiblingLoad, NeighboursResolveThroughTheLibrarysFolder) {
    scratch_tree tree;
    tree.copy_to(qv::test::fixture(L"sibling\\neighbour_user.dll"), L"{T}\\nb");
    tree.copy_to(qv::test::fixture(L"sibling\\neighbour_dep.dll"), L"{T}\\nb");
    ExpectLines(
        tree, tree.run({L"rawload\t{T}\\nb\\neighbour_user.dll", L"cwd", L"get\t{T}\\nb\\neighbour_user.dll", L"cwd"}),
        {L"error 126", L"{T}\\cwd", hex(CLASS_E_CLASSNOTAVAILABLE), L"{T}\\cwd"});
}

TEST(SiblingLoad, ClassObjectAnswersPassThrough) {
    scratch_tree tree;
    tree.copy_to(qv::test::fixture(L"sibling\\neighbour_dep.dll"), L"{T}\\nb");
    tree.companion_in(L"{F}");
    // A library without DllGetClassObject is as good as none; a class the library does not have is
    // the library's own answer.
    ExpectLines(tree, tree.run({L"get\t{T}\\nb\\neighbour_dep.dll", L"clsid\tQvAppServices.dll"}),
                {kMissing, hex(CLASS_E_CLASSNOTAVAILABLE), kUnloadable});
}

// ---- In this process: the candidate list, and creation without a library -------------------------------

TEST(SiblingSearch, CandidatesInOrder) {
    struct row {
        const wchar_t* server;
        const wchar_t* commonFiles;
        std::vector<std::wstring> expected;
    };
    const row rows[] = {
        {L"C:\\a\\b\\c\\QVWIScanners.dll",
         L"C:\\Common Files",
         {L"C:\\a\\b\\c\\X.dll", L"C:\\a\\b\\c\\System\\X.dll", L"C:\\Common Files\\Qorvex\\X.dll",
          L"C:\\Common Files\\Qorvex\\Zephal\\X.dll", L"C:\\a\\b\\System\\x64\\X.dll", L"C:\\a\\System\\x64\\X.dll"}},
        {L"C:\\a\\b\\c\\QVWIScanners.dll",
         L"",
         {L"C:\\a\\b\\c\\X.dll", L"C:\\a\\b\\c\\System\\X.dll", L"C:\\a\\b\\System\\x64\\X.dll",
          L"C:\\a\\System\\x64\\X.dll"}},
        {L"C:\\a\\s.dll", L"", {L"C:\\a\\X.dll", L"C:\\a\\System\\X.dll"}},
        {L"C:\\s.dll", L"", {L"C:\\X.dll", L"C:\\System\\X.dll"}},
        {L"\\\\host\\share\\a\\b\\s.dll",
         L"",
         {L"\\\\host\\share\\a\\b\\X.dll", L"\\\\host\\share\\a\\b\\System\\X.dll",
          L"\\\\host\\share\\a\\System\\x64\\X.dll"}},
    };
    for (const row& r : rows)
        EXPECT_EQ(CSiblingModuleCache::SearchCandidates(r.server, r.commonFiles, L"X.dll"), r.expected)
            << narrow(r.server) << " / " << narrow(r.commonFiles);
}

TEST(CoCreateFromLibrary, EmptyNameIsPlainCoCreateInstance) {
    qv::test::com_apartment apartment;
    // {88D96A05-F192-11D4-A65F-0040963251E5}, a registered in-process class of the platform.
    const CLSID registered = {0x88D96A05, 0xF192, 0x11D4, {0xA6, 0x5F, 0x00, 0x40, 0x96, 0x32, 0x51, 0xE5}};
    qv::com_ptr<IUnknown> object;
    EXPECT_EQ(CoCreateFromLibrary(L"", registered, IID_IUnknown, object.put()), S_OK);
    EXPECT_TRUE(object);
    object.reset();
    EXPECT_EQ(CoCreateFromLibrary(L"", kUnknownClass, IID_IUnknown, object.put()), kNotRegistered);
    EXPECT_FALSE(object);
    EXPECT_EQ(CSiblingModuleCache::Instance().Loaded(L""), nullptr);
    EXPECT_EQ(CoCreateFromLibrary(L"", registered, IID_IUnknown, static_cast<IUnknown**>(nullptr)), E_POINTER);
}

} // namespace

int main(int argc, char** argv) {
    if (auto args = qv::test::child_arguments(kChildFlag))
        return RunChild(*args);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
