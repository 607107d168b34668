#include "dotnet/builtin_metadata.h"

#include "format/metadata/metadata.h"
#include "format/pe/pe_image.h"
#include "image/file_view.h"
#include "inc/com_boundary.h"
#include "inc/com_error.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"
#include "toolkit/string_convert.h"

#include <corerror.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

namespace md = qv::metadata;
using md::table;

// One file as the scopes read it; the bytes stay while a scope lives, so that what it hands out lives as
// long. The two scopes of one open share it.
struct opened_file {
    explicit opened_file(const std::wstring& path) : view(path) {}
    CFileView view;
    std::optional<qv::pe::pe_image> image;
    std::optional<md::metadata_reader> reader;
    HRESULT result = E_FAIL; // what the read of the file said

    void read() {
        if (view.OpenStatus() != CFileView::OpenOk) {
            result = view.OpenStatus() == CFileView::OpenNoFile ? HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)
                                                                : COR_E_BADIMAGEFORMAT;
            return;
        }
        image = qv::pe::pe_image::open(view.Bytes());
        if (!image || !md::read_cli_header(*image)) {
            result = COR_E_BADIMAGEFORMAT;
            return;
        }
        reader = md::metadata_reader::open(*image);
        result = reader ? S_OK : CLDB_E_FILE_CORRUPT;
    }
};

// A caller's text buffer as the runtime fills it: *needed gets the length with its end mark; a buffer
// too small gets what fits, ended, and CLDB_S_TRUNCATION.
HRESULT put_text(const std::string& utf8, LPWSTR buffer, ULONG capacity, ULONG* needed) {
    const std::wstring text = qv::WidenAnsi(utf8, CP_UTF8);
    if (needed)
        *needed = static_cast<ULONG>(text.size() + 1);
    if (!buffer || capacity == 0)
        return S_OK;
    const size_t n = std::min<size_t>(text.size(), capacity - 1);
    text.copy(buffer, n);
    buffer[n] = L'\0';
    return n < text.size() ? CLDB_S_TRUNCATION : S_OK;
}

// The bytes of a span as a pointer the caller may read, or null when the file no longer holds them.
const void* bytes_of(qv::format::byte_span span) {
    return span.empty() || !span.readable(0, span.size()) ? nullptr : span.data();
}

ULONG size_of(qv::format::byte_span span) {
    return bytes_of(span) ? static_cast<ULONG>(span.size()) : 0;
}

// The state behind an HCORENUM: the tokens still to hand out.
struct token_enum {
    std::vector<mdToken> tokens;
    size_t next = 0;
};

// Hands out up to max tokens of the enumerator at *handle, making it from make() on the first call.
template <class Make> HRESULT enumerate(HCORENUM* handle, mdToken* out, ULONG max, ULONG* count, Make make) {
    if (count)
        *count = 0;
    if (!handle)
        return E_INVALIDARG;
    if (!*handle) {
        auto e = std::make_unique<token_enum>();
        e->tokens = make();
        *handle = e.release();
    }
    auto* e = static_cast<token_enum*>(*handle);
    ULONG n = 0;
    for (; n < max && e->next < e->tokens.size() && out; ++n)
        out[n] = e->tokens[e->next++];
    if (count)
        *count = n;
    return n ? S_OK : S_FALSE;
}

std::vector<mdToken> all_rows(const md::metadata_reader& reader, table t) {
    std::vector<mdToken> tokens(reader.rows(t));
    for (std::uint32_t row = 1; row <= tokens.size(); ++row)
        tokens[row - 1] = md::token(t, row);
    return tokens;
}

bool is_row(const md::metadata_reader& reader, mdToken token, table t) {
    const std::uint32_t row = token & 0xFFFFFF;
    return (token >> 24) == static_cast<std::uint8_t>(t) && row != 0 && row <= reader.rows(t);
}

void fill_metadata(ASSEMBLYMETADATA* metadata, const md::version& version, const std::string& culture) {
    if (!metadata)
        return;
    metadata->usMajorVersion = version.major;
    metadata->usMinorVersion = version.minor;
    metadata->usBuildNumber = version.build;
    metadata->usRevisionNumber = version.revision;
    ULONG needed = 0;
    // The locale's room is counted in characters, as the runtime counts it.
    put_text(culture, metadata->szLocale, metadata->szLocale ? metadata->cbLocale : 0, &needed);
    metadata->cbLocale = needed;
    // No processor or operating-system rows are read: their tables are obsolete and always empty.
    metadata->ulProcessor = 0;
    metadata->ulOS = 0;
}

#define QV_NOT_SERVED(name, ...)                                                                                       \
    STDMETHOD(name)(__VA_ARGS__) override {                                                                            \
        return E_NOTIMPL;                                                                                              \
    }

class CBuiltInScope : public qv::object_root, public IMetaDataImport2, public IMetaDataAssemblyImport {
public:
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CBuiltInScope)
    QV_INTERFACE(IID_IMetaDataImport2, IMetaDataImport2)
    QV_INTERFACE2(IID_IMetaDataImport, IMetaDataImport, IMetaDataImport2)
    QV_INTERFACE(IID_IMetaDataAssemblyImport, IMetaDataAssemblyImport)
    QV_END_INTERFACE_MAP()

    // Serves the file as read; the HRESULT tells whether it is an assembly the scope can serve.
    HRESULT Open(std::shared_ptr<opened_file> file, const std::wstring& path) {
        m_file = std::move(file);
        if (m_file->result == CLDB_E_FILE_CORRUPT)
            qv::set_error_description(L"The .NET metadata of " + path + L" is corrupt.");
        return m_file->result;
    }

    // Both interfaces close their enumerators the same way.
    STDMETHOD_(void, CloseEnum)(HCORENUM hEnum) override { delete static_cast<token_enum*>(hEnum); }

    // IMetaDataImport
    STDMETHOD(CountEnum)(HCORENUM hEnum, ULONG* pulCount) override {
        if (!pulCount)
            return E_INVALIDARG;
        *pulCount = hEnum ? static_cast<ULONG>(static_cast<token_enum*>(hEnum)->tokens.size()) : 0;
        return S_OK;
    }
    STDMETHOD(ResetEnum)(HCORENUM hEnum, ULONG ulPos) override {
        if (hEnum)
            static_cast<token_enum*>(hEnum)->next = ulPos;
        return S_OK;
    }
    QV_NOT_SERVED(EnumTypeDefs, HCORENUM*, mdTypeDef[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumInterfaceImpls, HCORENUM*, mdTypeDef, mdInterfaceImpl[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumTypeRefs, HCORENUM*, mdTypeRef[], ULONG, ULONG*)
    QV_NOT_SERVED(FindTypeDefByName, LPCWSTR, mdToken, mdTypeDef*)
    STDMETHOD(GetScopeProps)(LPWSTR szName, ULONG cchName, ULONG* pchName, GUID* pmvid) override {
        const auto name = Reader().module_name();
        const auto mvidIndex = Reader().column(table::Module, 1, 2);
        const auto mvid = mvidIndex ? Reader().guid(*mvidIndex) : std::nullopt;
        if (!name)
            return CLDB_E_RECORD_NOTFOUND;
        if (pmvid) {
            *pmvid = GUID_NULL;
            if (mvid)
                memcpy(pmvid, mvid->data(), sizeof(GUID));
        }
        return put_text(*name, szName, cchName, pchName);
    }
    STDMETHOD(GetModuleFromScope)(mdModule* pmd) override {
        if (!pmd)
            return E_INVALIDARG;
        *pmd = md::token(table::Module, 1);
        return S_OK;
    }
    QV_NOT_SERVED(GetTypeDefProps, mdTypeDef, LPWSTR, ULONG, ULONG*, DWORD*, mdToken*)
    QV_NOT_SERVED(GetInterfaceImplProps, mdInterfaceImpl, mdTypeDef*, mdToken*)
    STDMETHOD(GetTypeRefProps)
    (mdTypeRef tr, mdToken* ptkResolutionScope, LPWSTR szName, ULONG cchName, ULONG* pchName) override {
        const auto row = is_row(Reader(), tr, table::TypeRef) ? Reader().type_ref(tr & 0xFFFFFF) : std::nullopt;
        if (!row)
            return CLDB_E_RECORD_NOTFOUND;
        if (ptkResolutionScope)
            *ptkResolutionScope = row->scope;
        return put_text(row->name_space.empty() ? row->name : row->name_space + "." + row->name, szName, cchName,
                        pchName);
    }
    QV_NOT_SERVED(ResolveTypeRef, mdTypeRef, REFIID, IUnknown**, mdTypeDef*)
    QV_NOT_SERVED(EnumMembers, HCORENUM*, mdTypeDef, mdToken[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumMembersWithName, HCORENUM*, mdTypeDef, LPCWSTR, mdToken[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumMethods, HCORENUM*, mdTypeDef, mdMethodDef[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumMethodsWithName, HCORENUM*, mdTypeDef, LPCWSTR, mdMethodDef[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumFields, HCORENUM*, mdTypeDef, mdFieldDef[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumFieldsWithName, HCORENUM*, mdTypeDef, LPCWSTR, mdFieldDef[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumParams, HCORENUM*, mdMethodDef, mdParamDef[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumMemberRefs, HCORENUM*, mdToken, mdMemberRef[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumMethodImpls, HCORENUM*, mdTypeDef, mdToken[], mdToken[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumPermissionSets, HCORENUM*, mdToken, DWORD, mdPermission[], ULONG, ULONG*)
    QV_NOT_SERVED(FindMember, mdTypeDef, LPCWSTR, PCCOR_SIGNATURE, ULONG, mdToken*)
    QV_NOT_SERVED(FindMethod, mdTypeDef, LPCWSTR, PCCOR_SIGNATURE, ULONG, mdMethodDef*)
    QV_NOT_SERVED(FindField, mdTypeDef, LPCWSTR, PCCOR_SIGNATURE, ULONG, mdFieldDef*)
    QV_NOT_SERVED(FindMemberRef, mdTypeRef, LPCWSTR, PCCOR_SIGNATURE, ULONG, mdMemberRef*)
    QV_NOT_SERVED(GetMethodProps, mdMethodDef, mdTypeDef*, LPWSTR, ULONG, ULONG*, DWORD*, PCCOR_SIGNATURE*, ULONG*,
                  ULONG*, DWORD*)
    STDMETHOD(GetMemberRefProps)
    (mdMemberRef mr, mdToken* ptk, LPWSTR szMember, ULONG cchMember, ULONG* pchMember, PCCOR_SIGNATURE* ppvSigBlob,
     ULONG* pbSig) override {
        const auto row = is_row(Reader(), mr, table::MemberRef) ? Reader().member_ref(mr & 0xFFFFFF) : std::nullopt;
        if (!row)
            return CLDB_E_RECORD_NOTFOUND;
        if (ptk)
            *ptk = row->parent;
        if (ppvSigBlob)
            *ppvSigBlob = static_cast<PCCOR_SIGNATURE>(bytes_of(row->signature));
        if (pbSig)
            *pbSig = size_of(row->signature);
        return put_text(row->name, szMember, cchMember, pchMember);
    }
    QV_NOT_SERVED(EnumProperties, HCORENUM*, mdTypeDef, mdProperty[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumEvents, HCORENUM*, mdTypeDef, mdEvent[], ULONG, ULONG*)
    QV_NOT_SERVED(GetEventProps, mdEvent, mdTypeDef*, LPCWSTR, ULONG, ULONG*, DWORD*, mdToken*, mdMethodDef*,
                  mdMethodDef*, mdMethodDef*, mdMethodDef[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumMethodSemantics, HCORENUM*, mdMethodDef, mdToken[], ULONG, ULONG*)
    QV_NOT_SERVED(GetMethodSemantics, mdMethodDef, mdToken, DWORD*)
    QV_NOT_SERVED(GetClassLayout, mdTypeDef, DWORD*, COR_FIELD_OFFSET[], ULONG, ULONG*, ULONG*)
    QV_NOT_SERVED(GetFieldMarshal, mdToken, PCCOR_SIGNATURE*, ULONG*)
    QV_NOT_SERVED(GetRVA, mdToken, ULONG*, DWORD*)
    QV_NOT_SERVED(GetPermissionSetProps, mdPermission, DWORD*, void const**, ULONG*)
    QV_NOT_SERVED(GetSigFromToken, mdSignature, PCCOR_SIGNATURE*, ULONG*)
    STDMETHOD(GetModuleRefProps)(mdModuleRef mur, LPWSTR szName, ULONG cchName, ULONG* pchName) override {
        const auto name = is_row(Reader(), mur, table::ModuleRef) ? Reader().module_ref(mur & 0xFFFFFF) : std::nullopt;
        if (!name)
            return CLDB_E_RECORD_NOTFOUND;
        return put_text(*name, szName, cchName, pchName);
    }
    STDMETHOD(EnumModuleRefs)(HCORENUM* phEnum, mdModuleRef rModuleRefs[], ULONG cmax, ULONG* pcModuleRefs) override {
        return enumerate(phEnum, rModuleRefs, cmax, pcModuleRefs, [&] { return all_rows(Reader(), table::ModuleRef); });
    }
    QV_NOT_SERVED(GetTypeSpecFromToken, mdTypeSpec, PCCOR_SIGNATURE*, ULONG*)
    STDMETHOD(GetNameFromToken)(mdToken tk, MDUTF8CSTR* pszUtf8NamePtr) override {
        if (!pszUtf8NamePtr)
            return E_INVALIDARG;
        *pszUtf8NamePtr = nullptr;
        auto name = Reader().name_of(tk);
        if (!name)
            return CLDB_E_RECORD_NOTFOUND;
        // The runtime hands out a pointer into its heap; this scope keeps each name it was asked for.
        m_names.push_back(std::move(*name));
        *pszUtf8NamePtr = m_names.back().c_str();
        return S_OK;
    }
    QV_NOT_SERVED(EnumUnresolvedMethods, HCORENUM*, mdToken[], ULONG, ULONG*)
    QV_NOT_SERVED(GetUserString, mdString, LPWSTR, ULONG, ULONG*)
    QV_NOT_SERVED(GetPinvokeMap, mdToken, DWORD*, LPWSTR, ULONG, ULONG*, mdModuleRef*)
    QV_NOT_SERVED(EnumSignatures, HCORENUM*, mdSignature[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumTypeSpecs, HCORENUM*, mdTypeSpec[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumUserStrings, HCORENUM*, mdString[], ULONG, ULONG*)
    QV_NOT_SERVED(GetParamForMethodIndex, mdMethodDef, ULONG, mdParamDef*)
    STDMETHOD(EnumCustomAttributes)
    (HCORENUM* phEnum, mdToken tk, mdToken tkType, mdCustomAttribute rCustomAttributes[], ULONG cMax,
     ULONG* pcCustomAttributes) override {
        return enumerate(phEnum, rCustomAttributes, cMax, pcCustomAttributes, [&] {
            std::vector<mdToken> tokens;
            const std::uint32_t rows = Reader().rows(table::CustomAttribute);
            for (std::uint32_t row = 1; row <= rows; ++row) {
                const auto attribute = Reader().custom_attribute(row);
                if (attribute && (tk == 0 || attribute->parent == tk) && (tkType == 0 || attribute->type == tkType))
                    tokens.push_back(md::token(table::CustomAttribute, row));
            }
            return tokens;
        });
    }
    STDMETHOD(GetCustomAttributeProps)
    (mdCustomAttribute cv, mdToken* ptkObj, mdToken* ptkType, void const** ppBlob, ULONG* pcbSize) override {
        const auto attribute =
            is_row(Reader(), cv, table::CustomAttribute) ? Reader().custom_attribute(cv & 0xFFFFFF) : std::nullopt;
        if (!attribute)
            return CLDB_E_RECORD_NOTFOUND;
        if (ptkObj)
            *ptkObj = attribute->parent;
        if (ptkType)
            *ptkType = attribute->type;
        if (ppBlob)
            *ppBlob = bytes_of(attribute->value);
        if (pcbSize)
            *pcbSize = size_of(attribute->value);
        return S_OK;
    }
    QV_NOT_SERVED(FindTypeRef, mdToken, LPCWSTR, mdTypeRef*)
    QV_NOT_SERVED(GetMemberProps, mdToken, mdTypeDef*, LPWSTR, ULONG, ULONG*, DWORD*, PCCOR_SIGNATURE*, ULONG*, ULONG*,
                  DWORD*, DWORD*, UVCP_CONSTANT*, ULONG*)
    QV_NOT_SERVED(GetFieldProps, mdFieldDef, mdTypeDef*, LPWSTR, ULONG, ULONG*, DWORD*, PCCOR_SIGNATURE*, ULONG*,
                  DWORD*, UVCP_CONSTANT*, ULONG*)
    QV_NOT_SERVED(GetPropertyProps, mdProperty, mdTypeDef*, LPCWSTR, ULONG, ULONG*, DWORD*, PCCOR_SIGNATURE*, ULONG*,
                  DWORD*, UVCP_CONSTANT*, ULONG*, mdMethodDef*, mdMethodDef*, mdMethodDef[], ULONG, ULONG*)
    QV_NOT_SERVED(GetParamProps, mdParamDef, mdMethodDef*, ULONG*, LPWSTR, ULONG, ULONG*, DWORD*, DWORD*,
                  UVCP_CONSTANT*, ULONG*)
    QV_NOT_SERVED(GetCustomAttributeByName, mdToken, LPCWSTR, const void**, ULONG*)
    STDMETHOD_(WINBOOL, IsValidToken)(mdToken tk) override {
        const std::uint32_t t = tk >> 24;
        return t < md::table_count && (tk & 0xFFFFFF) != 0 && (tk & 0xFFFFFF) <= Reader().rows(static_cast<table>(t));
    }
    QV_NOT_SERVED(GetNestedClassProps, mdTypeDef, mdTypeDef*)
    QV_NOT_SERVED(GetNativeCallConvFromSig, void const*, ULONG, ULONG*)
    QV_NOT_SERVED(IsGlobal, mdToken, int*)

    // IMetaDataImport2
    QV_NOT_SERVED(EnumGenericParams, HCORENUM*, mdToken, mdGenericParam[], ULONG, ULONG*)
    QV_NOT_SERVED(GetGenericParamProps, mdGenericParam, ULONG*, DWORD*, mdToken*, DWORD*, LPWSTR, ULONG, ULONG*)
    QV_NOT_SERVED(GetMethodSpecProps, mdMethodSpec, mdToken*, PCCOR_SIGNATURE*, ULONG*)
    QV_NOT_SERVED(EnumGenericParamConstraints, HCORENUM*, mdGenericParam, mdGenericParamConstraint[], ULONG, ULONG*)
    QV_NOT_SERVED(GetGenericParamConstraintProps, mdGenericParamConstraint, mdGenericParam*, mdToken*)
    // The kind bits of CorPEKind from the CLI header's flags and the optional header's magic.
    STDMETHOD(GetPEKind)(DWORD* pdwPEKind, DWORD* pdwMachine) override {
        const auto header = md::read_cli_header(*m_file->image);
        if (!header)
            return COR_E_BADIMAGEFORMAT;
        constexpr std::uint32_t ilOnly = 1, required32 = 2, preferred32 = 0x20000;
        DWORD kind = 0;
        if (header->flags & ilOnly)
            kind |= 1; // peILonly
        else
            kind |= 8; // pe32Unmanaged
        if ((header->flags & required32) && (header->flags & preferred32))
            kind |= 0x10; // pe32BitPreferred
        else if (header->flags & required32)
            kind |= 2; // pe32BitRequired
        if (m_file->image->kind() == qv::pe::image_kind::pe64)
            kind |= 4; // pe32Plus
        if (pdwPEKind)
            *pdwPEKind = kind;
        if (pdwMachine)
            *pdwMachine = m_file->image->machine();
        return S_OK;
    }
    STDMETHOD(GetVersionString)(LPWSTR pwzBuf, DWORD ccBufSize, DWORD* pccBufSize) override {
        ULONG needed = 0;
        HRESULT hr = put_text(Reader().runtime_version(), pwzBuf, ccBufSize, &needed);
        if (pccBufSize)
            *pccBufSize = needed;
        return hr;
    }
    QV_NOT_SERVED(EnumMethodSpecs, HCORENUM*, mdToken, mdMethodSpec[], ULONG, ULONG*)

    // IMetaDataAssemblyImport
    STDMETHOD(GetAssemblyProps)
    (mdAssembly mda, const void** ppbPublicKey, ULONG* pcbPublicKey, ULONG* pulHashAlgId, LPWSTR szName, ULONG cchName,
     ULONG* pchName, ASSEMBLYMETADATA* pMetaData, DWORD* pdwAssemblyFlags) override {
        const auto row = mda == md::token(table::Assembly, 1) ? Reader().assembly() : std::nullopt;
        if (!row)
            return CLDB_E_RECORD_NOTFOUND;
        if (ppbPublicKey)
            *ppbPublicKey = bytes_of(row->public_key);
        if (pcbPublicKey)
            *pcbPublicKey = size_of(row->public_key);
        if (pulHashAlgId)
            *pulHashAlgId = row->hash_algorithm;
        if (pdwAssemblyFlags)
            *pdwAssemblyFlags = row->flags;
        fill_metadata(pMetaData, row->version, row->culture);
        return put_text(row->name, szName, cchName, pchName);
    }
    STDMETHOD(GetAssemblyRefProps)
    (mdAssemblyRef mdar, const void** ppbPublicKeyOrToken, ULONG* pcbPublicKeyOrToken, LPWSTR szName, ULONG cchName,
     ULONG* pchName, ASSEMBLYMETADATA* pMetaData, const void** ppbHashValue, ULONG* pcbHashValue,
     DWORD* pdwAssemblyRefFlags) override {
        const auto row =
            is_row(Reader(), mdar, table::AssemblyRef) ? Reader().assembly_ref(mdar & 0xFFFFFF) : std::nullopt;
        if (!row)
            return CLDB_E_RECORD_NOTFOUND;
        if (ppbPublicKeyOrToken)
            *ppbPublicKeyOrToken = bytes_of(row->public_key_or_token);
        if (pcbPublicKeyOrToken)
            *pcbPublicKeyOrToken = size_of(row->public_key_or_token);
        if (ppbHashValue)
            *ppbHashValue = bytes_of(row->hash_value);
        if (pcbHashValue)
            *pcbHashValue = size_of(row->hash_value);
        if (pdwAssemblyRefFlags)
            *pdwAssemblyRefFlags = row->flags;
        fill_metadata(pMetaData, row->version, row->culture);
        return put_text(row->name, szName, cchName, pchName);
    }
    STDMETHOD(GetFileProps)
    (mdFile mdf, LPWSTR szName, ULONG cchName, ULONG* pchName, const void** ppbHashValue, ULONG* pcbHashValue,
     DWORD* pdwFileFlags) override {
        const auto row = is_row(Reader(), mdf, table::File) ? Reader().file(mdf & 0xFFFFFF) : std::nullopt;
        if (!row)
            return CLDB_E_RECORD_NOTFOUND;
        if (ppbHashValue)
            *ppbHashValue = bytes_of(row->hash_value);
        if (pcbHashValue)
            *pcbHashValue = size_of(row->hash_value);
        if (pdwFileFlags)
            *pdwFileFlags = row->flags;
        return put_text(row->name, szName, cchName, pchName);
    }
    QV_NOT_SERVED(GetExportedTypeProps, mdExportedType, LPWSTR, ULONG, ULONG*, mdToken*, mdTypeDef*, DWORD*)
    QV_NOT_SERVED(GetManifestResourceProps, mdManifestResource, LPWSTR, ULONG, ULONG*, mdToken*, DWORD*, DWORD*)
    STDMETHOD(EnumAssemblyRefs)(HCORENUM* phEnum, mdAssemblyRef rAssemblyRefs[], ULONG cMax, ULONG* pcTokens) override {
        return enumerate(phEnum, rAssemblyRefs, cMax, pcTokens, [&] { return all_rows(Reader(), table::AssemblyRef); });
    }
    STDMETHOD(EnumFiles)(HCORENUM* phEnum, mdFile rFiles[], ULONG cMax, ULONG* pcTokens) override {
        return enumerate(phEnum, rFiles, cMax, pcTokens, [&] { return all_rows(Reader(), table::File); });
    }
    QV_NOT_SERVED(EnumExportedTypes, HCORENUM*, mdExportedType[], ULONG, ULONG*)
    QV_NOT_SERVED(EnumManifestResources, HCORENUM*, mdManifestResource[], ULONG, ULONG*)
    STDMETHOD(GetAssemblyFromScope)(mdAssembly* ptkAssembly) override {
        if (!ptkAssembly)
            return E_INVALIDARG;
        *ptkAssembly = md::token(table::Assembly, 1);
        return Reader().rows(table::Assembly) ? S_OK : CLDB_E_RECORD_NOTFOUND;
    }
    QV_NOT_SERVED(FindExportedTypeByName, LPCWSTR, mdToken, mdExportedType*)
    QV_NOT_SERVED(FindManifestResourceByName, LPCWSTR, mdManifestResource*)
    QV_NOT_SERVED(FindAssembliesByName, LPCWSTR, LPCWSTR, LPCWSTR, IUnknown*[], ULONG, ULONG*)

private:
    const md::metadata_reader& Reader() const { return *m_file->reader; }

    std::shared_ptr<opened_file> m_file;
    std::deque<std::string> m_names;
};

class CBuiltInDispenser : public qv::object_root, public IMetaDataDispenser {
public:
    static constexpr bool aggregatable = false;

    QV_BEGIN_INTERFACE_MAP(CBuiltInDispenser)
    QV_INTERFACE(IID_IMetaDataDispenser, IMetaDataDispenser)
    QV_END_INTERFACE_MAP()

    QV_NOT_SERVED(DefineScope, REFCLSID, DWORD, REFIID, IUnknown**)
    // Any open flags are taken as a plain read: the scope never writes.
    STDMETHOD(OpenScope)(LPCWSTR szScope, DWORD, REFIID riid, IUnknown** ppIUnk) override {
        if (!ppIUnk)
            return E_POINTER;
        *ppIUnk = nullptr;
        return qv::com_boundary([&] {
            auto scope = qv::make_object<CBuiltInScope>();
            const std::wstring path = szScope ? szScope : L"";
            // A file opened for one interface and opened again for the other is read once, while the
            // first scope lives.
            std::shared_ptr<opened_file> file = path == m_lastPath ? m_last.lock() : nullptr;
            if (!file) {
                file = std::make_shared<opened_file>(path);
                file->read();
                m_lastPath = path;
                m_last = file;
            }
            HRESULT hr = scope->Open(std::move(file), path);
            if (FAILED(hr))
                return hr;
            return scope->QueryInterface(riid, reinterpret_cast<void**>(ppIUnk));
        });
    }
    QV_NOT_SERVED(OpenScopeOnMemory, LPCVOID, ULONG, DWORD, REFIID, IUnknown**)

private:
    std::wstring m_lastPath;
    std::weak_ptr<opened_file> m_last;
};

#undef QV_NOT_SERVED

} // namespace

HRESULT CreateBuiltInDispenser(IMetaDataDispenser** ppDispenser) {
    if (!ppDispenser)
        return E_POINTER;
    *ppDispenser = nullptr;
    return qv::com_boundary([&] {
        *ppDispenser = qv::make_object<CBuiltInDispenser>().detach();
        return S_OK;
    });
}
