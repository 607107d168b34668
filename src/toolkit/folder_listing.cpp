#include "toolkit/folder_listing.h"

#include "inc/unique_handles.h"
#include "toolkit/path_helpers.h"
#include "toolkit/scan_round.h"

#include <unordered_map>

namespace qv {

namespace {

using listing = std::shared_ptr<const std::vector<folder_entry>>;

struct kept_listing {
    FILETIME written{};
    bool settled = false;    // written long enough ago to be trusted in a later round
    unsigned long round = 0; // the round in which it was last checked
    listing entries;
};

constexpr ULONGLONG SettleTicks = 2ULL * 10000000; // two seconds in FILETIME ticks

ULONGLONG ticks(const FILETIME& t) {
    return (static_cast<ULONGLONG>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
}

listing ReadFolder(const std::wstring& folder) {
    WIN32_FIND_DATAW data;
    unique_hfind find(FindFirstFileExW(JoinPath(folder, L"*").c_str(), FindExInfoBasic, &data, FindExSearchNameMatch,
                                       nullptr, FIND_FIRST_EX_LARGE_FETCH));
    if (!find)
        return nullptr;
    auto entries = std::make_shared<std::vector<folder_entry>>();
    do {
        const std::wstring_view name = data.cFileName;
        if (name == L"." || name == L"..")
            continue;
        entries->push_back({data.cFileName, (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0});
    } while (FindNextFileW(find.get(), &data));
    return entries;
}

} // namespace

listing ListFolder(const std::wstring& folder) {
    if (folder.empty() || folder.find_first_of(L"*?") != std::wstring::npos)
        return nullptr;
    static SRWLOCK lock = SRWLOCK_INIT;
    static std::unordered_map<std::wstring, kept_listing> kept; // an entry a folder listed in the process
    const std::wstring key = LowerCase(folder);
    const unsigned long round = CurrentScanRound();
    if (round != 0) {
        AcquireSRWLockShared(&lock);
        const auto it = kept.find(key);
        listing held = it != kept.end() && it->second.round == round ? it->second.entries : nullptr;
        ReleaseSRWLockShared(&lock);
        if (held)
            return held;
    }
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(folder.c_str(), GetFileExInfoStandard, &data) ||
        !(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
        return ReadFolder(folder); // a folder that cannot be timed is read as it is now
    AcquireSRWLockExclusive(&lock);
    if (const auto it = kept.find(key); it != kept.end() && it->second.settled &&
                                        CompareFileTime(&it->second.written, &data.ftLastWriteTime) == 0) {
        it->second.round = round;
        listing held = it->second.entries;
        ReleaseSRWLockExclusive(&lock);
        return held;
    }
    ReleaseSRWLockExclusive(&lock);
    listing entries = ReadFolder(folder);
    if (!entries)
        return nullptr;
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const bool settled = ticks(now) > ticks(data.ftLastWriteTime) + SettleTicks;
    AcquireSRWLockExclusive(&lock);
    kept[key] = {data.ftLastWriteTime, settled, round, entries};
    ReleaseSRWLockExclusive(&lock);
    return entries;
}

} // namespace qv
