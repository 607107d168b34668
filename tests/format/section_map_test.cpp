// The first-match index of a section table: overlap patterns with known answers, and random tables
// checked against a walk of the list in order.
#include "format/pe/section_map.h"
#include "pe_test_support.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <set>
#include <vector>

namespace {

using qv::pe::section_map;

struct section {
    std::uint32_t virtual_address;
    std::uint32_t extent;
    std::uint32_t raw_pointer;
};

section_map build(const std::vector<section>& sections) {
    section_map::builder builder;
    for (const auto& s : sections)
        builder.add(s.virtual_address, s.extent, s.raw_pointer);
    return std::move(builder).finish();
}

std::optional<std::uint64_t> walk(const std::vector<section>& sections, std::uint32_t rva) {
    for (const auto& s : sections) {
        if (s.virtual_address <= rva && rva < std::uint64_t{s.virtual_address} + s.extent)
            return std::uint64_t{s.raw_pointer} + (rva - s.virtual_address);
    }
    return std::nullopt;
}

struct probe {
    std::uint32_t rva;
    std::optional<std::uint64_t> offset;
};

struct pattern {
    const char* what;
    std::vector<section> sections;
    std::vector<probe> probes;
};

const pattern patterns[] = {
    {"empty table", {}, {{0, std::nullopt}, {0x1000, std::nullopt}}},
    {"one section",
     {{0x1000, 0x200, 0x400}},
     {{0xFFF, std::nullopt}, {0x1000, 0x400}, {0x11FF, 0x5FF}, {0x1200, std::nullopt}}},
    {"extent 0 holds nothing", {{0x1000, 0, 0x400}}, {{0x1000, std::nullopt}}},
    {"adjacent sections",
     {{0x1000, 0x1000, 0x400}, {0x2000, 0x1000, 0x1400}},
     {{0x1FFF, 0x13FF}, {0x2000, 0x1400}, {0x2FFF, 0x23FF}, {0x3000, std::nullopt}}},
    {"same range twice: the first wins",
     {{0x1000, 0x100, 0x400}, {0x1000, 0x100, 0x800}},
     {{0x1000, 0x400}, {0x10FF, 0x4FF}}},
    {"later section inside an earlier one",
     {{0x1000, 0x1000, 0x400}, {0x1400, 0x100, 0x9000}},
     {{0x1400, 0x800}, {0x14FF, 0x8FF}}},
    {"later section around an earlier one keeps only the outside",
     {{0x1400, 0x100, 0x9000}, {0x1000, 0x1000, 0x400}},
     {{0x13FF, 0x7FF}, {0x1400, 0x9000}, {0x14FF, 0x90FF}, {0x1500, 0x900}, {0x1FFF, 0x13FF}}},
    {"later section spanning two earlier ones and their gaps",
     {{0x2000, 0x100, 0xA000}, {0x4000, 0x100, 0xB000}, {0x1000, 0x5000, 0x400}},
     {{0x1000, 0x400},
      {0x1FFF, 0x13FF},
      {0x2000, 0xA000},
      {0x2100, 0x1500},
      {0x4050, 0xB050},
      {0x4100, 0x3500},
      {0x5FFF, 0x53FF},
      {0x6000, std::nullopt}}},
    {"overlap at the start and at the end",
     {{0x1000, 0x1000, 0x400}, {0x800, 0x1000, 0x8000}, {0x1800, 0x1000, 0x9000}},
     {{0x800, 0x8000}, {0xFFF, 0x87FF}, {0x1000, 0x400}, {0x1FFF, 0x13FF}, {0x2000, 0x9800}, {0x27FF, 0x9FFF}}},
    {"range running past the top of the rva space",
     {{0xFFFFF000, 0x2000, 0x400}},
     {{0xFFFFEFFF, std::nullopt}, {0xFFFFF000, 0x400}, {0xFFFFFFFF, 0x13FF}, {0, std::nullopt}}},
    {"raw pointer near the top: offsets pass 4 GiB",
     {{0x1000, 0x1000, 0xFFFFFF00}},
     {{0x1000, 0xFFFFFF00}, {0x1FFF, 0x100000EFFull}}},
};

std::ostream& operator<<(std::ostream& os, const pattern& p) {
    return os << p.what;
}

class SectionMapPatterns : public testing::TestWithParam<pattern> {};

TEST_P(SectionMapPatterns, KnownAnswers) {
    const auto map = build(GetParam().sections);
    EXPECT_EQ(map.section_count(), GetParam().sections.size());
    for (const auto& p : GetParam().probes) {
        EXPECT_EQ(map.offset_of(p.rva), p.offset) << std::hex << p.rva;
        EXPECT_EQ(walk(GetParam().sections, p.rva), p.offset) << std::hex << p.rva; // the probe itself is right
    }
}

INSTANTIATE_TEST_SUITE_P(Table, SectionMapPatterns, testing::ValuesIn(patterns),
                         [](const auto& info) { return qv::test::case_name(info.param.what); });

// Random tables of many overlapping sections in a small space, so that every kind of overlap
// occurs, probed at every edge and either side of it.
TEST(SectionMap, RandomTablesAgreeWithTheWalk) {
    std::mt19937 random(20240611);
    for (int round = 0; round < 2000; ++round) {
        std::vector<section> sections(1 + random() % 24);
        const std::uint32_t space = round % 2 ? 0x100 : 0xFFFFFFFF;
        for (auto& s : sections) {
            s.virtual_address = static_cast<std::uint32_t>(random() % space);
            s.extent = random() % 5 == 0 ? 0 : static_cast<std::uint32_t>(random() % (space / 4 + 1));
            s.raw_pointer = static_cast<std::uint32_t>(random());
        }
        const auto map = build(sections);
        std::set<std::uint32_t> probes{0, 0xFFFFFFFF};
        for (const auto& s : sections) {
            for (std::uint64_t edge : {std::uint64_t{s.virtual_address}, std::uint64_t{s.virtual_address} + s.extent}) {
                for (std::int64_t d : {-1, 0, 1}) {
                    const std::int64_t rva = static_cast<std::int64_t>(edge) + d;
                    if (rva >= 0 && rva <= 0xFFFFFFFF)
                        probes.insert(static_cast<std::uint32_t>(rva));
                }
            }
        }
        for (std::uint32_t rva : probes)
            ASSERT_EQ(map.offset_of(rva), walk(sections, rva)) << "round " << round << " rva " << rva;
    }
}

TEST(SectionMap, FullTableOfStaggeredSections) {
    // 65535 sections, each starting and ending one byte after the one before: the first keeps its
    // whole range, every later one only its last byte.
    std::vector<section> sections;
    for (std::uint32_t i = 0; i < 0xFFFF; ++i)
        sections.push_back({0x1000 + i, 0x100, 0x100000 + 0x10 * i});
    const auto map = build(sections);
    EXPECT_EQ(map.section_count(), 0xFFFFu);
    EXPECT_EQ(map.offset_of(0x1000), 0x100000u);
    EXPECT_EQ(map.offset_of(0x10FF), 0x1000FFu);
    EXPECT_EQ(map.offset_of(0x1100), 0x100000u + 0x10 + 0xFF);
    EXPECT_EQ(map.offset_of(0x110FD), 0x100000u + 0x10 * 0xFFFE + 0xFF);
    EXPECT_EQ(map.offset_of(0x110FE), std::nullopt);
    for (std::uint32_t rva : {0xFFFu, 0x1000u, 0x1080u, 0x10FFu, 0x1100u, 0x8000u, 0x110FDu, 0x110FEu})
        EXPECT_EQ(map.offset_of(rva), walk(sections, rva)) << std::hex << rva;
}

} // namespace
