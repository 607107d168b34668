#include "static/pe_images.h"

#include "dotnet/dotnet_assembly.h"
#include "inc/com_object.h"

#include "toolkit/string_convert.h"

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
        return L"<Error ???>";
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

CScannedPE::CScannedPE(const std::wstring& path) : CPEImage(path) {
    // Whether the file is an assembly is decided by the load alone. It is not asked of an image without a
    // CLI header, where no reader of metadata can find any: that spares a second open of every native file.
    if (!Usable() || DirectorySize(14) == 0 || DirectoryRva(14) == 0)
        return;
    qv::com_object<CDotNetAssembly>* created = nullptr;
    check_hr(qv::com_object<CDotNetAssembly>::CreateInstance(&created));
    qv::com_ptr<IDotNetAssembly> assembly(static_cast<IDotNetAssembly*>(created));
    const HRESULT hr = assembly->Load(qv::bstr(path).get());
    if (SUCCEEDED(hr)) {
        m_pAssembly = qv::com_ptr<IUnknown>(assembly.get());
        return;
    }
    // The ordinary answers for a plain image.
    if (hr == static_cast<HRESULT>(0x8013110B) || hr == E_INVALIDARG || hr == static_cast<HRESULT>(0x8007000B))
        return;
    qv::com_ptr<IErrorInfo> info;
    if (GetErrorInfo(0, info.put()) == S_OK && info) {
        qv::bstr text;
        info->GetDescription(text.put());
        m_assemblyError = {true, hr, text.str()};
    }
}
