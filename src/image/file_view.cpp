#include "image/file_view.h"

CFileView::CFileView(const std::wstring& path) {
    m_hFile.reset(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!m_hFile)
        return;
    LARGE_INTEGER size{};
    if (GetFileType(m_hFile.get()) != FILE_TYPE_DISK || !GetFileSizeEx(m_hFile.get(), &size)) {
        m_hFile.reset();
        m_nOpenStatus = OpenNotDisk;
        return;
    }
    m_nOpenStatus = OpenOk;
    m_nSize = std::min<std::uint64_t>(static_cast<std::uint64_t>(size.QuadPart), MaxSize);
    m_nReadable = m_nSize;
    if (m_nSize == 0)
        return;
    m_pBase = static_cast<std::uint8_t*>(VirtualAlloc(nullptr, m_nSize, MEM_RESERVE, PAGE_NOACCESS));
    if (!m_pBase) {
        m_nSize = m_nReadable = 0;
        m_nOpenStatus = OpenNoMemory;
        return;
    }
    m_filled.assign((m_nSize + ChunkSize - 1) / ChunkSize, false);
}

CFileView::~CFileView() {
    if (m_pBase)
        VirtualFree(m_pBase, 0, MEM_RELEASE);
}

bool CFileView::fill(const std::uint8_t* p, std::uint64_t length) const {
    if (p < m_pBase || length == 0)
        return length == 0;
    const std::uint64_t offset = static_cast<std::uint64_t>(p - m_pBase);
    if (offset > m_nSize || length > m_nSize - offset)
        return false;
    for (std::uint64_t index = offset / ChunkSize; index <= (offset + length - 1) / ChunkSize; ++index) {
        if (!m_filled[index] && !ReadChunk(index))
            return false;
    }
    return offset + length <= m_nReadable;
}

bool CFileView::ReadChunk(std::uint64_t index) const {
    const std::uint64_t start = index * ChunkSize;
    if (start >= m_nReadable)
        return false;
    const DWORD want = static_cast<DWORD>(std::min(ChunkSize, m_nSize - start));
    if (!VirtualAlloc(m_pBase + start, want, MEM_COMMIT, PAGE_READWRITE))
        return false;
    // The file pointer, not an OVERLAPPED offset: under Wine a read given an OVERLAPPED costs one more
    // request to the server (for a completion port the handle does not have), and a view is read by one
    // thread at a time.
    DWORD got = 0;
    LARGE_INTEGER at{};
    at.QuadPart = static_cast<LONGLONG>(start);
    if (SetFilePointerEx(m_hFile.get(), at, nullptr, FILE_BEGIN)) {
        while (got < want) {
            DWORD n = 0;
            if (!ReadFile(m_hFile.get(), m_pBase + start + got, want - got, &n, nullptr) || n == 0)
                break;
            got += n;
        }
    }
    // A short read: the file has shrunk since it was opened, and ends here now.
    if (got < want)
        m_nReadable = std::min(m_nReadable, start + got);
    m_filled[index] = true;
    return true;
}
