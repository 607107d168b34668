// The function-level tables: imports and delay imports with their functions, exports with forwarders, as
// tables over written images; then the faults one at a time and every prefix of an image that has them all.
#include "format/pe/pe_tables.h"
#include "image_writer.h"

#include <gtest/gtest.h>

namespace {

using namespace qv::pe;
using namespace qv::test;
namespace M = layout::machine;

// A module as the tests write it: "name: f1 f2 #3" with "!" after the name for an incomplete one.
std::string text(const imported_module& m) {
    std::string s(m.name);
    s += m.complete ? ":" : "!:";
    for (const auto& f : m.functions)
        s += f.by_ordinal ? " #" + std::to_string(f.ordinal) : " " + std::string(f.name);
    return s;
}
std::vector<std::string> texts(const std::vector<imported_module>& modules) {
    std::vector<std::string> out;
    for (const auto& m : modules)
        out.push_back(text(m));
    return out;
}
image_writer writer(bool plus) { return image_writer().machine(plus ? M::amd64 : M::i386).pe32plus(plus); }

TEST(PeTables, ImportsAndDelayImportsOfBothFormsAndWidths) {
    for (bool plus : {false, true}) {
        for (bool rva_based : {true, false}) {
            const auto image = writer(plus)
                                   .image_base(plus ? 0x180000000ull : 0x10000000ull)
                                   .import("kernel32.dll", {"GetTickCount", "#17", "ExitProcess"})
                                   .import("bare.dll")
                                   .delay_import("shipped.dll", {"Start", "#2"}, rva_based)
                                   .delay_import("gone.dll", {"Stop"}, rva_based)
                                   .build();
            const auto pe = pe_image::open(image.span()).value();
            const std::string form = std::string(plus ? "pe32+" : "pe32") + (rva_based ? " rva" : " va");
            EXPECT_EQ(texts(read_imports(pe)), (std::vector<std::string>{"kernel32.dll: GetTickCount #17 ExitProcess",
                                                                         "bare.dll!:"}))
                << form;
            EXPECT_EQ(texts(read_delay_imports(pe)), (std::vector<std::string>{"shipped.dll: Start #2", "gone.dll: Stop"}))
                << form;
            // Hints are the writer's index of the name.
            EXPECT_EQ(read_imports(pe)[0].functions[2].ordinal, 2) << form;
        }
    }
    const auto plain = writer(true).build();
    const auto none = pe_image::open(plain.span()).value();
    EXPECT_TRUE(read_imports(none).empty() && read_delay_imports(none).empty() && !read_exports(none));
}

TEST(PeTables, ExportsByNameAndOrdinalWithForwarders) {
    const auto image =
        writer(true).exports({"Zeta", "Alpha", "Moved=other.Target", "ByOrdinal=api-ms-win-core-x-l1-1-0.#12"}).build();
    const auto table = read_exports(pe_image::open(image.span()).value()).value();
    EXPECT_EQ(table.dll_name, "written.dll");
    EXPECT_TRUE(table.complete);
    ASSERT_EQ(table.functions.size(), 4u);
    EXPECT_TRUE(table.find("Alpha") && table.find("Zeta") && !table.find("alpha") && !table.find("Missing"));
    EXPECT_EQ(table.find("Moved")->forwarder, "other.Target");
    EXPECT_EQ(table.find("Zeta")->forwarder, "");
    // Ordinals are the base (1) plus the index.
    EXPECT_TRUE(table.find_ordinal(1) && table.find_ordinal(4) && !table.find_ordinal(0) && !table.find_ordinal(5));
    EXPECT_EQ(table.find_ordinal(4)->forwarder, "api-ms-win-core-x-l1-1-0.#12");
}

TEST(PeTables, ForwarderTextsSplitAtTheLastDot) {
    const struct { const char* text; bool ok; const char* module; const char* name; int ordinal; } rows[] = {
        {"NTDLL.RtlAllocateHeap", true, "NTDLL", "RtlAllocateHeap", 0},
        {"api-ms-win-core-heap-l1-1-0.HeapAlloc", true, "api-ms-win-core-heap-l1-1-0", "HeapAlloc", 0},
        {"other.#12", true, "other", "", 12},
        {"other.#65535", true, "other", "", 65535},
        {"other.#65536", false, "", "", 0},
        {"other.#1x", false, "", "", 0},
        {"other.#", false, "", "", 0},
        {"nodot", false, "", "", 0},
        {".name", false, "", "", 0},
        {"module.", false, "", "", 0},
        {"", false, "", "", 0},
    };
    for (const auto& r : rows) {
        const auto t = split_forwarder(r.text);
        ASSERT_EQ(t.has_value(), r.ok) << r.text;
        if (t)
            EXPECT_TRUE(t->module == r.module && t->name == r.name && t->ordinal == r.ordinal) << r.text;
    }
}

using edit = void (*)(written_image&);

TEST(PeTables, FaultsEndTheWalkWithWhatCameBefore) {
    const auto base = [] {
        return writer(true)
            .exports({"One", "Two"})
            .import("a.dll", {"F", "G"})
            .delay_import("d1.dll", {"H"})
            .delay_import("d2.dll", {"I"})
            .build();
    };
    const struct { const char* what; edit change; std::vector<std::string> imports, delay; bool exports_complete; } rows[] = {
        {"as written", [](written_image&) {}, {"a.dll: F G"}, {"d1.dll: H", "d2.dll: I"}, true},
        {"delay descriptor name outside the image",
         [](written_image& i) { put32(i.bytes, i.delay_table_offset + 32 + 4, 0x7FFFFFF0); }, {"a.dll: F G"},
         {"d1.dll: H"}, true},
        {"delay name table outside the image",
         [](written_image& i) { put32(i.bytes, i.delay_table_offset + 16, 0x7FFFFFF0); }, {"a.dll: F G"},
         {"d1.dll!:", "d2.dll: I"}, true},
        {"delay directory size of 2^31 (the walk ends at the zero descriptor all the same)",
         [](written_image& i) { put32(i.bytes, i.directory_entry_offset(13) + 4, 0x80000000u); }, {"a.dll: F G"},
         {"d1.dll: H", "d2.dll: I"}, true},
        {"import name entry outside the image",
         [](written_image& i) { put32(i.bytes, i.import_table_offset + 20 * 2 + 6 + 8, 0x7FFFFFF0); },
         {"a.dll!: F"}, {"d1.dll: H", "d2.dll: I"}, true},
        {"export name count of 2^31 (capped; the names past the table are not names)",
         [](written_image& i) { put32(i.bytes, i.export_directory_offset + 24, 0x80000000u); }, {"a.dll: F G"},
         {"d1.dll: H", "d2.dll: I"}, false},
        {"export name table at the end of the last section (padding, no names)",
         [](written_image& i) {
             const auto& last = i.sections.back();
             put32(i.bytes, i.export_directory_offset + 32, last.virtual_address + last.virtual_size - 2);
         },
         {"a.dll: F G"}, {"d1.dll: H", "d2.dll: I"}, false},
    };
    for (const auto& r : rows) {
        auto image = base();
        r.change(image);
        const auto pe = pe_image::open(image.span()).value();
        EXPECT_EQ(texts(read_imports(pe)), r.imports) << r.what;
        EXPECT_EQ(texts(read_delay_imports(pe)), r.delay) << r.what;
        const auto exports = read_exports(pe);
        EXPECT_TRUE(exports && exports->complete == r.exports_complete) << r.what;
    }
}

// The name table of the last delay descriptor runs to the end of the file with no zero entry: the walk stops
// there, and a cut anywhere gives a clean, shorter answer.
TEST(PeTables, EveryPrefixGivesAPrefixOfTheAnswers) {
    const auto image = writer(false)
                           .image_base(0x400000)
                           .exports({"A", "B=x.C"})
                           .import("k.dll", {"F", "#3"})
                           .delay_import("d.dll", {"G", "H"}, false)
                           .build();
    const auto full = pe_image::open(image.span()).value();
    const auto imports = texts(read_imports(full)), delay = texts(read_delay_imports(full));
    for (std::size_t size = 0; size <= image.bytes.size(); ++size) {
        const auto pe = pe_image::open(qv::format::byte_span(image.bytes.data(), size));
        if (!pe)
            continue;
        const auto cut_imports = texts(read_imports(*pe)), cut_delay = texts(read_delay_imports(*pe));
        ASSERT_LE(cut_imports.size(), imports.size()) << size;
        ASSERT_LE(cut_delay.size(), delay.size()) << size;
        for (std::size_t i = 0; i < cut_delay.size(); ++i) // a module is whole, or marked and shorter
            EXPECT_TRUE(cut_delay[i] == delay[i] || cut_delay[i].find("!:") != std::string::npos) << size;
        if (const auto e = read_exports(*pe))
            EXPECT_LE(e->functions.size(), 2u) << size;
    }
}

} // namespace
