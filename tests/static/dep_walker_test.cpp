// The import walk over images written by the tests: deep chains, climbing names, long folders, huge files,
// and the .dep files with their language sections, circles and long chains.
#include "image_writer.h"
#include "recording_sink.h"
#include "static/dep_walker.h"
#include "test_support.h"
#include "toolkit/path_helpers.h"

#include <gtest/gtest.h>

using namespace qv::test;
using std::wstring;

namespace {

using lines = std::vector<wstring>;

// An x64 program importing name; of size bytes (sparse past the image) when a size is given.
wstring program(const temp_dir& dir, const wstring& file, const std::string& name, ULONGLONG size = 0) {
    const wstring path = dir.write(file, qv::test::image_writer().dll(false).import(name).build().str());
    HANDLE h = size ? CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr) : nullptr;
    const LARGE_INTEGER at{{static_cast<DWORD>(size), static_cast<LONG>(size >> 32)}};
    EXPECT_TRUE(!h || (SetFilePointerEx(h, at, nullptr, FILE_BEGIN) && SetEndOfFile(h) && CloseHandle(h)));
    return path;
}

TEST(Walker, DeepChainsClimbingNamesLongFoldersAndHugeFiles) {
    // 5,000 DLLs, each importing the next, come back in the order of a short chain: the deepest first.
    temp_dir dir;
    constexpr int depth = 5000;
    auto link = [](int i) { return "c" + std::to_string(i) + ".dll"; };
    for (int i = 0; i < depth; ++i)
        dir.write(widen(link(i)), (i + 1 < depth ? qv::test::image_writer().import(link(i + 1)) : qv::test::image_writer()).build().str());
    // Names that climb or use forward slashes, a folder far past 260 characters, files of about 4 GiB.
    const wstring deep = wstring(120, L'd') + L"\\" + wstring(120, L'e'), last = widen(link(depth - 1));
    dir.write(L"up\\x_up.dll", ""), dir.write(L"up\\app\\sub\\y.dll", ""), dir.write(deep + L"\\z.dll", "");
    const std::pair<wstring, wstring> rows[] = { // the program, and where its one import is found
        {program(dir, L"chain.exe", link(0)), dir / widen(link(0))}, {program(dir, L"up\\app\\a.exe", "../x_up.dll"), dir / L"up\\x_up.dll"},
        {program(dir, L"up\\app\\b.exe", "..\\app\\sub/y.dll"), dir / L"up\\app\\sub\\y.dll"},
        {program(dir, deep + L"\\c.exe", "z.dll"), dir / deep + L"\\z.dll"}, {program(dir, L"4g.exe", link(depth - 1), 1ull << 32), dir / last}};
    for (const auto& [top, found] : rows) {
        recording_sink sink;
        CDepWalker walker;
        walker.Scan(top, &sink, nullptr, L"", 0);
        const auto record = walker.FoundFiles.find(qv::bstr(qv::FileNamePart(found)));
        ASSERT_NE(record, walker.FoundFiles.end()) << narrow(top);
        EXPECT_EQ(lower(record->second.FullPath), lower(found)) << narrow(top);
        EXPECT_TRUE(walker.MissingFiles.empty()) << narrow(top);
        for (size_t i = 0; &top == &rows[0].first && i < depth; ++i)
            ASSERT_EQ(lower(sink.found.at(i)), lower(dir / widen(link(depth - 1 - static_cast<int>(i))))) << i;
    }
}

TEST(Walker, DepFilesTheirLanguageSectionsCirclesAndLongChains) {
    temp_dir dir;
    for (const wchar_t* name : {L"a.dll", L"b.dll", L"c.dll", L"enu.dll", L"noext"})
        dir.write(name, qv::test::image_writer().build().str());
    dir.write(L"comp.ocx", qv::test::image_writer().import("a.dll").build().str());
    dir.write(L"loop.ocx", qv::test::image_writer().build().str()), dir.write(L"chain.ocx", qv::test::image_writer().build().str());
    // Uses2 empty is passed over, Uses4 missing ends the list; a bare name not found names a section of its own.
    dir.write(L"comp.dep", "[comp.ocx]\r\nUses1=b.dll\r\nUses2=\r\nUses3=c.dll\r\nUses5=a.dll\r\n[comp.ocx <0409>]\r\n"
                           "Uses1=enu.dll\r\n[comp.ocx <>]\r\nUses1=nolang.dll\r\n[nolang.dll]\r\nUses1=deeper.dll\r\n");
    dir.write(L"loop.dep", "[loop.ocx]\nUses1=x.dll\n[X.DLL]\nUses1=y.dll\n[y.dll]\nUses1=x.dll\n");
    dir.write(L"noext.dep", "[noext]\nUses1=b.dll\n"); // a file without an extension has no .dep file
    std::string chain = "[chain.ocx]\nUses1=n0\n"; // 10,000 sections, each naming the next
    for (int i = 0; i < 10000; ++i)
        chain += "[n" + std::to_string(i) + "]\nUses1=n" + std::to_string(i + 1) + "\n";
    dir.write(L"chain.dep", chain);
    // (top, language) -> records as name:folder ("" when missing), the import events, the errors.
    const struct { const wchar_t *top, *lang; lines records; size_t events, errors; } rows[] = {
        {L"comp.ocx", L"0409", {L"a.dll:d", L"b.dll:d", L"c.dll:d", L"enu.dll:d"}, 1, 0},
        {L"comp.ocx", L"", {L"a.dll:d", L"b.dll:d", L"c.dll:d", L"deeper.dll:", L"nolang.dll:"}, 1, 0},
        {L"loop.ocx", L"", {L"x.dll:", L"y.dll:"}, 0, 1}, {L"noext", L"", {}, 0, 0}, {L"chain.ocx", L"", {}, 0, 0}};
    for (const auto& r : rows) {
        recording_sink sink;
        CDepWalker walker;
        walker.Scan(dir / r.top, &sink, nullptr, r.lang, 0);
        lines got;
        for (const auto& [key, record] : walker.FoundFiles)
            got.push_back(key.str() + L":" + (qv::DirectoryPart(record.FullPath).empty() ? L"" : L"d"));
        if (r.top == wstring(L"chain.ocx"))
            EXPECT_EQ(got.size(), 10001u); // n0 to n10000, each missing
        else
            EXPECT_EQ(got, r.records) << narrow(r.top);
        EXPECT_TRUE(sink.found.size() == r.events && sink.errors.size() == r.errors && walker.MissingFiles.empty()) << narrow(r.top);
    }
}

} // namespace
