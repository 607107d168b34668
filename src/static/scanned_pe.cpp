#include "static/scanned_pe.h"

#include "dotnet/dotnet_assembly.h"
#include "inc/com_object.h"

CScannedPE::CScannedPE(const std::wstring& path) : CPEImage(path) {
    // Whether the file is an assembly is decided by the load alone. It is not asked of an image without a
    // CLI header, where no reader of metadata can find any: that spares a second open of every native file.
    if (!Usable() || DirectorySize(14) == 0 || DirectoryRva(14) == 0)
        return;
    qv::com_ptr<IDotNetAssembly> assembly = qv::make_object<CDotNetAssembly>();
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
