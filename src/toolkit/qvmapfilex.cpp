#include "toolkit/qvmapfilex.h"

#include <vector>

namespace qv {

namespace {

DWORD g_nLastError = 0;
std::wstring g_sLastErrorFile;

template <typename Fn> Fn Kernel(const char* name) {
    HMODULE kernel = GetModuleHandleW(L"Kernel32");
    return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(kernel ? GetProcAddress(kernel, name) : nullptr));
}

bool Fail(const std::wstring& file) {
    g_nLastError = GetLastError();
    g_sLastErrorFile = file;
    return false;
}

std::string Ansi(const std::wstring& text) {
    int n = WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
    std::vector<char> buffer(n > 0 ? static_cast<size_t>(n) : 1);
    WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, buffer.data(), n, nullptr, nullptr);
    return buffer.data();
}

} // namespace

qvmapfilex::~qvmapfilex() {
    Close();
}

bool qvmapfilex::Open(const std::wstring& file, DWORD& size, bool bWrite) {
    g_nLastError = GetLastError();
    m_bWrite = bWrite;
    const DWORD access = bWrite ? 0xC0000000 : 0x80000000, disposition = bWrite ? 2 : 3;
    if (auto createW = Kernel<decltype(&CreateFileW)>("CreateFileW"))
        m_hFile.reset(createW(file.c_str(), access, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
    else if (auto createA = Kernel<decltype(&CreateFileA)>("CreateFileA"))
        m_hFile.reset(createA(Ansi(file).c_str(), access, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!m_hFile)
        return Fail(file);

    const DWORD protection = bWrite ? PAGE_READWRITE : PAGE_READONLY;
    if (auto mappingW = Kernel<decltype(&CreateFileMappingW)>("CreateFileMappingW"))
        m_hMapping.reset(mappingW(m_hFile.get(), nullptr, protection, 0, size, nullptr));
    else if (auto mappingA = Kernel<decltype(&CreateFileMappingA)>("CreateFileMappingA"))
        m_hMapping.reset(mappingA(m_hFile.get(), nullptr, protection, 0, size, nullptr));
    if (!m_hMapping)
        return Fail(file);

    auto map = Kernel<decltype(&MapViewOfFile)>("MapViewOfFile");
    m_pView = map ? map(m_hMapping.get(), bWrite ? FILE_MAP_WRITE : FILE_MAP_READ, 0, 0, size) : nullptr;
    if (!m_pView)
        return Fail(file);
    if (size == 0)
        size = GetFileSize(m_hFile.get(), nullptr);
    m_nSize = size;
    m_bOpen = true;
    return true;
}

void qvmapfilex::Close() {
    if (!m_bOpen)
        return;
    UnmapViewOfFile(m_pView);
    m_hMapping.reset();
    if (m_bWrite) {
        // A mapping may have made the file larger: it is cut back to the size asked for.
        SetFilePointer(m_hFile.get(), static_cast<LONG>(m_nSize), nullptr, FILE_BEGIN);
        SetEndOfFile(m_hFile.get());
    }
    m_hFile.reset();
    m_pView = nullptr;
    m_bOpen = false;
}

DWORD qvmapfilex::LastError() {
    return g_nLastError;
}
std::wstring qvmapfilex::LastErrorFile() {
    return g_sLastErrorFile;
}

} // namespace qv
