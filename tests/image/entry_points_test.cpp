// The entry-point check over images written here: names and ordinals against an export table, forwarders
// into shipped DLLs, system DLLs, API-set contracts and nowhere, chains that come back or run too deep, and
// tables the check cannot trust.
#include "image/entry_points.h"
#include "image/pe_images.h"
#include "inc/unique_handles.h"
#include "toolkit/scan_round.h"
#include "image_writer.h"
#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>

using namespace qv::test;
using ::testing::ElementsAreArray;

namespace {

// A DLL exporting these (name, or "Name=OTHER.Func" to forward).
std::string exporter(std::vector<std::string> exports) {
    return qv::test::image_writer().exports(std::move(exports)).build().str();
}

class EntryPoints : public ::testing::Test {
protected:
    temp_dir dir;
    std::vector<std::wstring> system{L"kernel32.dll"}; // found, and not looked into

    forward_resolver resolve() {
        return [this](const std::wstring& module) {
            if (std::find(system.begin(), system.end(), module) != system.end())
                return forward_answer{forward_answer::kind::present, {}};
            const std::wstring path = dir / module;
            if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
                return forward_answer{forward_answer::kind::absent, {}};
            return forward_answer{forward_answer::kind::look, path};
        };
    }
    std::vector<std::wstring> missing(const std::wstring& importer, const std::wstring& dll, bool delay = false) {
        return MissingEntryPoints(dir / importer, dll, delay, dir / dll, resolve());
    }
};

TEST_F(EntryPoints, NamesOrdinalsAndForwarders) {
    std::vector<std::string> lib{"plain", "to_other=other.there", "to_system=kernel32.GetTickCount",
                                 "to_contract=api-ms-win-core-sysinfo-l1-2-9.GetTickCount",
                                 "to_nowhere=gone.f", "to_absent_name=other.not_there", "to_ordinal=other.#1",
                                 "to_loop=loop.back", "deep=d0.f", "too_deep=e0.f", "bad_text=nodot"};
    dir.write(L"lib.dll", exporter(lib));
    dir.write(L"other.dll", exporter({"there"}));
    dir.write(L"loop.dll", exporter({"back=lib.to_loop"}));
    // A chain of ten forwarders ends in a function; one of twenty is past the bound.
    for (int i = 0; i < 20; ++i) {
        const std::string next = i == 9 ? "f" : "f=d" + std::to_string(i + 1) + ".f";
        dir.write(L"d" + std::to_wstring(i) + L".dll", exporter({next}));
        dir.write(L"e" + std::to_wstring(i) + L".dll", exporter({"f=e" + std::to_string(i + 1) + ".f"}));
    }
    const struct { const char* function; bool lacking; } table[] = {
        {"plain", false},          {"absent", true},         {"to_other", false},      {"to_system", false},
        {"to_contract", false},    {"to_nowhere", true},     {"to_absent_name", true}, {"to_ordinal", false},
        {"to_loop", true},         {"deep", false},          {"too_deep", true},       {"bad_text", true},
        {"#1", false},             {"#99", true},
    };
    std::vector<std::string> calls;
    std::vector<std::wstring> expected;
    for (const auto& row : table) {
        calls.push_back(row.function);
        if (row.lacking)
            expected.push_back(qv::test::widen(row.function));
    }
    calls.push_back("absent"); // named twice, told once
    dir.write(L"app.exe", qv::test::image_writer().dll(false).import("LIB.DLL", calls).build().str());
    EXPECT_THAT(missing(L"app.exe", L"lib.dll"), ElementsAreArray(expected));
    // The same calls delay-loaded are told only when the delay table is asked.
    dir.write(L"late.exe", qv::test::image_writer().dll(false).delay_import("lib.dll", calls).build().str());
    EXPECT_THAT(missing(L"late.exe", L"lib.dll", true), ElementsAreArray(expected));
    EXPECT_THAT(missing(L"late.exe", L"lib.dll", false), ::testing::IsEmpty());
}

TEST_F(EntryPoints, WhatCannotBeJudgedIsNotTold) {
    dir.write(L"noexports.dll", qv::test::image_writer().build().str());
    dir.write(L"notpe.dll", "not an image");
    dir.write(L"app.exe", qv::test::image_writer()
                              .dll(false)
                              .import("noexports.dll", {"f"})
                              .import("notpe.dll", {"f"})
                              .import("unasked.dll", {"f"})
                              .build()
                              .str());
    const struct { const wchar_t* dll; std::vector<std::wstring> lacking; } table[] = {
        {L"noexports.dll", {L"f"}}, // no export table: nothing is exported
        {L"notpe.dll", {}},         // no image to judge
        {L"unasked.dll", {}},       // not there at all: the missing file tells it
        {L"other.dll", {}},         // not imported by the importer
    };
    for (const auto& row : table) {
        SCOPED_TRACE(qv::test::narrow(row.dll));
        EXPECT_EQ(missing(L"app.exe", row.dll), row.lacking);
    }
    // What is kept of an image stands only while the file does: one rewritten is read again.
    dir.write(L"noexports.dll", exporter({"f"}));
    EXPECT_THAT(missing(L"app.exe", L"noexports.dll"), ::testing::IsEmpty());
}

// Read ahead, an image's tables come from the open that read its facts: a file that can no longer be opened
// (another program holds it, sharing nothing) still has them. Without it, they are read when asked for.
TEST_F(EntryPoints, TablesReadAheadWithTheFactsNeedNoSecondOpen) {
    for (const bool ahead : {true, false}) {
        SCOPED_TRACE(ahead ? "read ahead" : "asked for");
        const std::wstring dll = dir.write(ahead ? L"ahead.dll" : L"asked.dll", exporter({"f", "g"}));
        const qv::scan_round round;
        std::optional<image_tables_ahead> reading;
        if (ahead)
            reading.emplace();
        ASSERT_TRUE(ImageFacts(dll)->usable);
        const qv::unique_hfile held(CreateFileW(dll.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(held);
        const auto tables = ImageTables(dll);
        EXPECT_EQ(tables->Usable(), ahead);
        EXPECT_EQ(tables->Find({"g", 0}) != nullptr, ahead);
    }
}

TEST(ApiSetNames, ByPrefixWithoutCase) {
    const struct { const wchar_t* name; bool contract; } table[] = {
        {L"api-ms-win-core-synch-l1-2-0.dll", true}, {L"API-MS-WIN-CRT-RUNTIME-L1-1-0.DLL", true},
        {L"ext-ms-win-ntuser-window-l1-1-0.dll", true}, {L"apix.dll", false}, {L"kernel32.dll", false},
        {L"myapi-ms.dll", false},
    };
    for (const auto& row : table)
        EXPECT_EQ(IsApiSetName(row.name), row.contract) << qv::test::narrow(row.name);
}

} // namespace
