// A scan round: the span of one top-level scan on a thread. What the process keeps of a file or folder is checked
// against the disk once per round: the first look in a round asks the system whether it changed, later looks in
// the same round take it as it was then. So a scan sees every file as it was when the scan first met it, and a
// file created, rewritten or removed between two scans is seen by the second. Outside a round every look asks.
// Why this is safe: a scan writes none of the files it reads, so within one scan only another program can change
// them, and then the scan answers as if it had read the file at its first look (as a scan of one look per file
// would); its results never mix two states of one file, and the next scan starts from the disk as it is.
#pragma once

#include <atomic>

namespace qv {

namespace detail {
inline std::atomic<unsigned long> g_lastRound{0};
inline thread_local unsigned long t_round = 0; // 0: no round on this thread
inline thread_local int t_depth = 0;
} // namespace detail

// The round this thread is in, or 0.
inline unsigned long CurrentScanRound() {
    return detail::t_round;
}

// Opens a round for its lifetime; a scope inside another (a scan that a scan starts) joins the outer round.
class scan_round {
public:
    scan_round() {
        if (detail::t_depth++ == 0)
            detail::t_round = ++detail::g_lastRound;
    }
    ~scan_round() {
        if (--detail::t_depth == 0)
            detail::t_round = 0;
    }
    scan_round(const scan_round&) = delete;
    scan_round& operator=(const scan_round&) = delete;
};

} // namespace qv
