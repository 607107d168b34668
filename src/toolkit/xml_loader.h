// The XML loader of the library: an MSXML DOM document, the newest version the machine can make,
// with document-type declarations allowed and no validation. Used for filters.xml and for the tool's
// settings document.
#pragma once

#include "inc/com_ptr.h"

#include <windows.h>

#include <msxml2.h>

#include <span>
#include <string>

// IXMLDOMDocument2, the document interface with setProperty and selectNodes.
extern const IID IID_QvXmlDocument2;

// The DOM document classes LoadXml tries, in order: version 6, version 4, version 3.
extern const CLSID kXmlDocumentClasses[3];

// Loads the file at path. Throws com_exception: with the failure of the last creation when no document
// class can be made, with the failure of setProperty, validateOnParse or load, and with 0x80004005 when
// load succeeds but reports the file unparsed (missing, unreadable or not XML).
qv::com_ptr<IXMLDOMDocument2> LoadXml(const std::wstring& path);

namespace detail {

// The first of classes that CoCreateInstance makes in-process, as IXMLDOMDocument2. Throws com_exception
// with the last failure when none can be made (E_INVALIDARG for an empty list).
qv::com_ptr<IXMLDOMDocument2> CreateXmlDocument(std::span<const CLSID> classes);

// LoadXml with another list of document classes.
qv::com_ptr<IXMLDOMDocument2> LoadXml(const std::wstring& path, std::span<const CLSID> classes);

} // namespace detail
