#include "siblings/sibling_module_cache.h"

#include "inc/com_error.h"

#include "inc/com_module.h"
#include "inc/com_ptr.h"
#include "inc/unique_handles.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"

#include <shlwapi.h>

#include <iterator>

namespace {

// This server's own file: the module that holds this code (the server DLL, or a program linking it).
bool ServerPath(std::wstring& path) {
    wchar_t buffer[MAX_PATH];
    DWORD n = GetModuleFileNameW(qv::g_module.Instance(), buffer, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) // a truncated name is no path to search from
        return false;
    path.assign(buffer, n);
    return true;
}

// The fixed part of the ladder, tested by GetFileAttributesW.
std::vector<std::wstring> FixedCandidates(const std::wstring& serverFolder, const std::wstring& commonFiles,
                                          const std::wstring& fileName) {
    std::vector<std::wstring> paths;
    paths.push_back(qv::JoinPath(serverFolder, fileName));
    paths.push_back(qv::JoinPath(qv::JoinPath(serverFolder, L"System"), fileName));
    if (!commonFiles.empty()) { // an empty value would make these relative to the current folder
        const std::wstring qorvex = qv::JoinPath(commonFiles, L"Qorvex");
        paths.push_back(qv::JoinPath(qorvex, fileName));
        paths.push_back(qv::JoinPath(qv::JoinPath(qorvex, L"Zephal"), fileName));
    }
    return paths;
}

// The parent walk, tested by PathFileExistsW: <folder>\System\x64\<name> for each folder above the
// server's, nearest first, the root left out. Paths that do not fit PathAppendW's buffer are skipped.
std::vector<std::wstring> ParentCandidates(const std::wstring& serverFolder, const std::wstring& fileName) {
    std::vector<std::wstring> paths;
    if (serverFolder.size() >= MAX_PATH)
        return paths;
    wchar_t folder[MAX_PATH];
    wcscpy_s(folder, serverFolder.c_str());
    while (PathRemoveFileSpecW(folder) && folder[0] && !PathIsRootW(folder)) {
        wchar_t candidate[MAX_PATH];
        wcscpy_s(candidate, folder);
        if (PathAppendW(candidate, L"System") && PathAppendW(candidate, L"x64") &&
            PathAppendW(candidate, fileName.c_str()))
            paths.push_back(candidate);
    }
    return paths;
}

// The current folder (GetCurrentDirectoryW), set to another for a scope and put back afterwards.
class current_folder_switch {
public:
    explicit current_folder_switch(const std::wstring& folder) {
        if (folder.empty())
            return;
        m_saved = qv::CurrentDirectory();
        m_switched = !m_saved.empty() && SetCurrentDirectoryW(folder.c_str());
    }
    ~current_folder_switch() {
        if (m_switched)
            SetCurrentDirectoryW(m_saved.c_str());
    }
    current_folder_switch(const current_folder_switch&) = delete;
    current_folder_switch& operator=(const current_folder_switch&) = delete;

private:
    std::wstring m_saved;
    bool m_switched = false;
};

} // namespace

CSiblingModuleCache& CSiblingModuleCache::Instance() {
    static CSiblingModuleCache cache;
    return cache;
}

std::vector<std::wstring> CSiblingModuleCache::SearchCandidates(const std::wstring& serverPath,
                                                                const std::wstring& commonFiles,
                                                                const std::wstring& fileName) {
    const std::wstring folder = qv::DirectoryPart(serverPath);
    std::vector<std::wstring> paths = FixedCandidates(folder, commonFiles, fileName);
    std::vector<std::wstring> parents = ParentCandidates(folder, fileName);
    paths.insert(paths.end(), parents.begin(), parents.end());
    return paths;
}

std::wstring CSiblingModuleCache::FindLibrary(const std::wstring& fileName) {
    std::wstring server;
    if (!ServerPath(server))
        return fileName;
    const std::wstring folder = qv::DirectoryPart(server);
    for (const std::wstring& path : FixedCandidates(folder, qv::ReadCommonFilesDir(), fileName))
        if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES)
            return path;
    for (const std::wstring& path : ParentCandidates(folder, fileName))
        if (PathFileExistsW(path.c_str()))
            return path;
    return fileName;
}

HMODULE CSiblingModuleCache::Loaded(const std::wstring& fileName) const {
    auto it = m_modules.find(fileName);
    return it == m_modules.end() ? nullptr : it->second;
}

HRESULT CSiblingModuleCache::GetClassObject(const std::wstring& fileName, REFCLSID clsid, IClassFactory** ppFactory) {
    if (!ppFactory)
        return E_POINTER;
    *ppFactory = nullptr;
    HMODULE module = Loaded(fileName);
    if (!module) {
        const std::wstring path = fileName.find(L'\\') != std::wstring::npos ? fileName : FindLibrary(fileName);
        {
            // The library finds the neighbours it imports from its own folder.
            current_folder_switch inFolder(qv::DirectoryPart(path));
            module = LoadLibraryW(path.c_str());
        }
        if (!module)
            return REGDB_E_CLASSNOTREG;
        m_modules.emplace(fileName, module);
    }
    using get_class_object_fn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    auto getClassObject = reinterpret_cast<get_class_object_fn>(
        reinterpret_cast<void (*)()>(GetProcAddress(module, "DllGetClassObject")));
    if (!getClassObject)
        return REGDB_E_CLASSNOTREG;
    return getClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(ppFactory));
}

HRESULT CoCreateFromLibrary(const std::wstring& fileName, REFCLSID clsid, REFIID iid, void** ppObject) {
    if (!ppObject)
        return E_POINTER;
    *ppObject = nullptr;
    if (fileName.empty())
        return CoCreateInstance(
            clsid, nullptr, CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER | CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER,
            iid, ppObject);
    qv::com_ptr<IClassFactory> factory;
    HRESULT hr = CSiblingModuleCache::Instance().GetClassObject(fileName, clsid, factory.put());
    if (FAILED(hr))
        return hr;
    if (!factory)
        return E_POINTER;
    return factory->CreateInstance(nullptr, iid, ppObject);
}

qv::com_ptr<IQvAppServices> AppServices(const std::wstring& what) {
    qv::com_ptr<IQvAppServices> services;
    const HRESULT hr =
        CoCreateFromLibrary(L"QvAppServices.dll", CLSID_QvAppServices, IID_IQvAppServices, services.put());
    if (FAILED(hr))
        qv::throw_described(hr, L"cannot reach QvAppServices.dll, which tells where " + what + L" lies");
    return services;
}
