// One-hot and embedding: the index that arrives as a float, bit patterns, wrapping offsets, silent refusals.
#include <gtest/gtest.h>

#include <bit>

#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::mem;
using rig::val;
using Floats = std::vector<float>;
using Words = std::vector<uint32_t>;
using Lines = std::vector<std::string>;

constexpr uint32_t kPositiveNan = 0x7FC00000, kNegativeNan = 0xFFC00000;

// Index bits, depth, and the element that is set; -1: refused.
const struct {
    uint32_t bits, depth;
    int element;
} kIndices[] = {
    {std::bit_cast<uint32_t>(0.0f), 1, 0},
    {std::bit_cast<uint32_t>(2.9f), 4, 2},
    {std::bit_cast<uint32_t>(0.99999994f), 4, 0},
    {std::bit_cast<uint32_t>(1e-45f), 4, 0},
    {std::bit_cast<uint32_t>(3.0f), 4, 3},
    {std::bit_cast<uint32_t>(4.0f), 4, -1},
    {std::bit_cast<uint32_t>(0.0f), 0, -1},
    {std::bit_cast<uint32_t>(-0.0f), 4, 0},
    {std::bit_cast<uint32_t>(-1.0f), 4, 0},
    {std::bit_cast<uint32_t>(-3e38f), 4, 0},
    {kNegativeNan, 4, 0},
    {0xFF800000, 4, 0},  // -infinity
    {kPositiveNan, 4, -1},
    {0x7F800000, 4, -1},  // infinity
    {std::bit_cast<uint32_t>(0x1p31f), 4, -1},
    {std::bit_cast<uint32_t>(0x1p32f), 4, 0},  // only the low 32 bits count
    {std::bit_cast<uint32_t>(0x1p32f + 512), 600, 512},
    {std::bit_cast<uint32_t>(0x1.fffffep63f), 4, 0},  // the largest float below 2^64
    {std::bit_cast<uint32_t>(0x1p64f), 4, -1},
};

TEST(OneHot, SetsTheElementOfATruncatedIndexAtAnyOffset) {
    const uint32_t on = 0x7F800001, off = 0xFFA00002;  // signalling NaNs, which arithmetic would change
    probe::Probe probe;                                // keeps the refusals off the terminal
    for (const auto& c : kIndices) {
        for (uint32_t offset : {0u, 1u, 7u}) {
            SCOPED_TRACE(testing::Message()
                         << std::hex << c.bits << " depth " << c.depth << " at " << offset);
            rig::Rig rig;
            const uint32_t index = rig.memory_of(Words{c.bits}, offset),
                           out = rig.memory(4 * c.depth + offset);
            const uint32_t status =
                rig.run(3, {mem(out, offset), mem(index, offset), val(c.depth), {3, 0, on}, {3, 0, off}});
            if (c.element < 0) {
                EXPECT_EQ(status, NNA_STATUS_FAILED);
                const uint8_t* view = nna_sim_cpu_view(rig.sim, out);
                EXPECT_EQ(std::vector<uint8_t>(view, view + 4 * c.depth + offset),
                          std::vector<uint8_t>(4 * c.depth + offset, NNA_SIM_STALE_BYTE));
            } else {
                EXPECT_EQ(status, NNA_STATUS_OK);
                Words expected(c.depth, off);
                expected[static_cast<size_t>(c.element)] = on;
                EXPECT_EQ(rig.device<uint32_t>(out, c.depth, offset), expected);
            }
        }
    }
}

TEST(OneHot, RefusesSilently) {
    Floats out = {-7, -7}, index = {2};
    uint32_t bytes = 99;
    probe::Probe probe;
    EXPECT_EQ(kelRt_oneHot(out.data(), index.data(), 2, 1, 0, &bytes), NNA_STATUS_FAILED);
    EXPECT_EQ(kelRt_oneHot(nullptr, index.data(), 2, 1, 0, &bytes), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kelRt_oneHot(out.data(), nullptr, 2, 1, 0, &bytes), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(bytes, 99u);
    EXPECT_EQ(out, (Floats{-7, -7}));
    index[0] = 1;
    EXPECT_EQ(kelRt_oneHot(out.data(), index.data(), 2, 0x40000000, 0, nullptr), NNA_STATUS_OK);
    EXPECT_EQ(kelRt_oneHot(out.data(), index.data(), 2, 0x40000000, 0, &bytes), NNA_STATUS_OK);
    EXPECT_EQ(bytes, 8u);
    EXPECT_EQ(out, (Floats{0, 2}));
    EXPECT_EQ(probe.text(), "");

    rig::Rig rig;
    const uint32_t memid = rig.memory_of(index);
    EXPECT_EQ(rig.run(3, {mem(memid), mem(memid), val(1), {3, 0, 0}, {3, 0, 0}}), NNA_STATUS_FAILED);
    EXPECT_EQ(probe.messages(), (Lines{"Error executing operator 1000", "Error 1000 kelrt op 1"}));
}

TEST(Embedding, CopiesTheRowOfATruncatedIndexAtAnyOffset) {
    const Words table = {0x7F800001, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF800001};
    for (const auto& c : kIndices) {
        if (c.element < 0 || c.element > 3)
            continue;
        for (uint32_t offset : {0u, 1u, 7u}) {
            SCOPED_TRACE(testing::Message() << std::hex << c.bits << " at " << offset);
            rig::Rig rig;
            const uint32_t index = rig.memory_of(Words{c.bits}, offset), rows = rig.memory_of(table, offset),
                           out = rig.memory(12 + offset);
            EXPECT_EQ(rig.run(7, {mem(out, offset), mem(index, offset), mem(rows, offset), val(3)}),
                      NNA_STATUS_OK);
            const auto first = table.begin() + 3 * c.element;
            EXPECT_EQ(rig.device<uint32_t>(out, 3, offset), Words(first, first + 3));
        }
    }
}

TEST(Embedding, WrapsSizesAndOffsetsAndRefusesSilently) {
    Floats out = {-7, -7}, index = {2}, table = {10, 11, 12, 13};
    uint32_t bytes = 99;
    probe::Probe probe;
    EXPECT_EQ(kelRt_embedding(nullptr, index.data(), table.data(), 2, &bytes), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kelRt_embedding(out.data(), nullptr, table.data(), 2, &bytes), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kelRt_embedding(out.data(), index.data(), nullptr, 2, &bytes), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kelRt_embedding(out.data(), index.data(), table.data(), 0, &bytes), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(bytes, 99u);
    EXPECT_EQ(out, (Floats{-7, -7}));
    // 4w and 4wk are 4 and 8 modulo 2^32.
    EXPECT_EQ(kelRt_embedding(out.data(), index.data(), table.data(), 0x40000001, &bytes), NNA_STATUS_OK);
    EXPECT_EQ(bytes, 4u);
    EXPECT_EQ(out, (Floats{12, -7}));
    EXPECT_EQ(kelRt_embedding(out.data(), index.data(), table.data(), 1, nullptr), NNA_STATUS_OK);
    EXPECT_EQ(probe.text(), "");
}

}  // namespace
