// The image layers over a file view: CExeImage classifies it by its headers, CPEImage reaches into
// the tables of a usable PE image (static/scanned_pe.h adds the attempt to load the file as an assembly).
// All reading goes through the bounded reader of qv::pe on the file's bytes; nothing is run, and
// a corrupt file, or one that shrinks while it is read, is a state, never an exception.
#pragma once

#include "format/pe/resources.h"

#include "format/pe/pe_image.h"
#include "image/file_view.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

// Status words of an image, as the walker reports them.
const wchar_t* ImageStatusText(DWORD status);

class CExeImage : public CFileView {
public:
    static constexpr DWORD StatusUsable = 0;
    static constexpr DWORD StatusNotOpened = 1;
    static constexpr DWORD StatusUnknownKind = 2;

    explicit CExeImage(const std::wstring& path);

    DWORD Status() const { return m_nStatus; }
    LONG HeaderOffset() const { return m_nHeaderOffset; }
    qv::pe::image_kind Kind() const { return m_kind; }
    // "Invalid", "DOS", "NE", "VXD", "LX", "PE", "PE64", "PEIA64" or "PEARM".
    std::wstring KindName() const;

protected:
    DWORD m_nStatus = StatusNotOpened;
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
    explicit CPEImage(const std::wstring& path);

    // Whether the image is usable (kinds PE and PE64).
    bool Usable() const { return m_reader.has_value(); }
    const ImageErrorRecord& ImageError() const { return m_imageError; }

    // The file header's machine word (0 when there is no usable image).
    DWORD GetMachine() const;
    // -1 for an index of 16 or over.
    LONGLONG DirectorySize(DWORD index) const;
    LONGLONG DirectoryRva(DWORD index) const;
    // Whether the directory's RVA is not 0 and maps into the file (false for an index of 16 or over).
    bool DirectoryInFile(DWORD index) const;
    // -1 when no section holds the RVA.
    LONGLONG RvaToOffset(DWORD rva) const;
    bool ExportsDllRegisterServer() const;
    // The import-table names, widened through the ANSI code page, in table order.
    std::vector<std::wstring> ImportNames() const;

    const std::optional<qv::pe::pe_image>& Reader() const { return m_reader; }

protected:
    ImageErrorRecord m_imageError;
    std::optional<qv::pe::pe_image> m_reader;
};

// What the import walk needs of a file, read once: how it opened, whether it is a usable image and of
// which machine, whether it has a CLI header (then the walk opens it as a CScannedPE for its assembly),
// a manifest of its own, a DllRegisterServer export, its import names when the table is in the file, and
// the names of its delay-import table.
struct image_facts {
    DWORD openStatus = CFileView::OpenNoFile;
    bool usable = false;
    bool clr = false;
    bool manifest = false;
    bool selfRegistering = false;
    bool importsInFile = false;
    DWORD machine = 0;
    std::vector<std::wstring> importNames;
    std::vector<std::wstring> delayNames; // the delay-import table's names, in table order
    // The version resource the system would read of the image, when its resource directory tells (see
    // qv::pe::find_version_resource); `ask` for what is no usable image.
    qv::pe::version_resource::kind version = qv::pe::version_resource::kind::ask;
    std::vector<std::uint8_t> versionResource; // its bytes, for `one`
};

// The facts of the file at path. The answers are kept for the process, by path without regard to case,
// while the file's size and last-write time stay the same: a file rewritten, shrunk or replaced is read
// again. What has no such identity (a missing file, a folder, a device) is read each time and not kept.
// At most kImageFactsKept files are kept; beyond that the oldest half is forgotten. Safe on any thread.
std::shared_ptr<const image_facts> ImageFacts(const std::wstring& path);
inline constexpr size_t kImageFactsKept = 8192;
