// The four-lane arithmetic and its algorithms a second time: one number at a time, in double precision and
// with the estimates from their defining divisions and roots, so that a mistake in the library is not made
// here too.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "math/tables.h"

namespace ref {

inline uint32_t bits(float x) {
    return std::bit_cast<uint32_t>(x);
}
inline float from_bits(uint32_t x) {
    return std::bit_cast<float>(x);
}

// A single-precision value as an operand, and a double-precision result as a value. Doubles hold sums,
// products and quotients of two floats closely enough that rounding them again gives the float.
inline double operand(float x) {
    return std::fpclassify(x) == FP_SUBNORMAL ? std::copysign(0.0, static_cast<double>(x))
                                              : static_cast<double>(x);
}
inline float result(double x) {
    if (std::isnan(x))
        return from_bits(0x7FC00000u);
    return std::fabs(x) < 0x1p-126 ? std::copysign(0.0f, std::signbit(x) ? -1.0f : 1.0f)
                                   : static_cast<float>(x);
}

inline float add(float a, float b) {
    return result(operand(a) + operand(b));
}
inline float sub(float a, float b) {
    return result(operand(a) - operand(b));
}
inline float mul(float a, float b) {
    return result(operand(a) * operand(b));
}
inline float div(float a, float b) {
    return result(operand(a) / operand(b));
}
inline float mla(float sum, float a, float b) {
    return add(sum, mul(a, b));
}
inline int32_t trunc(float x) {
    if (std::isnan(x))
        return 0;
    return static_cast<int32_t>(std::fmin(std::fmax(std::trunc(operand(x)), -0x1p31), 0x1p31 - 1));
}

inline float recip_estimate(float x) {
    if (std::isnan(x))
        return result(NAN);
    if (operand(x) == 0)
        return std::copysign(INFINITY, x);
    if (std::fabs(x) >= 0x1p126f)
        return std::copysign(0.0f, x);
    int exponent;
    const double a = std::fabs(std::frexp(static_cast<double>(x), &exponent));  // [0.5, 1)
    const double r = 1 / ((std::floor(a * 512) + 0.5) / 512);
    return std::copysign(static_cast<float>(std::ldexp(std::floor(256 * r + 0.5) / 256, -exponent)), x);
}
inline float rsqrt_estimate(float x) {
    if (!std::isnan(x) && operand(x) == 0)
        return std::copysign(INFINITY, x);
    if (std::isnan(x) || x < 0)
        return result(NAN);
    if (std::isinf(x))
        return 0;
    int exponent;
    double a = std::frexp(static_cast<double>(x), &exponent);
    if (exponent % 2)  // to an even power of two times [0.25, 1)
        a /= 2, ++exponent;
    const double step = a < 0.5 ? 512 : 256;
    const double r = 1 / std::sqrt((std::floor(a * step) + 0.5) / step);
    return static_cast<float>(std::ldexp(std::floor(256 * r + 0.5) / 256, -exponent / 2));
}
inline bool zero_times_infinity(float a, float b) {
    return !std::isnan(a) && !std::isnan(b) && std::isnan(operand(a) * operand(b));
}
inline float recip_step(float a, float b) {
    return zero_times_infinity(a, b) ? 2.0f : sub(2.0f, mul(a, b));
}
inline float rsqrt_step(float a, float b) {
    return zero_times_infinity(a, b) ? 1.5f : mul(sub(3.0f, mul(a, b)), 0.5f);
}

inline float floor(float x) {
    const float t = static_cast<float>(trunc(x));
    return static_cast<double>(t) > operand(x) ? sub(t, 1) : t;
}
inline float round_to_even(float x) {
    const float f = floor(x), d = sub(x, f);
    return d < 0.5f || (d == 0.5f && trunc(f) % 2 == 0) ? f : add(f, 1);
}
inline float inv(float x) {
    float r = recip_estimate(x);
    for (int step = 0; step < 2; ++step)
        r = mul(r, recip_step(x, r));
    return r;
}
inline float invsqrt(float x) {
    float e = rsqrt_estimate(x);
    for (int step = 0; step < 2; ++step)
        e = mul(e, rsqrt_step(mul(x, e), e));
    return e;
}
inline float poly(float x, const Coefficients& c) {
    const float a = mla(c[0], c[4], x), b = mla(c[2], c[6], x), cc = mla(c[1], c[5], x),
                d = mla(c[3], c[7], x);
    const float x2 = mul(x, x);
    return mla(mla(a, b, x2), mla(cc, d, x2), mul(x2, x2));
}
inline float exp(float x) {
    const int32_t m = trunc(mul(x, 1.442695f));
    if (m < -126)
        return 0;
    const float p = poly(mla(x, static_cast<float>(m), -0.6931472f), kExpCoefficients);
    const int64_t shifted = std::min<int64_t>(INT32_MAX, int64_t{m} * (1 << 23));
    const int64_t sum = int64_t{static_cast<int32_t>(bits(p))} + shifted;
    return from_bits(static_cast<uint32_t>(std::min<int64_t>(INT32_MAX, std::max<int64_t>(INT32_MIN, sum))));
}
inline float log(float x) {
    const uint32_t m = (bits(x) >> 23) - 127;
    const float v = from_bits(bits(x) - (m << 23));
    return mla(poly(v, kLogCoefficients), static_cast<float>(static_cast<int32_t>(m)), 0.6931472f);
}
inline float tanh(float x) {
    const float y = std::isnan(x) ? x : std::fmin(std::fmax(x, -10.0f), 10.0f);
    const float e = exp(add(y, y));
    return mul(sub(e, 1), inv(add(e, 1)));
}
inline float sigmoid(float x) {
    return inv(add(exp(-x), 1));
}
inline float pow(float x, float n) {
    return exp(mul(n, log(x)));
}
inline float sin(float x, const float (&c)[4]) {
    const uint32_t k = static_cast<uint32_t>(std::abs(int64_t{trunc(mul(x, 0.31830987f))}));
    const bool negative = (k % 2 == 1) != (operand(x) <= 0);
    // k is a signed integer; the magnitude of its least value does not exist.
    const float half_periods = static_cast<float>(static_cast<int32_t>(k));
    float a = sub(std::fabs(x), mul(half_periods, 3.1415927f));
    if (a >= 1.5707964f)
        a = sub(3.1415927f, a);
    const float a2 = mul(a, a);
    float t = mul(mul(a2, a), c[0]), s = sub(a, t);
    t = mul(c[1], mul(a2, t)), s = add(s, t);
    t = mul(c[2], mul(a2, t)), s = sub(s, t);
    t = mul(a2, t), s = mla(s, c[3], t);
    return from_bits(bits(s) ^ (negative ? 0x80000000u : 0));
}

// Floats of every sort, mixed: special values, near zero, where the functions are used, near overflow, any
// bits.
inline std::vector<float> inputs(size_t n, uint32_t seed) {
    static const uint32_t special[] = {0,          1,          0x007FFFFF, 0x00800000, 0x00800001, 0x3F7FFFFE,
                                       0x3F000000, 0x3F800000, 0x3FC00000, 0x40200000, 0x41200000, 0x42B17217,
                                       0x42B17218, 0x42AEAC50, 0x4EFFFFFF, 0x4F000000, 0x7E7FFFFF, 0x7E800000,
                                       0x7F7FFFFF, 0x7F800000, 0x7F800001, 0x7FC12345};
    std::vector<float> x(n);
    uint64_t state = seed;
    const auto random = [&] {
        state = state * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>(state >> 32);
    };
    for (float& value : x) {
        const uint32_t kind = random() % 8, word = random(), sign = word & 0x80000000u;
        const float unit = static_cast<float>(static_cast<int32_t>(word)) * 0x1p-31f;
        value = kind == 0   ? from_bits(special[word % std::size(special)] | sign)
                : kind == 1 ? from_bits((word & 0x80FFFFFFu))
                : kind == 2 ? from_bits(word)
                : kind == 3 ? unit * 0x1p127f
                : kind == 4 ? unit * 90
                            : unit * 8;
    }
    return x;
}

}  // namespace ref
