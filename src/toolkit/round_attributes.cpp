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

void Ask(const std::wstring& path, answer& out) {
    out.found = GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &out.data) != FALSE;
    out.error = out.found ? ERROR_SUCCESS : GetLastError();
}

} // namespace

bool RoundAttributes(const std::wstring& path, WIN32_FILE_ATTRIBUTE_DATA& data) {
    thread_local struct {
        unsigned long round = 0;
        std::unordered_map<std::wstring, answer> answers; // by the path in lower case
    } kept;
    const unsigned long round = CurrentScanRound();
    if (round == 0)
        return GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) != FALSE;
    if (kept.round != round) {
        kept.answers.clear();
        kept.round = round;
    }
    // A relative path is kept by the full path it names now: the current folder may change within a round.
    auto [it, added] = kept.answers.try_emplace(LowerCase(IsFullyQualified(path) ? path : FullPath(path)));
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
