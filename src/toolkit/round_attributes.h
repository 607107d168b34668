// What the file system says of a path (GetFileAttributesExW: attributes, size, times), asked once per scan round
// on this thread: later looks at the same path in the round take the first answer, a missing path included.
// Outside a round every look asks. The import search, the image, table and record caches and the folder listings
// all look at the same few libraries and folders in every closure; through this they ask once a scan, not each.
// Why this is safe: it is the scan round's rule (toolkit/scan_round.h): a scan sees a file as it was at its first
// look, and the next round starts from the disk as it is then. The answers are kept by the full path, without
// regard to case (a relative path by what it names at the look: the current folder may change within a round),
// and dropped when the thread's next round begins, so two scans never share one.
#pragma once

#include <windows.h>

#include <string>

namespace qv {

// True with data filled as GetFileAttributesExW fills it; false with the system's error as the last error.
bool RoundAttributes(const std::wstring& path, WIN32_FILE_ATTRIBUTE_DATA& data);

// The attributes alone, INVALID_FILE_ATTRIBUTES when the path cannot be asked (as GetFileAttributesW answers).
DWORD RoundFileAttributes(const std::wstring& path);

} // namespace qv
