// The entries of a folder as the process last listed it. A listing is trusted while the folder's last-write
// time is the one it had when listed (the file system updates it when an entry is added, removed or renamed),
// checked once per scan round (toolkit/scan_round.h): within a round a folder already checked costs no system
// call, and one that is not there is not there for the rest of the round. A folder written to in the last two
// seconds is listed again at each round (a coarse clock could hide a second change); outside a round each call
// checks the folder's time.
// Why this is safe: adding, removing or renaming an entry sets the folder's write time (on NTFS and on the Unix
// file systems Wine runs on), so an unchanged time means unchanged entries; a listing too young to judge by a
// clock of coarse grain is not trusted; and within a round the scan round's rule holds (toolkit/scan_round.h).
// Only which names a folder holds is kept: what a file holds is read, and kept, by its own size and time.
// Users: the import search (the folders of Path), the .dep look-up of the walker and the assembly location
// ladder. A folder is kept by its full path, so a relative one is the current folder's as it is at the call.
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qv {

struct folder_entry {
    std::wstring name; // as the file system spells it
    bool folder = false;
};

// A folder's entries, in the file system's order, and found by name without regard to case.
class folder_listing {
public:
    explicit folder_listing(std::vector<folder_entry> entries);
    std::vector<folder_entry>::const_iterator begin() const { return m_entries.begin(); }
    std::vector<folder_entry>::const_iterator end() const { return m_entries.end(); }
    size_t size() const { return m_entries.size(); }
    // The entry of that name, compared as the system lowers names; null when the folder holds none. Where two
    // entries differ only in case (a Unix folder may hold both), the first listed answers.
    const folder_entry* find(const std::wstring& name) const;

private:
    std::vector<folder_entry> m_entries;
    std::unordered_map<std::wstring, size_t> m_byName; // the lowered name: its first entry
};

// The folder's entries without "." and "..", in the file system's order; null when it cannot be listed (no
// such folder, no access, a pattern or wildcard in the path).
std::shared_ptr<const folder_listing> ListFolder(const std::wstring& folder);

// Whether a listing answers for a name the way opening the folder's entry of that name would: a plain name,
// with nothing the system reads in a path another way (a separator, a stream, a wildcard, a short name's
// tilde, a trailing dot or space, which the system drops).
bool ListingAnswersFor(std::wstring_view name);

} // namespace qv
