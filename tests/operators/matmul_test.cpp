// Matrix multiply, transposition and the matrix toolkit, against naive references.
#include <gtest/gtest.h>

#include "kelRt.h"
#include "support/floats.h"
#include "support/guarded.h"
#include "support/heap.h"
#include "support/mode.h"
#include "support/rig.h"

namespace {

using floats::Floats;
using guarded::Wall;
using rig::mem;
using rig::val;

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

// As callers get it, and as it goes on when there is no memory for a copy.
void expect_transposes(int32_t rows, int32_t cols) {
    const auto r = static_cast<uint32_t>(rows), c = static_cast<uint32_t>(cols);
    const Floats m = numbered(size_t{r} * c), expected = transposed(m, r, c);
    const size_t bytes = 4 * m.size(), blocks = heap::blocks();
    for (const int failing_allocation : {0, 1}) {
        guarded::Bytes memory(bytes, c % 2 ? Wall::Before : Wall::After, r % 4);
        std::memcpy(memory.data(), m.data(), bytes);
        heap::fail_allocation(failing_allocation);
        transpose(memory.floats(), cols, rows);
        heap::fail_allocation(0);
        ASSERT_EQ(std::memcmp(memory.data(), expected.data(), bytes), 0)
            << rows << " x " << cols << (failing_allocation ? " without a copy" : "");
        EXPECT_TRUE(memory.intact());
    }
    EXPECT_EQ(heap::blocks(), blocks);
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

struct Shape {
    uint32_t m, k, n;
};

// Each product rounded, then added in increasing k to a sum that starts at zero.
Floats product(const Shape& s, const Floats& a, const Floats& b) {
    Floats c(s.m * s.n);
    for (size_t i = 0; i < s.m; ++i)
        for (size_t j = 0; j < s.n; ++j)
            for (size_t l = 0; l < s.k; ++l)
                c[i * s.n + j] += a[i * s.k + l] * b[l * s.n + j];
    return c;
}

// Between walls, with flags, in the mode given; operands are left as the product reads them.
void expect_product(const Shape& s, const Floats& a, const Floats& b, uint32_t flags, mode::Word callers) {
    SCOPED_TRACE(testing::Message() << s.m << " x " << s.k << " x " << s.n << ", flags " << flags);
    const bool trans_a = flags & 1, trans_b = flags & 2;
    const Wall wall = flags & 4 ? Wall::Before : Wall::After;
    guarded::Bytes memory_a(4 * a.size(), wall, flags % 3), memory_b(4 * b.size(), wall, s.k % 4),
        memory_c(4 * s.m * s.n, wall, s.n % 4);
    const auto fill = [](guarded::Bytes& to, const Floats& from) {
        std::copy_n(reinterpret_cast<const uint8_t*>(from.data()), 4 * from.size(), to.data());
    };
    const auto read = [](guarded::Bytes& from, size_t count) {
        Floats values(count);
        std::copy_n(from.data(), 4 * count, reinterpret_cast<uint8_t*>(values.data()));
        return values;
    };
    fill(memory_a, trans_a ? transposed(a, s.m, s.k) : a);
    fill(memory_b, trans_b ? transposed(b, s.k, s.n) : b);
    const auto count = [](uint32_t dimension) { return static_cast<int32_t>(dimension); };
    EXPECT_TRUE(mode::kept_in(callers, [&] {
        kelRt_matmul(memory_a.floats(), memory_b.floats(), memory_c.floats(), count(trans_a ? s.k : s.m),
                     count(trans_a ? s.m : s.k), count(trans_b ? s.n : s.k), count(trans_b ? s.k : s.n),
                     trans_a ? INT32_MIN : 0, trans_b ? -1 : 0);
    }));
    Floats expected;
    mode::kept_in(callers, [&] { expected = product(s, a, b); });
    const Floats found = read(memory_c, expected.size());
    const size_t at = floats::differ_at(found, expected);
    ASSERT_EQ(at, expected.size()) << found[at] << ", not " << expected[at];
    EXPECT_EQ(floats::differ_at(read(memory_a, a.size()), a), a.size()) << "a is left transposed";
    EXPECT_EQ(floats::differ_at(read(memory_b, b.size()), b), b.size()) << "b is left transposed";
    EXPECT_TRUE(memory_a.intact() && memory_b.intact() && memory_c.intact());
}

// Shapes at the edges of blocks of rows, columns and sums, of whatever size.
TEST(Matmul, EqualsTheOrderedSum) {
    std::vector<Shape> shapes = {{9, 0, 3},     {1, 64, 10},   {3, 17, 33},   {12, 256, 32}, {13, 257, 33},
                                 {11, 255, 31}, {25, 130, 65}, {1, 515, 100}, {100, 3, 1},   {2, 1000, 2},
                                 {16, 16, 16},  {17, 65, 129}, {48, 7, 64},   {7, 520, 17},  {1, 1, 300},
                                 {40, 1024, 1}, {21, 1024, 1}, {260, 3, 33},  {49, 140, 161}};
    for (uint32_t size = 1; size <= 40; ++size)
        shapes.insert(shapes.end(), {{size, size % 7 + 1, 41 - size},
                                     {size, size % 7 + 1, size},
                                     {size, size % 9 + 1, 1},
                                     {size % 5 + 1, size, size % 3 + 1},
                                     {size % 3 + 1, size % 4 + 1, 2 * size + 1}});
    uint32_t turn = 0;
    for (const Shape& s : shapes) {
        const Floats a = floats::plain(s.m * s.k, s.m), b = floats::plain(s.k * s.n, s.n);
        // Products around 2^-103 and 2^-126, some of them nothing at all; then every sort.
        Floats tiny_a = a, tiny_b = b;
        floats::Random random(s.m + s.n);
        for (float& x : tiny_a)
            x = random.below(9) ? std::ldexp(x, -64) : 0;
        for (float& x : tiny_b)
            x = std::ldexp(x, -static_cast<int>(random.below(80)));
        for (const mode::Word callers : mode::kScalar) {
            expect_product(s, a, b, turn++ % 8, callers);
            expect_product(s, tiny_a, tiny_b, turn++ % 8, callers);
            expect_product(s, floats::wild(s.m * s.k, 1), floats::wild(s.k * s.n, 2), turn++ % 8, callers);
            if (HasFatalFailure())
                return;
        }
    }
}

// Where a unit that flushes subnormals, rounds to nearest and makes one NaN would differ, and right beside.
TEST(Matmul, NextToWhatVectorUnitsMayDo) {
    const float inf = INFINITY, most = 0x1.FFFFFEp127f, subnormal = 0x1p-149f;
    const struct {
        float a[2], b[2];  // along k, over and over
    } rows[] = {
        {{0x1p-51f, 0x1p-51f}, {0x1.000002p-52f, -0x1p-52f}},  // products of 2^-103 that leave 2^-126
        {{0x1p-52f, 0x1p-52f}, {0x1.000002p-52f, -0x1p-52f}},  // and half of that
        {{0x1.000002p-100f, 0x1.000002p-100f}, {0x1p-4f, -0x1p-4f}},
        {{1, -1}, {0x1.000002p-126f, 0x1p-126f}},
        {{0x1p-126f, 0x1p-126f}, {0x1.000002p23f, -0x1p23f}},
        {{subnormal, 0}, {0x1p100f, 0x1p30f}},
        {{1, 0}, {0x1p-23f, -subnormal}},
        {{inf, inf}, {subnormal, 1}},
        {{-inf, 0}, {1, 3}},
        {{0, -0.0f}, {-1, 1}},
        {{0, 0}, {subnormal, inf}},
        {{most, 1}, {2, 1}},
        {{most, most}, {1, 0x1p-24f}},  // half of the last bit beyond
        {{most, -most}, {2, 2}},
        {{1, floats::from_bits(0x7FC12345)}, {1, 1}},
        {{1, floats::from_bits(0xFFC00000)}, {1, 1}},
        {{1, 0x1.8p-24f}, {1, 1}},  // rounded up to nearest and upward, not toward zero
    };
    for (const auto& row : rows)
        for (const Shape& s : {Shape{5, 2, 6}, Shape{9, 7, 13}, Shape{1, 6, 9}, Shape{6, 6, 1}}) {
            Floats a(s.m * s.k), b(s.k * s.n);
            for (size_t i = 0; i < a.size(); ++i)
                a[i] = row.a[i % s.k % 2];
            for (size_t i = 0; i < b.size(); ++i)
                b[i] = row.b[i / s.n % 2];
            for (const mode::Word callers : mode::kScalar)
                expect_product(s, a, b, s.k % 8, callers);
        }
}

TEST(Matmul, SpecialElementsAmongOrdinaryOnes) {
    floats::Random random(1);
    for (const Shape& s : {Shape{14, 70, 36}, Shape{3, 300, 20}, Shape{1, 130, 70}}) {
        const Floats plain_a = floats::plain(s.m * s.k, 3), plain_b = floats::plain(s.k * s.n, 4);
        for (uint32_t i = 0; i < 100; ++i) {
            Floats a = plain_a, b = plain_b;
            const auto spoil = [&](Floats& x) {
                x[random.below(static_cast<uint32_t>(x.size()))] =
                    floats::from_bits(floats::special(random()));
            };
            if (i % 3 != 0)
                spoil(a);
            if (i % 3 != 1)
                spoil(b);
            expect_product(s, a, b, i % 8, mode::kScalar[0]);
            if (HasFatalFailure())
                return;
        }
    }
}

TEST(Matmul, AResultOverAnOperandIsWrittenRowByRow) {
    // The result shares one float with an operand, at either end, or all of it.
    const uint32_t k = 40, n = 35;
    for (const uint32_t m : {3u, 4u}) {
        for (const bool over_a : {false, true}) {
            const uint32_t size = over_a ? m * k : k * n, result = m * n;
            for (const uint32_t start : {0u, result - 1, size + result - 2}) {
                Floats found = floats::plain(size + 2 * result, 5), expected = found,
                       other = floats::plain(k * n, 6);
                const auto multiply = [&](Floats& area, auto by) {
                    float *const shared = &area[result - 1], *const c = &area[start];
                    by(over_a ? shared : other.data(), over_a ? other.data() : shared, c);
                };
                multiply(found, [=](float* a, float* b, float* c) {
                    kelRt_matmul(a, b, c, static_cast<int32_t>(m), k, k, n, 0, 0);
                });
                multiply(expected, [=](float* a, float* b, float* c) {
                    for (uint32_t i = 0; i < m; ++i)
                        for (uint32_t j = 0; j < n; ++j) {
                            float sum = 0;
                            for (uint32_t l = 0; l < k; ++l)
                                sum += a[i * k + l] * b[l * n + j];
                            c[i * n + j] = sum;
                        }
                });
                EXPECT_EQ(found, expected) << over_a << ' ' << start;
            }
        }
    }
    float untouched = 7;
    KelRtMatrix vast{UINT32_MAX, 0, &untouched};  // no rows: no work, however many columns
    m_multiply(&vast, &vast, &vast);
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

TEST(Matmul, EmptyResultsAndSumsOfNothing) {
    Floats x = {1, 2, 3, 4}, c = {-1, -1};
    EXPECT_EQ(kelRt_matmul(x.data(), x.data(), c.data(), 0, 2, 2, 2, 0, 0), NNA_STATUS_OK);
    EXPECT_EQ(kelRt_matmul(x.data(), x.data(), c.data(), 2, 2, 2, -2, 0, 0), NNA_STATUS_OK);
    EXPECT_EQ(c, (Floats{-1, -1}));
    EXPECT_EQ(kelRt_matmul(x.data(), x.data(), c.data(), 1, -3, 2, 2, 0, 0), NNA_STATUS_OK);
    EXPECT_EQ(c, (Floats{0, 0}));
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
