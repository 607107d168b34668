// The version resource an image's facts read out of the file against what GetFileVersionInfoW reads of it, over
// every image of the prefix's system folder: where the facts say which resource the system reads, it is the
// system's, value for value; where they say there is none, the system finds none.
#include "image/pe_images.h"
#include "test_support.h"
#include "toolkit/path_helpers.h"
#include "toolkit/version_info.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace qv::test;

namespace {

TEST(VersionResource, TheFactsReadWhatTheSystemReads) {
    wchar_t system[MAX_PATH];
    const std::wstring folder(system, GetSystemDirectoryW(system, MAX_PATH));
    WIN32_FIND_DATAW data;
    qv::unique_hfind find(FindFirstFileW(qv::JoinPath(folder, L"*.dll").c_str(), &data));
    ASSERT_TRUE(find);
    int one = 0, none = 0, ask = 0;
    do {
        const std::wstring path = qv::JoinPath(folder, data.cFileName);
        const auto facts = ImageFacts(path);
        using kind = qv::pe::version_resource::kind;
        if (!facts->usable)
            continue;
        if (facts->version == kind::ask) {
            ++ask;
            continue;
        }
        qv::version_info system(path), read;
        if (facts->version == kind::none) {
            ++none;
            EXPECT_FALSE(system.Load(path)) << narrow(path);
            continue;
        }
        ++one;
        ASSERT_TRUE(read.LoadResource(facts->versionResource.data(), facts->versionResource.size())) << narrow(path);
        EXPECT_EQ(std::memcmp(static_cast<VS_FIXEDFILEINFO*>(&system), static_cast<VS_FIXEDFILEINFO*>(&read),
                              sizeof(VS_FIXEDFILEINFO)), 0) << narrow(path);
        EXPECT_EQ(system.m_translations, read.m_translations) << narrow(path);
        for (const char* name : {"FileVersion", "CompanyName", "ProductName", "OriginalFilename", "OLESelfRegister"}) {
            const wchar_t *a = system.GetString(name), *b = read.GetString(name);
            EXPECT_EQ(a ? std::wstring(a) : L"(none)", b ? std::wstring(b) : L"(none)") << narrow(path) << " " << name;
        }
    } while (FindNextFileW(find.get(), &data));
    // Both answers met often: Wine's own DLLs carry a version resource or none.
    EXPECT_GT(one, 100) << none << " with none, " << ask << " left to the system";
    EXPECT_GT(none, 100) << one << " with one, " << ask << " left to the system";
}

} // namespace
