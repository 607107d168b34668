// The bounded byte view under every reader: bounds at the edges and near the top of the 64-bit
// range, little-endian loads, and the bounded string scan.
#include "format/byte_span.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

namespace {

using qv::format::byte_span;
constexpr std::uint64_t top = std::numeric_limits<std::uint64_t>::max();

const std::vector<std::uint8_t> bytes{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0xFF, 'a', 'b', 0, 'c'};

struct fits_case {
    std::uint64_t offset;
    std::uint64_t length;
    bool fits;
};

TEST(ByteSpan, FitsAtTheEdgesWithoutWrapping) {
    const byte_span span(bytes.data(), bytes.size());
    const fits_case cases[] = {
        {0, 0, true},        {0, 13, true},    {0, 14, false},      {12, 1, true},   {13, 0, true},
        {13, 1, false},      {14, 0, false},   {1, top, false},     {top, 1, false}, {top, 0, false},
        {top - 3, 4, false}, {12, top, false}, {5, top - 4, false}, {2, 11, true},   {3, 11, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(span.fits(c.offset, c.length), c.fits) << c.offset << " + " << c.length;
}

TEST(ByteSpan, LittleEndianLoadsInsideOnly) {
    const byte_span span(bytes.data(), bytes.size());
    EXPECT_EQ(span.u8(8), 0xFF);
    EXPECT_EQ(span.u16(0), 0x0201);
    EXPECT_EQ(span.u32(0), 0x04030201u);
    EXPECT_EQ(span.u64(0), 0x0807060504030201ull);
    EXPECT_EQ(span.i32(5), static_cast<std::int32_t>(0xFF080706u));
    EXPECT_EQ(span.u32(9), 0x63006261u);
    EXPECT_FALSE(span.u32(10));
    EXPECT_EQ(span.u64(5), 0x63006261FF080706ull);
    EXPECT_FALSE(span.u64(6));
    EXPECT_FALSE(span.u64(top - 4));
    EXPECT_FALSE(span.u64(top));
    EXPECT_FALSE(span.u16(top));
    EXPECT_FALSE(span.u8(13));
}

TEST(ByteSpan, StringsEndAtTheirTerminatorWithinTheBound) {
    const byte_span span(bytes.data(), bytes.size());
    EXPECT_EQ(span.c_string(9, 100), "ab");
    EXPECT_EQ(span.c_string(9, 3), "ab"); // two letters and the terminator
    EXPECT_FALSE(span.c_string(9, 2));    // the terminator is past the bound
    EXPECT_EQ(span.c_string(11, 1), "");
    EXPECT_FALSE(span.c_string(12, 100)); // "c" runs into the end of the view
    EXPECT_FALSE(span.c_string(13, 100));
    EXPECT_FALSE(span.c_string(top, 100));
}

TEST(ByteSpan, SubViewsAndEmptyViews) {
    const byte_span span(bytes.data(), bytes.size());
    EXPECT_EQ(span.sub(9, 3).c_string(0, 10), "ab");
    EXPECT_TRUE(span.sub(12, 2).empty());
    EXPECT_EQ(span.from(12).size(), 1u);
    EXPECT_TRUE(span.from(14).empty());
    const byte_span null_view(nullptr, 100);
    EXPECT_TRUE(null_view.empty());
    EXPECT_FALSE(null_view.u8(0));
}

} // namespace
