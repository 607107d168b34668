#include "vb/vbp_scan.h"

#include "image/pe_images.h"
#include "inc/class_registration.h"
#include "inc/com_boundary.h"
#include "inc/com_error.h"
#include "inc/unique_handles.h"
#include "inc/resource.h"
#include "record/dep_file.h"
#include "record/dep_files.h"
#include "scanutil/scan_util.h"
#include "siblings/sibling_module_cache.h"
#include "static/dep_walker.h"
#include "static/make_dep_file.h"
#include "static/static_scan.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"
#include "vb/vbp_resolution.h"

#include <oleauto.h>

#include <cwchar>
#include <vector>

namespace {

constexpr wchar_t kServicesLibrary[] = L"QvAppServices.dll";
constexpr wchar_t kSectionLoaderLibrary[] = L"SectionLoader.dll";
constexpr size_t kDeepestSectionWalk = 256; // Uses keys nested deeper than this are not followed
constexpr DWORD kDefaultBuildSeconds = 900; // QVWI_VB_BUILD_TIMEOUT overrides it

// A string resource of the server, of any length.
std::wstring LoadResourceString(UINT id) {
    std::vector<wchar_t> text(512);
    for (;;) {
        const int n = LoadStringW(qv::g_module.Instance(), id, text.data(), static_cast<int>(text.size()));
        if (n < 0 || static_cast<size_t>(n) < text.size() - 1)
            return std::wstring(text.data(), n > 0 ? n : 0);
        text.resize(text.size() + 256);
    }
}

// How long the compiler may run, in milliseconds.
DWORD BuildTimeout() {
    std::wstring text;
    const unsigned long seconds =
        qv::ReadEnvironment(L"QVWI_VB_BUILD_TIMEOUT", text) ? wcstoul(text.c_str(), nullptr, 10) : 0;
    return (seconds > 0 && seconds < 86400 ? seconds : kDefaultBuildSeconds) * 1000;
}

// Waits for the process and keeps this thread's window messages moving; false when the time ran out.
bool PumpUntilEnded(HANDLE process, DWORD timeoutMs) {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    for (;;) {
        const ULONGLONG now = GetTickCount64();
        if (now >= deadline)
            return false;
        const DWORD wait = MsgWaitForMultipleObjectsEx(1, &process, static_cast<DWORD>(deadline - now), QS_ALLINPUT,
                                                       MWMO_INPUTAVAILABLE);
        if (wait == WAIT_OBJECT_0 || wait == WAIT_FAILED)
            return true;
        if (wait == WAIT_TIMEOUT)
            return false;
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE)) {
            const bool unicode = !message.hwnd || IsWindowUnicode(message.hwnd);
            if ((unicode ? GetMessageW(&message, nullptr, 0, 0) : GetMessageA(&message, nullptr, 0, 0)) <= 0)
                return WaitForSingleObject(process, 0) == WAIT_OBJECT_0;
            TranslateMessage(&message);
            unicode ? DispatchMessageW(&message) : DispatchMessageA(&message);
            if (WaitForSingleObject(process, 0) == WAIT_OBJECT_0)
                return true;
        }
    }
}

// The description the failure left in the thread's error object, or the system's words for hr.
std::wstring ExceptionMessage(HRESULT hr) {
    std::wstring text = qv::take_error_description();
    if (text.empty())
        text = qv::system_message(hr);
    return text.empty() ? L"Unknown error" : text;
}

const wchar_t* OwnProgId() {
    for (const qv::class_registration& entry : qv::class_registrations)
        if (IsEqualCLSID(*entry.clsid, CLSID_VBPScan))
            return entry.progId;
    return L"";
}

// What the boundary of Scan does with a failure: the debugger hears of it, the thread's error object gets its
// words under the class's ProgID, and a failure that carried S_OK is returned as DISP_E_EXCEPTION.
HRESULT ReportFailure(HRESULT hr) {
    const std::wstring message = ExceptionMessage(hr);
    wchar_t number[16];
    swprintf(number, std::size(number), L"%i", static_cast<int>(hr));
    OutputDebugStringW((L"\nException caught: " + std::wstring(number) + L" = " + message).c_str());
    qv::set_error_description(message, OwnProgId());
    return hr == S_OK ? DISP_E_EXCEPTION : hr;
}

// A script's sink: an IDispatch whose methods carry the event names. A returned boolean is the answer
// of an event that asks; anything else leaves the answer as it came. A method the script lacks is
// an event it ignores.
class script_events final : public IScanEventsTarn, public IStaticScanEventsValeSP {
public:
    explicit script_events(IDispatch* script) : m_script(script) {}

    STDMETHOD(QueryInterface)(REFIID iid, void** ppv) override {
        if (!ppv)
            return E_POINTER;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IScanEvents) || IsEqualIID(iid, IID_IScanEventsTarn))
            *ppv = static_cast<IScanEventsTarn*>(this);
        else if (IsEqualIID(iid, IID_IStaticScanEvents) || IsEqualIID(iid, IID_IStaticScanEventsTarn) ||
                 IsEqualIID(iid, IID_IStaticScanEventsFellSP2) || IsEqualIID(iid, IID_IStaticScanEventsValeSP))
            *ppv = static_cast<IStaticScanEventsValeSP*>(this);
        else
            return *ppv = nullptr, E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHOD_(ULONG, AddRef)() override { return InterlockedIncrement(&m_refs); }
    STDMETHOD_(ULONG, Release)() override {
        const ULONG n = InterlockedDecrement(&m_refs);
        if (n == 0)
            delete this;
        return n;
    }

    STDMETHOD(PercentDone)(long percent) override {
        VARIANT arg;
        V_VT(&arg) = VT_I4;
        V_I4(&arg) = percent;
        return Call(L"PercentDone", &arg, 1, nullptr);
    }
    STDMETHOD(QueryCancel)(VARIANT_BOOL* cancel) override { return Call(L"QueryCancel", nullptr, 0, cancel); }
    STDMETHOD(Status)(BSTR text) override { return Call(L"Status", Text(text), 1, nullptr); }
    STDMETHOD(VBBuildFailed)(BSTR project, VARIANT_BOOL* cont) override {
        return Call(L"VBBuildFailed", Text(project), 1, cont);
    }
    STDMETHOD(FileNotFound)(BSTR project, BSTR forms, VARIANT_BOOL* cont) override {
        VARIANT args[2]; // in reverse order, as Invoke takes them
        V_VT(&args[0]) = VT_BSTR, V_BSTR(&args[0]) = forms;
        V_VT(&args[1]) = VT_BSTR, V_BSTR(&args[1]) = project;
        return Call(L"FileNotFound", args, 2, cont);
    }
    // Scripts hand in no merge-module catalog, other references or component.
    STDMETHOD(get_MMCatalog)(IUnknown** catalog) override { return catalog ? (*catalog = nullptr, S_OK) : E_POINTER; }
    STDMETHOD(FoundDepFile)(BSTR) override { return S_OK; }
    STDMETHOD(GetReferencePath)(BSTR, BSTR*) override { return S_OK; }
    STDMETHOD(ErrorEncountered)(BSTR, LONG, BSTR) override { return S_OK; }
    STDMETHOD(GetOtherReferences)(VARIANT* value) override { return value ? (VariantInit(value), S_OK) : E_POINTER; }
    STDMETHOD(get_Component)(IUnknown** component) override {
        return component ? (*component = nullptr, S_OK) : E_POINTER;
    }

private:
    VARIANT* Text(BSTR text) {
        V_VT(&m_text) = VT_BSTR;
        V_BSTR(&m_text) = text;
        return &m_text;
    }

    HRESULT Call(const wchar_t* name, VARIANT* args, UINT count, VARIANT_BOOL* answer) {
        LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
        DISPID id = DISPID_UNKNOWN;
        if (FAILED(m_script->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id)))
            return S_OK;
        DISPPARAMS params = {args, nullptr, count, 0};
        qv::unique_variant result;
        const HRESULT hr = m_script->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, result.get(),
                                            nullptr, nullptr);
        if (SUCCEEDED(hr) && answer && V_VT(result.get()) != VT_EMPTY && V_VT(result.get()) != VT_NULL &&
            SUCCEEDED(VariantChangeType(result.get(), result.get(), 0, VT_BOOL)))
            *answer = V_BOOL(result.get());
        return hr;
    }

    LONG m_refs = 1;
    qv::com_ptr<IDispatch> m_script;
    VARIANT m_text;
};

} // namespace

CVBPScan::CVBPScan() : m_sections(kDeepestSectionWalk) {}
CVBPScan::~CVBPScan() = default;

HRESULT CVBPScan::FinalConstruct() {
    m_reader.m_bAbort = false;
    check_hr(qv::make_object<CScanUtil>()->QueryInterface(IID_IScanUtilTarn, m_pScanUtil.put_void()));

    m_sCompiler = FindCompiler();

    check_hr(CoCreateFromLibrary(kSectionLoaderLibrary, CLSID_QvSectionLoader, IID_IQvSectionLoader,
                                 m_pDepFileReader.put()));
    check_hr(CoCreateFromLibrary(kSectionLoaderLibrary, CLSID_QvSectionLoader, IID_IQvSectionLoader,
                                 m_pSiblingDepReader.put()));
    check_hr(CoCreateFromLibrary(kServicesLibrary, CLSID_QvDepFileGroups, IID_IQvDepFileGroups, m_pGroups.put()));
    check_hr(CoCreateFromLibrary(kServicesLibrary, CLSID_QvDepFileGroup, IID_IQvDepFileGroup, m_pProjectGroup.put()));

    m_pFiles = qv::make_object<CDepFiles>();
    check_hr(m_pFiles->QueryInterface(IID_IDepFiles, m_pFilesIf.put_void()));

    m_sReadingWord = LoadResourceString(IDS_READING) + L" ";
    m_sRebuildingWord = LoadResourceString(IDS_REBUILDING) + L" ";
    m_sScanningWord = LoadResourceString(IDS_SCANNING) + L" ";
    return S_OK;
}

STDMETHODIMP CVBPScan::Invoke(DISPID id, REFIID iid, LCID lcid, WORD flags, DISPPARAMS* params, VARIANT* result,
                              EXCEPINFO* excepinfo, UINT* argerr) {
    // The type library's dispatch asks the sink argument for IScanEvents, which a script's object lacks:
    // such a call of Scan is made here, and Scan calls the script by name.
    constexpr DISPID ScanId = 1;
    constexpr UINT SinkArgument = 3; // the arguments come last first
    IDispatch* script = nullptr;
    if (id == ScanId && params && params->cArgs == 6 && params->cNamedArgs == 0 && (flags & DISPATCH_METHOD)) {
        const VARIANT* sink = &params->rgvarg[SinkArgument];
        if (V_VT(sink) == (VT_VARIANT | VT_BYREF))
            sink = V_VARIANTREF(sink);
        qv::com_ptr<IScanEvents> typed;
        if (V_VT(sink) == VT_DISPATCH && V_DISPATCH(sink) &&
            FAILED(V_DISPATCH(sink)->QueryInterface(IID_IScanEvents, typed.put_void())))
            script = V_DISPATCH(sink);
    }
    if (!script)
        return dispatch_impl::Invoke(id, iid, lcid, flags, params, result, excepinfo, argerr);

    qv::unique_variant args[6];
    HRESULT hr = S_OK;
    for (UINT i = 0; i < 6; ++i) {
        if (i != SinkArgument && SUCCEEDED(hr)) {
            hr = VariantChangeType(args[i].get(), &params->rgvarg[i], 0, i == 1 || i == 2 ? VT_BOOL : VT_BSTR);
            if (FAILED(hr) && argerr)
                *argerr = i;
        }
    }
    if (FAILED(hr))
        return DISP_E_TYPEMISMATCH;
    // Scan asks the sink only for interfaces, which an IDispatch answers like any IUnknown.
    hr = Scan(V_BSTR(args[5].get()), V_BSTR(args[4].get()), reinterpret_cast<IScanEvents*>(script),
              V_BOOL(args[2].get()), V_BOOL(args[1].get()), V_BSTR(args[0].get()));
    if (result)
        VariantInit(result);
    return hr;
}

STDMETHODIMP CVBPScan::Scan(BSTR pVBFile, BSTR pDEPFile, IScanEvents* pEvents, VARIANT_BOOL bUseFilter,
                            VARIANT_BOOL bRebuild, BSTR sLangID) {
    // Whatever failed (a sink, a closed library, the memory) ends the scan with its result and words;
    // nothing leaves the interface as a C++ exception.
    return qv::com_boundary([&] { return RunScan(pVBFile, pDEPFile, pEvents, bUseFilter, bRebuild, sLangID); },
                            ReportFailure);
}

HRESULT CVBPScan::RunScan(BSTR pVBFile, BSTR pDEPFile, IScanEvents* pEvents, VARIANT_BOOL bUseFilter,
                          VARIANT_BOOL bRebuild, BSTR sLangID) {
    m_bUseFilter = bUseFilter != 0;
    m_filter.SetFiltering(m_bUseFilter);
    m_reader.m_bAbort = false;
    const std::wstring path = pVBFile ? std::wstring(pVBFile, SysStringLen(pVBFile)) : std::wstring();
    if (path.empty() || !qv::FileExists(path))
        return E_INVALIDARG;

    m_pEvents.reset(), m_pEventsFellSP2.reset(), m_pEventsValeSP.reset();
    if (!pEvents)
        throw com_exception(E_POINTER);
    HRESULT hr = pEvents->QueryInterface(IID_IScanEventsTarn, m_pEvents.put_void());
    qv::com_ptr<IDispatch> script;
    if (FAILED(hr) && SUCCEEDED(pEvents->QueryInterface(IID_IDispatch, script.put_void()))) {
        m_pEvents = qv::com_ptr<IScanEventsTarn>::adopt(new script_events(script.get()));
        hr = S_OK;
    }
    check_hr(hr);
    check_hr(m_pEvents->QueryInterface(IID_IStaticScanEventsFellSP2, m_pEventsFellSP2.put_void()));
    check_hr(m_pEventsFellSP2->QueryInterface(IID_IStaticScanEventsValeSP, m_pEventsValeSP.put_void()));

    m_sLangID = sLangID ? std::wstring(sLangID, SysStringLen(sLangID)) : std::wstring();
    m_sDepFile = pDEPFile ? std::wstring(pDEPFile, SysStringLen(pDEPFile)) : std::wstring();
    m_bRebuild = bRebuild == VARIANT_TRUE;

    qv::com_ptr<IUnknown> catalog;
    check_hr(m_pEvents->get_MMCatalog(catalog.put()));
    check_hr(m_pScanUtil->put_MMCatalog(catalog.get()));
    m_bUseCatalog = static_cast<bool>(catalog);

    std::wstring extension(qv::ExtensionPart(path));
    CharUpperBuffW(extension.data(), static_cast<DWORD>(extension.size()));
    if (extension.starts_with(L".VBG"))
        WalkProjectGroup(path, m_reader, *this);
    else if (extension.starts_with(L".VBP"))
        ScanProject(path);
    else
        return E_INVALIDARG;
    if (m_reader.m_bAbort)
        return S_OK;

    long count = 0;
    check_hr(m_pFilesIf->get_Count(&count));
    if (count >= 1) {
        check_hr(m_pProjectGroup->Init(m_pFilesIf.get(), pVBFile));
        check_hr(m_pGroups->Add(m_pProjectGroup.get()));
    }
    Status(LoadResourceString(QueryCancel() ? IDS_SCAN_CANCELLED : IDS_SCAN_COMPLETED));
    return S_OK;
}

STDMETHODIMP CVBPScan::get_DepFileGroups(IUnknown** ppVal) {
    if (!ppVal)
        return E_POINTER;
    return m_pGroups->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(ppVal));
}

STDMETHODIMP CVBPScan::get_MMCatalog(IUnknown** catalog) {
    return m_pEvents ? m_pEvents->get_MMCatalog(catalog) : E_UNEXPECTED;
}

STDMETHODIMP CVBPScan::GetOtherReferences(VARIANT* value) {
    return m_pEventsFellSP2 ? m_pEventsFellSP2->GetOtherReferences(value) : E_UNEXPECTED;
}

STDMETHODIMP CVBPScan::get_Component(IUnknown** component) {
    return m_pEventsValeSP ? m_pEventsValeSP->get_Component(component) : E_UNEXPECTED;
}

bool CVBPScan::QueryCancel() {
    VARIANT_BOOL cancel = 0;
    check_hr(m_pEvents->QueryCancel(&cancel));
    return cancel == VARIANT_TRUE;
}

void CVBPScan::PercentDone(long percent) {
    check_hr(m_pEvents->PercentDone(percent));
}

bool CVBPScan::FileNotFound(const std::wstring& project, const std::wstring& missingForms) {
    VARIANT_BOOL cont = 0;
    check_hr(m_pEvents->FileNotFound(qv::bstr(project).get(), qv::bstr(missingForms).get(), &cont));
    return cont != 0;
}

void CVBPScan::Status(const std::wstring& text) {
    check_hr(m_pEvents->Status(qv::bstr(text).get()));
}

void CVBPScan::ReportProgress() {
    const double share = m_nTotalSteps ? static_cast<double>(m_nDoneSteps) / m_nTotalSteps * 100.0 : 100.0;
    PercentDone(share > 100.0 ? 100 : static_cast<long>(share));
}

void CVBPScan::ScanProject(const std::wstring& path) {
    if (!qv::FileExists(path)) {
        m_reader.m_bAbort = !FileNotFound(path, L"");
        return;
    }
    m_pEvents->PercentDone(0); // a failure here is of no consequence
    Status(m_sReadingWord + path);
    VBProjectInfo info;
    m_nTotalSteps = ReadProject(path, info, m_reader, *this) + 1;
    if (m_reader.m_bAbort)
        return;
    m_nDoneSteps = 0;
    if (QueryCancel())
        return;
    m_pEvents->PercentDone(0);
    if (m_bRebuild) {
        Status(m_sRebuildingWord + path);
        RebuildProject(path, info.eKind);
        if (m_reader.m_bAbort)
            return;
    }
    if (QueryCancel())
        return;
    ++m_nDoneSteps;
    ReportProgress();

    std::wstring built = info.sPath;
    std::wstring name = info.sExeName;
    if (!built.empty() && built.back() == L'\\' && !name.empty() && name.front() == L'\\')
        name.erase(0, 1);
    else if ((built.empty() || built.back() != L'\\') && !name.empty() && name.front() != L'\\')
        built += L'\\';
    built += name;
    Status(m_sScanningWord + built);
    ScanFileAndUses(built);

    EachProjectLine(path, *this, [&](const std::wstring& line) {
        std::wstring file;
        if (line.starts_with(L"Reference="))
            file = ResolveReferenceLine(line, info.sFolder);
        else if (line.starts_with(L"Object="))
            file = ResolveObjectLine(line);
        else if (line.starts_with(L"Form="))
            return ScanFormFile(line);
        else
            return;
        ++m_nDoneSteps;
        Status(m_sScanningWord + file);
        ScanFileAndUses(file);
        ReportProgress();
    });
}

std::wstring CVBPScan::FindCompiler() {
    std::wstring command = VbpMakeCommand();
    if (command.empty() || command.find(L'\\') == std::wstring::npos)
        return {};
    CharUpperBuffW(command.data(), static_cast<DWORD>(command.size()));
    const size_t exe = command.rfind(L".EXE ");
    return exe == std::wstring::npos ? std::wstring() : command.substr(0, exe + 4);
}

std::wstring CVBPScan::BuildCommandLine(const std::wstring& compiler, const std::wstring& project, int kind,
                                        const std::wstring& errorFile) {
    return L"\"" + compiler + L"\"" + (kind == vbkActiveXDll ? L" /l \"" : L" /m \"") + project + L"\" /out \"" +
           errorFile + L"\"";
}

void CVBPScan::RebuildProject(const std::wstring& path, int kind) {
    std::wstring folder = qv::DirectoryPart(path);
    while (!folder.empty() && folder.back() == L'\\')
        folder.pop_back();
    const std::wstring errorFile = folder + L"\\_QvVbErr.txt";
    DeleteFileW(errorFile.c_str());

    const std::wstring commandLine = BuildCommandLine(m_sCompiler, path, kind, errorFile);
    std::wstring writable = commandLine;
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started = {};
    if (CreateProcessW(nullptr, writable.data(), nullptr, nullptr, TRUE, NORMAL_PRIORITY_CLASS, nullptr, nullptr,
                       &startup, &started)) {
        const qv::unique_process_information process(started);
        // A compiler that never ends would hold the scan for ever: after the time-out it is ended, and
        // what it left judged as usual.
        if (!PumpUntilEnded(process.process.get(), BuildTimeout())) {
            TerminateProcess(process.process.get(), ERROR_TIMEOUT);
            WaitForSingleObject(process.process.get(), 5000);
        }
    }

    VARIANT_BOOL cont = VARIANT_TRUE;
    const std::vector<std::wstring> lines = ReadProjectLines(errorFile);
    {
        const qv::scope_exit remove([&] { DeleteFileW(errorFile.c_str()); }); // the error file never stays
        if (!lines.empty()) {
            std::wstring last = lines.back();
            CharUpperBuffW(last.data(), static_cast<DWORD>(last.size()));
            if (last.find(L"SUCCEEDED.") == std::wstring::npos) {
                // The compiler's own words for a host that wants to show them.
                qv::set_error_description(lines.back(), OwnProgId());
                check_hr(m_pEvents->VBBuildFailed(qv::bstr(commandLine).get(), &cont));
            }
        }
    }
    if (cont == 0)
        m_reader.m_bAbort = true;
}

void CVBPScan::ScanFormFile(const std::wstring& line) {
    const auto it = m_reader.m_formFiles.find(line);
    if (line.empty() || it == m_reader.m_formFiles.end() || !qv::FileExists(it->second))
        return; // a missing form was told in the first reading
    EachProjectLine(it->second, *this, [&](const std::wstring& formLine) {
        if (!formLine.starts_with(L"Object ="))
            return;
        const std::wstring file = ResolveObjectLine(formLine);
        Status(L"Scanning " + file);
        ScanFileAndUses(file);
        ++m_nDoneSteps;
        ReportProgress();
    });
}

void CVBPScan::ScanFileAndUses(const std::wstring& file) {
    if (file.empty() || m_pFiles->Contains(file))
        return;
    AddDepFile(file, true);
    if (!qv::FileExists(file))
        return;

    // A bare name in a .dep file is searched beside the component first.
    wchar_t kept[520];
    const DWORD keptLength = GetCurrentDirectoryW(static_cast<DWORD>(std::size(kept)), kept);
    const bool restore = keptLength > 0 && keptLength < std::size(kept);
    if (restore && file.find(L'\\') != std::wstring::npos)
        SetCurrentDirectoryW(qv::DirectoryPart(file).c_str());
    const qv::scope_exit back([&] {
        if (restore)
            SetCurrentDirectoryW(kept);
    });
    if (!m_bDepFileMatched) {
        if (!m_pDepFileRoot && qv::FileExists(m_sDepFile)) {
            m_pDepFileReader->Load(qv::bstr(m_sDepFile).get());
            check_hr(m_pDepFileReader->get_Root(m_pDepFileRoot.put()));
        }
        if (m_pDepFileRoot)
            WalkDepSections(m_pDepFileRoot.get(), file, m_bDepFileMatched);
    }
    const std::wstring name = qv::FileNamePart(file);
    const size_t dot = name.rfind(L'.');
    const std::wstring sibling =
        dot == std::wstring::npos ? std::wstring() : file.substr(0, file.size() - name.size() + dot) + L".dep";
    if (!sibling.empty() && qv::FileExists(sibling)) {
        check_hr(m_pSiblingDepReader->Load(qv::bstr(sibling).get()));
        qv::com_ptr<IQvSections> root;
        check_hr(m_pSiblingDepReader->get_Root(root.put()));
        bool matched = false;
        WalkDepSections(root.get(), file, matched);
    }
}

void CVBPScan::WalkDepSections(IQvSections* root, const std::wstring& file, bool& matched) {
    const std::wstring name = qv::FileNamePart(file);
    WalkSection(root, name, matched);
    WalkSection(root, name + L" <" + m_sLangID + L">", matched);
}

void CVBPScan::WalkSection(IQvSections* root, const std::wstring& name, bool& matched) {
    const qv::com_ptr<IQvSection> section = CDepSections::Find(root, name);
    if (!section)
        return;
    matched = true;
    // Sections that name each other would be walked for ever: a circle is walked once and told.
    const CDepSections::mark entered = m_sections.Enter(root, name);
    if (entered.entry() == CDepSections::Entry::TooDeep) {
        Status(L"The Uses keys of the .dep file nest deeper than " + std::to_wstring(kDeepestSectionWalk) +
               L" sections; [" + name + L"] is not followed");
        return;
    }
    if (entered.entry() == CDepSections::Entry::Circle) {
        Status(L"The sections of the .dep file name each other in a circle back to [" + name +
               L"], which is walked once");
        return;
    }
    WalkUses(root, section.get());
}

void CVBPScan::WalkUses(IQvSections* root, IQvSection* section) {
    CDepSections::EachUse(section, [&](const std::wstring& used) {
        ScanFileAndUses(SearchForFile(used));
        bool ignored = false;
        WalkSection(root, used, ignored);
        WalkSection(root, used + L" <" + m_sLangID + L">", ignored);
        return !QueryCancel();
    });
}

void CVBPScan::AddDepFile(const std::wstring& file, bool bStaticScan) {
    if (file.empty() || m_pFiles->Contains(file) || QueryCancel())
        return;
    bool selfRegistering = false;
    {
        const CPEImage image(file);
        selfRegistering = image.Status() != CExeImage::StatusNotOpened && image.ExportsDllRegisterServer();
    }
    ScannedFile record(file, selfRegistering);

    const qv::bstr source(file);
    qv::com_ptr<IUnknown> module;
    VARIANT_BOOL inModule = VARIANT_FALSE;
    if (m_bUseCatalog) // a host without a catalog has no merge modules
        check_hr(m_pScanUtil->InMergeModule(source.get(), module.put(), &inModule));
    if (inModule != 0) {
        if (!module) {
            qv::bstr key;
            check_hr(m_pScanUtil->GetMissingMergeModuleKey(source.get(), key.put()));
            if (!key.empty()) {
                record.MergeModuleKey = key.str();
                record.MissingMergeModule = true;
                qv::bstr subject;
                check_hr(m_pScanUtil->GetMissingMergeModuleSubject(key.get(), subject.put()));
                record.MergeModuleSubject = subject.str();
            }
        } else {
            TakeModuleTexts(module.get(), record);
        }
    }

    bool isMergeModule = false;
    qv::bstr name;
    qv::com_ptr<IDepFile> depFile;
    MakeDepFile(m_pFiles.get(), record, &m_filter, isMergeModule, name.put(), depFile.put());
    if (!name.empty() && depFile) {
        VARIANT_BOOL filterable = VARIANT_FALSE;
        if (!isMergeModule)
            check_hr(depFile.query<IDepFileInfo>(IID_IDepFileInfo)->get_IsFilterable(&filterable));
        if (isMergeModule || !(filterable != 0 && m_bUseFilter))
            m_pFiles->Add(name.get(), depFile.get());
    }
    if (!isMergeModule && bStaticScan && !QueryCancel()) {
        if (qv::com_ptr<IQvDepFileGroup> group = StaticScanInto(file))
            check_hr(m_pGroups->Add(group.get()));
    }
}

qv::com_ptr<IQvDepFileGroup> CVBPScan::StaticScanInto(const std::wstring& file) {
    const qv::bstr path(file);
    qv::com_ptr<IDepFile> pe;
    check_hr(m_pScanUtil->get_PE(path.get(), pe.put()));
    if (!pe)
        return {};
    auto scan = qv::make_object<CStaticScan>();
    VARIANT_BOOL completed = VARIANT_FALSE;
    check_hr(scan->ScanWithFilter(path.get(), static_cast<IStaticScanEventsValeSP*>(this),
                                  m_bUseFilter ? VARIANT_TRUE : VARIANT_FALSE, qv::bstr(m_sLangID).get(), &completed,
                                  &m_filter, 0));
    if (completed != VARIANT_TRUE)
        return {};
    qv::com_ptr<IDepFiles> files;
    check_hr(scan->get_Dependencies(files.put()));
    long count = 0;
    check_hr(files->get_Count(&count));
    return count > 0 ? MakeGroup(files.get(), file) : qv::com_ptr<IQvDepFileGroup>();
}

qv::com_ptr<IQvDepFileGroup> CVBPScan::MakeGroup(IDepFiles* files, const std::wstring& name) {
    qv::com_ptr<IQvDepFileGroup> group;
    check_hr(CoCreateFromLibrary(kServicesLibrary, CLSID_QvDepFileGroup, IID_IQvDepFileGroup, group.put()));
    check_hr(group->Init(files, qv::bstr(name).get()));
    return group;
}
