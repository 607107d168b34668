// What the process keeps of a file it read, by path without regard to case, while the file's size and
// last-write time stay the same: a file rewritten, shrunk or replaced is read again. What has no such
// identity (a missing file, a folder, a device) is read each time and not kept; neither is what `keep`
// turns down. Beyond `most` entries the oldest half is forgotten. Within a scan round (toolkit/scan_round.h) an
// entry is checked once, and the check takes the round's answer for the path (toolkit/round_attributes.h), which the
// other caches and the import search share. Safe on any thread.
#pragma once

#include "toolkit/path_helpers.h"
#include "toolkit/round_attributes.h"
#include "toolkit/scan_round.h"

#include <windows.h>

#include <algorithm>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

template <class T> class file_cache {
public:
    explicit file_cache(size_t most) : m_most(most) {}

    template <class Read, class Keep>
    std::shared_ptr<const T> get(const std::wstring& path, Read read, Keep keep) {
        // Within a scan round, an entry already checked in it is taken without asking the system again.
        const unsigned long round = qv::CurrentScanRound();
        const std::wstring key = qv::LowerCase(path);
        if (round != 0) {
            AcquireSRWLockExclusive(&m_lock);
            if (const auto it = m_kept.find(key); it != m_kept.end() && it->second.round == round) {
                it->second.use = ++m_uses;
                std::shared_ptr<const T> value = it->second.value;
                ReleaseSRWLockExclusive(&m_lock);
                return value;
            }
            ReleaseSRWLockExclusive(&m_lock);
        }
        ULONGLONG size = 0;
        FILETIME written{};
        if (!Identity(path, size, written))
            return read(path);
        AcquireSRWLockExclusive(&m_lock);
        if (const auto it = m_kept.find(key); it != m_kept.end() && it->second.size == size &&
                                              CompareFileTime(&it->second.written, &written) == 0) {
            it->second.use = ++m_uses;
            it->second.round = round;
            std::shared_ptr<const T> value = it->second.value;
            ReleaseSRWLockExclusive(&m_lock);
            return value;
        }
        ReleaseSRWLockExclusive(&m_lock);
        std::shared_ptr<const T> value = read(path);
        if (!keep(*value))
            return value;
        AcquireSRWLockExclusive(&m_lock);
        if (m_kept.size() >= m_most) {
            // The oldest half goes: a host that reads more files than that keeps what it met last.
            std::vector<ULONGLONG> uses;
            for (const auto& entry : m_kept)
                uses.push_back(entry.second.use);
            std::nth_element(uses.begin(), uses.begin() + uses.size() / 2, uses.end());
            const ULONGLONG median = uses[uses.size() / 2];
            std::erase_if(m_kept, [median](const auto& entry) { return entry.second.use < median; });
        }
        m_kept[key] = {size, written, ++m_uses, round, value};
        ReleaseSRWLockExclusive(&m_lock);
        return value;
    }

    // Keeps a value read of the file at path by another reader, as get would keep it: a value for the file as it
    // is now (its size and time are taken here), checked in this round.
    void put(const std::wstring& path, std::shared_ptr<const T> value) {
        ULONGLONG size = 0;
        FILETIME written{};
        if (!Identity(path, size, written))
            return;
        AcquireSRWLockExclusive(&m_lock);
        if (m_kept.size() < m_most)
            m_kept[qv::LowerCase(path)] = {size, written, ++m_uses, qv::CurrentScanRound(), std::move(value)};
        ReleaseSRWLockExclusive(&m_lock);
    }

private:
    // The size and write time a reading is kept by; false for what has none (missing, a folder, a device).
    static bool Identity(const std::wstring& path, ULONGLONG& size, FILETIME& written) {
        WIN32_FILE_ATTRIBUTE_DATA data{};
        if (!qv::RoundAttributes(path, data) ||
            (data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)))
            return false;
        size = (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
        written = data.ftLastWriteTime;
        return true;
    }

    struct entry {
        ULONGLONG size = 0;
        FILETIME written{};
        ULONGLONG use = 0; // when it was last handed out, in the cache's own count
        unsigned long round = 0; // the scan round in which it was last checked against the disk
        std::shared_ptr<const T> value;
    };
    size_t m_most;
    SRWLOCK m_lock = SRWLOCK_INIT;
    std::unordered_map<std::wstring, entry> m_kept; // by the path in lower case
    ULONGLONG m_uses = 0;
};
