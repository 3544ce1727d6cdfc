// Matrix multiply, transposition and the matrix toolkit, against naive references.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "kel_rt/operators/transpose.h"
#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::mem;
using rig::val;
using Floats = std::vector<float>;

Floats numbered(size_t count) {
    Floats values(count);
    for (size_t i = 0; i < count; ++i)
        values[i] = static_cast<float>(i);
    return values;
}

Floats transposed(const Floats& m, size_t rows, size_t cols) {
    Floats t(m.size());
    for (size_t r = 0; r < rows; ++r)
        for (size_t c = 0; c < cols; ++c)
            t[c * rows + r] = m[r * cols + c];
    return t;
}

// Both ways of transposing: the one that callers get, and the one it falls back on without memory.
void expect_transposes(int32_t rows, int32_t cols) {
    const auto r = static_cast<uint32_t>(rows), c = static_cast<uint32_t>(cols);
    const Floats m = numbered(size_t{r} * c), expected = transposed(m, r, c);
    Floats in_place = m;
    transpose(in_place.data(), cols, rows);
    ASSERT_EQ(in_place, expected) << rows << " x " << cols;
    if (rows < 2 || cols < 2)
        return;
    std::vector<uint8_t> odd_address(m.size() * 4 + 1);
    std::memcpy(&odd_address[1], m.data(), m.size() * 4);
    kelrt::transpose_by_cycles(reinterpret_cast<float*>(&odd_address[1]), r, c);
    ASSERT_EQ(std::memcmp(&odd_address[1], expected.data(), m.size() * 4), 0)
        << rows << " x " << cols << " by cycles";
}

TEST(Transpose, EqualsTheNaiveOneForEverySmallShapeAndForWideOnes) {
    for (int32_t rows = 1; rows <= 40; ++rows)
        for (int32_t cols = 1; cols <= 40; ++cols)
            expect_transposes(rows, cols);
    const int32_t wide[][2] = {{2, 50000}, {50000, 2}, {3, 33333}, {127, 1009}, {1024, 96},
                               {96, 1024}, {257, 513}, {640, 480}, {300, 300}};
    for (const auto& shape : wide)
        expect_transposes(shape[0], shape[1]);
}

TEST(Transpose, LeavesDegenerateShapesAlone) {
    const int32_t shapes[][2] = {{0, 5}, {5, 0}, {-2, 3}, {3, -2}, {-2, -3}, {65536, 65536}, {1, 6}, {6, 1}};
    for (const auto& shape : shapes) {
        Floats m = numbered(6);
        transpose(m.data(), shape[0], shape[1]);
        EXPECT_EQ(m, numbered(6)) << shape[0] << " x " << shape[1];
    }
}

// The order of a sum, a product rounded before it is added, and transposed operands left transposed: one
// table over shapes and flags at every byte offset, values chosen so that the order decides the bits.
TEST(Matmul, EqualsTheOrderedSumForEveryFlagAndOffset) {
    std::mt19937 random(20);
    std::uniform_real_distribution<float> uniform(-1, 1);
    const uint32_t shapes[][3] = {{1, 1, 1},   {2, 3, 4}, {5, 1, 7}, {1, 64, 10},
                                  {3, 17, 33}, {4, 4, 4}, {9, 0, 3}};
    uint32_t offset = 0;
    for (const auto& [m, k, n] : shapes) {
        for (int flags = 0; flags < 4; ++flags, offset = (offset + 1) % 8) {
            SCOPED_TRACE(testing::Message()
                         << m << "x" << k << "x" << n << " flags " << flags << " offset " << offset);
            const bool trans_a = flags & 1, trans_b = flags & 2;
            Floats a(m * k), b(k * n), c(m * n);
            for (float& x : a)
                x = uniform(random) * (random() % 8 == 0 ? 1e6f : 1.0f);
            for (float& x : b)
                x = uniform(random);
            for (size_t i = 0; i < m; ++i)
                for (size_t j = 0; j < n; ++j) {
                    float sum = 0;
                    for (size_t l = 0; l < k; ++l) {
                        volatile float product = a[i * k + l] * b[l * n + j];
                        sum = sum + product;
                    }
                    c[i * n + j] = sum;
                }
            const Floats stored_a = trans_a ? transposed(a, m, k) : a,
                         stored_b = trans_b ? transposed(b, k, n) : b;

            rig::Rig rig;
            const uint32_t ma = rig.memory_of(stored_a, offset), mb = rig.memory_of(stored_b, offset);
            const uint32_t mc = rig.memory(c.size() * 4 + offset);
            EXPECT_EQ(rig.run(10, {mem(ma, offset), mem(mb, offset), mem(mc, offset), val(trans_a ? k : m),
                                   val(trans_a ? m : k), val(trans_b ? n : k), val(trans_b ? k : n),
                                   val(trans_a ? 0x80000000 : 0), val(trans_b)}),
                      NNA_STATUS_OK);
            EXPECT_EQ(rig.device<float>(mc, c.size(), offset), c);
            EXPECT_EQ(rig.device<float>(ma, a.size(), offset), stored_a)
                << "accelerator memory of its own is not changed";
            Floats view(a.size());
            if (!view.empty())
                std::memcpy(view.data(), nna_sim_cpu_view(rig.sim, ma) + offset, view.size() * 4);
            EXPECT_EQ(view, a) << "the CPU's view is left transposed";
        }
    }
}

// Drivers that keep several tensors in one memory see the transposition: of an operand that is the other one
// too, and in accelerator memory as soon as a result in that memory is published, now or later.
TEST(Matmul, TransposedOperandsAreSharedAndGoAlongWhenTheirMemoryIsPublished) {
    const Floats x = {1, 2, 3, 4}, moved = {1, 3, 2, 4};
    for (const bool fetched : {false, true}) {
        rig::Rig rig;
        const uint32_t m = rig.memory_of(Floats{1, 2, 3, 4, 0, 0, 0, 0}), other = rig.memory(16);
        const auto multiply = [&](uint32_t c, uint32_t offset) {
            return rig.run(10,
                           {mem(m), mem(m), mem(c, offset), val(2), val(2), val(2), val(2), val(0), val(1)});
        };
        EXPECT_EQ(multiply(other, 0), NNA_STATUS_OK);
        EXPECT_EQ(rig.device<float>(other, 4), (Floats{7, 15, 10, 22})) << "x^T * x^T";
        EXPECT_EQ(rig.device<float>(m, 4), x);
        // A later context writes behind x: split into m, from another memory or from m itself.
        EXPECT_EQ(rig.run(12, {mem(fetched ? m : other), mem(m, 16), val(16)}), NNA_STATUS_OK);
        EXPECT_EQ(rig.device<float>(m, 4), fetched ? x : moved);
        EXPECT_EQ(multiply(m, 16), NNA_STATUS_OK);
        EXPECT_EQ(rig.device<float>(m, 4), fetched ? moved : x) << "transposed anew, and published with c";
    }
}

// Scalar arithmetic keeps subnormals, also where the compiler sums many columns side by side; NEON would not.
TEST(Matmul, KeepsSubnormals) {
    const float tiny = 0x1p-127f;
    Floats a = {tiny, tiny}, b(2 * 40, 1.5f), c(40);
    EXPECT_EQ(kelRt_matmul(a.data(), b.data(), c.data(), 1, 2, 2, 40, 0, 0), NNA_STATUS_OK);
    EXPECT_EQ(c, Floats(40, 3 * tiny));
    b.assign(2 * 40, 0.25f);
    EXPECT_EQ(kelRt_matmul(a.data(), b.data(), c.data(), 1, 2, 2, 40, 0, 0), NNA_STATUS_OK);
    EXPECT_EQ(c, Floats(40, tiny / 2));
}

TEST(Matmul, AResultOverAnOperandIsWrittenRowByRow) {
    Floats a = {1, 2, 3, 4}, b = {5, 6, 7, 8};
    EXPECT_EQ(kelRt_matmul(a.data(), b.data(), a.data(), 2, 2, 2, 2, 0, 0), NNA_STATUS_OK);
    EXPECT_EQ(a, (Floats{19, 130, 43, 290}));
    a = {1, 2, 3, 4};
    EXPECT_EQ(kelRt_matmul(a.data(), b.data(), b.data(), 2, 2, 2, 2, 0, 0), NNA_STATUS_OK);
    EXPECT_EQ(b, (Floats{19, 22, 19 * 3 + 7 * 4, 22 * 3 + 8 * 4}));
    KelRtMatrix vast{UINT32_MAX, 0, b.data()};  // no rows: no work, however many columns
    m_multiply(&vast, &vast, &vast);
}

TEST(Matmul, NullPointersAndEmptyResults) {
    Floats x = {1, 2, 3, 4}, c = {-1, -1};
    probe::Probe probe;
    EXPECT_EQ(kelRt_matmul(x.data(), x.data(), c.data(), 0, 2, 2, 2, 0, 0), NNA_STATUS_OK);
    EXPECT_EQ(kelRt_matmul(x.data(), x.data(), c.data(), 2, 2, 2, -2, 0, 0), NNA_STATUS_OK);
    EXPECT_EQ(c, (Floats{-1, -1}));
    EXPECT_EQ(kelRt_matmul(x.data(), x.data(), c.data(), 1, -3, 2, 2, 0, 0), NNA_STATUS_OK);
    EXPECT_EQ(c, (Floats{0, 0})) << "a sum of nothing";
    EXPECT_TRUE(probe.text().empty());
    EXPECT_EQ(kelRt_matmul(x.data(), nullptr, c.data(), 2, 2, 2, 2, 1, 0), NNA_STATUS_NULL_POINTER);
    char text[128];
    std::snprintf(text, sizeof text, "Bad Address Input1 %p Input2 (nil) Output %p",
                  static_cast<void*>(x.data()), static_cast<void*>(c.data()));
    EXPECT_EQ(probe.messages(), std::vector<std::string>{text});
    EXPECT_EQ(x, (Floats{1, 2, 3, 4})) << "refused before anything is transposed";
}

TEST(MatrixToolkit, AddressesAndMultipliesByItsDescriptors) {
    Floats a = {1, 2, 3, 4, 5, 6}, b = {7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18}, c(6, -1);
    KelRtMatrix ma, mb, mc;
    m_init(&ma, 3, 2, a.data());
    m_init(&mb, 4, 3, b.data());
    m_init(&mc, 3, 2, c.data());  // narrower than b: only the columns that c has
    EXPECT_EQ(ma.cols, 3u);
    EXPECT_EQ(ma.rows, 2u);
    EXPECT_EQ(m_get(&ma, 1, 2), &a[5]);
    EXPECT_EQ(m_get(&mb, 2, 1), &b[9]);
    m_multiply(&mc, &ma, &mb);
    EXPECT_EQ(c, (Floats{74, 80, 86, 173, 188, 203}));
}

}  // namespace
