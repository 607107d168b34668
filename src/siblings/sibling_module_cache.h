// Objects of the tool's own unregistered libraries (QvAppServices.dll, SectionLoader.dll): the library
// is found by file name among the folders where the tool installs itself, loaded once for the life of
// the process, and asked for a class object straight through its DllGetClassObject export.
//
// Trusts the libraries it loads as much as the server itself. Every failure to reach a library is
// REGDB_E_CLASSNOTREG, as if the class were not registered.
#pragma once

#include "companions.h"
#include "inc/com_ptr.h"

#include <windows.h>

#include <objbase.h>

#include <map>
#include <string>
#include <vector>

class CSiblingModuleCache {
public:
    // The one cache of the process, made on first use. Not guarded: used on the apartment thread.
    static CSiblingModuleCache& Instance();

    // The class factory of clsid from the library fileName. A name seen before (code unit for code unit,
    // so case matters) is neither searched nor loaded again. A name with a backslash is loaded from
    // there only; a bare name is searched along SearchCandidates.
    HRESULT GetClassObject(const std::wstring& fileName, REFCLSID clsid, IClassFactory** ppFactory);

    // The module entered under fileName, or null.
    HMODULE Loaded(const std::wstring& fileName) const;

    // The paths tried for a bare name, in order, for a server at serverPath and a CommonFilesDir
    // value commonFiles (may be empty, which drops its two entries):
    //   F\name, F\System\name, P\Qorvex\name, P\Qorvex\Zephal\name,
    //   then for each folder above F from the nearest up to, not including, the root: folder\System\x64\name.
    // F is the server's folder, P commonFiles.
    static std::vector<std::wstring> SearchCandidates(const std::wstring& serverPath, const std::wstring& commonFiles,
                                                      const std::wstring& fileName);

    // The path a bare name is loaded from: the first candidate that exists, or the name itself for the
    // loader's own search.
    static std::wstring FindLibrary(const std::wstring& fileName);

private:
    CSiblingModuleCache() = default;
    CSiblingModuleCache(const CSiblingModuleCache&) = delete;
    CSiblingModuleCache& operator=(const CSiblingModuleCache&) = delete;

    // The modules stay loaded until the process ends: the map never frees them.
    std::map<std::wstring, HMODULE> m_modules;
};

// CoCreateInstance through a sibling library: with an empty fileName plain CoCreateInstance with the
// contexts 23 (in-process server and handler, local and remote server); otherwise the library's class
// factory, CreateInstance without an outer object, then the factory's release. Returns the HRESULT.
HRESULT CoCreateFromLibrary(const std::wstring& fileName, REFCLSID clsid, REFIID iid, void** ppObject);

// The services object of QvAppServices.dll. Throws com_exception when the library cannot be reached,
// saying that it is the one that tells where `what` lies.
qv::com_ptr<IQvAppServices> AppServices(const std::wstring& what);

// The same for one interface type, asked by its identifier.
template <class T> HRESULT CoCreateFromLibrary(const std::wstring& fileName, REFCLSID clsid, REFIID iid, T** ppObject) {
    return CoCreateFromLibrary(fileName, clsid, iid, reinterpret_cast<void**>(ppObject));
}
