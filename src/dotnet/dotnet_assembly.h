// CDotNetAssembly: one file read as an assembly (simple name, version, public key token, culture) and
// the list of what it needs one level deep; CDotNetAssemblyRef and CDotNetAssemblyRefs: that list.
// Load and LoadProperties are two readers of the same identity that differ on purpose: Load keeps the
// file and its folder and always reports the culture "neutral"; LoadProperties reports the real culture
// and says whether a strong-name provider could be reached, but leaves file and folder alone.
//
// Trusts the metadata interfaces of the scope (the runtime's or the library's own bounded reader) and
// the client's events; a null event object is taken as one that knows nothing.
#pragma once

#include "QVWIScanners.h"
#include "dotnet/metadata_scope.h"
#include "inc/com_collection.h"
#include "inc/com_dispatch.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"

#include <windows.h>

#include <cor.h>

#include <map>
#include <string>

// The files seen by the reference walks of the process: names of native libraries, module files and
// type libraries, and paths the client named. Emptied whenever any assembly object dies.
extern std::map<std::wstring, BYTE> g_SeenAssemblyFiles;

// "%d.%d.%d.%d" of the four version words.
std::wstring FormatVersion(const ASSEMBLYMETADATA& metaData);
// Empty for a count of 0; else the first eight bytes as 16 upper-case hexadecimal digits. A public key
// in full thus gives its first eight bytes, not its token; bytes the count does not cover read as zero.
std::wstring FormatTokenBytes(ULONG count, const void* bytes);
// "MSIL", "X86", "IA64", "Amd64" or empty, from the CorPEKind bits and the machine word.
std::wstring MachineNameFromPEKind(DWORD kind, DWORD machine);

class CDotNetAssembly : public qv::object_root, public IDotNetAssemblyTarn {
public:
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CDotNetAssembly)
    QV_INTERFACE(IID_IDotNetAssemblyTarn, IDotNetAssemblyTarn)
    QV_INTERFACE(IID_IDotNetAssembly, IDotNetAssembly)
    QV_END_INTERFACE_MAP()

    CDotNetAssembly();
    ~CDotNetAssembly();

    // IDotNetAssembly
    STDMETHOD(Load)(BSTR bstrFileName) override;
    STDMETHOD(get_Name)(BSTR* pVal) override;
    STDMETHOD(get_Version)(BSTR* pVal) override;
    STDMETHOD(get_PublicKeyToken)(BSTR* pVal) override;
    STDMETHOD(get_Culture)(BSTR* pVal) override;
    // Built on the first call; later calls return the same list whatever events they name.
    STDMETHOD(get_Dependencies)(IStaticScanEvents* pEvents, IDotNetAssemblyRefs** pVal) override;
    // *pbFileNotFound is false only for a strong-named assembly whose token no provider could compute.
    STDMETHOD(LoadProperties)(BSTR bstrFileName, VARIANT_BOOL* pbFileNotFound, VARIANT_BOOL* pbReturn) override;
    // IDotNetAssemblyTarn
    STDMETHOD(get_FileName)(BSTR* pVal) override;

    // The version words of the last Load.
    const ASSEMBLYMETADATA& MetaData() const { return m_MetaData; }

private:
    HRESULT ReadAssemblyProps(const std::wstring& file);
    std::wstring TokenFromPublicKey(const std::wstring& file, const void* key, ULONG length, bool& providerReached);
    // The referring assembly's machine text, for the location of its references.
    std::wstring MachineText();

    void WalkAssemblyRefs(IStaticScanEvents* pEvents);
    void WalkModuleRefs(IStaticScanEvents* pEvents);
    void WalkFiles(IStaticScanEvents* pEvents);
    void WalkOtherReferences(IStaticScanEvents* pEvents);
    void WalkInteropRefs();

    CMetaDataScope m_Scope;
    // Load took what it reads from what the process kept of the file, without opening it: the scopes open when
    // the dependencies are first asked for.
    bool m_bScopesDeferred = false;
    qv::com_ptr<IDotNetAssemblyRefs> m_pRefs;
    std::wstring m_Name;
    std::wstring m_Version;
    std::wstring m_PublicKeyToken;
    std::wstring m_Culture;
    std::wstring m_FileName;
    std::wstring m_Folder;
    ASSEMBLYMETADATA m_MetaData{};
};

class CDotNetAssemblyRef
    : public qv::object_root,
      public qv::dispatch_impl<IDotNetAssemblyRefValeSP1, &IID_IDotNetAssemblyRefValeSP1, qv::module_typeinfo_holder> {
public:
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CDotNetAssemblyRef)
    QV_INTERFACE(IID_IDotNetAssemblyRefValeSP1, IDotNetAssemblyRefValeSP1)
    QV_INTERFACE(IID_IDotNetAssemblyRef, IDotNetAssemblyRef)
    QV_INTERFACE(IID_IDispatch, IDispatch)
    QV_END_INTERFACE_MAP()

    STDMETHOD(get_FileName)(BSTR* pVal) override;
    // Leaves *pVal as it was when there is no child assembly.
    STDMETHOD(get_DotNetAssembly)(IDotNetAssembly** pVal) override;
    STDMETHOD(get_Found)(VARIANT_BOOL* pVal) override;
    STDMETHOD(get_Machine)(long* pVal) override;

    // A file that should be an assembly: found only if it loads as one; the path stays either way.
    void SetAssemblyFile(const std::wstring& path);
    // An assembly that could not be located, under its simple name.
    void SetMissing(const std::wstring& name);
    // A file that is no assembly (native library, module file, type library), searched as the import
    // walk searches: in the folder the name gives, or the current folder and then the Path folders.
    void ResolveFile(const std::wstring& name, DWORD machine);

private:
    qv::bstr m_FileName;
    qv::com_ptr<IDotNetAssembly> m_pAssembly;
    BYTE m_bFound = 0;
    LONG m_Machine = 0;
};

class CDotNetAssemblyRefs
    : public qv::CRefCollectionImpl<IDotNetAssemblyRef*, IDotNetAssemblyRefs, &LIBID_QVWISCANNERSLib,
                                    qv::interface_adapter<IDotNetAssemblyRef>, &IID_IDotNetAssemblyRefs> {
public:
    // A key that stands already keeps its place and takes the new reference.
    STDMETHOD(Add)(BSTR bstrAssembly, IDotNetAssemblyRef* pAssembly) override;
};
