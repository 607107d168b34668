// The profile files: inifilex's file forms, encodings and saves, its values, names and operations; and
// qvmapfilex, the mapped file, read, written and half open.
#include "test_support.h"
#include "toolkit/inifilex.h"
#include "toolkit/qvmapfilex.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

namespace {

using lines = std::vector<wstring>;

TEST(Inifilex, FileFormsEncodingsAndWhatASaveWrites) {
    temp_dir dir;
    const wstring file = dir / L"p.ini";
    // (bytes, code page set before the load, bare keys) -> k of [S], the code page and mark, the bytes saved.
    const struct { std::string in; int cp; bool bare; wstring k; int loaded; bool bom; std::string saved; } rows[] = {
        {"\xEF\xBB\xBF[S]\nk=\xC3\xA9", -1, false, L"\u00e9", 65001, true, "\xEF\xBB\xBF[S]\r\nk=\xC3\xA9\r\n"},
        {"\xEF\xBB\xBF[S]\nk=\xC3\xA9", 1252, false, L"\u00e9", 65001, true, "\xEF\xBB\xBF[S]\r\nk=\xC3\xA9\r\n"}, // the mark stands
        {std::string("\xFF\xFE[\0S\0]\0\n\0k\0=\0\xAC\x20", 16), -1, false, L"\u20ac", 1200, true,
         std::string("\xFF\xFE[\0S\0]\0\r\0\n\0k\0=\0\xAC\x20\r\0\n\0", 22)},
        {std::string("\xFE\xFF\0[\0S\0]\0\r\0k\0=\0v", 16), -1, false, L"v", 1201, true,
         std::string("\xFE\xFF\0[\0S\0]\0\r\0\n\0k\0=\0v\0\r\0\n", 22)},
        {"[S]\r\nk=\xE9", 1252, false, L"\u00e9", 1252, false, "[S]\r\nk=\xE9\r\n"},
        {"[S]\nk=1\n;gone\n[T]\nb\nc=", -1, true, L"1", int(GetACP()), false, "[S]\r\nk=1\r\n\r\n[T]\r\nb\r\nc\r\n"},
        {"[S]\nk=1\n[T]\nb", -1, false, L"1", int(GetACP()), false, "[S]\r\nk=1\r\n\r\n[T]\r\nb=\r\n"},
    };
    for (const auto& r : rows) {
        dir.write(L"p.ini", r.in);
        qv::inifilex ini;
        ini.SetCodePage(r.cp);
        ASSERT_TRUE(ini.Load(file, L"=", r.bare)) << r.in;
        EXPECT_EQ(ini.GetString(L"s", L"K", L"?"), r.k) << r.in;
        EXPECT_TRUE(ini.CodePage() == r.loaded && ini.WritesBom() == r.bom) << r.in;
        EXPECT_TRUE(ini.Save(0, 0, false)) << r.in;
        EXPECT_EQ(read_file(file), r.saved);
    }
    // Failures are results: what a failed load read stays; no file name, no save; a list of no sections, no file.
    dir.write(L"bad.ini", "[S]\nk=v\n[T");
    qv::inifilex bad;
    EXPECT_TRUE(!bad.Load(dir / L"bad.ini", L"=", false) && bad.GetString(L"S", L"k", L"") == L"v");
    EXPECT_TRUE(!bad.SaveAs(L"", 0, 0, false) && !qv::SetIniString(dir / L"bad.ini", L"S", L"k", L"w"));
    EXPECT_EQ(read_file(dir / L"bad.ini"), "[S]\nk=v\n[T") << "a file that cannot be read is not written over";
    EXPECT_TRUE(qv::inifilex().SaveAs(dir / L"none.ini", 2, 0, false) && GetFileAttributesW((dir / L"none.ini").c_str()) == INVALID_FILE_ATTRIBUTES);
    EXPECT_TRUE(!bad.Load(dir / L"absent.ini", L"=", false) && bad.GetLastError() == ERROR_FILE_NOT_FOUND);
}

TEST(Inifilex, ValuesNamesAndOperations) {
    temp_dir dir;
    const wstring file = dir.write(L"v.ini", "[N]\nh=0x10\nH2=0X1f\nd=10\nbad=z\ny=yes\nt=TRUE\nn=no\ne=\n"
                                             "[Files]\nUses1=a\nUses2=b\nUses4=d\n[Files <0409>]\nUses0=z\n");
    const struct { const wchar_t* key; long number; bool flag; } rows[] = {{L"h", 16, false}, {L"H2", 31, false},
        {L"d", 10, false}, {L"bad", 0, false}, {L"y", 0, true}, {L"t", 0, true}, {L"n", 0, false}, {L"e", -7, true}};
    for (const auto& r : rows) {
        EXPECT_EQ(qv::GetIniInt(file, L"n", r.key, -7), r.number) << narrow(r.key);
        EXPECT_EQ(qv::GetIniBool(file, L"N", r.key, true), r.flag) << narrow(r.key);
    }
    qv::inifilex ini;
    ASSERT_TRUE(ini.Load(file, L"=", false));
    lines values, names;
    ini.GetNumberedValues(L"files", values, L"Uses%d"); // Uses0 may be missing, Uses3 ends the walk
    ini.GetNumberedValues(L"Files <0409>", values, L"Uses%d");
    EXPECT_EQ(values, (lines{L"a", L"b", L"z"}));
    ini.CopySectionsFormatted(ini, L"copy", L"%s of %ls %d%%");
    EXPECT_TRUE(ini.MoveKey(L"files", L"Uses4", L"uses1") && ini.RenameKey(L"Files", L"uses2", L"Uses3"));
    EXPECT_TRUE(ini.RenameSection(L"n", L"Numbers") && !ini.RenameSection(L"numbers", L"FILES"));
    ini.RemoveSectionsByPrefix(L"files");
    ini.GetSectionNames(names);
    ini.GetKeyNames(L"copy of Files %d%", names);
    EXPECT_EQ(names, (lines{L"Numbers", L"copy of N %d%", L"copy of Files %d%", L"copy of Files <0409> %d%", L"Uses1",
                            L"Uses2", L"Uses4"}));
}

TEST(Qvmapfilex, ReadWriteAndTheHalfOpenState) {
    temp_dir dir;
    DWORD size = 100;
    qv::qvmapfilex out, in, empty;
    ASSERT_TRUE(out.Open(dir / L"m.bin", size, true) && out.Size() == 100);
    static_cast<char*>(out.View())[99] = 'z';
    out.Close(), out.Close(); // twice is harmless
    EXPECT_EQ(read_file(dir / L"m.bin"), std::string(99, '\0') + "z");
    size = 0;
    EXPECT_TRUE(in.Open(dir / L"m.bin", size, false) && size == 100 && static_cast<const char*>(in.View())[99] == 'z');
    size = 0; // an empty file cannot be mapped: the error and the file are kept
    EXPECT_FALSE(empty.Open(dir.write(L"empty.bin", ""), size, false));
    EXPECT_TRUE(qv::qvmapfilex::LastError() != 0 && qv::qvmapfilex::LastErrorFile() == dir / L"empty.bin");
}

} // namespace
