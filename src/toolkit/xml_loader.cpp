#include "toolkit/xml_loader.h"

#include "inc/com_error.h"

#include <shlwapi.h>

// {2933BF95-7B36-11D2-B20E-00C04F983E60}
const IID IID_QvXmlDocument2 = {0x2933BF95, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};

const CLSID kXmlDocumentClasses[3] = {
    // {88D96A05-F192-11D4-A65F-0040963251E5}: DOMDocument60
    {0x88D96A05, 0xF192, 0x11D4, {0xA6, 0x5F, 0x00, 0x40, 0x96, 0x32, 0x51, 0xE5}},
    // {88D969C0-F192-11D4-A65F-0040963251E5}: DOMDocument40
    {0x88D969C0, 0xF192, 0x11D4, {0xA6, 0x5F, 0x00, 0x40, 0x96, 0x32, 0x51, 0xE5}},
    // {F5078F32-C551-11D3-89B9-0000F81FE221}: DOMDocument30
    {0xF5078F32, 0xC551, 0x11D3, {0x89, 0xB9, 0x00, 0x00, 0xF8, 0x1F, 0xE2, 0x21}},
};

namespace detail {

qv::com_ptr<IXMLDOMDocument2> CreateXmlDocument(std::span<const CLSID> classes) {
    HRESULT last = E_INVALIDARG;
    for (const CLSID& clsid : classes) {
        qv::com_ptr<IXMLDOMDocument2> document;
        last = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_QvXmlDocument2, document.put_void());
        if (SUCCEEDED(last) && document)
            return document;
    }
    throw com_exception(FAILED(last) ? last : E_NOINTERFACE);
}

qv::com_ptr<IXMLDOMDocument2> LoadXml(const std::wstring& path, std::span<const CLSID> classes) {
    qv::com_ptr<IXMLDOMDocument2> document = CreateXmlDocument(classes);

    VARIANT allowDtd;
    VariantInit(&allowDtd);
    allowDtd.vt = VT_BOOL;
    allowDtd.boolVal = VARIANT_FALSE;
    check_hr(document->setProperty(qv::bstr(L"ProhibitDTD").get(), allowDtd));
    check_hr(document->put_validateOnParse(VARIANT_FALSE));

    VARIANT source;
    VariantInit(&source);
    qv::bstr sourcePath(path);
    // The parser reads the file as a stream: given the path, it would go through a URL moniker, whose
    // notifications need a window, and under Wine a process's first window starts a desktop process that
    // outlives it holding its standard error. A file that cannot be opened goes by its path: the parser says why.
    qv::com_ptr<IStream> stream;
    if (SUCCEEDED(SHCreateStreamOnFileEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_NONE, FILE_ATTRIBUTE_NORMAL, FALSE,
                                         nullptr, stream.put()))) {
        source.vt = VT_UNKNOWN;
        source.punkVal = stream.get(); // still owned by stream
    } else {
        source.vt = VT_BSTR;
        source.bstrVal = sourcePath.get(); // still owned by sourcePath
    }
    VARIANT_BOOL loaded = VARIANT_FALSE;
    HRESULT hr = document->load(source, &loaded);
    if (FAILED(hr) || !loaded) {
        // What is wrong, for the person who has to mend it: no file at all, or the parser's own words.
        std::wstring why;
        if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
            why = L"the file does not exist";
        } else {
            qv::com_ptr<IXMLDOMParseError> error;
            if (SUCCEEDED(document->get_parseError(error.put())) && error) {
                qv::bstr reason;
                long line = 0;
                error->get_reason(reason.put());
                error->get_line(&line);
                why = reason.str();
                while (!why.empty() && (why.back() == L'\n' || why.back() == L'\r' || why.back() == L' '))
                    why.pop_back();
                if (line > 0)
                    why += L" at line " + std::to_wstring(line);
            }
            why = L"it is not a well-formed XML document" + (why.empty() ? std::wstring() : L" (" + why + L")");
        }
        qv::throw_described(FAILED(hr) ? hr : E_FAIL, L"cannot load " + path + L": " + why);
    }
    return document;
}

} // namespace detail

qv::com_ptr<IXMLDOMDocument2> LoadXml(const std::wstring& path) {
    return detail::LoadXml(path, kXmlDocumentClasses);
}
