#include "dotnet/dotnet_assembly.h"

#include "companions.h"
#include "dotnet/assembly_location.h"
#include "format/metadata/attribute_blob.h"
#include "format/pe/pe_layout.h"
#include "image/dependency_search.h"
#include "image/file_cache.h"
#include "inc/com_boundary.h"
#include "inc/unique_handles.h"
#include "siblings/sibling_module_cache.h"
#include "toolkit/path_helpers.h"
#include "toolkit/scan_round.h"
#include "toolkit/probes.h"
#include "toolkit/string_convert.h"

#include <cstdio>
#include <vector>

std::map<std::wstring, BYTE> g_SeenAssemblyFiles;

namespace {

namespace pe_machine = qv::pe::layout::machine;

// Each walk reads at most this many rows with one enumeration call.
constexpr ULONG MaxTokens = 2048;
constexpr mdToken AssemblyToken = 0x20000001;

// The tokens of one enumeration call; the enumerator is closed at once.
template <class Interface, class Enumerate>
std::vector<mdToken> enumerate_tokens(Interface* scope, Enumerate enumerate) {
    std::vector<mdToken> tokens(MaxTokens);
    HCORENUM handle = nullptr;
    ULONG count = 0;
    HRESULT hr = enumerate(&handle, tokens.data(), MaxTokens, &count);
    scope->CloseEnum(handle);
    tokens.resize(FAILED(hr) ? 0 : std::min(count, MaxTokens));
    return tokens;
}

void remember_seen(const std::wstring& path) {
    g_SeenAssemblyFiles.emplace(path, 1);
}

qv::com_ptr<IDotNetAssemblyRef> as_ref(const qv::com_ptr<qv::com_object<CDotNetAssemblyRef>>& reference) {
    return qv::com_ptr<IDotNetAssemblyRef>(static_cast<IDotNetAssemblyRefValeSP1*>(reference.get()));
}

// Whether the component the host is authoring is a 64-bit one; false when the events cannot tell.
bool component_is_64bit(IStaticScanEvents* pEvents) {
    if (!pEvents)
        return false;
    qv::com_ptr<IStaticScanEventsValeSP> events;
    qv::com_ptr<IUnknown> component;
    qv::com_ptr<IQvProjectComponent> project;
    VARIANT_BOOL is64 = VARIANT_FALSE;
    return SUCCEEDED(pEvents->QueryInterface(IID_IStaticScanEventsValeSP, events.put_void())) &&
           SUCCEEDED(events->get_Component(component.put())) && component &&
           SUCCEEDED(component->QueryInterface(IID_IQvProjectComponent, project.put_void())) &&
           SUCCEEDED(project->get_Component64Bit(&is64)) && is64 != VARIANT_FALSE;
}

DWORD native_64bit_machine() {
    return qv::IsItanium() ? pe_machine::ia64 : pe_machine::amd64;
}

// What the interop attributes of one assembly say.
struct InteropFacts {
    bool bHasGuid = false;
    bool bImportedFromTypeLib = false;
    bool bPrimaryInterop = false;
    LONG nPrimaryVersion = -1;
    std::wstring GuidText;
};

void ReadInteropAttribute(IMetaDataImport* import, mdCustomAttribute token, InteropFacts& facts) {
    mdToken owner = 0, typeToken = 0, parent = 0;
    const void* blob = nullptr;
    ULONG blobSize = 0;
    MDUTF8CSTR constructorName = nullptr;
    PCCOR_SIGNATURE signature = nullptr;
    ULONG signatureSize = 0;
    wchar_t typeName[1024 + 1] = {};
    ULONG typeNameLength = 0;
    if (FAILED(import->GetCustomAttributeProps(token, &owner, &typeToken, &blob, &blobSize)) ||
        FAILED(import->GetNameFromToken(typeToken, &constructorName)) ||
        FAILED(import->GetMemberRefProps(typeToken, &parent, nullptr, 0, nullptr, &signature, &signatureSize)) ||
        FAILED(import->GetTypeRefProps(parent, nullptr, typeName, 1024, &typeNameLength)))
        return;
    auto text = [&] {
        const auto decoded = qv::metadata::decode_string_argument(
            qv::format::byte_span(signature, signatureSize),
            qv::format::byte_span(static_cast<const std::uint8_t*>(blob), blob ? blobSize : 0));
        return decoded ? qv::WidenAnsi(*decoded, CP_UTF8) : std::wstring();
    };
    if (_wcsicmp(typeName, L"System.Runtime.InteropServices.GuidAttribute") == 0) {
        facts.bHasGuid = true;
        if (signature)
            facts.GuidText = text();
    } else if (_wcsicmp(typeName, L"System.Runtime.InteropServices.ImportedFromTypeLibAttribute") == 0) {
        facts.bImportedFromTypeLib = true;
    } else if (_wcsicmp(typeName, L"System.Runtime.InteropServices.PrimaryInteropAssemblyAttribute") == 0) {
        facts.bPrimaryInterop = true;
        // The attribute's two integers are not read: what counts is only that it was there, and the
        // library is then asked for as version 0.0.
        if (signature)
            facts.nPrimaryVersion = 0;
    }
}

} // namespace

std::wstring FormatVersion(const ASSEMBLYMETADATA& metaData) {
    wchar_t text[4 * 6 + 4];
    std::swprintf(text, std::size(text), L"%d.%d.%d.%d", metaData.usMajorVersion, metaData.usMinorVersion,
                  metaData.usBuildNumber, metaData.usRevisionNumber);
    return text;
}

std::wstring FormatTokenBytes(ULONG count, const void* bytes) {
    if (count == 0 || !bytes)
        return {};
    BYTE b[8] = {};
    memcpy(b, bytes, std::min<ULONG>(count, 8));
    wchar_t text[17];
    std::swprintf(text, std::size(text), L"%02X%02X%02X%02X%02X%02X%02X%02X", b[0], b[1], b[2], b[3], b[4], b[5], b[6],
                  b[7]);
    return text;
}

std::wstring MachineNameFromPEKind(DWORD kind, DWORD machine) {
    std::wstring text;
    if (kind & 1)
        text = L"MSIL";
    if (kind & 2)
        text = L"X86";
    else if (kind & 4)
        text = machine == pe_machine::ia64 ? L"IA64" : machine == pe_machine::amd64 ? L"Amd64" : L"";
    return text;
}

CDotNetAssembly::CDotNetAssembly() = default;

CDotNetAssembly::~CDotNetAssembly() {
    g_SeenAssemblyFiles.clear();
}

namespace {

// What Load reads of an assembly file, kept for the process while the file's size and write time stay the same
// (image/file_cache.h): a reference walk loads the same libraries (mscorlib, System) as the child of hundreds
// of assemblies, and each load opened and read the file again. Only a load that succeeded is kept.
struct loaded_props {
    HRESULT hr = E_FAIL;
    std::wstring name, version, culture, token;
    ASSEMBLYMETADATA metaData{}; // as Load reads it: numbers only, no buffers
};

file_cache<loaded_props>& KeptLoads() {
    static file_cache<loaded_props> kept(4096);
    return kept;
}

} // namespace

STDMETHODIMP CDotNetAssembly::Load(BSTR bstrFileName) {
    return qv::com_boundary([&] {
        m_FileName = qv::bstr_text(bstrFileName);
        const size_t slash = m_FileName.find_last_of(L'\\');
        m_Folder = slash == std::wstring::npos ? std::wstring() : m_FileName.substr(0, slash);
        // A root keeps its backslash: the folder of C:\a.dll is C:\ .
        if (m_Folder.size() == 2 && m_Folder[1] == L':')
            m_Folder += L'\\';
        bool read = false;
        const auto props = KeptLoads().get(
            m_FileName,
            [&](const std::wstring& file) {
                read = true;
                auto loaded = std::make_shared<loaded_props>();
                std::wstring errorText;
                loaded->hr = m_Scope.OpenScopes(file, errorText);
                if (SUCCEEDED(loaded->hr)) {
                    loaded->hr = ReadAssemblyProps(file);
                    loaded->name = m_Name, loaded->version = m_Version, loaded->culture = m_Culture;
                    loaded->token = m_PublicKeyToken, loaded->metaData = m_MetaData;
                }
                return std::shared_ptr<const loaded_props>(std::move(loaded));
            },
            [](const loaded_props& loaded) { return loaded.hr == S_OK; });
        if (!read) {
            m_Name = props->name, m_Version = props->version, m_Culture = props->culture;
            m_PublicKeyToken = props->token, m_MetaData = props->metaData;
            m_bScopesDeferred = true;
        }
        return props->hr;
    });
}

HRESULT CDotNetAssembly::ReadAssemblyProps(const std::wstring& file) {
    const void* key = nullptr;
    ULONG keyLength = 0;
    wchar_t name[512] = {};
    ULONG nameLength = 0;
    DWORD flags = 0;
    HRESULT hr = m_Scope.AssemblyImport()->GetAssemblyProps(AssemblyToken, &key, &keyLength, nullptr, name, 512,
                                                            &nameLength, &m_MetaData, &flags);
    if (key && keyLength != 0) {
        bool providerReached = false;
        m_PublicKeyToken = TokenFromPublicKey(file, key, keyLength, providerReached);
    }
    m_Name = name;
    m_Version = FormatVersion(m_MetaData);
    // Load gives the locale no buffer, so the culture is always "neutral" here, also for a satellite.
    m_Culture = m_MetaData.szLocale && *m_MetaData.szLocale ? m_MetaData.szLocale : L"neutral";
    return hr;
}

std::wstring CDotNetAssembly::TokenFromPublicKey(const std::wstring& file, const void* key, ULONG length,
                                                 bool& providerReached) {
    providerReached = false;
    BYTE* token = nullptr;
    ULONG tokenLength = 0;
    bool computed = false;
    BYTE* keyBytes = static_cast<BYTE*>(const_cast<void*>(key));
    if (qv::com_ptr<ICLRStrongName> service = GetStrongNameInterface(file)) {
        if (SUCCEEDED(service->StrongNameTokenFromPublicKey(keyBytes, length, &token, &tokenLength))) {
            providerReached = computed = true;
            std::wstring text = tokenLength > 0 ? FormatTokenBytes(tokenLength, token) : std::wstring();
            service->StrongNameFreeBuffer(token);
            return text;
        }
    }
    // The older way: the strong-name library the tool's services name.
    qv::com_ptr<IQvStrongNameServices> services;
    qv::bstr libraryPath;
    if (SUCCEEDED(CoCreateFromLibrary(L"QvAppServices.dll", CLSID_QvAppServices, IID_IQvStrongNameServices,
                                      services.put_void())))
        services->GetStrongNameLibrary(libraryPath.put());
    qv::unique_hmodule library(LoadLibraryW(libraryPath.str().c_str()));
    if (!library)
        return {};
    providerReached = true;
    using token_fn = BOOLEAN(WINAPI*)(BYTE*, ULONG, BYTE**, ULONG*);
    using free_fn = VOID(WINAPI*)(BYTE*);
    auto fromKey = reinterpret_cast<token_fn>(
        reinterpret_cast<void*>(GetProcAddress(library.get(), "StrongNameTokenFromPublicKey")));
    auto freeBuffer =
        reinterpret_cast<free_fn>(reinterpret_cast<void*>(GetProcAddress(library.get(), "StrongNameFreeBuffer")));
    if (fromKey)
        computed = fromKey(keyBytes, length, &token, &tokenLength) != FALSE;
    std::wstring text = computed && tokenLength > 0 ? FormatTokenBytes(tokenLength, token) : std::wstring();
    if (computed && token) {
        if (freeBuffer)
            freeBuffer(token);
        else
            CoTaskMemFree(token);
    }
    return text;
}

STDMETHODIMP CDotNetAssembly::LoadProperties(BSTR bstrFileName, VARIANT_BOOL* pbFileNotFound, VARIANT_BOOL* pbReturn) {
    if (!pbFileNotFound || !pbReturn)
        return E_POINTER;
    return qv::com_boundary([&] {
        *pbReturn = VARIANT_FALSE;
        *pbFileNotFound = VARIANT_TRUE;
        const std::wstring file = qv::bstr_text(bstrFileName);
        std::wstring errorText;
        HRESULT hr = m_Scope.OpenScopes(file, errorText);
        if (FAILED(hr))
            return hr;
        // The locale buffer is as large as the room the call is told of.
        wchar_t locale[200] = {};
        ASSEMBLYMETADATA metaData{};
        metaData.szLocale = locale;
        metaData.cbLocale = 200;
        const void* key = nullptr;
        ULONG keyLength = 0;
        wchar_t name[512] = {};
        ULONG nameLength = 0;
        DWORD flags = 0;
        m_Scope.AssemblyImport()->GetAssemblyProps(AssemblyToken, &key, &keyLength, nullptr, name, 512, &nameLength,
                                                   &metaData, &flags);
        m_Name = name;
        m_Version = FormatVersion(metaData);
        if (key && keyLength != 0) {
            *pbFileNotFound = VARIANT_FALSE;
            bool providerReached = false;
            m_PublicKeyToken = TokenFromPublicKey(file, key, keyLength, providerReached);
            if (providerReached)
                *pbFileNotFound = VARIANT_TRUE;
        }
        m_Culture = *locale ? locale : L"neutral";
        *pbReturn = VARIANT_TRUE;
        return S_OK;
    });
}

STDMETHODIMP CDotNetAssembly::get_Name(BSTR* pVal) {
    return qv::copy_text_out(m_Name, pVal);
}
STDMETHODIMP CDotNetAssembly::get_Version(BSTR* pVal) {
    return qv::copy_text_out(m_Version, pVal);
}
STDMETHODIMP CDotNetAssembly::get_PublicKeyToken(BSTR* pVal) {
    return qv::copy_text_out(m_PublicKeyToken, pVal);
}
STDMETHODIMP CDotNetAssembly::get_Culture(BSTR* pVal) {
    return qv::copy_text_out(m_Culture, pVal);
}
STDMETHODIMP CDotNetAssembly::get_FileName(BSTR* pVal) {
    return qv::copy_text_out(m_FileName, pVal);
}

STDMETHODIMP CDotNetAssembly::get_Dependencies(IStaticScanEvents* pEvents, IDotNetAssemblyRefs** pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = nullptr;
    return qv::com_boundary([&] {
        if (!m_pRefs) {
            m_pRefs = qv::make_object<CDotNetAssemblyRefs>().query<IDotNetAssemblyRefs>(IID_IDotNetAssemblyRefs);
            if (m_bScopesDeferred) {
                m_bScopesDeferred = false;
                std::wstring errorText;
                m_Scope.OpenScopes(m_FileName, errorText);
            }
            // A scope that never opened has nothing to walk: the list stays empty.
            if (m_Scope.Import() && m_Scope.AssemblyImport()) {
                const qv::scan_round round; // each folder of the location ladder is listed once in the walk
                WalkAssemblyRefs(pEvents);
                WalkModuleRefs(pEvents);
                WalkFiles(pEvents);
                WalkOtherReferences(pEvents);
            }
        }
        return m_pRefs->QueryInterface(IID_IDotNetAssemblyRefs, reinterpret_cast<void**>(pVal));
    });
}

std::wstring CDotNetAssembly::MachineText() {
    qv::com_ptr<IMetaDataImport2> import2;
    DWORD kind = 0, machine = 0;
    if (FAILED(m_Scope.Import()->QueryInterface(IID_IMetaDataImport2, import2.put_void())) ||
        FAILED(import2->GetPEKind(&kind, &machine)))
        return {};
    return MachineNameFromPEKind(kind, machine);
}

void CDotNetAssembly::WalkAssemblyRefs(IStaticScanEvents* pEvents) {
    IMetaDataAssemblyImport* scope = m_Scope.AssemblyImport();
    const std::vector<mdToken> tokens = enumerate_tokens(
        scope, [&](HCORENUM* e, mdToken* out, ULONG max, ULONG* n) { return scope->EnumAssemblyRefs(e, out, max, n); });
    // A reference has no machine of its own: the referring assembly's decides where it is looked for.
    const std::wstring machineText = tokens.empty() ? std::wstring() : MachineText();
    std::vector<wchar_t> name(MaxTokens + 1);
    for (mdToken token : tokens) {
        ASSEMBLYMETADATA metaData{};
        if (FAILED(scope->GetAssemblyRefProps(token, nullptr, nullptr, nullptr, 0, nullptr, &metaData, nullptr, nullptr,
                                              nullptr)))
            continue;
        std::vector<wchar_t> locale(metaData.cbLocale);
        std::vector<DWORD> processors(metaData.ulProcessor);
        std::vector<OSINFO> systems(metaData.ulOS);
        metaData.szLocale = locale.empty() ? nullptr : locale.data();
        metaData.rProcessor = processors.empty() ? nullptr : processors.data();
        metaData.rOS = systems.empty() ? nullptr : systems.data();
        const void* key = nullptr;
        const void* hash = nullptr;
        ULONG keyLength = 0, hashLength = 0, nameLength = 0;
        DWORD flags = 0;
        name.assign(name.size(), L'\0');
        if (FAILED(scope->GetAssemblyRefProps(token, &key, &keyLength, name.data(), MaxTokens, &nameLength, &metaData,
                                              &hash, &hashLength, &flags)))
            continue;
        const std::wstring simpleName = name.data();
        const std::wstring publicKeyToken = FormatTokenBytes(keyLength, key);
        const std::wstring culture = metaData.szLocale ? std::wstring(metaData.szLocale) : std::wstring();
        const std::wstring version = FormatVersion(metaData);

        std::wstring folder, file, path;
        if (FindAssembly(simpleName, version, culture, publicKeyToken, machineText, m_Folder, folder, file)) {
            path = folder + file;
        } else {
            qv::bstr answer;
            if (!pEvents || FAILED(pEvents->GetReferencePath(qv::bstr(simpleName).get(), answer.put())) ||
                answer.str().empty() || GetFileAttributesW(answer.str().c_str()) == INVALID_FILE_ATTRIBUTES) {
                auto missing = qv::make_object<CDotNetAssemblyRef>();
                missing->SetMissing(simpleName);
                check_hr(m_pRefs->Add(qv::bstr(simpleName).get(), as_ref(missing).get()));
                continue;
            }
            path = answer.str();
            remember_seen(path);
        }
        auto reference = qv::make_object<CDotNetAssemblyRef>();
        reference->SetAssemblyFile(path);
        check_hr(m_pRefs->Add(qv::bstr(path).get(), as_ref(reference).get()));
    }
    WalkInteropRefs();
}

void CDotNetAssembly::WalkModuleRefs(IStaticScanEvents* pEvents) {
    IMetaDataImport* scope = m_Scope.Import();
    const std::vector<mdToken> tokens = enumerate_tokens(
        scope, [&](HCORENUM* e, mdToken* out, ULONG max, ULONG* n) { return scope->EnumModuleRefs(e, out, max, n); });
    for (mdToken token : tokens) {
        wchar_t buffer[512] = {};
        ULONG length = 0;
        scope->GetModuleRefProps(token, buffer, 512, &length);
        std::wstring name = buffer;
        // An empty name ends the walk, not only this reference.
        if (name.empty())
            return;
        if (qv::ExtensionPart(name).empty())
            name += L".dll";
        remember_seen(name);
        DWORD machine = 0;
        qv::com_ptr<IMetaDataImport2> import2;
        DWORD kind = 0, peMachine = 0;
        if (SUCCEEDED(scope->QueryInterface(IID_IMetaDataImport2, import2.put_void())) &&
            SUCCEEDED(import2->GetPEKind(&kind, &peMachine))) {
            if (kind & 2)
                machine = pe_machine::i386;
            else if (kind & 4)
                machine = peMachine == pe_machine::ia64 || peMachine == pe_machine::amd64 ? peMachine
                                                                                        : native_64bit_machine();
        }
        // For an AnyCPU assembly the component being authored tells which native library is meant.
        if (machine == 0)
            machine = component_is_64bit(pEvents) ? native_64bit_machine() : pe_machine::i386;
        auto reference = qv::make_object<CDotNetAssemblyRef>();
        reference->ResolveFile(name, machine);
        check_hr(m_pRefs->Add(qv::bstr(name).get(), as_ref(reference).get()));
    }
}

void CDotNetAssembly::WalkFiles(IStaticScanEvents*) {
    IMetaDataAssemblyImport* scope = m_Scope.AssemblyImport();
    const std::vector<mdToken> tokens = enumerate_tokens(
        scope, [&](HCORENUM* e, mdToken* out, ULONG max, ULONG* n) { return scope->EnumFiles(e, out, max, n); });
    for (mdToken token : tokens) {
        wchar_t buffer[512] = {};
        ULONG length = 0;
        const void* hash = nullptr;
        ULONG hashLength = 0;
        DWORD flags = 0;
        scope->GetFileProps(token, buffer, 512, &length, &hash, &hashLength, &flags);
        std::wstring name = buffer;
        if (qv::ExtensionPart(name).empty())
            name += L".dll";
        remember_seen(name);
        auto reference = qv::make_object<CDotNetAssemblyRef>();
        reference->ResolveFile(name, 0);
        check_hr(m_pRefs->Add(qv::bstr(name).get(), as_ref(reference).get()));
    }
}

void CDotNetAssembly::WalkOtherReferences(IStaticScanEvents* pEvents) {
    qv::com_ptr<IStaticScanEventsFellSP2> events;
    if (!pEvents || FAILED(pEvents->QueryInterface(IID_IStaticScanEventsFellSP2, events.put_void())))
        return;
    qv::unique_variant owned;
    const VARIANT& value = *owned.get();
    if (FAILED(events->GetOtherReferences(owned.get())) || !(V_VT(&value) & VT_ARRAY) || !V_ARRAY(&value))
        return;
    SAFEARRAY* array = V_ARRAY(&value);
    LONG lower = 0, upper = -1;
    const bool typed = (V_VT(&value) & VT_TYPEMASK) == VT_BSTR || (V_VT(&value) & VT_TYPEMASK) == VT_VARIANT;
    if (typed && SafeArrayGetDim(array) >= 1 && SUCCEEDED(SafeArrayGetLBound(array, 1, &lower)) &&
        SUCCEEDED(SafeArrayGetUBound(array, 1, &upper))) {
        for (LONG i = lower; i <= upper; ++i) {
            std::wstring path;
            if ((V_VT(&value) & VT_TYPEMASK) == VT_BSTR) {
                qv::bstr element;
                if (FAILED(SafeArrayGetElement(array, &i, element.put())))
                    continue;
                path = element.str();
            } else {
                qv::unique_variant element;
                if (SUCCEEDED(SafeArrayGetElement(array, &i, element.get())) &&
                    SUCCEEDED(VariantChangeType(element.get(), element.get(), 0, VT_BSTR)))
                    path = qv::bstr_text(V_BSTR(element.get()));
            }
            if (path.empty() || GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
                continue;
            // The one walk in which the seen files filter.
            if (!g_SeenAssemblyFiles.emplace(path, 1).second)
                continue;
            auto reference = qv::make_object<CDotNetAssemblyRef>();
            reference->SetAssemblyFile(path);
            check_hr(m_pRefs->Add(qv::bstr(path).get(), as_ref(reference).get()));
        }
    }
}

void CDotNetAssembly::WalkInteropRefs() {
    IMetaDataImport* scope = m_Scope.Import();
    const std::vector<mdToken> tokens = enumerate_tokens(scope, [&](HCORENUM* e, mdToken* out, ULONG max, ULONG* n) {
        return scope->EnumCustomAttributes(e, AssemblyToken, 0, out, max, n);
    });
    InteropFacts facts;
    for (mdToken token : tokens)
        ReadInteropAttribute(scope, token, facts);
    if (!facts.bHasGuid || !facts.bImportedFromTypeLib)
        return;
    std::wstring text = facts.GuidText;
    if (text.empty() || text.front() != L'{')
        text.insert(text.begin(), L'{');
    if (text.back() != L'}')
        text.push_back(L'}');
    // The parse's result is not looked at: a text that is no GUID asks for the null identifier.
    GUID library = GUID_NULL;
    CLSIDFromString(text.c_str(), &library);
    const bool fromAssembly = facts.nPrimaryVersion == -1;
    const WORD major = fromAssembly ? m_MetaData.usMajorVersion : 0;
    const WORD minor = fromAssembly ? m_MetaData.usMinorVersion : 0;
    qv::bstr path;
    if (FAILED(QueryPathOfRegTypeLib(library, major, minor, 1024, path.put())) || !path.get())
        return;
    remember_seen(path.str());
    auto reference = qv::make_object<CDotNetAssemblyRef>();
    reference->ResolveFile(path.str(), 0);
    check_hr(m_pRefs->Add(path.get(), as_ref(reference).get()));
}

STDMETHODIMP CDotNetAssemblyRef::get_FileName(BSTR* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = nullptr;
    if (!m_FileName.get())
        return S_OK;
    return qv::copy_text_out(m_FileName.view(), pVal);
}

STDMETHODIMP CDotNetAssemblyRef::get_DotNetAssembly(IDotNetAssembly** pVal) {
    if (!pVal)
        return E_POINTER;
    if (!m_pAssembly)
        return S_OK;
    return m_pAssembly->QueryInterface(IID_IDotNetAssembly, reinterpret_cast<void**>(pVal));
}

STDMETHODIMP CDotNetAssemblyRef::get_Found(VARIANT_BOOL* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = m_bFound ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

STDMETHODIMP CDotNetAssemblyRef::get_Machine(long* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = m_Machine;
    return S_OK;
}

void CDotNetAssemblyRef::SetAssemblyFile(const std::wstring& path) {
    m_FileName = qv::bstr(path);
    auto child = qv::make_object<CDotNetAssembly>();
    m_pAssembly = child.template query<IDotNetAssembly>(IID_IDotNetAssembly);
    if (m_pAssembly->Load(qv::bstr(path).get()) == S_OK) {
        m_bFound = 1;
    } else {
        m_pAssembly.reset();
        m_bFound = 0;
    }
}

void CDotNetAssemblyRef::SetMissing(const std::wstring& name) {
    m_FileName = qv::bstr(name);
    m_bFound = 0;
}

void CDotNetAssemblyRef::ResolveFile(const std::wstring& name, DWORD machine) {
    const size_t slash = name.find_last_of(L'\\');
    const std::wstring folder = slash == std::wstring::npos ? std::wstring() : name.substr(0, slash + 1);
    const std::wstring file = slash == std::wstring::npos ? name : name.substr(slash + 1);
    std::wstring found;
    if (FindDependency(folder, file, machine, found)) {
        m_FileName = qv::bstr(found);
        m_bFound = 1;
    } else {
        m_FileName = qv::bstr(name);
        m_bFound = 0;
    }
    m_Machine = static_cast<LONG>(machine);
}

STDMETHODIMP CDotNetAssemblyRefs::Add(BSTR bstrAssembly, IDotNetAssemblyRef* pAssembly) {
    return qv::com_boundary([&] {
        collection_type::Add(bstrAssembly, pAssembly);
        return S_OK;
    });
}
