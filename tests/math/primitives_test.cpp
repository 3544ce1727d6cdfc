// The exported four-lane functions as the digests do not see them: lanes apart from each other, the sine's
// coefficients, and the rounding helpers.
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "kelRt.h"
#include "math/tables.h"
#include "support/floats.h"

namespace {

using floats::bits;
using floats::Floats;

const Table kExp(kExpCoefficients), kLog(kLogCoefficients);

template <class To, class From>
To same_bytes(const From& from) {
    To to;
    static_assert(sizeof to == sizeof from);
    std::memcpy(&to, &from, sizeof to);
    return to;
}
struct Four {
    float v[4];
};
kelRt_float32x4_t vector(const Four& x) {
    return same_bytes<kelRt_float32x4_t>(x);
}
Four lanes(kelRt_float32x4_t x) {
    return same_bytes<Four>(x);
}

// Each lane takes its own column of the tables, and both operands arrive in the lanes they were passed in.
TEST(Primitives, LanesAreIndependent) {
    float tables[4][8];
    kelRt_float32x4_t columns[8];
    for (int i = 0; i < 8; ++i) {
        Four column;
        for (int j = 0; j < 4; ++j)
            column.v[j] = tables[j][i] = kLogCoefficients[i] * (1.0f + 0.25f * static_cast<float>(j));
        columns[i] = vector(column);
    }
    const Four x = {{1.1f, 7.0f, 0.2f, 4.0f}}, n = {{0.5f, -2.0f, 3.0f, 1.25f}};
    const Four y = lanes(vtaylor_polyq_f32(vector(x), columns)),
               z = lanes(vpowq_f32(vector(x), vector(n), kLog.v, kExp.v));
    for (int j = 0; j < 4; ++j) {
        const Table own(tables[j]);
        EXPECT_EQ(bits(y.v[j]), bits(lanes(vtaylor_polyq_f32(splat(x.v[j]), own.v)).v[0])) << "lane " << j;
        EXPECT_EQ(bits(z.v[j]), bits(lanes(vpowq_f32(splat(x.v[j]), splat(n.v[j]), kLog.v, kExp.v)).v[0]))
            << "lane " << j;
    }
}

TEST(Primitives, SineCoefficientsAreReadAtEveryCall) {
    float* const objects[4] = {&te_sin_coeff2, &te_sin_coeff3, &te_sin_coeff4, &te_sin_coeff5};
    const Floats values = {1.0f / 6, 1.0f / 20, 1.0f / 42, 1.0f / 72};
    const Four x = {{1.3f, -1.4f, 1.5f, 8.0f}}, before = lanes(vsinq_f32(vector(x)));
    const auto half = same_bytes<std::array<kelRt_float32x2_t, 2>>(x);
    for (size_t k = 0; k < 4; ++k) {
        EXPECT_EQ(*objects[k], values[k]);
        *objects[k] = 0.75f;
        const Four four = lanes(vsinq_f32(vector(x))),
                   two = same_bytes<Four>(std::array{vsin_f32(half[0]), vsin_f32(half[1])});
        *objects[k] = values[k];
        for (int j = 0; j < 4; ++j) {
            EXPECT_EQ(bits(four.v[j]), bits(two.v[j]));
            EXPECT_NE(bits(four.v[j]), bits(before.v[j])) << "coefficient " << k + 2 << ", lane " << j;
        }
    }
}

// x in lane 2 with its exponent, between others.
int32_t divide_a(int32_t x, int32_t exponent) {
    using Ints = std::array<int32_t, 4>;
    const auto quotients =
        same_bytes<Ints>(rounding_divide_by_pow2_a(same_bytes<kelRt_int32x4_t>(Ints{7, -7, x, 1}),
                                                   same_bytes<kelRt_int32x4_t>(Ints{1, 2, exponent, 0})));
    EXPECT_EQ(quotients, (Ints{4, -2, quotients[2], 1}));
    const auto same_exponent = same_bytes<Ints>(
        rounding_divide_by_pow2_b(same_bytes<kelRt_int32x4_t>(Ints{x, -(x / 2), 0, x}), exponent));
    EXPECT_EQ(same_exponent[0], quotients[2]) << x << " by 2^" << exponent;
    EXPECT_EQ(same_exponent[3], quotients[2]) << x << " by 2^" << exponent;
    return quotients[2];
}

TEST(RoundingDivide, NearestTiesAway) {
    std::vector<int32_t> values = {0, 1, -1, 2, -2, 5, -5, INT32_MAX, INT32_MAX - 1, -INT32_MAX, INT32_MIN};
    for (const float x : floats::wild(500, 5))
        values.push_back(static_cast<int32_t>(bits(x)));
    for (int32_t e = 0; e < 32; ++e) {
        values.push_back(static_cast<int32_t>((1u << e) / 2 * 3));  // ties
        values.push_back(-values.back());
        for (const int32_t x : values) {
            const int64_t magnitude = (std::abs(int64_t{x}) + (int64_t{1} << e) / 2) >> e;
            const int64_t nearest = x < 0 ? -magnitude : magnitude;
            ASSERT_EQ(rounding_divide_by_pow2_c(x, e), nearest) << x << " / 2^" << e;
            ASSERT_EQ(divide_a(x, e), nearest) << x << " / 2^" << e;
        }
    }
}

// By the low byte of the negated exponent, or for _c by the exponent's low five bits.
TEST(RoundingDivide, OtherExponents) {
    const struct {
        int32_t x, exponent, result, by_five_bits;
    } facts[] = {
        {5, -1, 10, 0},           {-5, -3, -40, 0},          {0x40000001, -2, 4, 1},  // high bits are lost
        {-7, 32, 0, -7},          {1 << 30, 33, 0, 1 << 29}, {1, -32, 0, 1},         {-9, 36, 0, -1},
        {9, 256, 9, 9},           {-9, 256, -10, -9},  // no shift, but the fix-up of the sign all the same
        {-9, INT32_MIN, -10, -9},
    };
    for (const auto& fact : facts) {
        EXPECT_EQ(divide_a(fact.x, fact.exponent), fact.result) << fact.x << ", " << fact.exponent;
        EXPECT_EQ(rounding_divide_by_pow2_c(fact.x, fact.exponent), fact.by_five_bits)
            << fact.x << ", " << fact.exponent;
    }
}

}  // namespace
