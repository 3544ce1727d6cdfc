// The exported four-lane functions and rounding helpers: known values and the reference's bits.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "kelRt.h"
#include "math/tables.h"
#include "support/floats.h"

namespace {

using floats::bits;

const Table kExp(kExpCoefficients), kLog(kLogCoefficients);

struct Unary {
    const char* name;
    kelRt_float32x4_t (*four)(kelRt_float32x4_t);
};

const float kSine[4] = {1.0f / 6, 1.0f / 20, 1.0f / 42, 1.0f / 72};

const Unary kUnary[] = {
    {"vfloorq_f32", vfloorq_f32},
    {"vroundq_rte_f32", vroundq_rte_f32},
    {"vinv", vinvq_f32},
    {"vinvsqrt", vinvsqrtq_f32},
    {"vexpq_f32", [](auto x) { return vexpq_f32(x, kExp.v); }},
    {"vtanhq_f32", [](auto x) { return vtanhq_f32(x, kExp.v); }},
    {"vsin", vsinq_f32},
};

template <class Vector, class Function>
std::vector<float> apply(Function f, const std::vector<float>& x) {
    std::vector<float> y(x.size());
    const size_t lanes = sizeof(Vector) / sizeof(float);
    for (size_t i = 0; i + lanes <= x.size(); i += lanes) {
        Vector v;
        std::memcpy(&v, &x[i], sizeof v);
        v = f(v);
        std::memcpy(&y[i], &v, sizeof v);
    }
    return y;
}

uint32_t one(const char* name, uint32_t x) {
    for (const Unary& f : kUnary)
        if (f.name == std::string(name))
            return bits(apply<kelRt_float32x4_t>(f.four, std::vector<float>(4, floats::from_bits(x)))[0]);
    ADD_FAILURE() << "no function " << name;
    return 0;
}

TEST(Primitives, KnownValues) {
    const struct {
        const char* name;
        uint32_t x, y;
    } facts[] = {
        {"vfloorq_f32", 0xBFC00000, 0xC0000000},      // -1.5: -2
        {"vfloorq_f32", 0x80000000, 0x00000000},      // -0: +0
        {"vfloorq_f32", 0x80000001, 0x00000000},      // a negative subnormal counts as zero
        {"vfloorq_f32", 0xBF7FFFFF, 0xBF800000},      // just above -1: -1
        {"vfloorq_f32", 0x7FC00000, 0x00000000},      // NaN truncates to 0
        {"vfloorq_f32", 0x7F800000, 0x4F000000},      // saturated
        {"vroundq_rte_f32", 0x3F000000, 0x00000000},  // 0.5: 0
        {"vroundq_rte_f32", 0x3FC00000, 0x40000000},  // 1.5: 2
        {"vroundq_rte_f32", 0x40200000, 0x40000000},  // 2.5: 2
        {"vroundq_rte_f32", 0xBF000000, 0x00000000},  // -0.5: +0
        {"vroundq_rte_f32", 0xC0200000, 0xC0000000},  // -2.5: -2
        {"vinv", 0x00000000, 0x7F800000},             // +0, -0, subnormals: infinity
        {"vinv", 0x80000000, 0xFF800000},
        {"vinv", 0x807FFFFF, 0xFF800000},
        {"vinv", 0x7F800000, 0x00000000},  // infinity and what is next to it: zero
        {"vinv", 0xFE800000, 0x80000000},
        {"vinv", 0x7F800001, 0x7FC00000},
        {"vinvsqrt", 0x00000000, 0x7FC00000},  // zero times the infinite estimate
        {"vinvsqrt", 0x7F800000, 0x7FC00000},
        {"vinvsqrt", 0xBF800000, 0x7FC00000},
        {"vexpq_f32", 0x00000000, 0x3F800000},
        {"vexpq_f32", 0x42B17218, 0x7F800000},  // the one input that gives infinity
        {"vexpq_f32", 0x447A0000, 0x7FFFFFFF},  // 1000: saturated
        {"vexpq_f32", 0xC2B0CCCD, 0x00000000},  // -88.4
        {"vtanhq_f32", 0x7FC54321, 0x7FC00000},
        {"vsin", 0x00000000, 0x80000000},  // sin of either zero is -0
        {"vsin", 0x80000000, 0x80000000},
        {"vsin", 0x7F800000, 0xFFC00000},  // saturated to odd: the sign goes onto the NaN
        {"vsin", 0xFF800001, 0x7FC00000},
    };
    for (const auto& fact : facts)
        EXPECT_EQ(one(fact.name, fact.x), fact.y) << fact.name << std::hex << " of " << fact.x;

    EXPECT_NEAR(static_cast<double>(floats::from_bits(one("vexpq_f32", bits(88.5f)))), 2.723e38, 1e36);
    EXPECT_TRUE(std::isnan(floats::from_bits(one("vexpq_f32", bits(89.0f)))));
    for (const float x : {-87.4f, -88.0f}) {  // integer steps into the subnormals, which are kept
        EXPECT_EQ(one("vexpq_f32", bits(x)) >> 23, 0u) << x;
        EXPECT_NE(one("vexpq_f32", bits(x)), 0u) << x;
    }
    EXPECT_EQ(one("vtanhq_f32", bits(20.0f)), one("vtanhq_f32", bits(10.0f)));
}

// Each lane takes its own column of the tables, and both operands arrive in the lanes they were passed in.
TEST(Primitives, LanesAreIndependent) {
    float tables[4][8];
    kelRt_float32x4_t columns[8];
    for (int i = 0; i < 8; ++i) {
        float lane[4];
        for (int j = 0; j < 4; ++j)
            lane[j] = tables[j][i] = kLogCoefficients[i] * (1.0f + 0.25f * static_cast<float>(j));
        std::memcpy(&columns[i], lane, sizeof lane);
    }
    const std::vector<float> x = {1.1f, 0.3f, -2.5f, 4.0f}, n = {0.5f, -2.0f, 3.0f, 1.25f},
                             positive = {1.1f, 7.0f, 0.2f, 4.0f};
    const auto y = apply<kelRt_float32x4_t>([&](auto v) { return vtaylor_polyq_f32(v, columns); }, x);
    kelRt_float32x4_t powers;
    std::memcpy(&powers, n.data(), sizeof powers);
    const auto z =
        apply<kelRt_float32x4_t>([&](auto v) { return vpowq_f32(v, powers, kLog.v, kExp.v); }, positive);
    for (size_t j = 0; j < 4; ++j) {
        const Table own(tables[j]);
        float alone[4];
        kelRt_float32x4_t v = vtaylor_polyq_f32(splat(x[j]), own.v);
        std::memcpy(alone, &v, sizeof v);
        EXPECT_EQ(bits(y[j]), bits(alone[0])) << "lane " << j;
        v = vpowq_f32(splat(positive[j]), splat(n[j]), kLog.v, kExp.v);
        std::memcpy(alone, &v, sizeof v);
        EXPECT_EQ(bits(z[j]), bits(alone[0])) << "lane " << j;
    }
}

TEST(Primitives, SineCoefficientsAreReadAtEveryCall) {
    float* const objects[4] = {&te_sin_coeff2, &te_sin_coeff3, &te_sin_coeff4, &te_sin_coeff5};
    const std::vector<float> x = {1.3f, -1.4f, 1.5f, 8.0f};
    const std::vector<float> before = apply<kelRt_float32x4_t>(vsinq_f32, x);
    for (size_t k = 0; k < 4; ++k) {
        EXPECT_EQ(bits(*objects[k]), bits(kSine[k]));
        *objects[k] = 0.75f;
        const std::vector<float> four = apply<kelRt_float32x4_t>(vsinq_f32, x),
                                 two = apply<kelRt_float32x2_t>(vsin_f32, x);
        *objects[k] = kSine[k];
        EXPECT_EQ(four, two);
        for (size_t j = 0; j < 4; ++j)
            EXPECT_NE(bits(four[j]), bits(before[j])) << "coefficient " << k + 2 << ", lane " << j;
    }
    EXPECT_EQ(apply<kelRt_float32x4_t>(vsinq_f32, x), before);
}

// ---- rounding helpers

int32_t divide_a(int32_t x, int32_t exponent) {
    const int32_t values[4] = {7, -7, x, 1}, exponents[4] = {1, 2, exponent, 0};
    kelRt_int32x4_t v, e;
    std::memcpy(&v, values, sizeof v);
    std::memcpy(&e, exponents, sizeof e);
    v = rounding_divide_by_pow2_a(v, e);
    int32_t out[4];
    std::memcpy(out, &v, sizeof out);
    EXPECT_EQ(out[0], 4);
    EXPECT_EQ(out[1], -2);
    EXPECT_EQ(out[3], 1);
    return out[2];
}

int32_t divide_b(int32_t x, int32_t exponent) {
    const int32_t values[4] = {5, -5, 0, x};
    kelRt_int32x4_t v;
    std::memcpy(&v, values, sizeof v);
    v = rounding_divide_by_pow2_b(v, exponent);
    int32_t out[4];
    std::memcpy(out, &v, sizeof out);
    return out[3];
}

TEST(RoundingDivide, NearestTiesAway) {
    const struct {
        int32_t x, exponent, result;
    } facts[] = {{5, 1, 3}, {-5, 1, -3}, {4, 1, 2},          {-3, 1, -2},        {-6, 2, -2},
                 {6, 2, 2}, {-5, 2, -1}, {INT32_MAX, 31, 1}, {INT32_MIN, 31, -1}};
    for (const auto& fact : facts)
        EXPECT_EQ(rounding_divide_by_pow2_c(fact.x, fact.exponent), fact.result)
            << fact.x << " / 2^" << fact.exponent;

    std::vector<int32_t> values = {0, 1, -1, 2, -2, INT32_MAX, INT32_MAX - 1, INT32_MIN, INT32_MIN + 1};
    for (const float x : floats::wild(500, 5))
        values.push_back(static_cast<int32_t>(bits(x)));
    for (int32_t e = 0; e < 32; ++e) {
        values.push_back(static_cast<int32_t>((1u << e) / 2 * 3));
        values.push_back(-values.back());
        for (const int32_t x : values) {
            const int64_t magnitude = (std::abs(int64_t{x}) + (int64_t{1} << e) / 2) >> e;
            const int64_t nearest = x < 0 ? -magnitude : magnitude;
            ASSERT_EQ(rounding_divide_by_pow2_c(x, e), nearest) << x << " / 2^" << e;
            ASSERT_EQ(divide_b(x, e), nearest) << x << " / 2^" << e;
            ASSERT_EQ(divide_a(x, e), nearest) << x << " / 2^" << e;
        }
    }
}

TEST(RoundingDivide, OtherExponents) {
    const struct {
        int32_t x, exponent, result;
    } facts[] = {
        {5, -1, 10},          {-5, -3, -40},    {0x40000001, -2, 4},  // a left shift whose high bits are lost
        {-7, 32, 0},          {1 << 30, 33, 0}, {1, -32, 0},
        {9, 256, 9},          {-9, 256, -10},  // the shift's low byte is 0, the sign fix-up still happens
        {-9, INT32_MIN, -10},
    };
    for (const auto& fact : facts) {
        EXPECT_EQ(divide_a(fact.x, fact.exponent), fact.result) << fact.x << ", " << fact.exponent;
        EXPECT_EQ(divide_b(fact.x, fact.exponent), fact.result) << fact.x << ", " << fact.exponent;
    }
}

}  // namespace
