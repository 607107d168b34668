// CDepFile from inside the library: records filled from real files (the version fixtures, load probes
// built for the purpose, the prefix's own system DLLs), the folder tokens of both project kinds, the
// shared test against a scratch HKEY_LOCAL_MACHINE, and MakeDepFile with a fake filter.
//
// Hermetic: HKEY_LOCAL_MACHINE is redirected to a scratch key wherever the record reads it, the project
// kind is set through QV_ACTIVE_PROJECT_TYPE for every case, files are made in temporary folders. After
// every case no object of the library is alive.
#include "filter/filter_base.h"
#include "inc/com_exception.h"
#include "inc/com_module.h"
#include "test_support.h"
#include "server/dep_file.h"
#include "server/dep_files.h"
#include "static/dep_walker.h"
#include "test_support.h"
#include "toolkit/probes.h"

#include <winioctl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <vector>

using namespace qv::test;
using qv::bstr;
using qv::com_ptr;
using namespace qv::dep_file_detail;

namespace {

using record = qv::com_object<CDepFile>;

constexpr wchar_t kCurrentVersion[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion";
constexpr wchar_t kSharedDlls[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\SharedDlls";
constexpr wchar_t kLoadedVariable[] = L"QV_DEPFILE_LOADED";

com_ptr<record> new_record() {
    record* p = nullptr;
    EXPECT_EQ(record::CreateInstance(&p), S_OK);
    return com_ptr<record>(p);
}

std::wstring name_of(CDepFile* f) {
    bstr b;
    EXPECT_EQ(f->get_Name(b.put()), S_OK);
    return b.str();
}
std::wstring path_of(CDepFile* f) {
    bstr b;
    EXPECT_EQ(f->get_Path(b.put()), S_OK);
    return b.str();
}
std::wstring dest_of(CDepFile* f) {
    bstr b;
    EXPECT_EQ(f->GetDestPath(b.put()), S_OK);
    return b.str();
}
template <class Getter> VARIANT_BOOL flag(Getter get) {
    VARIANT_BOOL v = 5;
    EXPECT_EQ(get(&v), S_OK);
    return v;
}
VARIANT_BOOL shared(CDepFile* f) {
    return flag([&](VARIANT_BOOL* v) { return f->get_Shared(v); });
}
VARIANT_BOOL self_registering(CDepFile* f) {
    return flag([&](VARIANT_BOOL* v) { return f->get_SelfRegistering(v); });
}
VARIANT_BOOL missing(CDepFile* f) {
    return flag([&](VARIANT_BOOL* v) { return f->get_IsMissing(v); });
}
VARIANT_BOOL dot_net(CDepFile* f) {
    return flag([&](VARIANT_BOOL* v) { return f->GetDotNet(v); });
}
long size_of(CDepFile* f) {
    long n = -1;
    EXPECT_EQ(f->get_Size(&n), S_OK);
    return n;
}
std::pair<long, long> versions_of(CDepFile* f) {
    long major = -1, minor = -1;
    EXPECT_EQ(f->get_MajorVersion(&major), S_OK);
    EXPECT_EQ(f->get_MinorVersion(&minor), S_OK);
    return {major, minor};
}
DATE time_of(CDepFile* f) {
    DATE d = -1;
    EXPECT_EQ(f->get_ModifiedTime(&d), S_OK);
    return d;
}
std::vector<long> languages_of(CDepFile* f) {
    com_ptr<ILanguages> languages;
    EXPECT_EQ(f->get_Languages(languages.put()), S_OK);
    std::vector<long> out;
    if (!languages)
        return out;
    long count = 0;
    EXPECT_EQ(languages->get_Count(&count), S_OK);
    for (long i = 1; i <= count; ++i) {
        VARIANT index;
        VariantInit(&index);
        index.vt = VT_I4;
        index.lVal = i;
        long language = -1;
        EXPECT_EQ(languages->get_Item(index, &language), S_OK);
        out.push_back(language);
    }
    return out;
}

// Loads a file into a new record without the automatic self-registration test (which would load it).
com_ptr<record> load(const std::wstring& path) {
    com_ptr<record> f = new_record();
    f->SetAutoSelfReg(false);
    f->LoadFromFile(path);
    return f;
}

std::wstring without_backslash(std::wstring path) {
    if (!path.empty() && path.back() == L'\\')
        path.pop_back();
    return path;
}

void set_string(const std::wstring& subkey, const wchar_t* name, const std::wstring& value) {
    registry_override::set_value(HKEY_LOCAL_MACHINE, subkey, name, REG_SZ, value.c_str(),
                                 static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

bool loaded_flag() {
    return GetEnvironmentVariableW(kLoadedVariable, nullptr, 0) > 0;
}

// Every case runs with a known project kind and ends with no live object of the library.
class DepFileTest : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(qv::g_module.LockCount(), 0) << "an object of the library is still alive"; }
    env_scope projectType{L"QV_ACTIVE_PROJECT_TYPE", L"0"};
};

// A filter with fixed answers that remembers what it was asked.
class fake_filter : public CFilterBase {
public:
    fake_filter(bool inList, bool drop) : m_inList(inList), m_drop(drop) {}
    bool Filter(const std::wstring& name, bool& bInFilterList) override {
        asked.push_back(name);
        bInFilterList = m_inList;
        return m_drop;
    }
    void Initialize() override {}
    std::vector<std::wstring> asked;

private:
    bool m_inList;
    bool m_drop;
};

// An assembly object that only counts references: the record must never call its own methods.
class fake_assembly : public IDotNetAssembly {
public:
    LONG refs = 1;
    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDotNetAssembly)) {
            *ppv = static_cast<IDotNetAssembly*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHOD_(ULONG, AddRef)() override { return static_cast<ULONG>(++refs); }
    STDMETHOD_(ULONG, Release)() override { return static_cast<ULONG>(--refs); }
    STDMETHOD(Load)(BSTR) override { return unexpected(); }
    STDMETHOD(get_Name)(BSTR*) override { return unexpected(); }
    STDMETHOD(get_Version)(BSTR*) override { return unexpected(); }
    STDMETHOD(get_PublicKeyToken)(BSTR*) override { return unexpected(); }
    STDMETHOD(get_Culture)(BSTR*) override { return unexpected(); }
    STDMETHOD(get_Dependencies)(IStaticScanEvents*, IDotNetAssemblyRefs**) override { return unexpected(); }
    STDMETHOD(LoadProperties)(BSTR, VARIANT_BOOL*, VARIANT_BOOL*) override { return unexpected(); }

private:
    static HRESULT unexpected() {
        ADD_FAILURE() << "the record called a method of its assembly";
        return E_NOTIMPL;
    }
};

// An object that is no assembly.
class plain_unknown : public IUnknown {
public:
    LONG refs = 1;
    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown)) {
            *ppv = this;
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHOD_(ULONG, AddRef)() override { return static_cast<ULONG>(++refs); }
    STDMETHOD_(ULONG, Release)() override { return static_cast<ULONG>(--refs); }
};

// ---------------------------------------------------------------------------------------------------
// Path rules

TEST(DepFilePaths, NameAndDirectoryParts) {
    struct row {
        const wchar_t* path;
        const wchar_t* name;
        const wchar_t* directory;
    };
    const row table[] = {
        {L"C:\\dir\\sub\\x.dll", L"x.dll", L"C:\\dir\\sub"},
        {L"C:\\x.dll", L"x.dll", L"C:\\"},
        {L"C:\\", L"C:\\", L"C:\\"},
        {L"C:\\dir\\", L"dir\\", L"C:\\dir"},
        {L"x.dll", L"x.dll", L""},
        {L"C:x.dll", L"x.dll", L"C:"},
        {L"\\\\server\\share\\x.dll", L"x.dll", L"\\\\server\\share"},
        {L"\\\\?\\C:\\windows\\notepad.exe", L"notepad.exe", L"\\\\?\\C:\\windows"},
        {L"", L"", L""},
    };
    for (const row& r : table) {
        EXPECT_EQ(NamePart(r.path), r.name) << narrow(r.path);
        EXPECT_EQ(DirectoryPart(r.path), r.directory) << narrow(r.path);
    }
}

TEST(DepFilePaths, DotComponentsAreRemoved) {
    const std::pair<const wchar_t*, const wchar_t*> table[] = {
        {L"C:\\windows\\system32\\", L"C:\\windows\\system32\\"},
        {L"C:\\windows\\system32\\..\\system32\\.\\", L"C:\\windows\\system32\\"},
        {L"C:\\windows\\.\\system32\\", L"C:\\windows\\system32\\"},
        {L"C:\\a\\b\\..\\..\\windows\\", L"C:\\windows\\"},
        {L"C:\\..\\windows\\", L"C:\\windows\\"},
        {L"C:\\windows\\system32\\..\\", L"C:\\windows\\"},
        {L"C:\\windows\\.", L"C:\\windows\\"},
        {L"\\\\server\\share\\..\\x\\", L"\\\\server\\share\\x\\"},
        {L"\\\\?\\C:\\..\\windows\\", L"\\\\?\\C:\\windows\\"},
        {L"C:\\a..b\\.x\\", L"C:\\a..b\\.x\\"},
    };
    for (const auto& [in, out] : table)
        EXPECT_EQ(RemoveDotComponents(in), out) << narrow(in);
}

TEST(DepFilePaths, SharedFoldersWithAndWithoutWow64) {
    shared_folders folders{L"C:\\windows\\system32\\", L"C:\\windows\\", false, L"C:\\windows\\sysnative\\",
                           L"C:\\windows\\syswow64\\"};
    struct row {
        const wchar_t* dir;
        bool native;
        bool wow64;
    };
    const row table[] = {
        {L"C:\\windows\\system32\\", true, true},
        {L"c:\\WINDOWS\\SYSTEM32\\", true, true},
        {L"C:\\windows\\", true, true},
        {L"C:\\windows\\system32\\..\\", true, true},
        {L"C:\\windows\\fonts\\..\\system32\\.\\", true, true},
        {L"C:\\windows\\syswow64\\", false, true},
        {L"C:\\windows\\sysnative\\", false, true},
        {L"C:\\windows\\system32\\drivers\\", false, false},
        {L"C:\\windows\\system\\", false, false},
        {L"D:\\windows\\system32\\", false, false},
        {L"\\", false, false},
    };
    for (const row& r : table) {
        folders.wow64 = false;
        EXPECT_EQ(InSharedFolder(r.dir, folders), r.native) << narrow(r.dir);
        folders.wow64 = true;
        EXPECT_EQ(InSharedFolder(r.dir, folders), r.wow64) << narrow(r.dir) << " under WOW64";
    }
}

TEST(DepFilePaths, SharedDllsViewFollowsTheImageUnderWow64) {
    struct row {
        bool wow64;
        DWORD machine;
        REGSAM access;
    };
    const row table[] = {
        {false, 34404, 131097}, {false, 512, 131097}, {false, 332, 131097}, {true, 34404, 131353},
        {true, 512, 131353},    {true, 332, 131097},  {true, 0, 131097},    {true, 452, 131097},
    };
    for (const row& r : table)
        EXPECT_EQ(SharedDllsAccess(r.wow64, r.machine), r.access) << r.wow64 << " " << r.machine;
    EXPECT_EQ(static_cast<REGSAM>(KEY_READ), 131097u);
    EXPECT_EQ(static_cast<REGSAM>(KEY_READ | KEY_WOW64_64KEY), 131353u);
}

// ---------------------------------------------------------------------------------------------------
// Destination tokens

TEST_F(DepFileTest, MapDestPathWithTheTokensOfTheCurrentTraits) {
    const std::wstring sys = qv::SystemFolder();  // ends in a backslash
    const std::wstring win = qv::WindowsFolder(); // ends in a backslash
    const std::wstring common = L"D:\\Shared Stuff\\Common Files\\";
    struct row {
        const char* what;
        const wchar_t* type;
        std::wstring commonFiles; // empty: no CommonFilesDir value
        std::wstring path;
        std::optional<std::wstring> expected;
    };
    const row table[] = {
        {"system folder, kind 0", L"0", common, sys, L"[SystemFolder]"},
        {"system folder, kind 1", L"1", common, sys, L"<WINSYSDIR>"},
        {"system folder without backslash", L"0", common, without_backslash(sys), L"[SystemFolder]"},
        {"below the system folder, any case", L"0", common, qv::test::lower(sys) + L"DRIVERS\\Etc",
         L"[SystemFolder]\\drivers\\etc"},
        {"Windows folder, kind 0", L"0", common, win + L"Fonts", L"[WindowsFolder]\\fonts"},
        {"Windows folder, kind 1", L"1", common, win + L"Fonts", L"<WINDIR>\\fonts"},
        {"Windows folder in the middle", L"0", common, L"\\\\?\\" + win + L"Temp", L"\\\\?\\[WindowsFolder]\\temp"},
        {"common files, kind 0", L"0", common, common + L"Vendor\\", L"[CommonFilesFolder]\\vendor"},
        {"common files, kind 1", L"1", common, common + L"Vendor", L"<COMMONFILES>\\vendor"},
        {"common files under the Windows folder: the Windows folder comes first", L"0", win + L"Common Files\\",
         win + L"Common Files\\Vendor", L"[WindowsFolder]\\common files\\vendor"},
        {"elsewhere", L"0", common, L"D:\\Elsewhere\\Bin", std::nullopt},
        {"elsewhere, no common-files value", L"0", L"", L"D:\\Elsewhere\\Bin", std::nullopt},
        {"empty path", L"0", common, L"", std::nullopt},
    };
    for (const row& r : table) {
        SCOPED_TRACE(r.what);
        registry_override machine(HKEY_LOCAL_MACHINE);
        if (!r.commonFiles.empty())
            set_string(kCurrentVersion, L"CommonFilesDir", r.commonFiles);
        env_scope type(L"QV_ACTIVE_PROJECT_TYPE", r.type);
        EXPECT_EQ(CDepFile::MapDestPath(r.path), r.expected);
    }
}

// ---------------------------------------------------------------------------------------------------
// Filling a record from a file

TEST_F(DepFileTest, VersionsAndTheLastTranslationsLanguage) {
    struct row {
        const wchar_t* file;
        long major;
        long minor;
        std::vector<long> languages;
    };
    const row table[] = {
        {L"version\\translations.dll", 0x00010002, 0x00030004, {0x0407}},
        {L"version\\translations_reversed.dll", 0x00010002, 0x00030004, {0x0409}},
        {L"version\\no_translation.dll", 0x00090008, 0x00070006, {}},
        {L"version\\no_version.dll", 0, 0, {}},
        {L"depfile\\olereg.exe", 0x00020000, 0x00010007, {0x0409}},
    };
    for (const row& r : table) {
        SCOPED_TRACE(narrow(r.file));
        com_ptr<record> f = load(fixture(r.file));
        EXPECT_EQ(missing(f.get()), VARIANT_FALSE);
        EXPECT_EQ(versions_of(f.get()), std::make_pair(r.major, r.minor));
        EXPECT_EQ(languages_of(f.get()), r.languages);
    }
}

// The fixed versions of some of the prefix's DLLs, as windres reads them at build time.
TEST_F(DepFileTest, SystemDllVersionsAgreeWithWindres) {
    std::ifstream list(narrow(fixture(L"version\\system_versions.txt")));
    ASSERT_TRUE(list) << "system_versions.txt is built with the fixtures";
    std::string line;
    int checked = 0;
    while (std::getline(list, line)) {
        auto eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        unsigned a = 0, b = 0, c = 0, d = 0;
        ASSERT_EQ(std::sscanf(line.c_str() + eq + 1, "%u.%u.%u.%u", &a, &b, &c, &d), 4) << line;
        std::wstring file = qv::SystemFolder() + widen(line.substr(0, eq));
        SCOPED_TRACE(line);
        com_ptr<record> f = load(file);
        EXPECT_EQ(versions_of(f.get()), std::make_pair(static_cast<long>(a << 16 | b), static_cast<long>(c << 16 | d)));
        ++checked;
    }
    EXPECT_GE(checked, 3);
}

TEST_F(DepFileTest, FoundFileOutsideKnownFolders) {
    registry_override machine(HKEY_LOCAL_MACHINE);
    temp_dir dir;
    std::wstring path = dir.copy(fixture(L"version\\translations.dll"), L"Some Lib.DLL");
    com_ptr<record> f = load(path);
    EXPECT_EQ(name_of(f.get()), L"Some Lib.DLL");
    EXPECT_EQ(path_of(f.get()), dir.path());
    EXPECT_EQ(dest_of(f.get()), dir.path()) << "no known folder: the destination is the path as it stands";
    EXPECT_EQ(missing(f.get()), VARIANT_FALSE);
    EXPECT_EQ(shared(f.get()), VARIANT_FALSE);

    WIN32_FILE_ATTRIBUTE_DATA data{};
    ASSERT_TRUE(GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ(size_of(f.get()), static_cast<long>(data.nFileSizeLow));
    EXPECT_GT(size_of(f.get()), 0);
    EXPECT_GT(time_of(f.get()), 0.0);
}

TEST_F(DepFileTest, AFolderIsFoundToo) {
    temp_dir dir;
    std::wstring folder = dir.mkdir(L"Sub Folder");
    com_ptr<record> f = load(folder);
    EXPECT_EQ(missing(f.get()), VARIANT_FALSE);
    EXPECT_EQ(name_of(f.get()), L"Sub Folder");
    EXPECT_EQ(path_of(f.get()), dir.path());
    EXPECT_EQ(size_of(f.get()), 0);
}

// A file of the system folder (or the Windows folder) is shared by where it stands: the registry,
// redirected to an empty scratch key, has nothing to say. A copy elsewhere is not shared.
TEST_F(DepFileTest, SystemFilesAreSharedWithoutTheRegistry) {
    const std::wstring sys = qv::SystemFolder();
    const std::wstring win = qv::WindowsFolder();
    temp_dir dir;
    std::wstring copy = dir.copy(sys + L"ole32.dll", L"ole32.dll");
    struct row {
        const char* what;
        const wchar_t* type;
        std::wstring path;
        VARIANT_BOOL shared;
        std::wstring dest; // empty: not checked
    };
    const row table[] = {
        {"system DLL, kind 0", L"0", sys + L"ole32.dll", VARIANT_TRUE, L"[SystemFolder]"},
        {"system DLL, kind 1", L"1", sys + L"ole32.dll", VARIANT_TRUE, L"<WINSYSDIR>"},
        {"system DLL in upper case", L"0", qv::test::lower(sys) + L"OLE32.DLL", VARIANT_TRUE, L"[SystemFolder]"},
        {"through dot components", L"0", sys + L"..\\system32\\.\\ole32.dll", VARIANT_TRUE, L""},
        {"Windows folder, kind 0", L"0", win + L"notepad.exe", VARIANT_TRUE, L"[WindowsFolder]"},
        {"Windows folder, kind 1", L"1", win + L"notepad.exe", VARIANT_TRUE, L"<WINDIR>"},
        {"below the system folder", L"0", sys + L"drivers\\mountmgr.sys", VARIANT_FALSE, L"[SystemFolder]\\drivers"},
        {"a copy elsewhere", L"0", copy, VARIANT_FALSE, dir.path()},
    };
    registry_override machine(HKEY_LOCAL_MACHINE);
    for (const row& r : table) {
        SCOPED_TRACE(r.what);
        env_scope type(L"QV_ACTIVE_PROJECT_TYPE", r.type);
        com_ptr<record> f = load(r.path);
        ASSERT_EQ(missing(f.get()), VARIANT_FALSE) << narrow(r.path);
        EXPECT_EQ(shared(f.get()), r.shared);
        if (!r.dest.empty()) {
            EXPECT_EQ(dest_of(f.get()), r.dest);
        }
    }
    com_ptr<record> f = load(sys + L"ole32.dll");
    EXPECT_EQ(name_of(f.get()), L"ole32.dll");
    EXPECT_EQ(path_of(f.get()), without_backslash(sys));
}

// Elsewhere a file is shared when any value of SharedDlls names a file of the same name.
TEST_F(DepFileTest, SharedDllsNamesFilesWhateverTheirFolder) {
    registry_override machine(HKEY_LOCAL_MACHINE);
    DWORD one = 1;
    for (const wchar_t* listed : {L"C:\\Program Files\\Vendor\\listed.dll", L"D:\\x\\MIXEDcase.DLL", L"bare.dll",
                                  L"C:\\Program Files\\Vendor\\"})
        registry_override::set_value(HKEY_LOCAL_MACHINE, kSharedDlls, listed, REG_DWORD, &one, sizeof one);

    temp_dir dir;
    const std::pair<const wchar_t*, VARIANT_BOOL> table[] = {
        {L"listed.dll", VARIANT_TRUE}, {L"LISTED.DLL", VARIANT_TRUE},    {L"mixedcase.dll", VARIANT_TRUE},
        {L"bare.dll", VARIANT_TRUE},   {L"unlisted.dll", VARIANT_FALSE}, {L"listed.dl", VARIANT_FALSE},
        {L"Vendor", VARIANT_FALSE},
    };
    for (const auto& [name, expected] : table) {
        std::wstring path = dir.copy(fixture(L"version\\translations.dll"), name);
        com_ptr<record> f = load(path);
        EXPECT_EQ(shared(f.get()), expected) << narrow(name);
        DeleteFileW(path.c_str());
    }
}

TEST_F(DepFileTest, NoSharedDllsKeyMeansNotShared) {
    registry_override machine(HKEY_LOCAL_MACHINE);
    temp_dir dir;
    com_ptr<record> f = load(dir.copy(fixture(L"version\\translations.dll"), L"listed.dll"));
    EXPECT_EQ(shared(f.get()), VARIANT_FALSE);
}

TEST_F(DepFileTest, MissingFiles) {
    registry_override machine(HKEY_LOCAL_MACHINE);
    const std::wstring sys = qv::SystemFolder();
    struct row {
        std::wstring path;
        std::wstring name;
        std::wstring dir;
        std::wstring dest;
    };
    const row table[] = {
        {L"C:\\nowhere\\missing.dll", L"missing.dll", L"C:\\nowhere", L"C:\\nowhere"},
        {L"Q:\\Missing.DLL", L"Missing.DLL", L"Q:\\", L"Q:\\"},
        {sys + L"qv-not-there.dll", L"qv-not-there.dll", without_backslash(sys), L"[SystemFolder]"},
        {L"justaname.dll", L"justaname.dll", L"", L""},
    };
    for (const row& r : table) {
        SCOPED_TRACE(narrow(r.path));
        com_ptr<record> f = new_record();
        // What a scanner set before is cleared: a missing file is not self-registering.
        f->SetAutoSelfReg(false);
        f->SetSelfRegistering(true);
        f->LoadFromFile(r.path);
        EXPECT_EQ(missing(f.get()), VARIANT_TRUE);
        EXPECT_EQ(name_of(f.get()), r.name);
        EXPECT_EQ(path_of(f.get()), r.dir);
        EXPECT_EQ(dest_of(f.get()), r.dest);
        EXPECT_EQ(size_of(f.get()), 0);
        EXPECT_EQ(time_of(f.get()), 0.0);
        EXPECT_EQ(versions_of(f.get()), std::make_pair(0L, 0L));
        EXPECT_EQ(self_registering(f.get()), VARIANT_FALSE);
        EXPECT_EQ(shared(f.get()), VARIANT_FALSE) << "even in the system folder";
        EXPECT_TRUE(languages_of(f.get()).empty());
    }
}

TEST_F(DepFileTest, WindowsFolderInTheMiddleOfThePath) {
    registry_override machine(HKEY_LOCAL_MACHINE);
    const std::wstring win = qv::WindowsFolder();
    std::wstring path = L"\\\\?\\" + win + L"notepad.exe";
    for (const auto& [type, token] : {std::pair{L"0", L"[WindowsFolder]"}, std::pair{L"1", L"<WINDIR>"}}) {
        env_scope kind(L"QV_ACTIVE_PROJECT_TYPE", type);
        com_ptr<record> f = load(path);
        EXPECT_EQ(missing(f.get()), VARIANT_FALSE);
        EXPECT_EQ(path_of(f.get()), L"\\\\?\\" + without_backslash(win));
        EXPECT_EQ(dest_of(f.get()), std::wstring(L"\\\\?\\") + token);
    }
}

// ---------------------------------------------------------------------------------------------------
// Size and time

TEST_F(DepFileTest, ModifiedTimeIsLocalTimeToTheTwoSecondGrain) {
    temp_dir dir;
    std::wstring path = dir.write(L"timed.dll", "bytes");
    struct row {
        WORD year, month, day, hour, minute, second, ms;
    };
    const row table[] = {
        {2021, 6, 15, 13, 45, 31, 700}, {2021, 6, 15, 13, 45, 30, 0}, {1999, 12, 31, 23, 59, 59, 999},
        {2010, 1, 1, 0, 0, 1, 0},       {2037, 2, 28, 7, 8, 9, 10},
    };
    for (const row& r : table) {
        SYSTEMTIME utc{r.year, r.month, 0, r.day, r.hour, r.minute, r.second, r.ms};
        FILETIME written;
        ASSERT_TRUE(SystemTimeToFileTime(&utc, &written));
        {
            HANDLE h =
                CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
            ASSERT_NE(h, INVALID_HANDLE_VALUE);
            EXPECT_TRUE(SetFileTime(h, nullptr, nullptr, &written));
            CloseHandle(h);
        }
        // The expected value, reached another way: local time, the seconds cut to an even number.
        FILETIME local;
        ASSERT_TRUE(FileTimeToLocalFileTime(&written, &local));
        SYSTEMTIME expectedTime;
        ASSERT_TRUE(FileTimeToSystemTime(&local, &expectedTime));
        expectedTime.wSecond -= expectedTime.wSecond % 2;
        expectedTime.wMilliseconds = 0;
        DATE expected = 0;
        ASSERT_TRUE(SystemTimeToVariantTime(&expectedTime, &expected));

        com_ptr<record> f = load(path);
        EXPECT_NEAR(time_of(f.get()), expected, 1e-7)
            << r.year << "-" << r.month << "-" << r.day << " " << r.hour << ":" << r.minute << ":" << r.second;
    }
}

TEST_F(DepFileTest, SizeAboveFourGiBIsTheLowHalfLessTheHighHalf) {
    temp_dir dir;
    std::wstring path = dir / L"huge.bin";
    const LONGLONG size = 5LL * 1024 * 1024 * 1024 + 100;
    {
        HANDLE h = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                               FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        DWORD returned = 0;
        // Wine may not know the control code; the host's file system makes a file with a hole anyway.
        DeviceIoControl(h, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
        LARGE_INTEGER end;
        end.QuadPart = size;
        bool made = SetFilePointerEx(h, end, nullptr, FILE_BEGIN) && SetEndOfFile(h);
        LARGE_INTEGER got{};
        made = made && GetFileSizeEx(h, &got) && got.QuadPart == size;
        CloseHandle(h);
        if (!made)
            GTEST_SKIP() << "this platform cannot make a sparse file of 5 GiB here";
    }
    com_ptr<record> f = load(path);
    EXPECT_EQ(size_of(f.get()), 1073741924L - 1);
}

// ---------------------------------------------------------------------------------------------------
// Self-registration

TEST_F(DepFileTest, SelfRegistrationTest) {
    struct row {
        const char* what;
        const wchar_t* fixture;
        const wchar_t* as; // the name of the copy the record reads
        bool autoTest;
        bool preset;
        VARIANT_BOOL expected;
        bool loaded; // the file's initialisation code ran (load probes only)
        bool autoAfter;
    };
    const row table[] = {
        {"DLL exporting DllRegisterServer", L"depfile\\probe.dll", L"probe.dll", true, false, VARIANT_TRUE, true, true},
        {"DLL without the export", L"depfile\\probe_noexport.dll", L"noexport.dll", true, true, VARIANT_FALSE, true,
         true},
        {"automatic test off: the value set before", L"depfile\\probe.dll", L"probe.dll", false, false, VARIANT_FALSE,
         false, false},
        {"automatic test off, set before", L"depfile\\probe_noexport.dll", L"noexport.dll", false, true, VARIANT_TRUE,
         false, false},
        {"OLESelfRegister counts only for an .exe", L"depfile\\olereg.dll", L"olereg.dll", true, false, VARIANT_FALSE,
         true, true},
        {"exe with OLESelfRegister, automatic test off", L"depfile\\olereg.exe", L"olereg.exe", false, false,
         VARIANT_TRUE, false, false},
        {"exe with OLESelfRegister, upper-case extension", L"depfile\\olereg.exe", L"OLEREG.EXE", true, false,
         VARIANT_TRUE, false, true},
        {"exe without OLESelfRegister: the value set before does not count", L"depfile\\plain.exe", L"plain.exe", false,
         true, VARIANT_FALSE, false, false},
        {"a DLL named .exe is never loaded", L"depfile\\probe.dll", L"probe.exe", true, true, VARIANT_FALSE, false,
         true},
        {"a file that does not load switches the test off", L"version\\not_an_image.dll", L"text.dll", true, true,
         VARIANT_FALSE, false, false},
        {"the walk fixture gamma.dll", L"walk\\lib\\gamma.dll", L"gamma.dll", true, false, VARIANT_TRUE, false, true},
    };
    for (const row& r : table) {
        SCOPED_TRACE(r.what);
        temp_dir dir;
        std::wstring path = dir.copy(fixture(r.fixture), r.as);
        env_scope probe(kLoadedVariable, nullptr);
        {
            com_ptr<record> f = new_record();
            f->SetAutoSelfReg(r.autoTest);
            f->SetSelfRegistering(r.preset);
            f->LoadFromFile(path);
            EXPECT_EQ(self_registering(f.get()), r.expected);
            EXPECT_EQ(f->AutoSelfReg(), r.autoAfter);
        }
        EXPECT_EQ(loaded_flag(), r.loaded);
        EXPECT_EQ(GetModuleHandleW(path.c_str()), nullptr) << "the test frees what it loaded";
    }
}

// ---------------------------------------------------------------------------------------------------
// The record's own fields

TEST_F(DepFileTest, DotNetFlagFollowsTheAssemblyUntilSetByHand) {
    fake_assembly assembly;
    {
        com_ptr<record> f = new_record();
        EXPECT_EQ(dot_net(f.get()), VARIANT_FALSE);
        f->SetAssembly(&assembly);
        EXPECT_EQ(dot_net(f.get()), VARIANT_TRUE);

        IDotNetAssembly* got = nullptr;
        EXPECT_EQ(f->get_Assembly(&got), S_OK);
        EXPECT_EQ(got, static_cast<IDotNetAssembly*>(&assembly));
        if (got)
            got->Release();

        EXPECT_EQ(f->PutDotNet(VARIANT_FALSE), S_OK);
        EXPECT_EQ(dot_net(f.get()), VARIANT_FALSE) << "set by hand, even with an assembly";
        EXPECT_EQ(f->PutDotNet(VARIANT_TRUE), S_OK);
        EXPECT_EQ(dot_net(f.get()), VARIANT_TRUE);
        EXPECT_GT(assembly.refs, 1);
    }
    EXPECT_EQ(assembly.refs, 1) << "the record gave back its reference";

    plain_unknown other;
    {
        com_ptr<record> f = new_record();
        f->SetAssembly(&other);
        EXPECT_EQ(dot_net(f.get()), VARIANT_FALSE) << "an object that is no assembly is not kept";
        IDotNetAssembly* got = reinterpret_cast<IDotNetAssembly*>(0x1);
        EXPECT_EQ(f->get_Assembly(&got), S_OK);
        EXPECT_EQ(got, reinterpret_cast<IDotNetAssembly*>(0x1));
    }
    EXPECT_EQ(other.refs, 1);
}

TEST_F(DepFileTest, StoringTheHeldPointerDoesNothing) {
    com_ptr<record> f = new_record();
    bstr name(L"held.dll"), path(L"C:\\held");
    ASSERT_EQ(f->PutName(name.get()), S_OK);
    ASSERT_EQ(f->PutPath(path.get()), S_OK);
    BSTR heldName = f->Name();
    BSTR heldPath = f->Path();
    ASSERT_NE(heldName, name.get()) << "the record keeps its own copy";

    EXPECT_EQ(f->PutName(heldName), S_OK);
    EXPECT_EQ(f->PutPath(heldPath), S_OK);
    EXPECT_EQ(f->Name(), heldName);
    EXPECT_EQ(f->Path(), heldPath);
    EXPECT_EQ(name_of(f.get()), L"held.dll");
    EXPECT_EQ(path_of(f.get()), L"C:\\held");

    bstr other(L"other.dll");
    EXPECT_EQ(f->PutName(other.get()), S_OK);
    EXPECT_NE(f->Name(), other.get());
    EXPECT_EQ(name_of(f.get()), L"other.dll");
}

TEST_F(DepFileTest, MergeModuleEntry) {
    com_ptr<record> f = load(fixture(L"version\\translations.dll"));
    f->SetMergeModule(L"Sample Runtime 1.0", L"SampleRuntime.1A2B3C", true);
    EXPECT_EQ(name_of(f.get()), L"Sample Runtime 1.0");
    EXPECT_EQ(path_of(f.get()), L"SampleRuntime.1A2B3C");
    EXPECT_TRUE(f->IsMergeModule());
    EXPECT_EQ(missing(f.get()), VARIANT_TRUE);
    EXPECT_EQ(flag([&](VARIANT_BOOL* v) { return f->get_IsMergeModule(v); }), VARIANT_TRUE);
    f->SetMergeModule(L"Sample Runtime 1.0", L"SampleRuntime.1A2B3C", false);
    EXPECT_EQ(missing(f.get()), VARIANT_FALSE);
}

// ---------------------------------------------------------------------------------------------------
// MakeDepFile

struct made {
    bool isMergeModule = true;
    bstr name;
    com_ptr<IDepFile> file;
};

made make(CDepFiles* files, const ScannedFile& scanned, CFilterBase* filter) {
    made m;
    MakeDepFile(files, scanned, filter, m.isMergeModule, m.name.put(), m.file.put());
    return m;
}

CDepFile* as_record(const com_ptr<IDepFile>& file) {
    return static_cast<CDepFile*>(file.get());
}

TEST_F(DepFileTest, MakeDepFileForAFileAsksTheFilterWhetherItIsListed) {
    struct row {
        bool inList;
        bool drop;
        VARIANT_BOOL filterable;
    };
    const row table[] = {{true, true, VARIANT_TRUE},
                         {true, false, VARIANT_TRUE},
                         {false, true, VARIANT_FALSE},
                         {false, false, VARIANT_FALSE}};
    temp_dir dir;
    std::wstring path = dir.copy(fixture(L"depfile\\probe.dll"), L"Probe.dll");
    for (const row& r : table) {
        SCOPED_TRACE(::testing::Message() << "in list " << r.inList << ", drop " << r.drop);
        env_scope probe(kLoadedVariable, nullptr);
        fake_filter filter(r.inList, r.drop);
        ScannedFile scanned(path, false);
        made m = make(nullptr, scanned, &filter);
        ASSERT_TRUE(m.file);
        EXPECT_FALSE(m.isMergeModule);
        EXPECT_EQ(m.name.str(), path);
        EXPECT_THAT(filter.asked, ::testing::ElementsAre(L"Probe.dll"));
        EXPECT_EQ(flag([&](VARIANT_BOOL* v) { return as_record(m.file)->get_IsFilterable(v); }), r.filterable);
        EXPECT_EQ(name_of(as_record(m.file)), L"Probe.dll");
        EXPECT_EQ(path_of(as_record(m.file)), dir.path());
        EXPECT_EQ(self_registering(as_record(m.file)), VARIANT_FALSE) << "taken from the scanner's record";
        m.file.reset();
        EXPECT_FALSE(loaded_flag()) << "MakeDepFile never loads the file";
    }
}

TEST_F(DepFileTest, MakeDepFileTakesSelfRegistrationAndAssemblyFromTheRecord) {
    env_scope probe(kLoadedVariable, nullptr);
    fake_assembly assembly;
    {
        ScannedFile scanned(fixture(L"depfile\\probe_noexport.dll"), true);
        scanned.Assembly = com_ptr<IUnknown>(&assembly);
        fake_filter filter(false, false);
        made m = make(nullptr, scanned, &filter);
        ASSERT_TRUE(m.file);
        EXPECT_EQ(self_registering(as_record(m.file)), VARIANT_TRUE);
        EXPECT_EQ(dot_net(as_record(m.file)), VARIANT_TRUE);
        com_ptr<IDepFileInfo> info = m.file.query<IDepFileInfo>(IID_IDepFileInfo);
        ASSERT_TRUE(info);
        com_ptr<IDotNetAssembly> got;
        EXPECT_EQ(info->get_Assembly(got.put()), S_OK);
        EXPECT_EQ(got.get(), static_cast<IDotNetAssembly*>(&assembly));
    }
    EXPECT_FALSE(loaded_flag());
    EXPECT_EQ(assembly.refs, 1);
}

TEST_F(DepFileTest, MakeDepFileOfAMissingFile) {
    fake_filter filter(true, false);
    ScannedFile scanned(L"C:\\nowhere\\gone.dll", true);
    made m = make(nullptr, scanned, &filter);
    ASSERT_TRUE(m.file);
    EXPECT_EQ(m.name.str(), L"C:\\nowhere\\gone.dll");
    EXPECT_EQ(missing(as_record(m.file)), VARIANT_TRUE);
    EXPECT_EQ(self_registering(as_record(m.file)), VARIANT_FALSE);
    EXPECT_EQ(flag([&](VARIANT_BOOL* v) { return as_record(m.file)->get_IsFilterable(v); }), VARIANT_TRUE);
}

TEST_F(DepFileTest, MakeDepFileMakesOneEntryPerMergeModule) {
    qv::com_object<CDepFiles>* rawFiles = nullptr;
    ASSERT_EQ(qv::com_object<CDepFiles>::CreateInstance(&rawFiles), S_OK);
    com_ptr<qv::com_object<CDepFiles>> files(rawFiles);
    fake_filter filter(true, true);

    auto module_file = [](const std::wstring& path, const wchar_t* key, bool missingModule) {
        ScannedFile s(path, false);
        s.MergeModuleSubject = L"Sample Runtime 1.0";
        s.MergeModuleKey = key;
        s.MissingMergeModule = missingModule;
        return s;
    };

    // The first file of a module makes its entry, named by the module's key.
    made first =
        make(files.get(), module_file(fixture(L"version\\translations.dll"), L"SampleRuntime.1A2B3C", false), &filter);
    ASSERT_TRUE(first.file);
    EXPECT_TRUE(first.isMergeModule);
    EXPECT_EQ(first.name.str(), L"SampleRuntime.1A2B3C");
    EXPECT_EQ(name_of(as_record(first.file)), L"Sample Runtime 1.0");
    EXPECT_EQ(path_of(as_record(first.file)), L"SampleRuntime.1A2B3C");
    EXPECT_TRUE(as_record(first.file)->IsMergeModule());
    EXPECT_EQ(missing(as_record(first.file)), VARIANT_FALSE);
    EXPECT_TRUE(filter.asked.empty()) << "a module entry is not asked of the filter";
    files->Add(first.name.get(), first.file.get());

    // Another file of the same module (the key in another case): nothing is made, the name is untouched.
    made second;
    second.isMergeModule = false;
    second.name = bstr(L"untouched");
    BSTR before = second.name.get();
    IDepFile* out = reinterpret_cast<IDepFile*>(0x1);
    MakeDepFile(files.get(), module_file(fixture(L"version\\no_version.dll"), L"SAMPLERUNTIME.1a2b3c", false), &filter,
                second.isMergeModule, &before, &out);
    EXPECT_TRUE(second.isMergeModule);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(before, second.name.get());
    EXPECT_EQ(second.name.str(), L"untouched");

    // A missing module is not looked up: a new entry under the same key.
    made third = make(files.get(), module_file(L"C:\\nowhere\\part.dll", L"SampleRuntime.1A2B3C", true), &filter);
    ASSERT_TRUE(third.file);
    EXPECT_TRUE(third.isMergeModule);
    EXPECT_EQ(third.name.str(), L"SampleRuntime.1A2B3C");
    EXPECT_EQ(missing(as_record(third.file)), VARIANT_TRUE);
    EXPECT_NE(third.file.get(), first.file.get());

    // Another module: its own entry.
    made fourth = make(files.get(), module_file(fixture(L"version\\no_version.dll"), L"Other.9F", false), &filter);
    EXPECT_TRUE(fourth.file);
    EXPECT_EQ(fourth.name.str(), L"Other.9F");
    EXPECT_TRUE(filter.asked.empty());
}

TEST_F(DepFileTest, MakeDepFileSubjectOrKeyAloneIsAPlainFile) {
    for (bool subjectOnly : {true, false}) {
        fake_filter filter(true, false);
        ScannedFile s(fixture(L"version\\translations.dll"), false);
        (subjectOnly ? s.MergeModuleSubject : s.MergeModuleKey) = L"half";
        made m = make(nullptr, s, &filter);
        ASSERT_TRUE(m.file);
        EXPECT_FALSE(m.isMergeModule);
        EXPECT_EQ(m.name.str(), fixture(L"version\\translations.dll"));
        EXPECT_FALSE(as_record(m.file)->IsMergeModule());
        EXPECT_EQ(filter.asked.size(), 1u);
    }
}

TEST_F(DepFileTest, MakeDepFileWithoutANamePointerThrows) {
    fake_filter filter(false, false);
    ScannedFile s(fixture(L"version\\translations.dll"), false);
    bool isMergeModule = true;
    com_ptr<IDepFile> file;
    try {
        MakeDepFile(nullptr, s, &filter, isMergeModule, nullptr, file.put());
        ADD_FAILURE() << "no exception";
    } catch (const com_exception& e) {
        EXPECT_EQ(e.Error(), E_POINTER);
    }
    EXPECT_FALSE(file);
    EXPECT_EQ(qv::g_module.LockCount(), 0) << "the record made before the failure is gone";
}

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    int result = RUN_ALL_TESTS();
    if (qv::g_module.LockCount() != 0) {
        std::fprintf(stderr, "objects of the library are still alive: lock count %ld\n",
                     static_cast<long>(qv::g_module.LockCount()));
        return 1;
    }
    return result;
}
