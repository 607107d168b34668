// The two version-resource readers over fixtures built with windres, and over Wine's own DLLs
// cross-checked with what binutils reads from the same files at build time.
#include "test_support.h"
#include "toolkit/probes.h"
#include "toolkit/version_info.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

using qv::test::fixture;
using qv::test::narrow;

namespace {

// The same questions to either reader.
struct global_reader {
    ::version_info info;
    explicit global_reader(const std::wstring& file) : info(file) {}
    const wchar_t* Get(const char* name) const { return info.GetString(name); }
    std::vector<DWORD> Translations() const { return info.m_translations; }
    const VS_FIXEDFILEINFO& Fixed() const { return info; }
};

struct toolkit_reader {
    qv::version_info info;
    bool loaded;
    explicit toolkit_reader(const std::wstring& file) : loaded(info.Load(file)) {}
    const wchar_t* Get(const char* name) const { return info.GetString(name); }
    std::vector<DWORD> Translations() const {
        return std::vector<DWORD>(info.m_pTranslations, info.m_pTranslations + info.m_nTranslations);
    }
    const VS_FIXEDFILEINFO& Fixed() const { return info; }
};

template <typename Reader> class VersionReaderTest : public ::testing::Test {};
using Readers = ::testing::Types<global_reader, toolkit_reader>;
TYPED_TEST_SUITE(VersionReaderTest, Readers);

std::wstring Fixture(const wchar_t* name) {
    return fixture(std::wstring(L"version\\") + name);
}

std::wstring Text(const wchar_t* value) {
    return value ? std::wstring(value) : std::wstring(L"(null)");
}

TYPED_TEST(VersionReaderTest, ReadsTheFixedRecordAndTranslations) {
    for (const wchar_t* name : {L"translations.dll", L"translations32.dll"}) {
        TypeParam reader(Fixture(name));
        const VS_FIXEDFILEINFO& fixed = reader.Fixed();
        EXPECT_EQ(fixed.dwSignature, 0xFEEF04BDu) << narrow(name);
        EXPECT_EQ(fixed.dwFileVersionMS, 0x00010002u) << narrow(name);
        EXPECT_EQ(fixed.dwFileVersionLS, 0x00030004u) << narrow(name);
        EXPECT_EQ(fixed.dwProductVersionMS, 0x00050006u) << narrow(name);
        EXPECT_EQ(fixed.dwProductVersionLS, 0x00070008u) << narrow(name);
        EXPECT_EQ(fixed.dwFileOS, 0x40004u) << narrow(name);
        EXPECT_EQ(fixed.dwFileType, 2u) << narrow(name);
        EXPECT_EQ(reader.Translations(), (std::vector<DWORD>{0x04B00409, 0x04E40407})) << narrow(name);
    }
    TypeParam reversed(Fixture(L"translations_reversed.dll"));
    EXPECT_EQ(reversed.Translations(), (std::vector<DWORD>{0x04E40407, 0x04B00409}));
}

TEST(GlobalVersionInfo, KeepsItsOwnCopyOfTheFileVersion) {
    ::version_info info(Fixture(L"translations.dll"));
    EXPECT_EQ(info.m_nFileVersionMS, 0x00010002u);
    EXPECT_EQ(info.m_nFileVersionLS, 0x00030004u);
    ::version_info none(Fixture(L"no_version.dll"));
    EXPECT_EQ(none.m_nFileVersionMS, 0u);
    EXPECT_EQ(none.m_nFileVersionLS, 0u);
}

// Each language of the list is paired with the code page of the FIRST entry, in list order.
struct lookup_case {
    const wchar_t* file;
    const char* name;
    const wchar_t* expected; // nullptr: not found
};

const lookup_case kLookups[] = {
    // Translations 0409/04B0, 0407/04E4: 040904B0 then 040704B0 are tried.
    {L"translations.dll", "FileDescription", L"Version fixture (040904B0)"},
    {L"translations.dll", "Shared", L"from 040904B0"}, // the earlier translation wins
    {L"translations.dll", "GermanUnicodeOnly", L"only under 040704B0"},
    {L"translations.dll", "GermanAnsiOnly", nullptr}, // 040704E4 is never tried
    {L"translations.dll", "UsAnsiOnly", nullptr},
    {L"translations.dll", "NoSuchValue", nullptr},
    {L"translations.dll", "fileDESCRIPTION", L"Version fixture (040904B0)"}, // keys ignore case
    {L"translations.dll", "\\StringFileInfo\\040704E4\\GermanAnsiOnly", L"only under 040704E4"},
    {L"translations.dll", "\\StringFileInfo\\040904E4\\Shared", L"from 040904E4"},
    {L"translations.dll", "\\StringFileInfo\\041104B0\\Shared", nullptr},
    {L"translations32.dll", "GermanUnicodeOnly", L"only under 040704B0"},
    {L"translations32.dll", "GermanAnsiOnly", nullptr},
    // Translations 0407/04E4, 0409/04B0: 040704E4 then 040904E4 are tried.
    {L"translations_reversed.dll", "Shared", L"from 040704E4"},
    {L"translations_reversed.dll", "GermanAnsiOnly", L"only under 040704E4"},
    {L"translations_reversed.dll", "UsAnsiOnly", L"only under 040904E4"},
    {L"translations_reversed.dll", "GermanUnicodeOnly", nullptr},
    {L"translations_reversed.dll", "FileDescription", nullptr}, // only under 040904B0
    // No translation list: only a full path finds anything.
    {L"no_translation.dll", "FileDescription", nullptr},
    {L"no_translation.dll", "\\StringFileInfo\\040904B0\\FileDescription", L"no translation list"},
    // No resource at all, a file that is no image, a file that is not there.
    {L"no_version.dll", "FileDescription", nullptr},
    {L"no_version.dll", "\\StringFileInfo\\040904B0\\FileDescription", nullptr},
    {L"not_an_image.dll", "FileDescription", nullptr},
    {L"absent.dll", "FileDescription", nullptr},
};

TYPED_TEST(VersionReaderTest, LooksUpStringsByTheTranslationPairingRule) {
    for (const auto& c : kLookups) {
        TypeParam reader(Fixture(c.file));
        EXPECT_EQ(Text(reader.Get(c.name)), Text(c.expected)) << narrow(c.file) << " " << c.name;
    }
}

TYPED_TEST(VersionReaderTest, EmptyValueIsFoundNotNull) {
    TypeParam reader(Fixture(L"translations.dll"));
    const wchar_t* value = reader.Get("OLESelfRegister");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, L"");
}

TYPED_TEST(VersionReaderTest, NoResourceGivesAnEmptyReader) {
    for (const wchar_t* name : {L"no_version.dll", L"not_an_image.dll", L"absent.dll"}) {
        TypeParam reader(Fixture(name));
        EXPECT_TRUE(reader.Translations().empty()) << narrow(name);
        EXPECT_EQ(reader.Fixed().dwSignature, 0u) << narrow(name);
        EXPECT_EQ(reader.Fixed().dwFileVersionMS, 0u) << narrow(name);
        EXPECT_EQ(reader.Get("FileVersion"), nullptr) << narrow(name);
    }
    TypeParam bare(Fixture(L"no_translation.dll"));
    EXPECT_TRUE(bare.Translations().empty());
    EXPECT_EQ(bare.Fixed().dwFileVersionMS, 0x00090008u);
    EXPECT_EQ(bare.Fixed().dwFileVersionLS, 0x00070006u);
}

TEST(ToolkitVersionInfo, LoadTellsWhetherThereIsAResource) {
    struct row {
        const wchar_t* file;
        bool loaded;
    };
    const row rows[] = {{L"translations.dll", true}, {L"translations32.dll", true}, {L"no_translation.dll", true},
                        {L"no_version.dll", false},  {L"not_an_image.dll", false},  {L"absent.dll", false}};
    for (const auto& r : rows) {
        qv::version_info info;
        EXPECT_EQ(info.Load(Fixture(r.file)), r.loaded) << narrow(r.file);
    }
}

TEST(ToolkitVersionInfo, LoadingAgainReplacesAndCopiesKeepTheOld) {
    qv::version_info info;
    ASSERT_TRUE(info.Load(Fixture(L"translations.dll")));
    qv::version_info kept = info;
    EXPECT_FALSE(info.Load(Fixture(L"no_version.dll")));
    EXPECT_EQ(info.GetString("FileDescription"), nullptr);
    EXPECT_EQ(info.m_nTranslations, 0u);
    EXPECT_EQ(info.dwFileVersionMS, 0u);
    EXPECT_EQ(Text(kept.GetString("FileDescription")), L"Version fixture (040904B0)");
    EXPECT_EQ(kept.m_nTranslations, 2u);

    ASSERT_TRUE(info.Load(Fixture(L"translations_reversed.dll")));
    EXPECT_EQ(Text(info.GetString("Shared")), L"from 040704E4");
    EXPECT_EQ(Text(kept.GetString("Shared")), L"from 040904B0");
}

// ---- Copies share one block ----

template <typename Reader> class VersionCopyTest : public ::testing::Test {};
using Infos = ::testing::Types<::version_info, qv::version_info>;
TYPED_TEST_SUITE(VersionCopyTest, Infos);

template <typename Info> Info Make(const wchar_t* name) {
    if constexpr (std::is_same_v<Info, qv::version_info>) {
        qv::version_info info;
        info.Load(Fixture(name));
        return info;
    } else {
        return ::version_info(Fixture(name));
    }
}

TYPED_TEST(VersionCopyTest, CopiesShareTheBlockAndOutliveTheOriginal) {
    auto original = std::make_unique<TypeParam>(Make<TypeParam>(L"translations.dll"));
    const wchar_t* text = original->GetString("GermanUnicodeOnly");
    ASSERT_NE(text, nullptr);

    TypeParam copy(*original);
    EXPECT_EQ(copy.GetString("GermanUnicodeOnly"), text); // the very same block
    EXPECT_EQ(copy.dwFileVersionLS, original->dwFileVersionLS);

    TypeParam assigned = Make<TypeParam>(L"no_version.dll");
    EXPECT_EQ(assigned.GetString("GermanUnicodeOnly"), nullptr);
    assigned = *original;
    EXPECT_EQ(assigned.GetString("GermanUnicodeOnly"), text);

    original.reset();
    EXPECT_STREQ(copy.GetString("GermanUnicodeOnly"), L"only under 040704B0");
    EXPECT_STREQ(assigned.GetString("GermanUnicodeOnly"), L"only under 040704B0");

    auto& self = assigned;
    assigned = self;
    EXPECT_STREQ(assigned.GetString("GermanUnicodeOnly"), L"only under 040704B0");

    assigned = Make<TypeParam>(L"no_version.dll"); // gives up its share; copy still holds one
    EXPECT_EQ(assigned.GetString("GermanUnicodeOnly"), nullptr);
    EXPECT_EQ(assigned.dwFileVersionMS, 0u);
    EXPECT_STREQ(copy.GetString("GermanUnicodeOnly"), L"only under 040704B0");
}

TYPED_TEST(VersionCopyTest, CopiesMayTravelBetweenThreads) {
    const TypeParam shared = Make<TypeParam>(L"translations.dll");
    const TypeParam empty = Make<TypeParam>(L"no_version.dll");
    const wchar_t* text = shared.GetString("Shared");
    ASSERT_NE(text, nullptr);
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (size_t t = 0; t < mismatches.size(); ++t) {
        threads.emplace_back([&, t] {
            TypeParam other = empty;
            for (int i = 0; i < 20000; ++i) {
                TypeParam copy(shared);
                other = copy;
                if (other.GetString("Shared") != text)
                    ++mismatches[t];
                other = empty;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (int m : mismatches)
        EXPECT_EQ(m, 0);
    EXPECT_STREQ(shared.GetString("Shared"), L"from 040904B0");
}

// ---- Toolkit functions ----

TEST(VersionText, PrintsTheFixedFileVersionWithTheSeparator) {
    struct row {
        const wchar_t* file;
        const wchar_t* separator;
        const wchar_t* expected;
    };
    const row rows[] = {
        {L"translations.dll", L".", L"1.2.3.4"},   {L"translations.dll", L", ", L"1, 2, 3, 4"},
        {L"translations.dll", L"", L"1234"},       {L"translations32.dll", L".", L"1.2.3.4"},
        {L"no_translation.dll", L".", L"9.8.7.6"}, {L"no_version.dll", L".", L""},
        {L"not_an_image.dll", L".", L""},          {L"absent.dll", L".", L""},
    };
    for (const auto& r : rows)
        EXPECT_EQ(qv::GetFileVersionText(Fixture(r.file), r.separator), r.expected) << narrow(r.file);
}

TEST(InternalVersion, ReadsTheValueThroughTheTranslations) {
    EXPECT_EQ(qv::GetInternalVersion(Fixture(L"translations.dll")), L"1.2.3.4-build.77");
    EXPECT_EQ(qv::GetInternalVersion(Fixture(L"translations_reversed.dll")), L""); // under 040904B0 only
    EXPECT_EQ(qv::GetInternalVersion(Fixture(L"no_translation.dll")), L"");
    EXPECT_EQ(qv::GetInternalVersion(Fixture(L"no_version.dll")), L"");
    EXPECT_EQ(qv::GetInternalVersion(Fixture(L"absent.dll")), L"");
}

TEST(SelfRegistration, AnnouncedByAReachableOleSelfRegisterValue) {
    EXPECT_TRUE(qv::IsOleSelfRegister(Fixture(L"translations.dll"))); // empty value, still there
    EXPECT_TRUE(qv::IsOleSelfRegister(Fixture(L"translations32.dll")));
    EXPECT_FALSE(qv::IsOleSelfRegister(Fixture(L"translations_reversed.dll"))); // its block is not tried
    EXPECT_FALSE(qv::IsOleSelfRegister(Fixture(L"no_translation.dll")));        // no list: bare name unreachable
    EXPECT_FALSE(qv::IsOleSelfRegister(Fixture(L"no_version.dll")));
    EXPECT_FALSE(qv::IsOleSelfRegister(Fixture(L"absent.dll")));
}

// ---- Wine's own DLLs ----

TEST(SystemDlls, FixedVersionMatchesWhatBinutilsReads) {
    // name=a.b.c.d lines, written at build time from windres's reading of the same DLLs.
    const std::string lines = qv::test::read_file(Fixture(L"system_versions.txt"));
    ASSERT_FALSE(lines.empty()) << "system_versions.txt is missing";
    int checked = 0;
    size_t start = 0;
    for (size_t end; (end = lines.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string line = lines.substr(start, end - start);
        const size_t eq = line.find('=');
        ASSERT_NE(eq, std::string::npos) << line;
        const std::wstring name = qv::test::widen(line.substr(0, eq));
        const std::wstring expected = qv::test::widen(line.substr(eq + 1));
        const std::wstring path = qv::SystemFolder() + name;

        EXPECT_EQ(qv::GetFileVersionText(path, L"."), expected) << narrow(path);

        ::version_info info(path);
        const std::wstring fromRecord = std::to_wstring(HIWORD(info.m_nFileVersionMS)) + L"." +
                                        std::to_wstring(LOWORD(info.m_nFileVersionMS)) + L"." +
                                        std::to_wstring(HIWORD(info.m_nFileVersionLS)) + L"." +
                                        std::to_wstring(LOWORD(info.m_nFileVersionLS));
        EXPECT_EQ(fromRecord, expected) << narrow(path);
        EXPECT_FALSE(info.m_translations.empty()) << narrow(path);
        const wchar_t* original = info.GetString("OriginalFilename");
        ASSERT_NE(original, nullptr) << narrow(path);
        EXPECT_EQ(qv::test::lower(original), qv::test::lower(name)) << narrow(path);
        ++checked;
    }
    EXPECT_GE(checked, 3);
}

} // namespace
