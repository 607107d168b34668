// The entries of a folder as the process last listed it. A listing is trusted while the folder's last-write
// time is the one it had when listed (the file system updates it when an entry is added, removed or renamed),
// checked once per scan round (toolkit/scan_round.h): within a round a folder already checked costs no system
// call. A folder written to in the last two seconds is listed again at each round (a coarse clock could hide
// a second change); outside a round each call checks the folder's time.
// Why this is safe: adding, removing or renaming an entry sets the folder's write time (on NTFS and on the Unix
// file systems Wine runs on), so an unchanged time means unchanged entries; a listing too young to judge by a
// clock of coarse grain is not trusted; and within a round the scan round's rule holds (toolkit/scan_round.h).
// Only which names a folder holds is kept: what a file holds is read, and kept, by its own size and time.
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
