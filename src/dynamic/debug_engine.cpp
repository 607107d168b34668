#include "dynamic/debug_engine.h"

#include "inc/engine_wire.h"
#include "inc/unique_handles.h"
#include "toolkit/probes.h"

#include <objbase.h>
#include <oleauto.h>

#include <vector>

HRESULT InvokeMethod(IDispatch* object, DISPID id, std::initializer_list<VARIANT> arguments) {
    if (!object)
        return E_POINTER;
    std::vector<VARIANT> reversed;
    for (const VARIANT& v : arguments) {
        if (V_VT(&v) == VT_EMPTY || reversed.size() == 5)
            break;
        reversed.insert(reversed.begin(), v);
    }
    DISPPARAMS params{reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
    qv::unique_excepinfo exception;
    HRESULT hr =
        object->Invoke(id, IID_NULL, GetUserDefaultLCID(), DISPATCH_METHOD, &params, nullptr, exception.get(), nullptr);
    if (hr == DISP_E_EXCEPTION) {
        if (exception->pfnDeferredFillIn)
            exception->pfnDeferredFillIn(exception.get());
        if (exception->wCode)
            return static_cast<HRESULT>(exception->wCode | 0x80040000u);
        if (exception->scode)
            return exception->scode;
    }
    return hr;
}

std::wstring ChooseEngine(const std::wstring& folder, bool& use64) {
    use64 = qv::IsAmd64();
    const std::wstring name = use64 ? L"TraceHost64.exe" : L"TraceHost.exe";
    if (folder.empty())
        return name;
    return folder.back() == L'\\' ? folder + name : folder + L"\\" + name;
}

HRESULT StartAndConnect(const std::wstring& path, REFCLSID engineClass, REFIID iid, void** object) {
    if (!object)
        return E_POINTER;
    *object = nullptr;
    GUID instance;
    HRESULT hr = CoCreateGuid(&instance);
    if (FAILED(hr))
        return hr;
    wchar_t instanceText[40], classText[40];
    StringFromGUID2(instance, instanceText, 40);
    StringFromGUID2(engineClass, classText, 40);
    CharUpperBuffW(instanceText, static_cast<DWORD>(wcslen(instanceText)));
    CharUpperBuffW(classText, static_cast<DWORD>(wcslen(classText)));
    // The path stands unquoted: Windows' own search for the program decides what a folder with blanks runs.
    std::wstring line = path + L" " + classText + L":" + instanceText;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &started))
        return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    {
        const qv::unique_process_information process(started);
        WaitForInputIdle(process.process.get(), 20000);
    } // from here on nothing of the engine is held but its object

    hr = E_FAIL;
    for (int attempt = 0; attempt < 100; ++attempt) {
        qv::com_ptr<IMoniker> moniker;
        qv::com_ptr<IRunningObjectTable> table;
        qv::com_ptr<IUnknown> found;
        hr = CreateItemMoniker(L"!", instanceText, moniker.put());
        if (SUCCEEDED(hr))
            hr = GetRunningObjectTable(0, table.put());
        if (SUCCEEDED(hr))
            hr = table->GetObject(moniker.get(), found.put());
        if (SUCCEEDED(hr))
            return found->QueryInterface(iid, object);
        Sleep(300);
    }
    return hr;
}

namespace {

// The argument owns a copy of text (null when none could be made).
const VARIANT& Text(qv::unique_variant& v, const std::wstring& text) {
    V_VT(v.get()) = VT_BSTR;
    V_BSTR(v.get()) = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return *v.get();
}

VARIANT Number(long value) {
    VARIANT v;
    V_VT(&v) = VT_I4;
    V_I4(&v) = value;
    return v;
}

} // namespace

HRESULT CDebugEngineHelper::Launch(const std::wstring& path, const std::wstring& parameters,
                                   const std::wstring& directory, long loadFlags) {
    qv::unique_variant texts[3];
    return InvokeMethod(
        m_engine.get(), qv::engine::command::launch,
        {Text(texts[0], path), Text(texts[1], parameters), Text(texts[2], directory), Number(loadFlags)});
}

HRESULT CDebugEngineHelper::AttachProcess(long processId) {
    return InvokeMethod(m_engine.get(), qv::engine::command::attach_process, {Number(processId)});
}

HRESULT CDebugEngineHelper::Terminate() {
    return InvokeMethod(m_engine.get(), qv::engine::command::terminate, {});
}

std::wstring CDebugEngineHelper::MapToEngine(const std::wstring& path) {
    return qv::MapFromNativePath(path);
}

std::wstring CDebugEngineHelper::MapFromEngine(const std::wstring& path) {
    return qv::MapToNativePath(path);
}
