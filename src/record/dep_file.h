// CDepFile, the coclass DepFile: the record of one file an application needs, which every scanner
// produces. It is filled once from the disk (LoadFromFile, SetMissing) or turned into a merge-module
// entry (SetMergeModule), and is a plain value afterwards. Clients read it through IDepFile /
// IDepFileTarn (dual) and IDepFileInfo; the scanners use the C++ operations below.
//
// It trusts the file system only as far as the probes and the version reader do. LoadFromFile may run
// a DLL's initialisation code (the automatic self-registration test): only callers that accept that
// leave SetAutoSelfReg on; MakeDepFile (static/make_dep_file.h) switches it off.
#pragma once

#include "QVWIScanners.h"
#include "inc/com_dispatch.h"
#include "inc/com_object.h"
#include "inc/com_ptr.h"
#include "inc/scan_extensions.h"
#include "record/languages.h"

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv {
class version_info;
}

// What a scan with qv::scan_type::details tells of a record beyond its fields.
struct dep_file_details {
    bool delayOnly = false; // needed only through delay-loaded imports
    struct entry_gap {
        std::wstring importer;
        std::vector<std::wstring> names; // what the importer calls and the file lacks
    };
    std::vector<entry_gap> missingEntries;
    struct passed_copy {
        std::wstring path;
        DWORD machine = 0;
    };
    std::vector<passed_copy> passedOver; // copies of another machine the search stepped over
};

class CDepFile
    : public qv::object_root,
      public qv::dispatch_impl<IDepFileTarn, &IID_IDepFileTarn, qv::typeinfo_holder<&LIBID_QVWISCANNERSLib, 1, 0>>,
      public IDepFileInfo,
      public IQvDepFileDetails,
      public qv::support_error_info_impl<&IID_IDepFile> {
public:
    static constexpr bool aggregatable = false;

    // Makes the (empty) language collection; a failure is thrown as com_exception.
    CDepFile();

    QV_BEGIN_INTERFACE_MAP(CDepFile)
    QV_INTERFACE(IID_IDepFile, IDepFile)
    QV_INTERFACE(IID_IDepFileTarn, IDepFileTarn)
    QV_INTERFACE(IID_IDispatch, IDispatch)
    QV_INTERFACE(IID_IDepFileInfo, IDepFileInfo)
    QV_INTERFACE(IID_IQvDepFileDetails, IQvDepFileDetails)
    QV_INTERFACE(IID_ISupportErrorInfo, ISupportErrorInfo)
    QV_END_INTERFACE_MAP()

    // IDepFile
    STDMETHOD(get_Name)(BSTR* pVal) override;
    STDMETHOD(get_ModifiedTime)(DATE* pVal) override;
    STDMETHOD(get_Size)(long* pVal) override;
    STDMETHOD(get_Path)(BSTR* pVal) override;
    STDMETHOD(get_Shared)(VARIANT_BOOL* pVal) override;
    STDMETHOD(get_SelfRegistering)(VARIANT_BOOL* pVal) override;
    STDMETHOD(get_Languages)(ILanguages** pVal) override;
    STDMETHOD(get_MajorVersion)(long* pVal) override;
    STDMETHOD(get_MinorVersion)(long* pVal) override;

    // IDepFileTarn
    STDMETHOD(PutDestPath)(BSTR bstrVal) override;
    STDMETHOD(GetDestPath)(BSTR* pbstrVal) override;
    STDMETHOD(PutName)(BSTR bstrVal) override;
    STDMETHOD(PutPath)(BSTR bstrVal) override;
    STDMETHOD(PutSelfReg)(VARIANT_BOOL vbSelfReg) override;
    STDMETHOD(PutDotNet)(VARIANT_BOOL vbDotNet) override;
    STDMETHOD(GetDotNet)(VARIANT_BOOL* vbDotNet) override;

    // IDepFileInfo
    STDMETHOD(get_Included)(VARIANT_BOOL* pVal) override;
    STDMETHOD(put_Included)(VARIANT_BOOL newVal) override;
    STDMETHOD(get_IsMergeModule)(VARIANT_BOOL* pVal) override;
    STDMETHOD(get_IsDriver)(VARIANT_BOOL* pVal) override;
    STDMETHOD(put_IsDriver)(VARIANT_BOOL newVal) override;
    STDMETHOD(get_IsFilterable)(VARIANT_BOOL* pVal) override;
    STDMETHOD(put_IsFilterable)(VARIANT_BOOL newVal) override;
    STDMETHOD(get_IsMissing)(VARIANT_BOOL* pVal) override;
    STDMETHOD(get_Assembly)(IDotNetAssembly** pVal) override;

    // IQvDepFileDetails
    STDMETHOD(get_DelayLoaded)(long* delayOnly) override;
    STDMETHOD(get_MissingEntryPoints)(BSTR* lines) override;
    STDMETHOD(get_PassedOver)(BSTR* lines) override;

    // ---- Operations for the scanners. They throw com_exception (or std::bad_alloc) on failure.

    // Fills the record from the file at path: names, destination, version, self-registration, size,
    // time, shared flag, languages. A path that is neither a file nor a folder gives SetMissing(path).
    void LoadFromFile(const std::wstring& path);
    // Marks the record as not found: names and destination from path, IsMissing, the rest zero.
    void SetMissing(const std::wstring& path);
    // Turns the record into the entry of a merge module: Name holds the module's subject and Path its
    // key, which are no file name and directory.
    void SetMergeModule(std::wstring_view name, std::wstring_view path, bool bMissing);
    // Name := name and Path := the directory part of path (both := path when name is empty); the
    // destination is Path with a known folder replaced by its token, or Path itself.
    void SetPaths(const std::wstring& name, const std::wstring& path);

    // Whether LoadFromFile may load a DLL to look for DllRegisterServer (on for a new record).
    void SetAutoSelfReg(bool on) { m_bAutoSelfReg = on; }
    bool AutoSelfReg() const { return m_bAutoSelfReg; }
    // The self-registration flag as a scanner knows it; LoadFromFile keeps it when the automatic test
    // is off (and the file is no .exe).
    void SetSelfRegistering(bool yes) { m_bSelfRegistering = yes ? VARIANT_TRUE : VARIANT_FALSE; }
    // The assembly object of the file, or null; kept as its IDotNetAssembly.
    void SetAssembly(IUnknown* assembly);
    void SetFilterable(bool yes) { m_bIsFilterable = yes; }
    void SetDetails(dep_file_details details) { m_details = std::move(details); }

    // Read access for the scanners; the BSTRs are borrowed.
    BSTR Name() const { return m_bstrName.get(); }
    BSTR Path() const { return m_bstrPath.get(); }
    const std::wstring& DestPath() const { return m_sDestPath; }
    bool IsMissing() const { return m_bIsMissing; }
    bool IsMergeModule() const { return m_bIsMergeModule; }
    bool IsFilterable() const { return m_bIsFilterable; }

    // The destination form of a folder: lower-cased, one trailing backslash dropped, and the first of
    // the system folder, the Windows folder and the common-files folder (in that order) that occurs
    // anywhere in it replaced by the token of the current project traits. Nothing when none occurs
    // or the path is empty.
    static std::optional<std::wstring> MapDestPath(const std::wstring& path);

private:
    bool TestSelfRegistration(const std::wstring& path, const qv::version_info& info);
    bool TestShared(const std::wstring& path) const;

    qv::bstr m_bstrName;
    qv::bstr m_bstrPath;
    VARIANT_BOOL m_bSelfRegistering = VARIANT_FALSE;
    VARIANT_BOOL m_bShared = VARIANT_FALSE;
    long m_nSize = 0;
    DATE m_dModifiedTime = 0;
    qv::com_ptr<qv::com_object<CLanguages>> m_pLanguages;
    long m_nMajorVersion = 0;
    long m_nMinorVersion = 0;
    bool m_bIncluded = false;
    bool m_bIsMergeModule = false;
    bool m_bIsDriver = false;
    bool m_bIsFilterable = false;
    bool m_bIsMissing = false;
    bool m_bDotNet = false;
    bool m_bAutoSelfReg = true;
    bool m_bAutoDotNet = true;
    qv::com_ptr<IDotNetAssembly> m_pAssembly;
    std::wstring m_sDestPath;
    dep_file_details m_details;
};

// Path rules of the record, shared with the tests.
namespace qv::dep_file_detail {

// The path (either separator) with its "." components dropped and each ".." taking the component before it away.
std::wstring RemoveDotComponents(std::wstring_view path);

// The folders that make a file shared by where it stands.
struct shared_folders {
    std::wstring system;
    std::wstring windows;
    bool wow64 = false;
    std::wstring sysnative;
    std::wstring syswow64;
};
// Whether dir (ending in a backslash) is one of those folders, without regard to case or dot components.
bool InSharedFolder(std::wstring_view dir, const shared_folders& folders);
// The access the SharedDlls key is opened with: KEY_READ, with the 64-bit view for a 64-bit image
// (machine 512 or 34404) seen from a 32-bit process under WOW64.
REGSAM SharedDllsAccess(bool wow64, DWORD machine);
// Whether a value of HKLM\...\SharedDlls names a file called name (file-name parts, without case).
bool ListedInSharedDlls(std::wstring_view name, REGSAM access);

} // namespace qv::dep_file_detail
