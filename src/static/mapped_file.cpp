#include "static/mapped_file.h"

CMappedFile::CMappedFile(const std::wstring& path) {
    m_hFile.reset(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!m_hFile)
        return;
    m_nSize = GetFileSize(m_hFile.get(), nullptr);
    m_nOpenStatus = OpenNoMapping;
    m_hMapping.reset(CreateFileMappingW(m_hFile.get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
    if (!m_hMapping)
        return;
    m_nOpenStatus = OpenNoView;
    m_pView.reset(MapViewOfFile(m_hMapping.get(), FILE_MAP_READ, 0, 0, 0));
    if (!m_pView)
        return;
    m_nOpenStatus = OpenOk;
}
