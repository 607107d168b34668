// The settings document's exclusion list, read in children (it is read once per process).
#include "library_support.h"
#include "traits/settings_document.h"

#include <gtest/gtest.h>

#include <cstdio>

using namespace qv::test;
using std::wstring;

namespace {

// "exclusions|<settings text>": the text made the settings document; what loading it throws, as an HRESULT,
// and the exclusion set as <entry>s.
wstring ExclusionLine(const wstring& text, const child_context& context) {
    const wstring settings = context.folder + L"\\settings" + std::to_wstring(context.index) + L".xml";
    std::FILE* f = _wfopen(settings.c_str(), L"wb");
    const std::string bytes = narrow(text);
    fwrite(bytes.data(), 1, bytes.size(), f), fclose(f);
    SetEnvironmentVariableW(L"QV_SETTINGS_PATH", settings.c_str());
    wstring out = Hex(Thrown([] { qv::LoadExclusionList(); }));
    for (const wstring& entry : qv::ExclusionList())
        out += L" <" + entry + L">";
    return out + L"\n";
}
const child_command kExclusions(L"exclusions", &ExclusionLine);

// The exclusion list: lists add up, a text is kept once whatever its case, an entry without Path is the empty
// text; a failed read is tried again, a successful one never (the next document is not read).
TEST(ExclusionList, ReadOnceFromTheSettingsDocument) {
    const wstring lists = L"<Halyard><Scanners><DotNetExclusionList><F Path='C:\\A'/><F Path='c:\\a'/><F/>"
                          L"</DotNetExclusionList><DotNetExclusionList><F Path='D:\\B'/></DotNetExclusionList></Scanners></Halyard>";
    ExpectChild({L"{T}\\root\\one\\two\\app"}, {L"exclusions|<Halyard", L"exclusions|" + lists, L"exclusions|<Halyard/>"},
                {L"80004005", L"00000000 <> <C:\\A> <D:\\B>", L"00000000 <> <C:\\A> <D:\\B>"});
    ExpectChild({L"{T}\\root\\one\\two\\app"}, {L"exclusions|<Halyard><Scanners/></Halyard>"}, {L"00000000"});
}

} // namespace
