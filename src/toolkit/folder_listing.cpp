#include "toolkit/folder_listing.h"

#include "inc/unique_handles.h"
#include "toolkit/path_helpers.h"
#include "toolkit/round_attributes.h"
#include "toolkit/scan_round.h"

#include <unordered_map>

namespace qv {

namespace {

using listing = std::shared_ptr<const folder_listing>;

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
    std::vector<folder_entry> entries;
    do {
        const std::wstring_view name = data.cFileName;
        if (name == L"." || name == L"..")
            continue;
        entries.push_back({data.cFileName, (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0});
    } while (FindNextFileW(find.get(), &data));
    return std::make_shared<const folder_listing>(std::move(entries));
}

} // namespace

folder_listing::folder_listing(std::vector<folder_entry> entries) : m_entries(std::move(entries)) {
    m_byName.reserve(m_entries.size());
    for (size_t i = 0; i < m_entries.size(); ++i)
        m_byName.try_emplace(LowerCase(m_entries[i].name), i);
}

const folder_entry* folder_listing::find(const std::wstring& name) const {
    const auto it = m_byName.find(LowerCase(name));
    return it == m_byName.end() ? nullptr : &m_entries[it->second];
}

bool ListingAnswersFor(std::wstring_view name) {
    return !name.empty() && name.find_first_of(L"\\/:*?\"<>|~") == std::wstring_view::npos && name.back() != L'.' &&
           name.back() != L' ';
}

listing ListFolder(const std::wstring& folder) {
    if (folder.empty() || folder.find_first_of(L"*?") != std::wstring::npos)
        return nullptr;
    static SRWLOCK lock = SRWLOCK_INIT;
    static std::unordered_map<std::wstring, kept_listing> kept; // an entry a folder listed in the process
    const std::wstring key = LowerCase(FullPath(folder)); // a relative folder stands on the current one
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
    if (!RoundAttributes(folder, data)) {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)
            return nullptr; // no such folder: nothing to list (a Path often names some)
        return ReadFolder(folder); // a folder that cannot be timed is read as it is now
    }
    if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
        return nullptr;
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
