// What the process keeps of a file: a reading is handed out again while the file's size and write time are the
// ones it was read at, checked once per scan round; any change of either, a missing file or a reading the keeper
// turns down is read anew; beyond its bound the cache forgets the readings handed out longest ago.
#include "image/file_cache.h"
#include "inc/unique_handles.h"
#include "toolkit/scan_round.h"
#include "test_support.h"

#include <gtest/gtest.h>

using namespace qv::test;

namespace {

// A cache of how many times each file was read, and the reader that counts.
struct counted {
    file_cache<int> cache{64};
    int reads = 0;
    int get(const std::wstring& path, bool keep = true) {
        return *cache.get(
            path, [&](const std::wstring&) { return std::make_shared<const int>(++reads); },
            [keep](const int&) { return keep; });
    }
};

void SetWriteTime(const std::wstring& path, FILETIME time) {
    qv::unique_hfile file(CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(file);
    ASSERT_TRUE(SetFileTime(file.get(), nullptr, nullptr, &time));
}

} // namespace

TEST(FileCache, KeptWhileSizeAndWriteTimeStay) {
    const FILETIME old{0x12345678, 0x01d00000};
    struct change {
        const char* what;
        const char* bytes; // written over the file between two rounds
        bool restoreTime;  // the write time set back to the one it was read at
        bool readAgain;
    };
    for (const change& c : {change{"nothing", nullptr, false, false},
                            change{"same bytes, time set back", "1234", true, false},
                            change{"longer, time set back", "123456", true, true},
                            change{"same size, a new time", "abcd", false, true}}) {
        temp_dir tmp;
        const std::wstring file = tmp.write(L"f.dll", "1234");
        SetWriteTime(file, old);
        counted kept;
        {
            const qv::scan_round round;
            EXPECT_EQ(kept.get(file), 1) << c.what;
        }
        if (c.bytes) {
            tmp.write(L"f.dll", c.bytes);
            if (c.restoreTime)
                SetWriteTime(file, old);
            else
                SetWriteTime(file, FILETIME{0x22345678, 0x01d00000});
        }
        {
            const qv::scan_round round;
            EXPECT_EQ(kept.get(file), c.readAgain ? 2 : 1) << c.what;
        }
    }
}

TEST(FileCache, ARoundSeesTheFileAsFirstMet) {
    temp_dir tmp;
    const std::wstring file = tmp.write(L"f.dll", "1234");
    counted kept;
    {
        const qv::scan_round round;
        EXPECT_EQ(kept.get(file), 1);
        tmp.write(L"f.dll", "changed in the round");
        EXPECT_EQ(kept.get(file), 1) << "within the round the first reading stands";
    }
    {
        const qv::scan_round round;
        EXPECT_EQ(kept.get(file), 2) << "the next round sees the change";
    }
    EXPECT_EQ(kept.get(file), 2) << "outside a round: checked, unchanged";
}

TEST(FileCache, WhatHasNoIdentityOrIsTurnedDownIsReadEachTime) {
    temp_dir tmp;
    counted kept;
    const std::wstring missing = tmp / L"missing.dll", folder = tmp.mkdir(L"folder.dll");
    const std::wstring refused = tmp.write(L"refused.dll", "x");
    const qv::scan_round round;
    for (int i = 1; i <= 2; ++i) {
        EXPECT_EQ(kept.get(missing), 3 * i - 2);
        EXPECT_EQ(kept.get(folder), 3 * i - 1);
        EXPECT_EQ(kept.get(refused, false), 3 * i);
    }
}

TEST(FileCache, BeyondItsBoundTheLeastRecentlyUsedHalfGoes) {
    temp_dir tmp;
    file_cache<int> cache(4);
    int reads = 0;
    auto get = [&](const std::wstring& path) {
        return *cache.get(
            path, [&](const std::wstring&) { return std::make_shared<const int>(++reads); },
            [](const int&) { return true; });
    };
    std::vector<std::wstring> files;
    for (const wchar_t* name : {L"a.dll", L"b.dll", L"c.dll", L"d.dll", L"e.dll"})
        files.push_back(tmp.write(name, "x"));
    for (int i = 0; i < 4; ++i)
        get(files[i]);
    get(files[0]); // a was used last of the four
    get(files[4]); // the fifth: b and c, used longest ago, go
    EXPECT_EQ(reads, 5);
    for (size_t i : {0u, 3u, 4u})
        get(files[i]);
    EXPECT_EQ(reads, 5) << "a, d and e kept";
    cache.put(files[2], std::make_shared<const int>(100));
    EXPECT_EQ(get(files[2]), 100) << "a reading put by another reader is handed out as read";
    cache.put(files[1], std::make_shared<const int>(200));
    EXPECT_EQ(get(files[1]), 6) << "a full cache keeps no reading put: b is read again";
}
