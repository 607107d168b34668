#include "image/pe_images.h"

#include "format/pe/pe_tables.h"

#include "image/activation_scope.h"
#include "image/entry_points.h"
#include "image/file_cache.h"

#include "toolkit/path_helpers.h"
#include "toolkit/string_convert.h"

#include <algorithm>

using qv::pe::image_kind;

const wchar_t* ImageStatusText(DWORD status) {
    switch (status) {
    case 0:
        return L"No error";
    case 1:
        return L"File not found";
    case 2:
        return L"Not a PE file";
    case 3:
        return L"General failure";
    default:
        return L"<Error ?\?\?>"; // escaped, so that no trigraph is read
    }
}

CExeImage::CExeImage(const std::wstring& path) : CFileView(path) {
    if (OpenStatus() != OpenOk)
        return;
    auto c = qv::pe::classify(Bytes());
    m_nStatus = static_cast<DWORD>(c.status);
    m_nHeaderOffset = c.header_offset;
    m_kind = c.kind;
}

std::wstring CExeImage::KindName() const {
    return qv::WidenAscii(qv::pe::kind_name(m_kind));
}

CPEImage::CPEImage(const std::wstring& path) : CExeImage(path) {
    if (m_nStatus != StatusUsable)
        return;
    if (m_kind == image_kind::pe || m_kind == image_kind::pe64)
        m_reader = qv::pe::pe_image::open(Bytes());
    if (!m_reader)
        m_nStatus = StatusUnknownKind;
}

DWORD CPEImage::GetMachine() const {
    return m_reader ? m_reader->machine() : 0;
}

LONGLONG CPEImage::DirectorySize(DWORD index) const {
    if (index >= 16)
        return -1;
    auto entry = m_reader ? m_reader->directory(index) : std::nullopt;
    return entry ? entry->size : 0;
}

LONGLONG CPEImage::DirectoryRva(DWORD index) const {
    if (index >= 16)
        return -1;
    auto entry = m_reader ? m_reader->directory(index) : std::nullopt;
    return entry ? entry->rva : 0;
}

bool CPEImage::DirectoryInFile(DWORD index) const {
    auto rva = DirectoryRva(index);
    return rva > 0 && m_reader->rva_to_file_offset(static_cast<DWORD>(rva)).has_value();
}

LONGLONG CPEImage::RvaToOffset(DWORD rva) const {
    auto offset = m_reader ? m_reader->rva_to_offset(rva) : std::nullopt;
    return offset ? static_cast<LONGLONG>(*offset) : -1;
}

bool CPEImage::ExportsDllRegisterServer() const {
    return m_reader && m_reader->exports_dll_register_server();
}

std::vector<std::wstring> CPEImage::ImportNames() const {
    std::vector<std::wstring> names;
    if (!m_reader)
        return names;
    for (auto name : m_reader->import_names())
        names.push_back(qv::WidenAnsi(name));
    return names;
}

namespace {

std::shared_ptr<const image_facts> ReadFacts(const std::wstring& path) {
    auto facts = std::make_shared<image_facts>();
    const CPEImage image(path);
    facts->openStatus = image.OpenStatus();
    facts->usable = image.Usable();
    if (facts->usable) {
        facts->clr = image.DirectorySize(14) != 0 && image.DirectoryRva(14) != 0;
        facts->manifest = ActivationScope::HasManifest(image, path);
        facts->selfRegistering = image.ExportsDllRegisterServer();
        facts->importsInFile = image.DirectorySize(1) != 0 && image.DirectoryInFile(1);
        if (facts->importsInFile)
            facts->importNames = image.ImportNames();
        facts->machine = image.GetMachine();
        for (const auto& module : qv::pe::read_delay_imports(*image.Reader(), false))
            facts->delayNames.push_back(qv::WidenAnsi(module.name));
        const auto version = qv::pe::find_version_resource(*image.Reader());
        facts->version = version.is;
        if (version.is == qv::pe::version_resource::kind::one)
            facts->versionResource.assign(version.data.data(), version.data.data() + version.data.size());
        if (image_tables_ahead::Active())
            KeepImageTables(path, std::make_shared<const CImageTables>(image));
    }
    return facts;
}

} // namespace

std::shared_ptr<const image_facts> ImageFacts(const std::wstring& path) {
    static file_cache<image_facts> kept(kImageFactsKept);
    return kept.get(path, ReadFacts, [](const image_facts& facts) { return facts.openStatus == CFileView::OpenOk; });
}
