// Failures that carry a text for the person: the text goes into the thread's COM error object
// (SetErrorInfo), where a client reads it with GetErrorInfo, and the HRESULT travels as com_exception.
#pragma once

#include "inc/com_exception.h"
#include "inc/com_ptr.h"

#include <oleauto.h>

#include <string>

namespace qv {

// Sets the thread's error object to the description (source "QVWIScanners" unless told); failures to do
// so are ignored, the HRESULT still tells what went wrong.
inline void set_error_description(const std::wstring& description, const wchar_t* source = L"QVWIScanners") {
    com_ptr<ICreateErrorInfo> create;
    if (FAILED(CreateErrorInfo(create.put())))
        return;
    create->SetGUID(GUID_NULL);
    create->SetSource(const_cast<LPOLESTR>(source));
    std::wstring text = description;
    create->SetDescription(text.data());
    com_ptr<IErrorInfo> info = create.query<IErrorInfo>(IID_IErrorInfo);
    if (info)
        SetErrorInfo(0, info.get());
}

[[noreturn]] inline void throw_described(HRESULT hr, const std::wstring& description) {
    set_error_description(description);
    throw com_exception(hr);
}

// The system's words for hr, without the line break at their end; empty when it has none.
inline std::wstring system_message(HRESULT hr) {
    wchar_t* buffer = nullptr;
    const DWORD n =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, static_cast<DWORD>(hr), 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    const struct free_buffer {
        wchar_t* text;
        ~free_buffer() { LocalFree(text); }
    } owned{buffer};
    std::wstring text = n && buffer ? std::wstring(buffer, n) : std::wstring();
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r'))
        text.pop_back();
    return text;
}

// The description of the thread's error object, taken (and so cleared); empty when there is none.
inline std::wstring take_error_description() {
    com_ptr<IErrorInfo> info;
    if (GetErrorInfo(0, info.put()) != S_OK || !info)
        return {};
    bstr text;
    info->GetDescription(text.put());
    return text.str();
}

} // namespace qv
