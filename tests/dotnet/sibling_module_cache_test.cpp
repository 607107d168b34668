// The search for a companion library (the sibling ladder) and its process-wide cache, in children.
#include "siblings/sibling_module_cache.h"
#include "library_support.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

// "commonfiles|<folder>": the machine's CommonFilesDir, in the most bytes read.
const child_command kCommonFiles(L"commonfiles", [](const wstring& folder) -> std::wstring {
    registry_override::set_value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion", L"CommonFilesDir",
                                 REG_SZ, (folder + wstring(MAX_PATH, L'\0')).data(), MAX_PATH * 2);
    return Hex(S_OK) + L"\n";
});

// "get|<name>": the services library of that name as the library finds it; the HRESULT and its programs folder.
const child_command kGet(L"get", [](const wstring& name) -> std::wstring {
    qv::com_ptr<IQvAppServices> services;
    qv::bstr folder;
    HRESULT hr = CoCreateFromLibrary(name, CLSID_QvAppServices, IID_IQvAppServices, services.put());
    if (SUCCEEDED(hr))
        hr = services->GetProgramsFolder(folder.put());
    return Hex(hr) + (folder.str().empty() ? L"" : L" " + folder.str()) + L"\n";
});

TEST(SiblingModules, LadderFirstExistingFolderWins) {
    const std::vector<wstring> ladder = {L"{T}\\root\\one\\two\\app", L"{T}\\root\\one\\two\\app\\System",
                                         L"{T}\\common\\Qorvex", L"{T}\\common\\Qorvex\\Zephal",
                                         L"{T}\\root\\one\\two\\System\\x64", L"{T}\\root\\System\\x64"};
    for (size_t from = 0; from < ladder.size(); ++from)
        ExpectChild({ladder.begin() + from, ladder.end()}, {L"commonfiles|{T}\\common", L"get|QvAppServices.dll"},
                    {L"00000000", L"00000000 " + ladder[from]});
    ExpectChild({ladder[2], ladder[5]}, {L"get|QvAppServices.dll"}, {L"00000000 " + ladder[5]}); // no CommonFilesDir
    ExpectChild({ladder[0] + L"\\System\\x64"}, {L"get|QvAppServices.dll"}, {kMissing});
}

// A failed load is not entered; a name seen before is not searched again, even when the search would now find
// another file; another spelling is another entry.
TEST(SiblingModules, CacheKeyedByTheExactSpelling) {
    ExpectChild({L"{T}\\common\\Qorvex", L"{T}\\common\\Qorvex\\Other.dll", L"{T}\\root\\System\\x64"},
                {L"get|Other.dll", L"get|QvAppServices.dll", L"commonfiles|{T}\\common", L"get|Other.dll",
                 L"get|QvAppServices.dll", L"get|qvappservices.dll"},
                {kMissing, L"00000000 {T}\\root\\System\\x64", L"00000000", L"00000000 {T}\\common\\Qorvex",
                 L"00000000 {T}\\root\\System\\x64", L"00000000 {T}\\common\\Qorvex"});
}
