#include "toolkit/round_attributes.h"

#include "toolkit/path_helpers.h"
#include "toolkit/scan_round.h"

#include <unordered_map>

namespace qv {

namespace {

struct answer {
    bool found = false;
    DWORD error = ERROR_SUCCESS;
    WIN32_FILE_ATTRIBUTE_DATA data{};
};

bool Ask(const std::wstring& path, answer& out) {
    out.found = GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &out.data) != FALSE;
    out.error = out.found ? ERROR_SUCCESS : GetLastError();
    return out.found;
}

} // namespace

bool RoundAttributes(const std::wstring& path, WIN32_FILE_ATTRIBUTE_DATA& data) {
    thread_local struct {
        unsigned long round = 0;
        std::unordered_map<std::wstring, answer> answers; // by the path in lower case
    } kept;
    const unsigned long round = CurrentScanRound();
    answer fresh;
    if (round == 0) {
        const bool found = Ask(path, fresh);
        data = fresh.data;
        return found;
    }
    if (kept.round != round) {
        kept.answers.clear();
        kept.round = round;
    }
    // A relative path is kept by the full path it names now: the current folder may change within a round.
    const bool qualified = (path.size() >= 3 && path[1] == L':' && IsPathSeparator(path[2])) ||
                           (path.size() >= 2 && IsPathSeparator(path[0]) && IsPathSeparator(path[1]));
    auto [it, added] = kept.answers.try_emplace(LowerCase(qualified ? path : FullPath(path)));
    if (added)
        Ask(path, it->second);
    data = it->second.data;
    if (!it->second.found)
        SetLastError(it->second.error);
    return it->second.found;
}

DWORD RoundFileAttributes(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    return RoundAttributes(path, data) ? data.dwFileAttributes : INVALID_FILE_ATTRIBUTES;
}

} // namespace qv
