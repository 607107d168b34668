// What the commands of qvscan share: the exit codes, the server DLL loaded by path, the records as the
// tool shows them, the paths a person gives, and the options.
#pragma once

#include "QVWIScanners.h"
#include "inc/com_error.h"
#include "inc/com_ptr.h"
#include "text_output.h"

#include <windows.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace qvscan {

// 4: the target was ended before it finished (time-out or Ctrl-C).
constexpr int ExitOk = 0, ExitFailed = 1, ExitUsage = 2, ExitNoFile = 3, ExitEnded = 4;

struct usage_error {
    std::string message;
};

std::wstring lower(std::wstring text);
std::string hex(HRESULT hr);
// The system's words for hr, with the number; the number alone when the system has none.
std::string describe(HRESULT hr);
// The server's words for a failure where it left them in the thread's error object (taking them), else the
// system's; with the number.
std::string failure_text(HRESULT hr);

// The server DLL, loaded by path.
class server_dll {
public:
    server_dll() {
        wchar_t own[MAX_PATH * 4];
        DWORD n = GetModuleFileNameW(nullptr, own, static_cast<DWORD>(std::size(own)));
        std::wstring dir(own, n);
        dir = dir.substr(0, dir.find_last_of(L'\\'));
        wchar_t overridden[MAX_PATH * 4];
        DWORD m = GetEnvironmentVariableW(L"QV_SERVER_DLL", overridden, static_cast<DWORD>(std::size(overridden)));
        m_path = (m > 0 && m < std::size(overridden)) ? std::wstring(overridden, m) : dir + L"\\QVWIScanners.dll";
        m_module = LoadLibraryW(m_path.c_str());
        if (!m_module)
            throw std::runtime_error("cannot load " + utf8(m_path) + ": " +
                                     describe(HRESULT_FROM_WIN32(GetLastError())));
        m_getClassObject = reinterpret_cast<decltype(m_getClassObject)>(
            reinterpret_cast<void*>(GetProcAddress(m_module, "DllGetClassObject")));
        if (!m_getClassObject)
            throw std::runtime_error(utf8(m_path) + " exports no DllGetClassObject");
    }
    // The library stays loaded while it says objects of it live (a proxy's stub may still hold one).
    ~server_dll() {
        using can_unload_fn = HRESULT(STDAPICALLTYPE*)();
        auto canUnload = reinterpret_cast<can_unload_fn>(
            reinterpret_cast<void*>(m_module ? GetProcAddress(m_module, "DllCanUnloadNow") : nullptr));
        if (m_module && (!canUnload || canUnload() == S_OK))
            FreeLibrary(m_module);
    }
    const std::wstring& path() const { return m_path; }
    HMODULE module() const { return m_module; }

    HRESULT factory(REFCLSID clsid, IClassFactory** out) const {
        return m_getClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(out));
    }
    template <class T> qv::com_ptr<T> create(REFCLSID clsid, REFIID iid) const {
        qv::com_ptr<IClassFactory> f;
        check_hr(factory(clsid, f.put()));
        qv::com_ptr<T> object;
        check_hr(f->CreateInstance(nullptr, iid, object.put_void()));
        return object;
    }

private:
    std::wstring m_path;
    HMODULE m_module = nullptr;
    HRESULT(STDAPICALLTYPE* m_getClassObject)(REFCLSID, REFIID, void**) = nullptr;
};

// The events of a static scan and of an assembly's reference walk: counts the files met, keeps what the
// import tables named (in lower case), draws progress on a terminal, and knows nothing the server asks for
// (no reference path, no other references, no component, no catalog).
class progress_sink : public IStaticScanEventsValeSP {
public:
    long files = 0;
    std::set<std::wstring> named;
    IUnknown* catalog = nullptr; // the merge-module catalog handed to the scan, or none (not owned)

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IStaticScanEvents) ||
            IsEqualIID(iid, IID_IStaticScanEventsTarn) || IsEqualIID(iid, IID_IStaticScanEventsFellSP2) ||
            IsEqualIID(iid, IID_IStaticScanEventsValeSP)) {
            *ppv = static_cast<IStaticScanEventsValeSP*>(this);
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    // Lives on the stack of the command, longer than the scan.
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT STDMETHODCALLTYPE FoundDepFile(BSTR path) override {
        ++files;
        named.insert(lower(path ? path : L""));
        DWORD now = GetTickCount();
        if (m_terminal && now - m_lastDraw > 200) {
            m_lastDraw = now;
            err("\rscanning: " + std::to_string(files) + " files met");
            m_drawn = true;
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetReferencePath(BSTR, BSTR* psPath) override {
        if (psPath)
            *psPath = nullptr;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ErrorEncountered(BSTR file, LONG code, BSTR text) override {
        clear();
        err("qvscan: " + utf8(file ? file : L"") + ": " + utf8(text ? text : L"") + " (" + hex(code) + ")\n");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_MMCatalog(IUnknown** out) override {
        if (!out)
            return E_POINTER;
        if ((*out = catalog))
            catalog->AddRef();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetOtherReferences(VARIANT* value) override {
        if (value)
            VariantInit(value);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_Component(IUnknown** component) override {
        if (!component)
            return E_POINTER;
        *component = nullptr;
        return S_OK;
    }

    void clear() {
        if (m_drawn)
            err("\r\x1b[K");
        m_drawn = false;
    }

private:
    bool m_terminal = err_is_terminal();
    bool m_drawn = false;
    DWORD m_lastDraw = 0;
};

// One record as the tool shows it.
struct record {
    std::wstring name, path, destPath;
    long major = 0, minor = 0, size = 0;
    double modified = 0;
    bool missing = false, filterable = false, mergeModule = false, shared = false, selfRegistering = false;
    const char* via = "imports"; // what named it: "imports", "dep" (a .dep file) or "run" (the target loaded it)
    std::vector<long> languages;
};

record read_record(IDepFile* file);
std::vector<record> read_all(IDepFiles* files);
// The marks column: M missing, F filterable, G merge module, S shared, R self-registering, D from a .dep file.
std::string marks(const record& r);
std::string json_record(const record& r, const char* indent);
std::wstring version_text(long major, long minor);

// The full path of FILE (made from a Unix path first, under Wine), of any length.
std::wstring full_path(const std::wstring& given);
bool exists(const std::wstring& path);
// Why a path that is not a file on disk cannot be used, in words.
std::string not_a_file(const std::wstring& path);

struct options {
    std::wstring command, file, lang;
    std::vector<std::wstring> names; // ini: the section and the key asked for
    long type = 0;
    bool filter = true, json = false, user = false;
    // trace and attach
    std::vector<std::wstring> arguments; // the target's own
    std::wstring directory, tag;
    bool thisProcessOnly = false;
    DWORD processId = 0;
    double timeout = 0; // seconds; 0 waits as long as the target runs
    // vbp
    std::wstring depFile;
    bool rebuild = false, keepGoing = false;
    // The folder of merge modules (--merge-modules, else QV_MERGE_MODULES, else the system's own).
    std::wstring mergeModules;
};

// The merge-module catalog of QvMergeModules.dll beside the tool, read from o.mergeModules or where the
// variable or the system keeps merge modules; null when there is no such folder. What it could not read is
// told on standard error; a library that cannot be loaded is thrown.
qv::com_ptr<IUnknown> load_merge_modules(const options& o);
// qvscan msm: the catalog's modules.
int run_msm(const options& o);

// qvscan trace and qvscan attach.
int run_trace(const server_dll& dll, const options& o);
// qvscan assembly.
int run_assembly(const server_dll& dll, const options& o);
// qvscan vbp.
int run_vbp(const server_dll& dll, const options& o);

} // namespace qvscan
