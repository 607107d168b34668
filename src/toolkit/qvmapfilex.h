// qvmapfilex: one file mapped whole into memory, for reading or for writing, with its start and size.
// The Windows functions are found by name at run time. A failed Open keeps the last error and the file in
// process-wide values (unguarded), and leaves what it opened in the object: Close, which the destructor
// calls, gives back only what a complete Open took, so a half-done Open keeps its handles open until the
// object ends or opens again.
#pragma once

#include "inc/unique_handles.h"

#include <windows.h>

#include <string>

namespace qv {

class qvmapfilex {
public:
    qvmapfilex() = default;
    virtual ~qvmapfilex();
    qvmapfilex(const qvmapfilex&) = delete;
    qvmapfilex& operator=(const qvmapfilex&) = delete;

    // size in: the bytes to map (0: the whole file, for reading); out: the size of the view.
    bool Open(const std::wstring& file, DWORD& size, bool bWrite);
    void Close();

    void* View() const { return m_pView; }
    DWORD Size() const { return m_nSize; }

    static DWORD LastError();
    static std::wstring LastErrorFile();

private:
    void* m_pView = nullptr;
    bool m_bOpen = false;
    unique_hfile m_hFile;
    unique_handle m_hMapping;
    bool m_bWrite = false;
    DWORD m_nSize = 0;
};

} // namespace qv
