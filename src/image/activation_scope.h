// ActivationScope: while it lives, the activation context of an image's own manifest (resource 1 of
// an .exe, 2 of a .dll) is active on this thread. The four functions are looked up at run time, so a
// system without activation contexts simply gets none.
//
// Making a context from a file without that manifest resource always fails, and costs about as much
// as the rest of the file's walk; a caller that has read the file's resources can say so and skip it.
#pragma once

#include <windows.h>

#include <string>

class CPEImage;

class ActivationScope {
public:
    // withManifest false: the file holds no manifest resource of that name, so no context is tried.
    explicit ActivationScope(const std::wstring& path, bool withManifest = true);
    ~ActivationScope();
    ActivationScope(const ActivationScope&) = delete;
    ActivationScope& operator=(const ActivationScope&) = delete;

    // The resource name that was asked for: 1 for ".exe", 2 for ".dll", 0 otherwise.
    static ULONG_PTR ManifestResourceFor(const std::wstring& path);
    // Whether a usable image holds the manifest resource a scope for path would ask for.
    static bool HasManifest(const CPEImage& image, const std::wstring& path);

private:
    using CreateActCtxWFn = HANDLE(WINAPI*)(PCACTCTXW);
    using ActivateActCtxFn = BOOL(WINAPI*)(HANDLE, ULONG_PTR*);
    using DeactivateActCtxFn = BOOL(WINAPI*)(DWORD, ULONG_PTR);
    using ReleaseActCtxFn = void(WINAPI*)(HANDLE);

    CreateActCtxWFn m_pfnCreate = nullptr;
    ActivateActCtxFn m_pfnActivate = nullptr;
    DeactivateActCtxFn m_pfnDeactivate = nullptr;
    ReleaseActCtxFn m_pfnRelease = nullptr;
    HANDLE m_hContext = INVALID_HANDLE_VALUE;
    ULONG_PTR m_nCookie = 0;
};
