// Progress and Ctrl-C, one way for every command: a progress line drawn on standard error only where that is
// a terminal, the console's Ctrl-C handed to the command as an event it can wait on or ask about, and the
// events of a static scan (counted, drawn, and remembered for telling where a record came from).
#pragma once

#include "QVWIScanners.h"
#include "inc/unique_handles.h"
#include "text_output.h"

#include <windows.h>

#include <set>
#include <string>

namespace qvscan {

// One line of progress on standard error, redrawn in place; nothing where standard error is no terminal.
class progress_line {
public:
    bool terminal() const { return m_terminal; }
    void draw(const std::string& text);
    // Erases what was drawn, so that a line of text can follow.
    void clear();

private:
    bool m_terminal = err_is_terminal();
    bool m_drawn = false;
};

// Ctrl-C and Ctrl-Break while the owner lives: the console's handler sets one event (manual reset) instead of
// ending the process; the handler is removed when the owner goes. One at a time.
class console_interrupt {
public:
    console_interrupt();
    ~console_interrupt();
    console_interrupt(const console_interrupt&) = delete;
    console_interrupt& operator=(const console_interrupt&) = delete;

    HANDLE event() const { return m_event.get(); }
    bool raised() const { return WaitForSingleObject(m_event.get(), 0) == WAIT_OBJECT_0; }
    void reset() { ResetEvent(m_event.get()); }

private:
    qv::unique_handle m_event;
};

// The events of a static scan and of an assembly's reference walk: counts the files met, keeps what the
// import tables named (in lower case), draws progress, tells the server's errors, and knows nothing the
// server asks for (no reference path, no other references, no component) but the merge-module catalog.
class progress_sink : public IStaticScanEventsValeSP {
public:
    long files = 0;
    std::set<std::wstring> named;
    IUnknown* catalog = nullptr; // the merge-module catalog handed to the scan, or none (not owned)

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** ppv) override;
    // Lives on the stack of the command, longer than the scan.
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT STDMETHODCALLTYPE FoundDepFile(BSTR path) override;
    HRESULT STDMETHODCALLTYPE GetReferencePath(BSTR, BSTR* psPath) override;
    HRESULT STDMETHODCALLTYPE ErrorEncountered(BSTR file, LONG code, BSTR text) override;
    HRESULT STDMETHODCALLTYPE get_MMCatalog(IUnknown** out) override;
    HRESULT STDMETHODCALLTYPE GetOtherReferences(VARIANT* value) override;
    HRESULT STDMETHODCALLTYPE get_Component(IUnknown** component) override;

    void clear() { m_line.clear(); }

protected:
    progress_line m_line;

private:
    DWORD m_lastDraw = 0;
};

} // namespace qvscan
