#include "image/activation_scope.h"

#include "format/pe/resources.h"
#include "image/pe_images.h"
#include "toolkit/path_helpers.h"

ULONG_PTR ActivationScope::ManifestResourceFor(const std::wstring& path) {
    auto ext = qv::ExtensionPart(path);
    if (CompareStringOrdinal(ext.data(), static_cast<int>(ext.size()), L".exe", 4, TRUE) == CSTR_EQUAL)
        return 1;
    if (CompareStringOrdinal(ext.data(), static_cast<int>(ext.size()), L".dll", 4, TRUE) == CSTR_EQUAL)
        return 2;
    return 0;
}

bool ActivationScope::HasManifest(const CPEImage& image, const std::wstring& path) {
    const auto& reader = image.Reader();
    return reader && qv::pe::has_resource(*reader, qv::pe::resource_type_manifest,
                                          static_cast<std::uint32_t>(ManifestResourceFor(path)));
}

ActivationScope::ActivationScope(const std::wstring& path, bool withManifest) {
    if (!withManifest)
        return;
    HMODULE kernel = GetModuleHandleW(L"Kernel32.dll");
    if (!kernel)
        return;
    m_pfnCreate = reinterpret_cast<CreateActCtxWFn>(reinterpret_cast<void*>(GetProcAddress(kernel, "CreateActCtxW")));
    m_pfnActivate =
        reinterpret_cast<ActivateActCtxFn>(reinterpret_cast<void*>(GetProcAddress(kernel, "ActivateActCtx")));
    m_pfnDeactivate =
        reinterpret_cast<DeactivateActCtxFn>(reinterpret_cast<void*>(GetProcAddress(kernel, "DeactivateActCtx")));
    m_pfnRelease = reinterpret_cast<ReleaseActCtxFn>(reinterpret_cast<void*>(GetProcAddress(kernel, "ReleaseActCtx")));
    if (!m_pfnCreate || !m_pfnDeactivate || !m_pfnRelease)
        return;

    static_assert(sizeof(ACTCTXW) == 56, "the context description of a 64-bit process");
    ACTCTXW context{};
    context.cbSize = sizeof(ACTCTXW);
    context.dwFlags = ACTCTX_FLAG_RESOURCE_NAME_VALID;
    context.lpSource = path.c_str();
    context.lpResourceName = MAKEINTRESOURCEW(ManifestResourceFor(path));

    HANDLE handle = m_pfnCreate(&context);
    if (handle == INVALID_HANDLE_VALUE || handle == nullptr)
        return;
    if (!m_pfnActivate || !m_pfnActivate(handle, &m_nCookie)) {
        m_pfnRelease(handle);
        return;
    }
    m_hContext = handle;
}

ActivationScope::~ActivationScope() {
    if (m_hContext == INVALID_HANDLE_VALUE)
        return;
    m_pfnDeactivate(0, m_nCookie);
    m_pfnRelease(m_hContext);
}
