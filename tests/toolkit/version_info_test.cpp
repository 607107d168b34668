// The version resources: both readers over the version fixtures (fixed record, translations, strings, copies),
// and the version text and self-registration flag of fixtures and of Wine's own DLLs.
#include "test_support.h"
#include "toolkit/probes.h"
#include "toolkit/version_info.h"

#include <gtest/gtest.h>

#include <memory>

using namespace qv::test;
using std::wstring;

namespace {

wstring Version(const wchar_t* name) { return fixture(wstring(L"version\\") + name); }
wstring Text(const wchar_t* value) { return value ? value : L"(null)"; }

// Either reader of a fixture, and whether it found a resource (Load's answer, or a fixed record).
template <class Info> std::pair<Info, bool> Read(const wchar_t* name) {
    if constexpr (std::is_same_v<Info, ::version_info>) {
        Info info(Version(name));
        return {info, info.dwSignature == VS_FFI_SIGNATURE};
    } else {
        Info info;
        const bool loaded = info.Load(Version(name));
        return {info, loaded};
    }
}
std::vector<DWORD> Translations(const ::version_info& info) { return info.m_translations; }
std::vector<DWORD> Translations(const qv::version_info& i) { return {i.m_pTranslations, i.m_pTranslations + i.m_nTranslations}; }

template <class Info> class VersionInfo : public ::testing::Test {};
using Infos = ::testing::Types<::version_info, qv::version_info>;
TYPED_TEST_SUITE(VersionInfo, Infos);

TYPED_TEST(VersionInfo, FixedRecordTranslationsAndStrings) {
    const std::vector<DWORD> us{0x04B00409, 0x04E40407}, german{0x04E40407, 0x04B00409};
    const struct { const wchar_t* file; DWORD ms, ls; std::vector<DWORD> translations; } files[] = {
        {L"translations.dll", 0x10002, 0x30004, us}, {L"translations32.dll", 0x10002, 0x30004, us},
        {L"translations_reversed.dll", 0x10002, 0x30004, german}, {L"no_translation.dll", 0x90008, 0x70006, {}},
        {L"no_version.dll", 0, 0, {}}, {L"not_an_image.dll", 0, 0, {}}};
    for (const auto& f : files) {
        const auto [info, loaded] = Read<TypeParam>(f.file);
        EXPECT_EQ(std::tuple(loaded, info.dwFileVersionMS, info.dwFileVersionLS, Translations(info)),
                  std::tuple(f.ms != 0, f.ms, f.ls, f.translations)) << narrow(f.file);
    }
    // Each language of the list is paired with the code page of the FIRST entry, in list order.
    const wchar_t *us1 = L"translations.dll", *de1 = L"translations_reversed.dll", *bare = L"no_translation.dll";
    const struct { const wchar_t* file; const char* name; const wchar_t* expected; } lookups[] = {
        {us1, "fileDESCRIPTION", L"Version fixture (040904B0)"}, {us1, "Shared", L"from 040904B0"},
        {us1, "GermanUnicodeOnly", L"only under 040704B0"}, {us1, "GermanAnsiOnly", nullptr},
        {us1, "OLESelfRegister", L""}, {us1, "\\StringFileInfo\\040704E4\\GermanAnsiOnly", L"only under 040704E4"},
        {de1, "UsAnsiOnly", L"only under 040904E4"}, {de1, "FileDescription", nullptr},
        {bare, "FileDescription", nullptr}, {bare, "\\StringFileInfo\\040904B0\\FileDescription", L"no translation list"},
        {L"no_version.dll", "FileDescription", nullptr}};
    for (const auto& c : lookups)
        EXPECT_EQ(Text(Read<TypeParam>(c.file).first.GetString(c.name)), Text(c.expected)) << narrow(c.file) << c.name;
}

TYPED_TEST(VersionInfo, CopiesShareTheBlockAndOutliveTheOriginal) {
    auto original = std::make_unique<TypeParam>(Read<TypeParam>(L"translations.dll").first);
    TypeParam copy(*original), assigned = Read<TypeParam>(L"no_version.dll").first;
    assigned = *original;
    EXPECT_EQ(assigned.GetString("Shared"), original->GetString("Shared")); // the very same block
    original.reset();
    // Fresh blocks of the same size, scribbled over, take the place of a block freed too early.
    DWORD handle = 0, size = GetFileVersionInfoSizeW(Version(L"translations.dll").c_str(), &handle);
    std::vector<std::unique_ptr<BYTE[]>> scribbles;
    for (int i = 0; i < 16; ++i)
        FillMemory(scribbles.emplace_back(new BYTE[size]).get(), size, 0x5A);
    EXPECT_EQ(Text(copy.GetString("GermanUnicodeOnly")), L"only under 040704B0");
    EXPECT_EQ(Text(assigned.GetString("GermanUnicodeOnly")), L"only under 040704B0");
}


TEST(VersionText, FixturesSelfRegistrationAndWineDlls) {
    EXPECT_EQ(qv::GetFileVersionText(Version(L"translations.dll"), L", "), L"1, 2, 3, 4");
    EXPECT_TRUE(qv::IsOleSelfRegister(Version(L"translations.dll")));           // an empty value, but there
    EXPECT_FALSE(qv::IsOleSelfRegister(Version(L"translations_reversed.dll"))); // its block is not tried
    const auto lines = split_lines(widen(read_file(Version(L"system_versions.txt")))); // windres's "name=a.b.c.d"
    EXPECT_EQ(lines.size(), 5u);
    for (const wstring& line : lines) {
        const wstring name = line.substr(0, line.find(L'=')), path = qv::SystemFolder() + name;
        EXPECT_EQ(qv::GetFileVersionText(path, L"."), line.substr(name.size() + 1));
        EXPECT_EQ(lower(Text(::version_info(path).GetString("OriginalFilename"))), lower(name));
    }
}

} // namespace
