// The entries of a folder as the process last listed it. A listing is trusted while the folder's last-write
// time is the one it had when listed (the file system updates it when an entry is added, removed or renamed),
// checked once per scan round (toolkit/scan_round.h): within a round a folder already checked costs no system
// call. A folder written to in the last two seconds is listed again at each round (a coarse clock could hide
// a second change); outside a round each call checks the folder's time.
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

namespace qv {

struct folder_entry {
    std::wstring name; // as the file system spells it
    bool folder = false;
};

// The folder's entries without "." and "..", in the file system's order; null when it cannot be listed (no
// such folder, no access, a pattern or wildcard in the path).
std::shared_ptr<const std::vector<folder_entry>> ListFolder(const std::wstring& folder);

} // namespace qv
