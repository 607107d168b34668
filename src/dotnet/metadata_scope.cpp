#include "dotnet/metadata_scope.h"

#include "dotnet/builtin_metadata.h"
#include "inc/unique_handles.h"
#include "toolkit/probes.h"
#include "traits/settings_document.h"
#include "toolkit/version_info.h"

#include <cstdio>
#include <cwchar>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

// The installed runtimes do not change while the server runs, and asking them costs milliseconds per
// assembly where they cannot serve (under emulation the runtime is there but hands nothing out). So what
// the platform refused once is not asked again in this process; what it gave is asked for each time.
bool s_PlatformDispenserAbsent = false;
bool s_FusionAbsent = false;
bool s_StrongNameAbsent = false;

int s_ScopeOpenFlags = -1;

// mscoree.dll and its CLRCreateInstance export; both empty when either is missing.
struct mscoree_library {
    qv::unique_hmodule module;
    qv::clr::CLRCreateInstanceFn create = nullptr;

    mscoree_library() : module(LoadLibraryW(L"mscoree.dll")) {
        if (module)
            create = reinterpret_cast<qv::clr::CLRCreateInstanceFn>(
                reinterpret_cast<void*>(GetProcAddress(module.get(), "CLRCreateInstance")));
    }
    qv::com_ptr<ICLRMetaHost> meta_host() const {
        qv::com_ptr<ICLRMetaHost> host;
        if (create && FAILED(create(qv::clr::CLSID_CLRMetaHost, qv::clr::IID_ICLRMetaHost, host.put_void())))
            host.reset();
        return host;
    }
};

std::wstring runtime_version(ICLRRuntimeInfo* runtime, DWORD capacity) {
    std::vector<wchar_t> buffer(capacity + 1, L'\0');
    DWORD size = capacity + 1;
    if (FAILED(runtime->GetVersionString(buffer.data(), &size)))
        return {};
    return buffer.data();
}

// Each runtime of the enumerator in turn, as ICLRRuntimeInfo; stops when the enumerator does.
template <class Visit> void for_each_runtime(ICLRMetaHost* host, Visit visit) {
    qv::com_ptr<IEnumUnknown> runtimes;
    if (FAILED(host->EnumerateInstalledRuntimes(runtimes.put())) || !runtimes)
        return;
    for (;;) {
        qv::com_ptr<IUnknown> item;
        ULONG fetched = 0;
        if (runtimes->Next(1, item.put(), &fetched) != S_OK || !item)
            return;
        qv::com_ptr<ICLRRuntimeInfo> runtime;
        if (SUCCEEDED(item->QueryInterface(qv::clr::IID_ICLRRuntimeInfo, runtime.put_void())))
            visit(runtime);
    }
}

std::vector<unsigned long> version_pieces(std::wstring_view text) {
    std::vector<unsigned long> pieces;
    size_t start = 0;
    for (;;) {
        size_t dot = text.find(L'.', start);
        std::wstring piece(text.substr(start, dot == std::wstring_view::npos ? std::wstring_view::npos : dot - start));
        pieces.push_back(std::wcstoul(piece.c_str(), nullptr, 10));
        if (dot == std::wstring_view::npos)
            return pieces;
        start = dot + 1;
    }
}

} // namespace

void CMetaDataScope::CreateDispenser() {
    if (m_pDispenser || s_PlatformDispenserAbsent)
        return;
    mscoree_library mscoree;
    qv::com_ptr<ICLRMetaHost> host = mscoree.meta_host();
    if (!host)
        return;
    qv::com_ptr<ICLRRuntimeInfo> best;
    for_each_runtime(host.get(), [&](const qv::com_ptr<ICLRRuntimeInfo>& runtime) {
        if (CompareRuntimeVersions(runtime.get(), best.get()) == -1 && runtime.get() != best.get())
            best = runtime;
    });
    // The result is not looked at: on failure the member simply stays empty.
    if (best)
        best->GetInterface(qv::clr::CLSID_CorMetaDataDispenser, IID_IMetaDataDispenser, m_pDispenser.put_void());
}

HRESULT CMetaDataScope::OpenScopes(const std::wstring& file, std::wstring& errorText) {
    CreateDispenser();
    if (!m_pDispenser) {
        HRESULT hr = E_FAIL;
        if (!s_PlatformDispenserAbsent) {
            hr = CoCreateInstance(qv::clr::CLSID_CorMetaDataDispenser, nullptr, CLSCTX_INPROC_SERVER,
                                  IID_IMetaDataDispenser, m_pDispenser.put_void());
            s_PlatformDispenserAbsent = FAILED(hr);
        }
        if (!m_pDispenser)
            hr = CreateBuiltInDispenser(m_pDispenser.put());
        if (FAILED(hr)) {
            errorText = L"Unable to create IMetaDataDispenser";
            return hr;
        }
    }
    m_pImport.reset();
    HRESULT hr = m_pDispenser->OpenScope(file.c_str(), GetScopeOpenFlags(), IID_IMetaDataImport,
                                         reinterpret_cast<IUnknown**>(m_pImport.put()));
    if (FAILED(hr)) {
        errorText = L"Unable to create IID_IMetaDataImport";
        return hr;
    }
    m_pAssemblyImport.reset();
    hr = m_pDispenser->OpenScope(file.c_str(), GetScopeOpenFlags(), IID_IMetaDataAssemblyImport,
                                 reinterpret_cast<IUnknown**>(m_pAssemblyImport.put()));
    if (FAILED(hr))
        errorText = L"Unable to create IID_IMetaDataAssemblyImport";
    return hr;
}

DWORD CMetaDataScope::GetScopeOpenFlags() {
    if (s_ScopeOpenFlags != -1)
        return static_cast<DWORD>(s_ScopeOpenFlags);
    std::wstring version;
    try {
        version = qv::GetFileVersionText(qv::SystemFolder() + L"mscoree.dll", L".");
    } catch (...) {
        // No system folder: no 1.x runtime to please either.
    }
    // The 1.x runtimes refuse the read-only flag; only a version text that begins with "1." asks for 0.
    s_ScopeOpenFlags = _wcsnicmp(version.c_str(), L"1.", 2) == 0 ? 0 : static_cast<int>(ofReadOnly);
    return static_cast<DWORD>(s_ScopeOpenFlags);
}

int CompareRuntimeVersions(ICLRRuntimeInfo* first, ICLRRuntimeInfo* second) {
    if (!first)
        return 1;
    if (!second)
        return -1;
    unsigned a[4] = {}, b[4] = {};
    std::swscanf(runtime_version(first, 32).c_str(), L"v%u.%u.%u.%u", &a[0], &a[1], &a[2], &a[3]);
    std::swscanf(runtime_version(second, 32).c_str(), L"v%u.%u.%u.%u", &b[0], &b[1], &b[2], &b[3]);
    for (int i = 0; i < 4; ++i) {
        if (a[i] != b[i])
            return a[i] > b[i] ? -1 : 1;
    }
    return 0;
}

int CompareVersionStrings(const std::wstring& first, const std::wstring& second) {
    if (_wcsicmp(first.c_str(), second.c_str()) == 0)
        return 0;
    if (first.empty())
        return 1;
    if (second.empty())
        return -1;
    std::vector<unsigned long> a = version_pieces(std::wstring_view(first).substr(1));
    std::vector<unsigned long> b = version_pieces(std::wstring_view(second).substr(1));
    const size_t common = std::min(a.size(), b.size());
    for (size_t i = 0; i < common; ++i) {
        if (a[i] != b[i])
            return a[i] > b[i] ? -1 : 1;
    }
    // Only the one piece after the common ones is looked at.
    if (a.size() > common && a[common] != 0)
        return -1;
    if (b.size() > common && b[common] != 0)
        return 1;
    return 0;
}

qv::com_ptr<ICLRStrongName> GetStrongNameInterface(const std::wstring& file) {
    qv::com_ptr<ICLRStrongName> service;
    if (s_StrongNameAbsent)
        return service;
    mscoree_library mscoree;
    qv::com_ptr<ICLRMetaHost> host = mscoree.meta_host();
    if (!host)
        return service;
    // The runtime the assembly was built against, not the newest one installed.
    wchar_t version[101] = {};
    DWORD size = 100;
    if (FAILED(host->GetVersionFromFile(file.c_str(), version, &size)))
        return service;
    qv::com_ptr<ICLRRuntimeInfo> runtime;
    if (FAILED(host->GetRuntime(version, qv::clr::IID_ICLRRuntimeInfo, runtime.put_void())) || !runtime)
        return service;
    if (FAILED(runtime->GetInterface(qv::clr::CLSID_CLRStrongName, qv::clr::IID_ICLRStrongName, service.put_void()))) {
        // Every runtime since 2.0 has the service; one that refuses it cannot be loaded at all here.
        service.reset();
        s_StrongNameAbsent = true;
    }
    return service;
}

HMODULE LoadFusion() {
    if (s_FusionAbsent)
        return nullptr;
    mscoree_library mscoree;
    qv::com_ptr<ICLRMetaHost> host = mscoree.meta_host();
    // This handle of mscoree.dll is never freed, as the runtime's fusion.dll may rely on it.
    mscoree.module.release();
    if (!host) {
        s_FusionAbsent = true;
        return nullptr;
    }
    std::map<std::wstring, qv::com_ptr<ICLRRuntimeInfo>, qv::no_case_less> runtimes;
    std::wstring best;
    for_each_runtime(host.get(), [&](const qv::com_ptr<ICLRRuntimeInfo>& runtime) {
        std::wstring version = runtime_version(runtime.get(), 260);
        runtimes[version] = runtime;
        if (CompareVersionStrings(best, version) == 1)
            best = version;
    });
    HMODULE fusion = nullptr;
    auto chosen = runtimes.find(best);
    if (chosen != runtimes.end() && chosen->second)
        chosen->second->LoadLibrary(L"fusion.dll", &fusion);
    if (!fusion) {
        qv::unique_hmodule again(LoadLibraryW(L"mscoree.dll"));
        auto shim = again ? reinterpret_cast<qv::clr::LoadLibraryShimFn>(
                                reinterpret_cast<void*>(GetProcAddress(again.get(), "LoadLibraryShim")))
                          : nullptr;
        if (shim)
            shim(L"fusion.dll", nullptr, nullptr, &fusion);
    }
    s_FusionAbsent = fusion == nullptr;
    return fusion;
}
