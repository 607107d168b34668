#include "progress.h"

#include "error_text.h"
#include "inc/com_exception.h"
#include "toolkit/path_helpers.h"

#include <oleauto.h>

namespace qvscan {

void progress_line::draw(const std::string& text) {
    if (!m_terminal)
        return;
    err("\r\x1b[K" + text);
    m_drawn = true;
}

void progress_line::clear() {
    if (m_drawn)
        err("\r\x1b[K");
    m_drawn = false;
}

namespace {

HANDLE g_interrupt = nullptr; // the event of the console_interrupt that lives, not owned

BOOL WINAPI on_console_control(DWORD type) {
    if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT)
        return FALSE;
    SetEvent(g_interrupt);
    return TRUE;
}

} // namespace

console_interrupt::console_interrupt() : m_event(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    if (!m_event)
        qv::throw_last_error();
    g_interrupt = m_event.get();
    SetConsoleCtrlHandler(on_console_control, TRUE);
}

console_interrupt::~console_interrupt() {
    SetConsoleCtrlHandler(on_console_control, FALSE);
    g_interrupt = nullptr;
}

HRESULT STDMETHODCALLTYPE progress_sink::QueryInterface(REFIID iid, void** ppv) {
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

HRESULT STDMETHODCALLTYPE progress_sink::FoundDepFile(BSTR path) {
    ++files;
    named.insert(qv::LowerCase(path ? path : L""));
    const DWORD now = GetTickCount();
    if (m_line.terminal() && now - m_lastDraw > 200) {
        m_lastDraw = now;
        m_line.draw("scanning: " + std::to_string(files) + " files met");
    }
    return S_OK;
}

HRESULT STDMETHODCALLTYPE progress_sink::GetReferencePath(BSTR, BSTR* psPath) {
    if (psPath)
        *psPath = nullptr;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE progress_sink::ErrorEncountered(BSTR file, LONG code, BSTR text) {
    clear();
    err("qvscan: " + utf8(file ? file : L"") + ": " + utf8(text ? text : L"") + " (" + hex(code) + ")\n");
    return S_OK;
}

HRESULT STDMETHODCALLTYPE progress_sink::get_MMCatalog(IUnknown** out) {
    if (!out)
        return E_POINTER;
    if ((*out = catalog))
        catalog->AddRef();
    return S_OK;
}

HRESULT STDMETHODCALLTYPE progress_sink::GetOtherReferences(VARIANT* value) {
    if (value)
        VariantInit(value);
    return S_OK;
}

HRESULT STDMETHODCALLTYPE progress_sink::get_Component(IUnknown** component) {
    if (!component)
        return E_POINTER;
    *component = nullptr;
    return S_OK;
}

} // namespace qvscan
