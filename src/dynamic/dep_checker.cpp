#include "dynamic/dep_checker.h"

#include "companions.h"
#include "image/pe_images.h"
#include "inc/com_boundary.h"
#include "inc/com_error.h"
#include "inc/engine_wire.h"
#include "inc/unique_handles.h"
#include "record/dep_file.h"
#include "record/dep_files.h"
#include "scanutil/scan_util.h"
#include "siblings/sibling_module_cache.h"

#include <oleauto.h>

#include <vector>

namespace {

// The system names no dynamic scan records.
constexpr const wchar_t* kSystemNames[] = {L"kernel32.dll", L"ntdll.dll",   L"user32.dll", L"gdi32.dll",
                                           L"advapi32.dll", L"shell32.dll", L"ole32.dll"};

VARIANT ProcessIdArgument(long processId) {
    VARIANT v;
    V_VT(&v) = VT_I4;
    V_I4(&v) = processId;
    return v;
}

// The types the type library gives the parameters of event id, first to last; empty when it has no such
// event.
std::vector<VARTYPE> EventParameterTypes(DISPID id) {
    std::vector<VARTYPE> types;
    qv::com_ptr<ITypeInfo> info;
    using cache = qv::typeinfo_cache<qv::module_typeinfo_holder, &DIID__IQvDebugEngineEvents>;
    if (FAILED(cache::get(info.put())))
        return types;
    TYPEATTR* attributes = nullptr;
    if (FAILED(info->GetTypeAttr(&attributes)))
        return types;
    const WORD functions = attributes->cFuncs;
    info->ReleaseTypeAttr(attributes);
    for (UINT i = 0; i < functions; ++i) {
        FUNCDESC* function = nullptr;
        if (FAILED(info->GetFuncDesc(i, &function)))
            continue;
        if (function->memid == id) {
            for (SHORT p = 0; p < function->cParams; ++p)
                types.push_back(function->lprgelemdescParam[p].tdesc.vt);
        }
        info->ReleaseFuncDesc(function);
    }
    return types;
}

// The arguments of a call coerced to the types into out (one slot a type), first to last; false when one is
// missing or cannot be coerced.
bool CoerceArguments(const DISPPARAMS* params, const std::vector<VARTYPE>& types,
                     std::vector<qv::unique_variant>& out) {
    const UINT count = params ? params->cArgs : 0;
    if (count < types.size())
        return false;
    for (size_t i = 0; i < types.size(); ++i) {
        VARIANT* given = &params->rgvarg[count - 1 - i]; // rgvarg holds them last to first
        if (FAILED(VariantChangeType(out[i].get(), given, 0, types[i])))
            return false;
    }
    return true;
}

} // namespace

// ---------------------------------------------------------------------------------------------------
// CSinkDebugEngine

STDMETHODIMP CSinkDebugEngine::Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*, EXCEPINFO*, UINT*) {
    namespace event = qv::engine::event;
    if (id < event::first || id > event::last)
        return S_OK;
    return qv::com_boundary([&]() -> HRESULT {
        const std::vector<VARTYPE> types = EventParameterTypes(id);
        std::vector<qv::unique_variant> arguments(types.size());
        if (!CoerceArguments(params, types, arguments))
            return S_OK;
        switch (id) {
        case event::load_dll:
            LoadDLL(V_BSTR(arguments[0].get()));
            break;
        case event::unload_dll:
            UnloadDLL(V_BSTR(arguments[0].get()));
            break;
        case event::application_finished:
            ApplicationFinished();
            break;
        case event::child_process_created:
            ChildProcessCreated(V_I4(arguments[0].get()), V_I4(arguments[1].get()), V_I4(arguments[2].get()),
                                V_I4(arguments[3].get()));
            break;
        case event::child_process_exit:
            ChildProcessExit(V_I4(arguments[0].get()));
            break;
        }
        return S_OK;
    });
}

void CSinkDebugEngine::LoadDLL(BSTR path) {
    if (m_owner)
        m_owner->OnLoadDLL(path);
}

void CSinkDebugEngine::UnloadDLL(BSTR) {}

void CSinkDebugEngine::ApplicationFinished() {
    if (m_owner)
        m_owner->OnApplicationFinished();
}

void CSinkDebugEngine::ChildProcessCreated(long processId, long, long, long) {
    if (m_owner)
        m_owner->OnChildProcessCreated(processId);
}

void CSinkDebugEngine::ChildProcessExit(long processId) {
    if (m_owner)
        m_owner->OnChildProcessExit(processId);
}

HRESULT CSinkDebugEngine::Advise(IDispatch* engine) {
    if (m_cookie != NotAdvised)
        return E_FAIL;
    if (!engine)
        return E_INVALIDARG;
    qv::com_ptr<IConnectionPointContainer> container;
    HRESULT hr = engine->QueryInterface(IID_IConnectionPointContainer, container.put_void());
    if (FAILED(hr))
        return hr;
    qv::com_ptr<IConnectionPoint> point;
    hr = container->FindConnectionPoint(DIID__IQvDebugEngineEvents, point.put());
    if (FAILED(hr))
        return hr;
    DWORD cookie = 0;
    hr = point->Advise(static_cast<IDispatch*>(this), &cookie);
    if (SUCCEEDED(hr))
        m_cookie = cookie;
    return hr;
}

void CSinkDebugEngine::Unadvise(IDispatch* engine) {
    if (engine && m_cookie != NotAdvised) {
        qv::com_ptr<IConnectionPointContainer> container;
        qv::com_ptr<IConnectionPoint> point;
        if (SUCCEEDED(engine->QueryInterface(IID_IConnectionPointContainer, container.put_void())) &&
            SUCCEEDED(container->FindConnectionPoint(DIID__IQvDebugEngineEvents, point.put())))
            point->Unadvise(m_cookie);
    }
    m_cookie = NotAdvised;
}

// ---------------------------------------------------------------------------------------------------
// CDepChecker

CDepChecker::CDepChecker() = default;
CDepChecker::~CDepChecker() = default;

HRESULT CDepChecker::FinalConstruct() {
    // What make_object throws, final construction returns.
    HRESULT hr = qv::make_object<CScanUtil>()->QueryInterface(IID_IScanUtilTarn, m_scanUtil.put_void());
    if (FAILED(hr))
        return hr;

    m_bags = qv::make_object<CDepFileBags>();

    MakeBag();
    for (const wchar_t* name : kSystemNames)
        m_excludedNames.emplace(name, true);

    if (FAILED(qv::com_boundary([&] {
            m_helper = std::make_unique<CDebugEngineHelper>();
            return S_OK;
        })))
        return NoHelper;

    // A failure to learn the folder is thrown, and creation fails with its result (the creation's boundary).
    const std::wstring engine = ChooseEngine(EngineFolder(), m_useEngine64);
    hr = m_helper->Connect(engine);
    if (FAILED(hr))
        return hr;

    m_sink = qv::make_object<CSinkDebugEngine>();
    m_sink->m_owner = this;
    return m_sink->Advise(m_helper->Engine());
}

void CDepChecker::FinalRelease() {
    m_bags.reset();
    m_currentBag = nullptr;
    if (m_sink) {
        m_sink->Unadvise(m_helper ? m_helper->Engine() : nullptr);
        m_sink->m_owner = nullptr;
        // An engine that died never releases its proxy of the sink: drop what COM holds for it.
        CoDisconnectObject(static_cast<IDispatch*>(m_sink.get()), 0);
        m_sink.reset();
    }
    m_helper.reset(); // releases the engine object, which is all the engine is told
}

const std::wstring& CDepChecker::EngineFolder() {
    if (m_engineFolder.empty()) {
        qv::bstr folder;
        check_hr(AppServices(L"the debug engine")->GetProgramsFolder(folder.put()));
        m_engineFolder = folder.str();
    }
    return m_engineFolder;
}

void CDepChecker::MakeBag() {
    auto bag = m_currentTagName.get() ? qv::make_object<CDepFileBag>(m_currentTagName.view())
                                      : qv::make_object<CDepFileBag>();
    // Under a tag the bags already hold, the new bag takes the old one's place and the old one goes.
    m_bags->Add(bag->Tag(), static_cast<IDepFileBag*>(bag.get()));
    m_currentBag = bag.get();
}

void CDepChecker::ChangeTag(BSTR tag) {
    if (tag != m_currentTagName.get()) {
        qv::bstr copy;
        if (tag) {
            copy = qv::bstr::adopt(SysAllocStringLen(tag, SysStringLen(tag)));
            if (!copy.get())
                throw com_exception(E_OUTOFMEMORY);
        }
        m_currentTagName = std::move(copy);
    }
    // A tag the bags know changes nothing more: the current bag stays the one it was.
    if (!m_bags->Contains(m_currentTagName.get()))
        MakeBag();
}

STDMETHODIMP CDepChecker::InterfaceSupportsErrorInfo(REFIID iid) {
    return IsEqualIID(iid, IID_IDepChecker) ? S_OK : S_FALSE;
}

STDMETHODIMP CDepChecker::get_Monitoring(VARIANT_BOOL* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = static_cast<VARIANT_BOOL>(m_monitoring);
    return S_OK;
}

STDMETHODIMP CDepChecker::put_Monitoring(VARIANT_BOOL newVal) {
    m_monitoring = newVal;
    return S_OK;
}

STDMETHODIMP CDepChecker::get_CurrentTagName(BSTR* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = nullptr;
    // A null tag is handed out as null.
    return m_currentTagName.get() ? qv::copy_text_out(m_currentTagName.view(), pVal) : S_OK;
}

STDMETHODIMP CDepChecker::put_CurrentTagName(BSTR newVal) {
    return qv::com_boundary([&] {
        ChangeTag(newVal);
        return S_OK;
    });
}

STDMETHODIMP CDepChecker::get_Filtering(VARIANT_BOOL* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = static_cast<VARIANT_BOOL>(m_filtering);
    return S_OK;
}

STDMETHODIMP CDepChecker::put_Filtering(VARIANT_BOOL newVal) {
    m_filtering = newVal;
    return S_OK;
}

STDMETHODIMP CDepChecker::get_Dependencies(IDepFileBags** pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = nullptr;
    if (!m_bags)
        return E_UNEXPECTED;
    return m_bags->QueryInterface(IID_IDepFileBags, reinterpret_cast<void**>(pVal));
}

STDMETHODIMP CDepChecker::Launch(BSTR ApplicationPath, BSTR Parameters, BSTR CurrentDirectory, long LoadFlags) {
    if (!m_helper)
        return S_OK;
    return qv::com_boundary([&] {
        m_applicationRunning = 1;
        m_filter.SetFiltering(m_filtering != 0);
        std::wstring path = qv::bstr_text(ApplicationPath);
        if (m_useEngine64)
            path = CDebugEngineHelper::MapToEngine(path);
        // Whether the target started, the client learns from the events alone.
        m_helper->Launch(path, qv::bstr_text(Parameters), qv::bstr_text(CurrentDirectory), LoadFlags);
        return S_OK;
    });
}

STDMETHODIMP CDepChecker::AttachProcess(long ProcessID) {
    if (m_helper)
        m_helper->AttachProcess(ProcessID);
    return S_OK;
}

STDMETHODIMP CDepChecker::Terminate() {
    if (m_helper)
        m_helper->Terminate();
    return S_OK;
}

STDMETHODIMP CDepChecker::reset() {
    return qv::com_boundary([&] {
        m_bags->Clear();
        m_currentBag = nullptr;
        qv::bstr empty(L"");
        ChangeTag(empty.get());
        MakeBag(); // the same empty tag: it replaces the bag just made
        return S_OK;
    });
}

STDMETHODIMP CDepChecker::get_ApplicationRunning(VARIANT_BOOL* pVal) {
    if (!pVal)
        return E_POINTER;
    *pVal = static_cast<VARIANT_BOOL>(m_applicationRunning);
    return S_OK;
}

STDMETHODIMP CDepChecker::put_MMCatalog(IUnknown* newVal) {
    return m_scanUtil ? m_scanUtil->put_MMCatalog(newVal) : E_UNEXPECTED;
}

STDMETHODIMP CDepChecker::EnumConnectionPoints(IEnumConnectionPoints** out) {
    return qv::EnumPoints({&m_events, &m_filterPoint}, out);
}

STDMETHODIMP CDepChecker::FindConnectionPoint(REFIID iid, IConnectionPoint** out) {
    return qv::FindPoint({&m_events, &m_filterPoint}, iid, out);
}

bool CDepChecker::IsExcluded(const std::wstring& name) {
    if (m_excludedNames.count(name))
        return true;
    if (!m_filter.Loaded()) // attached before any launch
        m_filter.SetFiltering(m_filtering != 0);
    bool listed = false;
    const bool verdict = m_filter.Filter(name, listed);
    if (listed) {
        m_excludedNames.emplace(name, true);
        return true;
    }
    return verdict;
}

void CDepChecker::OnLoadDLL(BSTR reported) {
    if (m_monitoring == 0)
        return;
    const std::wstring path = CDebugEngineHelper::MapFromEngine(qv::bstr_text(reported));
    CDepFiles* files = m_currentBag->DepFiles();
    // A known key is turned away before anything is opened: targets load the same modules again and again.
    if (files->Contains(path))
        return;

    qv::com_ptr<IUnknown> hit;
    VARIANT_BOOL inModule = VARIANT_FALSE;
    m_scanUtil->InMergeModule(qv::bstr(path).get(), hit.put(), &inModule);
    const bool isInModule = inModule == VARIANT_TRUE;
    qv::bstr moduleKey;
    qv::com_ptr<IQvMergeModule> module;
    if (isInModule) {
        check_hr(hit ? hit->QueryInterface(IID_IQvMergeModule, module.put_void()) : E_POINTER);
        check_hr(module->get_ModuleKey(moduleKey.put()));
        if (files->Contains(moduleKey.get()))
            return; // a module that ships several files is entered once
    }

    auto record = qv::make_object<CDepFile>();
    {
        // The export table tells self-registration, so that the record need not load the DLL to find out.
        const CPEImage image(path);
        if (image.Status() != CExeImage::StatusNotOpened) {
            record->SetSelfRegistering(image.ExportsDllRegisterServer());
            record->SetAutoSelfReg(false);
        }
    }
    record->LoadFromFile(path);
    std::wstring key = path;

    if (!isInModule) {
        if (IsExcluded(qv::bstr_text(record->Name()))) {
            if (m_filtering != 0)
                return;
            // Recorded all the same, and shown as one the filter would have removed.
            qv::com_ptr<IDepFileInfo> info = record.query<IDepFileInfo>(IID_IDepFileInfo);
            check_hr(info ? info->put_IsFilterable(VARIANT_TRUE) : E_NOINTERFACE);
        }
    } else {
        qv::bstr moduleName;
        check_hr(module->get_ModuleName(moduleName.put()));
        record->SetMergeModule(moduleName.view(), moduleKey.view(), false);
        key = moduleKey.str();
    }

    files->Add(key, static_cast<IDepFile*>(record.get()));
    VARIANT found;
    V_VT(&found) = VT_DISPATCH;
    V_DISPATCH(&found) = static_cast<IDepFile*>(record.get());
    m_events.Fire(1, {found});
}

void CDepChecker::OnApplicationFinished() {
    m_applicationRunning = 0;
    m_events.Fire(2);
}

void CDepChecker::OnChildProcessCreated(long processId) {
    m_events.Fire(3, {ProcessIdArgument(processId)});
}

void CDepChecker::OnChildProcessExit(long processId) {
    m_events.Fire(4, {ProcessIdArgument(processId)});
}
