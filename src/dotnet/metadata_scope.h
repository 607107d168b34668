// How the assembly scanner reaches the Common Language Runtime: the newest installed runtime's metadata
// dispenser, one file opened as a pair of metadata scopes, the strong-name service of the runtime an
// assembly was built against, and fusion.dll. Where the platform gives no dispenser (no runtime, or one
// that cannot hand it out, as under Wine) the library's own reader serves the same interfaces.
//
// Trusts the runtime's interfaces as the platform's own; every failure is a result, nothing throws.
#pragma once

#include "dotnet/clr_hosting.h"
#include "inc/com_ptr.h"

#include <windows.h>

#include <cor.h>

#include <string>

class CMetaDataScope {
public:
    CMetaDataScope() = default;
    CMetaDataScope(const CMetaDataScope&) = delete;
    CMetaDataScope& operator=(const CMetaDataScope&) = delete;

    // Sets the dispenser from the newest installed runtime, unless it is set already; leaves it empty on
    // any failure.
    void CreateDispenser();
    // Opens file twice, once for each import interface, replacing the scopes of an earlier open. On failure
    // errorText names the step that failed and the HRESULT is returned.
    HRESULT OpenScopes(const std::wstring& file, std::wstring& errorText);
    // 0 for a 1.x runtime's mscoree.dll in the system folder, else 16 (read-only); worked out once.
    static DWORD GetScopeOpenFlags();

    IMetaDataImport* Import() const { return m_pImport.get(); }
    IMetaDataAssemblyImport* AssemblyImport() const { return m_pAssemblyImport.get(); }
    IMetaDataDispenser* Dispenser() const { return m_pDispenser.get(); }

private:
    qv::com_ptr<IMetaDataImport> m_pImport;
    qv::com_ptr<IMetaDataAssemblyImport> m_pAssemblyImport;
    qv::com_ptr<IMetaDataDispenser> m_pDispenser;
};

// -1 when first is the newer or second is absent, 1 when second is the newer or first is absent, 0 when
// equal. Versions read as "v%u.%u.%u.%u" from 0.0.0.0, so that unreadable text is 0.0.0.0.
int CompareRuntimeVersions(ICLRRuntimeInfo* first, ICLRRuntimeInfo* second);
// The comparison of version texts that LoadFusion uses: -1 when first is the higher, 1 when second is,
// 0 when equal. Pieces after the common ones count only through the one piece that follows them.
int CompareVersionStrings(const std::wstring& first, const std::wstring& second);
// The strong-name service of the runtime that file was built against, or null.
qv::com_ptr<ICLRStrongName> GetStrongNameInterface(const std::wstring& file);
// fusion.dll of the newest runtime, or through LoadLibraryShim; null when neither gives it. The caller
// frees the module.
HMODULE LoadFusion();
