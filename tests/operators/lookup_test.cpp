// One-hot and embedding: the index that arrives as a float, bit patterns, wrapping offsets, silent refusals.
// And the copy that embedding and split share.
#include <gtest/gtest.h>

#include "kelRt.h"
#include "support/floats.h"
#include "support/guarded.h"
#include "support/probe.h"

namespace {

using floats::bits;
using floats::Floats;
using floats::from_bits;
using Words = std::vector<uint32_t>;

// Index bits, depth, and the element that is set; -1: refused.
const struct {
    uint32_t bits, depth;
    int element;
    guarded::Wall wall = guarded::Wall::After;
} kIndices[] = {
    {bits(0.0f), 1, 0},
    {bits(2.9f), 4, 2},
    {bits(0.99999994f), 4, 0},
    {bits(1e-45f), 4, 0},
    {bits(3.0f), 4, 3},
    {bits(3.0f), 300, 3},
    {bits(4.0f), 4, -1},
    {bits(0.0f), 0, -1},
    {bits(-0.0f), 4, 0},
    {bits(-1.0f), 4, 0},
    {bits(-3e38f), 4, 0},
    {0xFFC00000, 4, 0},  // NaN with a sign, -infinity
    {0xFF800000, 4, 0},
    {0x7FC00000, 4, -1},  // and without
    {0x7F800000, 4, -1},
    {bits(0x1p31f), 4, -1},
    {bits(0x1p32f), 4, 0},  // only the low 32 bits count
    {bits(0x1p32f + 512), 600, 512},
    {bits(0x1.fffffep63f), 4, 0},  // the largest float below 2^64
    {bits(0x1p64f), 4, -1},
    {bits(5.0f), (4 << 20) + 2, 5},  // past the caches, with a head, with an end, and, at an odd address, not
    {bits(5.0f), (4 << 20) + 2, 5, guarded::Wall::Before},
    {bits(5.0f), (4 << 20) + 3, 5},
};

TEST(OneHot, SetsTheElementOfATruncatedIndexOrRefusesSilently) {
    const uint32_t on = 0x7F800001;  // a signalling NaN, which arithmetic would change
    probe::Probe probe;
    for (const auto& c : kIndices) {
        // Another one; and, where there are most, equal bytes.
        const uint32_t off = c.depth == 600 ? 0 : 0xFFA0A0A0;
        SCOPED_TRACE(testing::Message() << std::hex << c.bits << " of " << c.depth);
        guarded::Bytes out(4 * c.depth, c.wall, c.depth % 3), index(4, guarded::Wall::After, 1);
        std::memcpy(index.data(), &c.bits, 4);
        uint32_t bytes = 99;
        const uint32_t status = kelRt_oneHot(out.floats(), index.floats(), c.depth, on, off, &bytes);
        Words expected(c.depth, c.element < 0 ? 0xEEEEEEEE : off), found(c.depth);
        if (c.element >= 0)
            expected[static_cast<size_t>(c.element)] = on;
        EXPECT_EQ(status, uint32_t{c.element < 0 ? NNA_STATUS_FAILED : NNA_STATUS_OK});
        EXPECT_EQ(bytes, c.element < 0 ? 99 : 4 * c.depth);
        std::copy_n(out.data(), 4 * c.depth, reinterpret_cast<uint8_t*>(found.data()));
        EXPECT_EQ(found, expected);
        EXPECT_TRUE(out.intact());
    }
    EXPECT_EQ(probe.text(), "");
}

TEST(Embedding, CopiesTheRowOfATruncatedIndexAndWraps) {
    const Words table = {0x7F800001, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF800001};
    const auto* const rows = reinterpret_cast<const float*>(table.data());
    for (const auto& c : kIndices) {
        if (c.element < 0 || c.element > 3)
            continue;
        const float index = from_bits(c.bits);
        Words out(3);
        EXPECT_EQ(kelRt_embedding(reinterpret_cast<float*>(out.data()), &index, rows, 3, nullptr),
                  NNA_STATUS_OK);
        EXPECT_EQ(out, Words(&table[3 * static_cast<size_t>(c.element)],
                             &table[3 * static_cast<size_t>(c.element) + 3]));
    }
    Words out = {7, 7};
    const float two = 2;
    uint32_t bytes = 99;
    probe::Probe probe;
    EXPECT_EQ(kelRt_embedding(reinterpret_cast<float*>(out.data()), &two, rows, 0, &bytes),
              NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(bytes, 99u);
    // 4w and 4wk are 4 and 8 modulo 2^32.
    EXPECT_EQ(kelRt_embedding(reinterpret_cast<float*>(out.data()), &two, rows, 0x40000001, &bytes),
              NNA_STATUS_OK);
    EXPECT_EQ(bytes, 4u);
    EXPECT_EQ(out, (Words{2, 7}));
    EXPECT_EQ(probe.text(), "");
}

TEST(Split, CopiesEveryLengthAndNothingElse) {
    const size_t lengths[] = {0, 1, 15, 16, 33, 64, 255, 256, 257, 4096, (16 << 20) - 1, (16 << 20) + 77};
    for (const size_t length : lengths) {
        for (const auto wall : {guarded::Wall::Before, guarded::Wall::After}) {
            guarded::Bytes from(length, wall, 1), to(length, wall, length % 4);
            for (size_t i = 0; i < length; ++i)
                from.data()[i] = static_cast<uint8_t>(i * 2654435761 >> 13);
            EXPECT_EQ(kelRt_split(from.data(), to.data(), static_cast<uint32_t>(length)), NNA_STATUS_OK);
            EXPECT_EQ(std::memcmp(to.data(), from.data(), length), 0) << length;
            EXPECT_TRUE(to.intact()) << length;
        }
    }
}

}  // namespace
