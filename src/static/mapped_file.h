// CMappedFile: a whole file mapped read-only. Trusts nothing about the file; holds the handle, the
// mapping and the view in scope objects and gives them back when it dies.
#pragma once

#include "format/byte_span.h"
#include "inc/unique_handles.h"

#include <windows.h>

#include <string>

class CMappedFile {
public:
    // Open states.
    static constexpr DWORD OpenOk = 0;
    static constexpr DWORD OpenNoFile = 1;
    static constexpr DWORD OpenNoMapping = 2;
    static constexpr DWORD OpenNoView = 3;

    explicit CMappedFile(const std::wstring& path);
    virtual ~CMappedFile() = default;
    CMappedFile(const CMappedFile&) = delete;
    CMappedFile& operator=(const CMappedFile&) = delete;

    DWORD OpenStatus() const { return m_nOpenStatus; }
    const BYTE* View() const { return static_cast<const BYTE*>(m_pView.get()); }
    // The low 32 bits of the file size: larger files are seen through their first 4 GiB less one byte.
    DWORD Size() const { return m_nSize; }
    // The mapped bytes; empty unless the view is present.
    qv::format::byte_span Bytes() const { return {View(), m_pView ? m_nSize : 0}; }

private:
    qv::unique_hfile m_hFile;
    qv::unique_handle m_hMapping;
    qv::unique_view m_pView;
    DWORD m_nSize = 0;
    DWORD m_nOpenStatus = OpenNoFile;
};
