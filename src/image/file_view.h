// CFileView: a whole file seen as one run of bytes, read as the readers need them. Nothing is mapped:
// the view is private memory, reserved for the file's size and filled chunk by chunk with ReadFile the
// first time a read reaches the chunk.
//
// Why not a mapping: a file that another process shrinks while it is mapped (a build output rewritten
// under the scan) turns every read past its new end into a page fault that no bounds check can see
// coming, and that fault ends the process. A guard around the reads of a mapped view would have to
// unwind through the readers from inside an exception handler. Reading instead lets a short read say
// what a fault would have: the bytes past the point where the file now ends cannot be read, every read
// of them is out of bounds to the readers, and the scan finishes with whatever the file still held.
// Only the chunks a reader reaches are read, so a 4 GiB file costs its headers and tables, as a
// mapping did.
#pragma once

#include "format/byte_span.h"
#include "inc/unique_handles.h"

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

class CFileView : public qv::format::byte_source {
public:
    // Open states.
    static constexpr DWORD OpenOk = 0;
    static constexpr DWORD OpenNoFile = 1;
    static constexpr DWORD OpenNotDisk = 2; // a device, a pipe or a console: never read
    static constexpr DWORD OpenNoMemory = 3;

    // Bytes read at a time, and the most of a file that is seen: every offset and size of a PE image is
    // a 32-bit number, so no table reaches past 8 GiB.
    static constexpr std::uint64_t ChunkSize = 16 * 1024;
    static constexpr std::uint64_t MaxSize = std::uint64_t{8} << 30;

    explicit CFileView(const std::wstring& path);
    virtual ~CFileView();
    CFileView(const CFileView&) = delete;
    CFileView& operator=(const CFileView&) = delete;

    DWORD OpenStatus() const { return m_nOpenStatus; }
    // The file's size when it was opened, up to MaxSize.
    std::uint64_t Size() const { return m_nSize; }
    // The file's bytes; empty unless the file is open.
    qv::format::byte_span Bytes() const { return {m_pBase, m_nSize, this}; }

    bool fill(const std::uint8_t* p, std::uint64_t length) const override;

private:
    bool ReadChunk(std::uint64_t index) const;

    qv::unique_hfile m_hFile;
    std::uint8_t* m_pBase = nullptr;
    std::uint64_t m_nSize = 0;
    DWORD m_nOpenStatus = OpenNoFile;
    mutable std::vector<bool> m_filled;
    // Where the file ended when a read came up short: nothing from here on can be read.
    mutable std::uint64_t m_nReadable = 0;
};
