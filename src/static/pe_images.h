// The image layers over a mapped file: CExeImage classifies it by its headers, CPEImage reaches into
// the tables of a usable PE image, CScannedPE adds the attempt to load the file as an assembly.
// All reading goes through the bounded reader of qv::pe on the mapped bytes; nothing is run, and
// a corrupt file is a state, never an exception.
#pragma once

#include "format/pe/pe_image.h"
#include "inc/com_ptr.h"
#include "static/mapped_file.h"

#include <optional>
#include <string>
#include <vector>

// Status words of an image, as the walker reports them.
const wchar_t* ImageStatusText(DWORD status);

class CExeImage : public CMappedFile {
public:
    static constexpr DWORD StatusUsable = 0;
    static constexpr DWORD StatusNotMapped = 1;
    static constexpr DWORD StatusUnknownKind = 2;

    explicit CExeImage(const std::wstring& path);

    DWORD Status() const { return m_nStatus; }
    LONG HeaderOffset() const { return m_nHeaderOffset; }
    qv::pe::image_kind Kind() const { return m_kind; }
    // "Invalid", "DOS", "NE", "VXD", "LX", "PE", "PE64", "PEIA64" or "PEARM".
    std::wstring KindName() const;

protected:
    DWORD m_nStatus = StatusNotMapped;
    LONG m_nHeaderOffset = -1;
    qv::pe::image_kind m_kind = qv::pe::image_kind::invalid;
};

// An error record: flag, code, text.
struct ImageErrorRecord {
    bool bError = false;
    HRESULT hrCode = S_OK;
    std::wstring sText;
};

class CPEImage : public CExeImage {
public:
    // What DirectoryPointer yields for an index of 16 or over.
    static inline const BYTE* const InvalidDirectory = reinterpret_cast<const BYTE*>(~static_cast<ULONG_PTR>(0));

    explicit CPEImage(const std::wstring& path);

    // Null unless the image is usable (kinds PE and PE64).
    const BYTE* NtHeaders() const { return m_pNtHeaders; }
    const ImageErrorRecord& ImageError() const { return m_imageError; }

    // The file header's machine word (0 when there is no usable image).
    DWORD GetMachine() const;
    // -1 for an index of 16 or over.
    LONGLONG DirectorySize(DWORD index) const;
    LONGLONG DirectoryRva(DWORD index) const;
    // InvalidDirectory for an index of 16 or over, null for an RVA of 0 or one that maps nowhere.
    const BYTE* DirectoryPointer(DWORD index) const;
    // -1 when no section holds the RVA.
    LONGLONG RvaToOffset(DWORD rva) const;
    // Null when no section holds the RVA or it maps outside the file.
    const BYTE* RvaToPointer(DWORD rva) const;
    bool ExportsDllRegisterServer() const;
    // The import-table names, widened through the ANSI code page, in table order.
    std::vector<std::wstring> ImportNames() const;

    const std::optional<qv::pe::pe_image>& Reader() const { return m_reader; }

protected:
    const BYTE* m_pNtHeaders = nullptr;
    ImageErrorRecord m_imageError;
    std::optional<qv::pe::pe_image> m_reader;
};

class CScannedPE : public CPEImage {
public:
    explicit CScannedPE(const std::wstring& path);

    // The assembly loaded from this file, or null. No assembly reader takes part in a scan yet, so it
    // stays null and every usable image is walked as a plain one.
    IUnknown* Assembly() const { return m_pAssembly.get(); }
    const ImageErrorRecord& AssemblyError() const { return m_assemblyError; }
    // Hands out a reference to the assembly; leaves out as it was when there is none.
    void GetAssembly(IUnknown** out) const {
        if (m_pAssembly)
            m_pAssembly.copy_to(out);
    }

private:
    qv::com_ptr<IUnknown> m_pAssembly;
    ImageErrorRecord m_assemblyError;
};
