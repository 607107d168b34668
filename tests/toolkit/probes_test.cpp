// Probes of the machine: path forms, existence, default registry values, processor, folder
// constants, redirection, and the search folders (in child processes of this binary, since the
// list is made once per process).
#include "test_support.h"
#include "test_support.h"
#include "toolkit/probes.h"

#include "inc/com_exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <shellapi.h>
#include <winsock2.h>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

using qv::test::narrow;

namespace {

constexpr wchar_t kChildFlag[] = L"--search-folders-child";

// ---- IsAbsolutePath ----

struct absolute_case {
    const wchar_t* path;
    bool absolute;
};

void PrintTo(const absolute_case& c, std::ostream* os) {
    *os << '"' << narrow(c.path) << '"';
}

class IsAbsolutePathTest : public ::testing::TestWithParam<absolute_case> {};

TEST_P(IsAbsolutePathTest, AnswersByRootForm) {
    EXPECT_EQ(qv::IsAbsolutePath(GetParam().path), GetParam().absolute) << narrow(GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(PathForms, IsAbsolutePathTest,
                         ::testing::Values(absolute_case{L"C:", true}, absolute_case{L"C:x", true},
                                           absolute_case{L"C:\\", true}, absolute_case{L"C:\\dir\\file.dll", true},
                                           absolute_case{L"z:relative\\x", true}, absolute_case{L"1:", true},
                                           absolute_case{L"\\\\", false}, absolute_case{L"\\\\a", true},
                                           absolute_case{L"\\\\server\\share\\x", true}, absolute_case{L"\\foo", false},
                                           absolute_case{L"\\", false}, absolute_case{L"foo", false},
                                           absolute_case{L"foo\\bar.dll", false}, absolute_case{L".\\x", false},
                                           absolute_case{L"..\\x", false}, absolute_case{L"C", false},
                                           absolute_case{L"", false}, absolute_case{L":C", false},
                                           absolute_case{L"//server/share", false}, absolute_case{L"\\a\\", false}));

// ---- FileExists / PathExists on real files ----

class PathExistsTest : public ::testing::Test {
protected:
    qv::test::temp_dir dir;
    std::wstring file = dir.write(L"present.dll", "MZ");
    std::wstring folder = dir.mkdir(L"sub");
};

TEST_F(PathExistsTest, FileExistsCountsFilesAndFolders) {
    EXPECT_TRUE(qv::FileExists(file));
    EXPECT_TRUE(qv::FileExists(folder));
    EXPECT_TRUE(qv::FileExists(folder + L"\\"));
    EXPECT_FALSE(qv::FileExists(dir / L"absent.dll"));
    EXPECT_FALSE(qv::FileExists(dir / L"absent\\deeper.dll"));
    EXPECT_FALSE(qv::FileExists(L""));
}

TEST_F(PathExistsTest, FlagsChooseWhatCounts) {
    struct row {
        std::wstring path;
        unsigned flags;
        bool expected;
    };
    const std::vector<row> rows = {
        {file, qv::path_accept_file, true},
        {file, qv::path_accept_folder, false},
        {file, qv::path_accept_any, true},
        {file, 0, false},
        {file, qv::path_allow_url | qv::path_accept_file, true}, // not a URL: read as a path
        {folder, qv::path_accept_file, false},
        {folder, qv::path_accept_folder, true},
        {folder, qv::path_accept_any, true},
        {folder + L"\\", qv::path_accept_folder, true},
        {folder, 0, false},
        {qv::test::system_dir() + L"\\kernel32.dll", qv::path_accept_file, true},
        {L"C:\\", qv::path_accept_folder, true},
        {L"C:\\", qv::path_accept_file, false},
        // Not found (2) and path not found (3) are a plain no, under bit 32 too.
        {dir / L"absent.dll", qv::path_accept_any, false},
        {dir / L"absent.dll", qv::path_accept_any | qv::path_throw_errors, false},
        {dir / L"absent\\deeper.dll", qv::path_accept_any | qv::path_throw_errors, false},
        {L"", qv::path_accept_any | qv::path_throw_errors, false},
    };
    for (const auto& r : rows)
        EXPECT_EQ(qv::PathExists(r.path, r.flags), r.expected) << narrow(r.path) << " flags " << r.flags;
}

TEST_F(PathExistsTest, UnexpectedErrorIsFalseOrThrowsUnderBit32) {
    // A wildcard is no valid file name: neither "not found" nor "access denied".
    const std::wstring invalid = dir / L"wild*card.dll";
    SetLastError(0xdeadbeef);
    DWORD attributes = GetFileAttributesW(invalid.c_str());
    const DWORD error = GetLastError();
    ASSERT_EQ(attributes, INVALID_FILE_ATTRIBUTES);
    ASSERT_NE(error, static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    ASSERT_NE(error, static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    ASSERT_NE(error, static_cast<DWORD>(ERROR_ACCESS_DENIED));

    EXPECT_FALSE(qv::PathExists(invalid, qv::path_accept_any));
    try {
        qv::PathExists(invalid, qv::path_accept_any | qv::path_throw_errors);
        ADD_FAILURE() << "no exception under bit 32";
    } catch (const qv::win32_exception& e) {
        EXPECT_EQ(e.Error(), error);
    }
}

// ---- PathExists decisions, error by error, through a scripted probe ----

struct scripted_probe : qv::detail::path_probe {
    DWORD attributes = INVALID_FILE_ATTRIBUTES;
    DWORD attributesError = ERROR_SUCCESS;
    std::optional<DWORD> findAttributes; // nullopt: FindFirstFileW fails with findError
    DWORD findError = ERROR_SUCCESS;
    bool urlOpens = false;

    int attributeCalls = 0;
    int findCalls = 0;
    int urlCalls = 0;
    bool urlThrowFlag = false;

    DWORD Attributes(const std::wstring&, DWORD& error) override {
        ++attributeCalls;
        error = attributesError;
        return attributes;
    }
    bool FindAttributes(const std::wstring&, DWORD& found, DWORD& error) override {
        ++findCalls;
        if (!findAttributes) {
            error = findError;
            return false;
        }
        found = *findAttributes;
        return true;
    }
    bool UrlOpens(const std::wstring&, bool throwErrors) override {
        ++urlCalls;
        urlThrowFlag = throwErrors;
        return urlOpens;
    }
};

constexpr DWORD kFile = FILE_ATTRIBUTE_ARCHIVE;
constexpr DWORD kFolder = FILE_ATTRIBUTE_DIRECTORY;
constexpr DWORD kNone = INVALID_FILE_ATTRIBUTES;

struct decision_case;
void PrintTo(const decision_case& c, std::ostream* os);

struct decision_case {
    const char* name;
    DWORD attributes;
    DWORD attributesError;
    std::optional<DWORD> findAttributes;
    DWORD findError;
    unsigned flags;
    // Outcome: a result, or the error code of the exception.
    std::optional<bool> result;
    DWORD thrown;
    int findCalls;
};

void PrintTo(const decision_case& c, std::ostream* os) {
    *os << c.name;
}

class PathExistsDecisionTest : public ::testing::TestWithParam<decision_case> {};

TEST_P(PathExistsDecisionTest, FollowsTheErrorTable) {
    const auto& c = GetParam();
    scripted_probe probe;
    probe.attributes = c.attributes;
    probe.attributesError = c.attributesError;
    probe.findAttributes = c.findAttributes;
    probe.findError = c.findError;
    if (c.result) {
        EXPECT_EQ(qv::detail::PathExists(L"C:\\some\\path", c.flags, probe), *c.result);
    } else {
        try {
            qv::detail::PathExists(L"C:\\some\\path", c.flags, probe);
            ADD_FAILURE() << "expected win32_exception " << c.thrown;
        } catch (const qv::win32_exception& e) {
            EXPECT_EQ(e.Error(), c.thrown);
        }
    }
    EXPECT_EQ(probe.attributeCalls, 1);
    EXPECT_EQ(probe.findCalls, c.findCalls);
    EXPECT_EQ(probe.urlCalls, 0);
}

constexpr unsigned kAny = qv::path_accept_any;
constexpr unsigned kThrow = qv::path_throw_errors;

INSTANTIATE_TEST_SUITE_P(
    Errors, PathExistsDecisionTest,
    ::testing::Values(
        decision_case{"FileAcceptedAsFile", kFile, 0, {}, 0, qv::path_accept_file, true, 0, 0},
        decision_case{"FileRefusedAsFolder", kFile, 0, {}, 0, qv::path_accept_folder, false, 0, 0},
        decision_case{"FolderAcceptedAsFolder", kFolder, 0, {}, 0, qv::path_accept_folder, true, 0, 0},
        decision_case{"FolderRefusedAsFile", kFolder, 0, {}, 0, qv::path_accept_file, false, 0, 0},
        decision_case{"NeitherBit", kFile, 0, {}, 0, kThrow, false, 0, 0},
        decision_case{"NotFound", kNone, ERROR_FILE_NOT_FOUND, {}, 0, kAny | kThrow, false, 0, 0},
        decision_case{"PathNotFound", kNone, ERROR_PATH_NOT_FOUND, {}, 0, kAny | kThrow, false, 0, 0},
        decision_case{"DeniedFindSeesFile", kNone, ERROR_ACCESS_DENIED, kFile, 0, qv::path_accept_file, true, 0, 1},
        decision_case{"DeniedFindSeesFolder", kNone, ERROR_ACCESS_DENIED, kFolder, 0, qv::path_accept_file, false, 0,
                      1},
        decision_case{"DeniedFindSeesFolderAccepted", kNone, ERROR_ACCESS_DENIED, kFolder, 0,
                      qv::path_accept_folder | kThrow, true, 0, 1},
        decision_case{"DeniedFindFails", kNone, ERROR_ACCESS_DENIED, {}, ERROR_ACCESS_DENIED, kAny, false, 0, 1},
        decision_case{"DeniedFindFailsThrows",
                      kNone,
                      ERROR_ACCESS_DENIED,
                      {},
                      ERROR_SHARING_VIOLATION,
                      kAny | kThrow,
                      {},
                      ERROR_SHARING_VIOLATION,
                      1},
        decision_case{"OtherError", kNone, ERROR_INVALID_NAME, {}, 0, kAny, false, 0, 0},
        decision_case{"OtherErrorThrows", kNone, ERROR_INVALID_NAME, {}, 0, kAny | kThrow, {}, ERROR_INVALID_NAME, 0},
        decision_case{"NetworkErrorThrows", kNone, ERROR_BAD_NETPATH, {}, 0, kAny | kThrow, {}, ERROR_BAD_NETPATH, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PathExistsUrl, UrlBitSendsUrlsToTheInternetReaders) {
    struct row {
        const wchar_t* path;
        unsigned flags;
        bool urlAsked;
    };
    const row rows[] = {
        {L"http://example.invalid/a.dll", qv::path_allow_url, true},
        {L"HTTPS://example.invalid/a.dll", qv::path_allow_url | kThrow, true},
        {L"ftp://example.invalid/a.dll", qv::path_allow_url | kAny, true},
        {L"http://example.invalid/a.dll", kAny, false}, // without bit 16 it is a path
        {L"file://c:/a.dll", qv::path_allow_url | kAny, false},
        {L"C:\\http://x", qv::path_allow_url | kAny, false},
    };
    for (const auto& r : rows) {
        scripted_probe probe;
        probe.urlOpens = true;
        probe.attributes = kNone;
        probe.attributesError = ERROR_PATH_NOT_FOUND;
        const bool result = qv::detail::PathExists(r.path, r.flags, probe);
        EXPECT_EQ(probe.urlCalls, r.urlAsked ? 1 : 0) << narrow(r.path);
        EXPECT_EQ(probe.attributeCalls, r.urlAsked ? 0 : 1) << narrow(r.path);
        EXPECT_EQ(result, r.urlAsked) << narrow(r.path);
        if (r.urlAsked) {
            EXPECT_EQ(probe.urlThrowFlag, (r.flags & kThrow) != 0) << narrow(r.path);
        }
    }
}

TEST(PathExistsUrl, SchemesAreRecognisedWithoutCase) {
    EXPECT_TRUE(qv::detail::IsInternetPath(L"http://a"));
    EXPECT_TRUE(qv::detail::IsInternetPath(L"Https://a"));
    EXPECT_TRUE(qv::detail::IsInternetPath(L"FTP://a"));
    EXPECT_FALSE(qv::detail::IsInternetPath(L"http:/a"));
    EXPECT_FALSE(qv::detail::IsInternetPath(L"ftps://a"));
    EXPECT_FALSE(qv::detail::IsInternetPath(L"file://a"));
    EXPECT_FALSE(qv::detail::IsInternetPath(L"http"));
    EXPECT_FALSE(qv::detail::IsInternetPath(L""));
}

// A loopback port that nothing listens on: bound by us, then closed again.
unsigned short ClosedLoopbackPort() {
    WSADATA data;
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0)
        return 0;
    unsigned short port = 0;
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s != INVALID_SOCKET) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int size = sizeof address;
        if (bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            getsockname(s, reinterpret_cast<sockaddr*>(&address), &size) == 0)
            port = ntohs(address.sin_port);
        closesocket(s);
    }
    WSACleanup();
    return port;
}

TEST(PathExistsUrl, UnreachableLoopbackUrlIsFalse) {
    const unsigned short port = ClosedLoopbackPort();
    ASSERT_NE(port, 0);
    const std::wstring url = L"http://127.0.0.1:" + std::to_wstring(port) + L"/missing.dll";
    const DWORD start = GetTickCount();
    EXPECT_FALSE(qv::PathExists(url, qv::path_allow_url | kAny));
    EXPECT_FALSE(qv::PathExists(url, qv::path_allow_url | kAny | kThrow)); // a URL that does not open is a no
    EXPECT_LT(GetTickCount() - start, 60000u);
}

// ---- ReadDefaultRegistryValue ----

class DefaultRegistryValueTest : public ::testing::Test {
protected:
    qv::test::registry_override classes{HKEY_CLASSES_ROOT};

    static void Set(const wchar_t* subkey, DWORD type, const std::wstring& text, DWORD size) {
        // The text is followed by non-zero padding, so that the system cannot mistake a missing
        // terminator for one the writer forgot to count.
        std::wstring padded = text + std::wstring(8, L'#');
        qv::test::registry_override::set_value(HKEY_CLASSES_ROOT, subkey, nullptr, type, padded.data(), size);
    }
    static DWORD Bytes(const std::wstring& text) { return static_cast<DWORD>(text.size() * sizeof(wchar_t)); }
};

TEST_F(DefaultRegistryValueTest, ValidatesTypeAndTerminators) {
    using namespace std::string_literals;
    struct row {
        const wchar_t* subkey;
        DWORD type;
        std::wstring data;
        DWORD size;
        std::wstring expected;
    };
    const std::wstring s129(129, L'a');
    const std::wstring s130(130, L'b');
    const std::wstring s131(131, L'c');
    const std::vector<row> rows = {
        {L".vbp", REG_SZ, L"VisualBasic.Project\0"s, Bytes(L"VisualBasic.Project\0"s), L"VisualBasic.Project"},
        {L"expand", REG_EXPAND_SZ, L"%SystemRoot%\\x\0"s, Bytes(L"%SystemRoot%\\x\0"s), L"%SystemRoot%\\x"},
        {L"embedded", REG_SZ, L"ab\0cd\0"s, Bytes(L"ab\0cd\0"s), L"ab"},
        {L"odd", REG_SZ, L"hello\0"s, Bytes(L"hello\0"s) + 1, L""},
        {L"unterminated", REG_SZ, L"hello"s, Bytes(L"hello"s), L""},
        {L"unterminated-expand", REG_EXPAND_SZ, L"%X%"s, Bytes(L"%X%"s), L""},
        {L"multi", REG_MULTI_SZ, L"first\0second\0\0"s, Bytes(L"first\0second\0\0"s), L"first"},
        {L"multi-one-terminator", REG_MULTI_SZ, L"first\0second\0"s, Bytes(L"first\0second\0"s), L""},
        {L"multi-odd", REG_MULTI_SZ, L"a\0\0"s, Bytes(L"a\0\0"s) - 1, L""},
        {L"dword", REG_DWORD, L"ab"s, 4, L""},
        {L"binary", REG_BINARY, L"text\0"s, Bytes(L"text\0"s), L""},
        {L"fits", REG_SZ, s129 + L'\0', Bytes(s129 + L'\0'), s129}, // 260 bytes: exactly the buffer
        {L"one-over", REG_SZ, s130 + L'\0', Bytes(s130 + L'\0'), L""},
        {L"x", REG_SZ, s131 + L'\0', Bytes(s131 + L'\0'), L""},
    };
    for (const auto& r : rows)
        Set(r.subkey, r.type, r.data, r.size);
    for (const auto& r : rows)
        EXPECT_EQ(qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, r.subkey), r.expected) << narrow(r.subkey);
}

TEST_F(DefaultRegistryValueTest, MissingKeyOrValueIsEmpty) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, L"novalue", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    RegCloseKey(key);
    EXPECT_EQ(qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, L"novalue"), L"");
    EXPECT_EQ(qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, L"absent"), L"");
    EXPECT_EQ(qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, L"absent\\deeper"), L"");
}

TEST_F(DefaultRegistryValueTest, ReadsBelowAnyRootAndSubkeyPath) {
    using namespace std::string_literals;
    Set(L"a\\b\\c", REG_SZ, L"deep\0"s, Bytes(L"deep\0"s));
    EXPECT_EQ(qv::ReadDefaultRegistryValue(HKEY_CLASSES_ROOT, L"a\\b\\c"), L"deep");
    // The scratch key is reachable through its real path as well.
    HKEY scratch = classes.key();
    EXPECT_EQ(qv::ReadDefaultRegistryValue(scratch, L"a\\b\\c"), L"deep");
}

// ---- Processor and emulation ----

TEST(Processor, X64BuildSeesA64BitNativeSystem) {
    // The prefix announces the processor to programs through this variable, as Windows does.
    wchar_t arch[32] = {};
    GetEnvironmentVariableW(L"PROCESSOR_ARCHITECTURE", arch, 32);
    EXPECT_STREQ(arch, L"AMD64");
    EXPECT_TRUE(qv::IsAmd64());
    EXPECT_FALSE(qv::IsItanium());
    EXPECT_TRUE(qv::Is64BitOs());
    BOOL wow64 = TRUE;
    ASSERT_TRUE(IsWow64Process(GetCurrentProcess(), &wow64));
    EXPECT_FALSE(wow64);
    EXPECT_FALSE(qv::IsWow64());
}

// ---- Folder constants ----

TEST(FolderConstants, EndInABackslashAndNameTheSystemFolders) {
    const std::wstring& system = qv::SystemFolder();
    const std::wstring& windows = qv::WindowsFolder();
    EXPECT_EQ(system, qv::test::system_dir() + L"\\");
    ASSERT_FALSE(windows.empty());
    EXPECT_EQ(windows.back(), L'\\');

    // Independent of the two calls: %SystemRoot% names the Windows folder, system32 lies in it.
    wchar_t root[MAX_PATH] = {};
    ASSERT_NE(GetEnvironmentVariableW(L"SystemRoot", root, MAX_PATH), 0u);
    EXPECT_EQ(qv::test::lower(windows), qv::test::lower(std::wstring(root) + L"\\"));
    EXPECT_EQ(qv::test::lower(system), qv::test::lower(windows + L"system32\\"));
    EXPECT_TRUE(qv::FileExists(system + L"kernel32.dll"));
}

TEST(FolderConstants, RedirectionFoldersFollowTheProcessKind) {
    EXPECT_EQ(qv::SysWow64Folder(), qv::WindowsFolder() + L"syswow64\\"); // 64-bit system
    EXPECT_EQ(qv::SysNativeFolder(), L"");                                // not under WOW64
}

TEST(FolderConstants, AreMadeOnceForTheProcess) {
    EXPECT_EQ(&qv::SystemFolder(), &qv::SystemFolder());
    EXPECT_EQ(&qv::WindowsFolder(), &qv::WindowsFolder());
    EXPECT_EQ(&qv::SysWow64Folder(), &qv::SysWow64Folder());
    EXPECT_EQ(&qv::SysNativeFolder(), &qv::SysNativeFolder());
}

UINT WINAPI FailingFolderQuery(LPWSTR, UINT) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
}
UINT WINAPI OversizedFolderQuery(LPWSTR, UINT) {
    return MAX_PATH + 40;
}
UINT WINAPI RootFolderQuery(LPWSTR buffer, UINT size) {
    lstrcpynW(buffer, L"D:\\", static_cast<int>(size));
    return 3;
}
UINT WINAPI PlainFolderQuery(LPWSTR buffer, UINT size) {
    lstrcpynW(buffer, L"D:\\win\\sys", static_cast<int>(size));
    return 10;
}

TEST(FolderConstants, MakingAFolderThrowsWhenTheSystemCannotTell) {
    EXPECT_EQ(qv::detail::MakeFolder(PlainFolderQuery), L"D:\\win\\sys\\");
    EXPECT_EQ(qv::detail::MakeFolder(RootFolderQuery), L"D:\\");
    try {
        qv::detail::MakeFolder(FailingFolderQuery);
        ADD_FAILURE() << "no exception";
    } catch (const qv::win32_exception& e) {
        EXPECT_EQ(e.Error(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
    }
    try {
        qv::detail::MakeFolder(OversizedFolderQuery);
        ADD_FAILURE() << "no exception";
    } catch (const qv::win32_exception& e) {
        EXPECT_EQ(e.Error(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    }
}

// ---- Redirection mapping ----

struct mapping_case {
    const wchar_t* path;
    const wchar_t* toNative;
    const wchar_t* fromNative;
};

void PrintTo(const mapping_case& c, std::ostream* os) {
    *os << '"' << narrow(c.path) << '"';
}

class RedirectionTest : public ::testing::TestWithParam<mapping_case> {
protected:
    const qv::detail::redirection_folders folders{L"C:\\Windows\\system32\\", L"C:\\Windows\\sysnative\\",
                                                  L"C:\\Windows\\SysWOW64\\"};
};

TEST_P(RedirectionTest, MapsPrefixesWithoutCaseUnderWow64) {
    const auto& c = GetParam();
    EXPECT_EQ(qv::detail::MapToNativePath(c.path, true, folders), c.toNative) << narrow(c.path);
    EXPECT_EQ(qv::detail::MapFromNativePath(c.path, true, folders), c.fromNative) << narrow(c.path);
    // Outside WOW64 nothing moves.
    EXPECT_EQ(qv::detail::MapToNativePath(c.path, false, folders), c.path);
    EXPECT_EQ(qv::detail::MapFromNativePath(c.path, false, folders), c.path);
}

INSTANTIATE_TEST_SUITE_P(
    Prefixes, RedirectionTest,
    ::testing::Values(
        mapping_case{L"C:\\Windows\\system32\\a.dll", L"C:\\Windows\\sysnative\\a.dll",
                     L"C:\\Windows\\SysWOW64\\a.dll"},
        mapping_case{L"c:\\WINDOWS\\SYSTEM32\\x\\b.dll", L"C:\\Windows\\sysnative\\x\\b.dll",
                     L"C:\\Windows\\SysWOW64\\x\\b.dll"},
        mapping_case{L"C:\\Windows\\syswow64\\a.dll", L"C:\\Windows\\system32\\a.dll", L"C:\\Windows\\syswow64\\a.dll"},
        mapping_case{L"C:\\Windows\\SysNative\\a.dll", L"C:\\Windows\\SysNative\\a.dll",
                     L"C:\\Windows\\system32\\a.dll"},
        mapping_case{L"C:\\Windows\\system32", L"C:\\Windows\\system32", L"C:\\Windows\\system32"}, // no backslash
        mapping_case{L"C:\\Windows\\system32x\\a.dll", L"C:\\Windows\\system32x\\a.dll",
                     L"C:\\Windows\\system32x\\a.dll"},
        mapping_case{L"D:\\C:\\Windows\\system32\\a.dll", L"D:\\C:\\Windows\\system32\\a.dll",
                     L"D:\\C:\\Windows\\system32\\a.dll"},
        mapping_case{L"C:\\Windows\\a.dll", L"C:\\Windows\\a.dll", L"C:\\Windows\\a.dll"},
        mapping_case{L"", L"", L""}));

TEST(Redirection, PublicMappingLeavesPathsAloneInAn64BitProcess) {
    const std::wstring inSystem = qv::SystemFolder() + L"kernel32.dll";
    const std::wstring inWow64 = qv::SysWow64Folder() + L"kernel32.dll";
    EXPECT_EQ(qv::MapToNativePath(inSystem), inSystem);
    EXPECT_EQ(qv::MapFromNativePath(inSystem), inSystem);
    EXPECT_EQ(qv::MapToNativePath(inWow64), inWow64);
    EXPECT_EQ(qv::MapFromNativePath(inWow64), inWow64);
}

// ---- Search folders ----

TEST(SearchFolders, SplitKeepsInnerEmptiesAndDropsAnEmptyLastEntry) {
    using list = std::vector<std::wstring>;
    struct row {
        const wchar_t* text;
        list expected;
    };
    const row rows[] = {
        {L"", list{}},
        {L"a", list{L"a"}},
        {L"a;", list{L"a"}},
        {L"a;;", list{L"a", L""}},
        {L";", list{L""}},
        {L";;", list{L"", L""}},
        {L";a", list{L"", L"a"}},
        {L"a;;b", list{L"a", L"", L"b"}},
        {L"C:\\x y;D:\\z\\;", list{L"C:\\x y", L"D:\\z\\"}},
    };
    for (const auto& r : rows)
        EXPECT_EQ(qv::detail::SplitSearchPath(r.text), r.expected) << narrow(r.text);
}

// Runs this binary as a child that writes its GetSearchFolders list, with Path and QVX set as
// given for the child only. Returns the child's lines, or nullopt if it failed.
std::optional<std::vector<std::wstring>> SearchFoldersOfChild(const wchar_t* path, const wchar_t* qvx) {
    qv::test::temp_dir dir;
    const std::wstring out = dir / L"folders.txt";
    std::wstring command =
        L"\"" + qv::test::module_dir() + L"\\toolkit_probes_test.exe\" " + kChildFlag + L" \"" + out + L"\"";
    PROCESS_INFORMATION process{};
    {
        qv::test::env_scope pathScope(L"Path", path);
        qv::test::env_scope qvxScope(L"QVX", qvx);
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                            &process)) {
            ADD_FAILURE() << "CreateProcessW failed: " << GetLastError();
            return std::nullopt;
        }
    }
    const DWORD wait = WaitForSingleObject(process.hProcess, 60000);
    DWORD code = 1;
    if (wait != WAIT_OBJECT_0)
        TerminateProcess(process.hProcess, 99);
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    if (wait != WAIT_OBJECT_0 || code != 0) {
        ADD_FAILURE() << "child failed: wait " << wait << " exit " << code;
        return std::nullopt;
    }
    // One entry per line, each between '<' and '>', so that empty entries show.
    std::wstring text = qv::test::widen(qv::test::read_file(out));
    std::vector<std::wstring> lines;
    size_t start = 0;
    for (size_t end; (end = text.find(L'\n', start)) != std::wstring::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    return lines;
}

std::vector<std::wstring> Bracketed(const std::vector<std::wstring>& entries) {
    std::vector<std::wstring> lines;
    for (const auto& e : entries)
        lines.push_back(L"<" + e + L">");
    return lines;
}

TEST(SearchFolders, ChildProcessSeesItsOwnExpandedPath) {
    struct row {
        const wchar_t* path;
        std::vector<std::wstring> expected;
    };
    const row rows[] = {
        {L"a;;%QVX%;b;", {L"a", L"", L"C:\\qv x", L"b"}},
        {L"%QVX%\\bin;%QVX_UNSET%;", {L"C:\\qv x\\bin", L"%QVX_UNSET%"}},
        {L";", {L""}},
        {L"only", {L"only"}},
    };
    for (const auto& r : rows) {
        auto lines = SearchFoldersOfChild(r.path, L"C:\\qv x");
        ASSERT_TRUE(lines) << narrow(r.path);
        auto expected = Bracketed(r.expected);
        expected.push_back(L"unchanged after the environment changed");
        EXPECT_EQ(*lines, expected) << narrow(r.path);
    }
}

// The child side: the list as first made, then a check that changing Path changes nothing.
int SearchFoldersChild(const std::wstring& out) {
    const auto& first = qv::GetSearchFolders();
    const std::vector<std::wstring> copy = first;
    SetEnvironmentVariableW(L"Path", L"changed;later");
    const auto& second = qv::GetSearchFolders();
    std::wstring text;
    for (const auto& line : Bracketed(copy))
        text += line + L"\n";
    text += (&first == &second && second == copy) ? L"unchanged after the environment changed\n"
                                                  : L"CHANGED after the environment changed\n";
    HANDLE h = CreateFileW(out.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return 2;
    const std::string bytes = narrow(text);
    DWORD written = 0;
    BOOL ok = WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(h);
    return ok && written == bytes.size() ? 0 : 3;
}

} // namespace

int main(int argc, char** argv) {
    int wargc = 0;
    LPWSTR* wargv = CommandLineToArgvW(GetCommandLineW(), &wargc);
    if (wargv && wargc == 3 && std::wstring(wargv[1]) == kChildFlag) {
        std::wstring out = wargv[2];
        LocalFree(wargv);
        return SearchFoldersChild(out);
    }
    LocalFree(wargv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
