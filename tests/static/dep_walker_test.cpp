// The import walk over images written by the tests: deep chains, climbing names, long folders, huge files,
// and the .dep files with their language sections, circles and long chains; the reader of their Uses sections.
#include "image_writer.h"
#include "recording_sink.h"
#include "filter/vb_filter.h"
#include "static/dep_sections.h"
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

TEST(DepSections, UsesCirclesAndTheDepthCap) {
    com_apartment apartment;
    temp_dir dir;
    auto load = [&](const wchar_t* name, const char* text) {
        const wstring file = dir.write(name, text);
        qv::com_ptr<IQvSections> root;
        const qv::com_ptr<IQvSectionLoader> loader = MakeSectionLoader(file);
        EXPECT_TRUE(loader->Load(qv::bstr(file).get()) == S_OK && loader->get_Root(root.put()) == S_OK);
        return root;
    };
    // a -> b -> c -> d, and [B] names a back; an empty Uses2 is handed on, the missing Uses3 ends the list.
    const auto root = load(L"s.dep", "[a]\nUses1=b\nUses2=\nUses4=never\n[B]\nUses1=c\nUses2=A\n[c]\nUses1=d\n[d]\n");
    // A walk as the scanners make it: (how a section was entered or why not) + its name, "none:" for no section.
    auto walk = [&](CDepSections& sections, auto& self, const wstring& name, lines& log) -> void {
        const qv::com_ptr<IQvSection> section = CDepSections::Find(root.get(), name);
        const CDepSections::mark entered = section ? sections.Enter(root.get(), name) : CDepSections::mark();
        static const wchar_t* const words[] = {L"", L"circle:", L"deep:"};
        log.push_back((section ? words[static_cast<int>(entered.entry())] : L"none:") + name);
        if (section && entered.entry() == CDepSections::Entry::Entered)
            CDepSections::EachUse(section.get(), [&](const wstring& used) { return self(sections, self, used, log), true; });
    };
    const struct { size_t deepest; lines log; } rows[] = {{CDepSections::unlimited, {L"a", L"b", L"c", L"d", L"circle:A", L"none:"}},
        {3, {L"a", L"b", L"c", L"deep:d", L"circle:A", L"none:"}}, {1, {L"a", L"deep:b", L"none:"}}};
    for (const auto& r : rows) {
        CDepSections sections(r.deepest);
        lines log, again;
        walk(sections, walk, L"a", log), walk(sections, walk, L"A", again);
        EXPECT_EQ(log, r.log) << r.deepest;
        EXPECT_EQ(again.front(), L"A") << "a finished walk leaves no section entered";
    }
    // A name is a circle only within one file's sections; a use that answers false ends the list.
    const auto other = load(L"t.dep", "[A]\nUses1=x\nUses2=y\n");
    CDepSections sections;
    const auto first = sections.Enter(root.get(), L"a"), second = sections.Enter(other.get(), L"a");
    EXPECT_TRUE(first.entry() == CDepSections::Entry::Entered && second.entry() == CDepSections::Entry::Entered);
    EXPECT_EQ(sections.Enter(other.get(), L"A").entry(), CDepSections::Entry::Circle);
    lines used;
    CDepSections::EachUse(CDepSections::Find(other.get(), L"a").get(), [&](const wstring& u) { return used.push_back(u), false; });
    EXPECT_EQ(used, lines{L"x"});
}

} // namespace
