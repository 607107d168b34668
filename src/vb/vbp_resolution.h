// How the Visual Basic scanner turns the lines of project and form files into file paths: the fields of
// a line, the version as the TypeLib key spells it, the TypeLib, ProgID and CLSID keys of the registry and
// the search path. Free of the driver's state; registry keys that do not exist read as empty and are not
// reported.
#pragma once

#include <string>

// The n-th field of text (counted from 1) cut at delimiter. A field exists only when a delimiter stands
// behind it: the last piece of a text is never a field, and a missing field is the empty string.
std::wstring GetDelimitedField(const std::wstring& text, int n, const std::wstring& delimiter);

// "major.minor" as the TypeLib key spells it: both parts read as decimal numbers (wcstol) and printed in
// hex, so "10.0" is "a.0"; a part that is no number reads as 0.
std::wstring FormatTypeLibVersion(const std::wstring& version);

// The full path of file along the default search order, or file as it is when not found (or empty).
std::wstring SearchForFile(const std::wstring& file);

// The file of "Reference=*\G{guid}#major.minor#lcid#path#description": the registered 32-bit path of the
// type library (version in hex first, then as written), else path, made absolute against folder.
std::wstring ResolveReferenceLine(const std::wstring& line, const std::wstring& folder);

// The file of a project's "Object={guid}#major.minor#flags; FILE.OCX" or a form's
// "Object = "{guid}#major.minor#flags"; "FILE.OCX"": the registered path of the type library, else the
// named file along the search path. A line without "#" names an out-of-process class by its ProgID and
// resolves through its LocalServer32. Empty for a line with neither "#" nor ";".
std::wstring ResolveObjectLine(const std::wstring& line);
