// script_host.exe FILE.vbs: runs a VBScript file through the platform's VBScript engine with the part of the
// WScript object a script client of our classes uses: CreateObject(ProgID[, prefix]) with the prefix's
// events (Sub prefix_EventName), Echo, Sleep (which dispatches messages, so events arrive), Quit. Wine's
// own wscript takes no event prefix; this host connects them as that host does on Windows: the object's
// default source interface from its coclass in its type library, each event by name to the script.
// Exit code: Quit's, else 0; 1 for a script error, which is printed.
#include <initguid.h>
#include <windows.h>

#include <activscp.h>
#include <objbase.h>
#include <ocidl.h>
#include <oleauto.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "event_recorder.h"

namespace {

IActiveScript* g_script = nullptr;
int g_exit = 0;
bool g_quit = false, g_failed = false;
constexpr HRESULT QuitRequested = 0x8004ABCD;

// Calls the script's Sub prefix + name of each event the object fires.
struct event_sink : qv::test::static_dispatch {
    ITypeInfo* events; // the source interface's description, for the names
    std::wstring prefix;
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*, EXCEPINFO*,
                                     UINT*) override {
        BSTR name = nullptr;
        IDispatch* code = nullptr;
        UINT got = 0;
        if (FAILED(events->GetNames(id, &name, 1, &got)) || !got || FAILED(g_script->GetScriptDispatch(nullptr, &code)))
            return S_OK;
        std::wstring sub = prefix + name;
        SysFreeString(name);
        LPOLESTR names[] = {sub.data()};
        DISPID subId = 0;
        if (SUCCEEDED(code->GetIDsOfNames(GUID{}, names, 1, 0, &subId)))
            code->Invoke(subId, GUID{}, 0, DISPATCH_METHOD, params, nullptr, nullptr, nullptr);
        code->Release();
        return S_OK;
    }
};

// Connects the prefix's events of object: the default source interface of the coclass that lists the
// interface the object's type information describes.
void Connect(IDispatch* object, const std::wstring& prefix) {
    ITypeInfo* own = nullptr; // the references of this short-lived host are never released
    ITypeLib* library = nullptr;
    TYPEATTR* ownAttributes = nullptr;
    UINT index = 0;
    if (FAILED(object->GetTypeInfo(0, 0, &own)) || FAILED(own->GetContainingTypeLib(&library, &index)) ||
        FAILED(own->GetTypeAttr(&ownAttributes)))
        return;
    for (UINT t = 0; t < library->GetTypeInfoCount(); ++t) {
        ITypeInfo* coclass = nullptr;
        TYPEATTR* attributes = nullptr;
        if (FAILED(library->GetTypeInfo(t, &coclass)) || FAILED(coclass->GetTypeAttr(&attributes)))
            continue;
        ITypeInfo* source = nullptr;
        bool implements = false; // the object's interface is one the coclass lists
        for (UINT i = 0; attributes->typekind == TKIND_COCLASS && i < attributes->cImplTypes; ++i) {
            INT flags = 0;
            HREFTYPE reference = 0;
            ITypeInfo* implemented = nullptr;
            TYPEATTR* itf = nullptr;
            if (FAILED(coclass->GetImplTypeFlags(i, &flags)) || FAILED(coclass->GetRefTypeOfImplType(i, &reference)) ||
                FAILED(coclass->GetRefTypeInfo(reference, &implemented)) || FAILED(implemented->GetTypeAttr(&itf)))
                continue;
            if ((flags & IMPLTYPEFLAG_FSOURCE) && (flags & IMPLTYPEFLAG_FDEFAULT))
                source = implemented;
            else if (!(flags & IMPLTYPEFLAG_FSOURCE) && IsEqualGUID(itf->guid, ownAttributes->guid))
                implements = true;
        }
        if (source && implements) {
            TYPEATTR* events = nullptr;
            auto* sink = new event_sink;
            sink->events = source, sink->prefix = prefix;
            IConnectionPointContainer* container = nullptr;
            IConnectionPoint* point = nullptr;
            DWORD cookie = 0;
            if (SUCCEEDED(source->GetTypeAttr(&events)))
                sink->events_iid = events->guid;
            if (SUCCEEDED(
                    object->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&container))) &&
                SUCCEEDED(container->FindConnectionPoint(sink->events_iid, &point)))
                point->Advise(sink, &cookie); // kept for the life of the process
            return;
        }
    }
}

// The WScript object: CreateObject (1), Echo (2), Sleep (3), Quit (4).
struct wscript : qv::test::static_dispatch {
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT, LCID, DISPID* ids) override {
        const wchar_t* known[] = {L"CreateObject", L"Echo", L"Sleep", L"Quit"};
        for (DISPID i = 0; i < 4; ++i)
            if (_wcsicmp(names[0], known[i]) == 0)
                return *ids = i + 1, S_OK;
        return DISP_E_UNKNOWNNAME;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* p, VARIANT* result, EXCEPINFO*,
                                     UINT*) override {
        std::vector<std::wstring> args; // first to last, as text
        for (UINT i = p->cArgs; i-- > 0;) {
            VARIANT text{};
            VariantChangeType(&text, &p->rgvarg[i], VARIANT_ALPHABOOL, VT_BSTR);
            args.push_back(V_VT(&text) == VT_BSTR && V_BSTR(&text) ? V_BSTR(&text) : L""), VariantClear(&text);
        }
        if (id == 1 && !args.empty()) {
            CLSID clsid;
            IDispatch* object = nullptr;
            HRESULT hr = CLSIDFromProgID(args[0].c_str(), &clsid);
            if (SUCCEEDED(hr))
                hr = CoCreateInstance(clsid, nullptr, CLSCTX_ALL, IID_IDispatch, reinterpret_cast<void**>(&object));
            if (FAILED(hr))
                return hr;
            if (args.size() > 1 && !args[1].empty())
                Connect(object, args[1]);
            V_VT(result) = VT_DISPATCH, V_DISPATCH(result) = object;
        } else if (id == 2) {
            std::wstring line;
            for (const std::wstring& a : args)
                line += (line.empty() ? L"" : L" ") + a;
            std::printf("%ls\n", line.c_str());
            std::fflush(stdout);
        } else if (id == 3 && !args.empty()) {
            qv::test::pump_until([] { return false; }, std::wcstoul(args[0].c_str(), nullptr, 10));
        } else if (id == 4) {
            g_exit = args.empty() ? 0 : std::wcstol(args[0].c_str(), nullptr, 10), g_quit = true;
            return QuitRequested; // ends the script
        }
        return S_OK;
    }
} g_wscript;

struct site : IActiveScriptSite {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** ppv) override {
        *ppv = IsEqualIID(id, IID_IUnknown) || IsEqualIID(id, IID_IActiveScriptSite) ? this : nullptr;
        return *ppv ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetLCID(LCID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetItemInfo(LPCOLESTR, DWORD mask, IUnknown** item, ITypeInfo** info) override {
        return (mask & SCRIPTINFO_ITYPEINFO ? *info = nullptr : nullptr), (mask & SCRIPTINFO_IUNKNOWN ? *item = &g_wscript : nullptr), S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetDocVersionString(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE OnScriptTerminate(const VARIANT*, const EXCEPINFO*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE OnStateChange(SCRIPTSTATE) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE OnEnterScript() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE OnLeaveScript() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE OnScriptError(IActiveScriptError* error) override {
        EXCEPINFO info{};
        DWORD context = 0;
        ULONG line = 0;
        LONG column = 0;
        error->GetExceptionInfo(&info), error->GetSourcePosition(&context, &line, &column);
        if (!g_quit) // Quit ends the script by an error of its own
            g_failed = std::printf("script error, line %lu: %ls\n", line + 1, info.bstrDescription) > 0;
        return S_OK;
    }
} g_site;

} // namespace

int wmain(int argc, wchar_t** argv) {
    std::ifstream file(argc == 2 ? argv[1] : L"", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::wstring text(bytes.size(), L'\0');
    text.resize(MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(),
                                    static_cast<int>(text.size())));
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    CLSID vbscript;
    IActiveScriptParse* parse = nullptr;
    if (FAILED(CLSIDFromProgID(L"VBScript", &vbscript)) ||
        FAILED(CoCreateInstance(vbscript, nullptr, CLSCTX_INPROC_SERVER, IID_IActiveScript,
                                reinterpret_cast<void**>(&g_script))) ||
        FAILED(g_script->QueryInterface(IID_IActiveScriptParse, reinterpret_cast<void**>(&parse))))
        return std::printf("no VBScript engine\n"), 1;
    g_script->SetScriptSite(&g_site);
    parse->InitNew();
    g_script->AddNamedItem(L"WScript", SCRIPTITEM_ISVISIBLE);
    g_script->SetScriptState(SCRIPTSTATE_STARTED);
    parse->ParseScriptText(text.c_str(), nullptr, nullptr, nullptr, 0, 0, SCRIPTTEXT_ISVISIBLE, nullptr, nullptr);
    g_script->Close();
    return g_failed ? 1 : g_exit;
}
