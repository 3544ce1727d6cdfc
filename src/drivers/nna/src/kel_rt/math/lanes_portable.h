// Four-lane arithmetic in plain C++: the rules of 32-bit Arm's NEON unit spelled out, lane by lane. This is
// the backend to read; it runs on any machine with IEEE-754 arithmetic and the others must give its bits.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace kelrt {
namespace {
namespace portable {

struct Ints {
    int32_t v[4];

    static Ints splat(int32_t value) { return {{value, value, value, value}}; }
    static Ints load(const void* p) {
        Ints a;
        std::memcpy(a.v, p, sizeof a.v);
        return a;
    }
};

// Single-precision lanes. A subnormal operand counts as zero of its sign whatever is asked of it.
struct Floats {
    using Bits = Ints;
    using Integers = Ints;
    float v[4];

    static Floats splat(float value) { return {{value, value, value, value}}; }
    static Floats load(const void* p) {
        Floats a;
        std::memcpy(a.v, p, sizeof a.v);
        return a;
    }
};

// Which lanes hold: all ones or zero.
struct Mask {
    uint32_t v[4];
};

// ---- the scalar rules

inline constexpr float kSmallestNormal = 0x1p-126f;

inline uint32_t word(float x) {
    return std::bit_cast<uint32_t>(x);
}

inline float from_word(uint32_t bits) {
    return std::bit_cast<float>(bits);
}

inline float default_nan() {
    return from_word(0x7FC00000u);
}

inline float flush(float x) {
    return (word(x) & 0x7F800000u) == 0 ? from_word(word(x) & 0x80000000u) : x;
}

inline float quiet(float x) {
    return std::isnan(x) ? default_nan() : x;
}

// Rounds a result that double precision holds exactly, or nearly enough that its magnitude against 2^-126 is
// certain. The unit looks at that magnitude before it rounds: what would have rounded up to 2^-126 is zero.
inline float round_result(double exact) {
    return std::fabs(exact) < static_cast<double>(kSmallestNormal)
               ? std::copysign(0.0f, static_cast<float>(exact))
               : quiet(static_cast<float>(exact));
}

inline float scalar_add(float a, float b) {
    return quiet(flush(flush(a) + flush(b)));  // a sum below 2^-126 is exact: before or after rounding is one
}

inline float scalar_mul(float a, float b) {
    return round_result(static_cast<double>(flush(a)) * static_cast<double>(flush(b)));
}

// The unit has no division; where one is wanted it follows the same rules.
// Rounding to double first is harmless: a quotient of two floats is never close enough to a tie.
inline float scalar_div(float a, float b) {
    return round_result(static_cast<double>(flush(a)) / static_cast<double>(flush(b)));
}

inline float scalar_min(float a, float b) {
    a = flush(a), b = flush(b);
    if (std::isnan(a) || std::isnan(b))
        return default_nan();
    if (a == b)
        return std::signbit(a) ? a : b;  // -0 is less than +0
    return a < b ? a : b;
}

inline int32_t scalar_to_int(float x) {
    if (std::isnan(x))
        return 0;
    if (x >= 0x1p31f)
        return INT32_MAX;
    if (x < -0x1p31f)
        return INT32_MIN;
    return static_cast<int32_t>(x);
}

inline int32_t saturate(int64_t x) {
    return x > INT32_MAX ? INT32_MAX : x < INT32_MIN ? INT32_MIN : static_cast<int32_t>(x);
}

// An 8-bit estimate of 1/x: the mantissa to 9 bits, half a step added, divided into one, rounded to 9 bits.
inline float scalar_recip_estimate(float x) {
    const uint32_t bits = word(x), sign = bits & 0x80000000u, exponent = bits >> 23 & 0xFF;
    if (std::isnan(x))
        return default_nan();
    if (exponent == 0)
        return from_word(sign | 0x7F800000u);
    if (exponent >= 253)  // the estimate would be subnormal, which whatever takes it would flush
        return from_word(sign);
    const uint32_t a = 256 | (bits >> 15 & 0xFF);
    const uint32_t b = (1u << 19) / (2 * a + 1);
    const uint32_t r = (b + 1) / 2;
    return from_word(sign | (253 - exponent) << 23 | (r & 0xFF) << 15);
}

// An 8-bit estimate of 1/sqrt(x), from 8 bits of mantissa and the parity of the exponent.
inline float scalar_rsqrt_estimate(float x) {
    const uint32_t bits = word(x), exponent = bits >> 23 & 0xFF;
    if (std::isnan(x))
        return default_nan();
    if (exponent == 0)
        return from_word((bits & 0x80000000u) | 0x7F800000u);
    if (bits >> 31)
        return default_nan();
    if (exponent == 255)
        return 0.0f;
    const uint32_t mantissa = 128 | (bits >> 16 & 0x7F);
    const uint32_t a =
        exponent % 2 ? 2 * mantissa + 1 : 4 * mantissa + 2;  // [1/4, 1/2) and [1/2, 1) in 1/1024
    uint32_t b = 512;                                        // the largest with a * b^2 below 2^28
    for (uint32_t step = 256; step > 0; step /= 2)
        if (a * (b + step) * (b + step) < 1u << 28)
            b += step;
    const uint32_t r = (b + 1) / 2;
    return from_word((380 - exponent) / 2 << 23 | (r & 0xFF) << 15);
}

inline bool zero_times_infinity(float a, float b) {
    a = flush(a), b = flush(b);
    return (a == 0 && std::isinf(b)) || (std::isinf(a) && b == 0);
}

// ---- the same on four lanes

template <class Operation>
Floats each(Operation op) {
    return {{op(0), op(1), op(2), op(3)}};
}
template <class Operation>
Ints each_int(Operation op) {
    return {{op(0), op(1), op(2), op(3)}};
}
template <class Condition>
Mask where(Condition holds) {
    const auto mask = [&](int i) { return holds(i) ? 0xFFFFFFFFu : 0u; };
    return {{mask(0), mask(1), mask(2), mask(3)}};
}

inline void store(void* p, Floats a) {
    std::memcpy(p, a.v, sizeof a.v);
}
inline void store(void* p, Ints a) {
    std::memcpy(p, a.v, sizeof a.v);
}

inline Floats add(Floats a, Floats b) {
    return each([&](int i) { return scalar_add(a.v[i], b.v[i]); });
}
inline Floats sub(Floats a, Floats b) {
    return each([&](int i) { return scalar_add(a.v[i], -b.v[i]); });
}
inline Floats mul(Floats a, Floats b) {
    return each([&](int i) { return scalar_mul(a.v[i], b.v[i]); });
}
// May take 2^-126 for a product just below it, where an accumulation swallows both. Here it never does.
inline Floats mul_loose(Floats a, Floats b) {
    return mul(a, b);
}
inline Floats mul_add(Floats sum, Floats a, Floats b) {
    return add(sum, mul(a, b));
}
inline Floats mul_add_loose(Floats sum, Floats a, Floats b) {
    return mul_add(sum, a, b);
}
inline Floats div(Floats a, Floats b) {
    return each([&](int i) { return scalar_div(a.v[i], b.v[i]); });
}
inline Floats min(Floats a, Floats b) {
    return each([&](int i) { return scalar_min(a.v[i], b.v[i]); });
}
inline Floats max(Floats a, Floats b) {
    return each([&](int i) { return quiet(-scalar_min(-a.v[i], -b.v[i])); });
}
// x no less than low and no more than high, which are ordinary numbers other than zero. For use in
// arithmetic: a subnormal x may come out as it is.
inline Floats clamp(Floats x, float low, float high) {
    return min(max(x, Floats::splat(low)), Floats::splat(high));
}
inline Floats recip_estimate(Floats a) {
    return each([&](int i) { return scalar_recip_estimate(a.v[i]); });
}
inline Floats recip_step(Floats a, Floats b) {  // 2 - a * b
    return each([&](int i) {
        return zero_times_infinity(a.v[i], b.v[i]) ? 2.0f : scalar_add(2.0f, -scalar_mul(a.v[i], b.v[i]));
    });
}
inline Floats rsqrt_estimate(Floats a) {
    return each([&](int i) { return scalar_rsqrt_estimate(a.v[i]); });
}
inline Floats rsqrt_step(Floats a, Floats b) {  // (3 - a * b) / 2
    return each([&](int i) {
        return zero_times_infinity(a.v[i], b.v[i])
                   ? 1.5f
                   : scalar_mul(scalar_add(3.0f, -scalar_mul(a.v[i], b.v[i])), 0.5f);
    });
}

// Sign operations touch the sign bit and nothing else.
inline Floats neg(Floats a) {
    return each([&](int i) { return from_word(word(a.v[i]) ^ 0x80000000u); });
}
inline Floats abs(Floats a) {
    return each([&](int i) { return from_word(word(a.v[i]) & 0x7FFFFFFFu); });
}

inline Mask greater(Floats a, Floats b) {
    return where([&](int i) { return flush(a.v[i]) > flush(b.v[i]); });
}
inline Mask greater_equal(Floats a, Floats b) {
    return where([&](int i) { return flush(a.v[i]) >= flush(b.v[i]); });
}
inline Mask equal(Floats a, Floats b) {
    return where([&](int i) { return flush(a.v[i]) == flush(b.v[i]); });
}
inline Mask greater(Ints a, Ints b) {
    return where([&](int i) { return a.v[i] > b.v[i]; });
}
inline Mask odd(Ints a) {
    return where([&](int i) { return a.v[i] & 1; });
}
inline Mask operator&(Mask a, Mask b) {
    return where([&](int i) { return a.v[i] & b.v[i]; });
}
inline Mask operator|(Mask a, Mask b) {
    return where([&](int i) { return a.v[i] | b.v[i]; });
}
inline Mask operator^(Mask a, Mask b) {
    return where([&](int i) { return a.v[i] ^ b.v[i]; });
}
inline Mask operator~(Mask a) {
    return where([&](int i) { return !a.v[i]; });
}
inline Floats select(Mask m, Floats yes, Floats no) {
    return each([&](int i) { return m.v[i] ? yes.v[i] : no.v[i]; });
}
inline Ints keep(Mask m, Ints a) {  // zero where the mask does not hold
    return each_int([&](int i) { return m.v[i] ? a.v[i] : 0; });
}

// The bits of an arithmetic result, and bits taken as an operand.
inline Ints bits(Floats a) {
    return each_int([&](int i) { return std::bit_cast<int32_t>(a.v[i]); });
}
inline Floats from_bits(Ints a) {
    return each([&](int i) { return std::bit_cast<float>(a.v[i]); });
}
inline Ints flip_sign(Mask m, Ints a) {  // of the float whose bits these are
    return each_int([&](int i) { return a.v[i] ^ (m.v[i] ? INT32_MIN : 0); });
}

inline Ints to_int_trunc(Floats a) {
    return each_int([&](int i) { return scalar_to_int(flush(a.v[i])); });
}
inline Floats to_float(Ints a) {
    return each([&](int i) { return static_cast<float>(a.v[i]); });
}
inline int32_t wrap(int64_t x) {
    return static_cast<int32_t>(static_cast<uint32_t>(x));
}
inline Ints add(Ints a, Ints b) {
    return each_int([&](int i) { return wrap(int64_t{a.v[i]} + b.v[i]); });
}
inline Ints sub(Ints a, Ints b) {
    return each_int([&](int i) { return wrap(int64_t{a.v[i]} - b.v[i]); });
}
inline Ints abs(Ints a) {  // of -2^31: itself
    return each_int([&](int i) { return a.v[i] < 0 ? wrap(-int64_t{a.v[i]}) : a.v[i]; });
}
inline Ints add_sat(Ints a, Ints b) {
    return each_int([&](int i) { return saturate(int64_t{a.v[i]} + b.v[i]); });
}
template <int count>
Ints shl(Ints a) {
    return each_int([&](int i) { return wrap(int64_t{a.v[i]} << count); });
}
template <int count>
Ints shl_sat(Ints a) {
    return each_int([&](int i) { return saturate(int64_t{a.v[i]} << count); });
}
template <int count>
Ints shr_unsigned(Ints a) {
    return each_int([&](int i) { return wrap(static_cast<uint32_t>(a.v[i]) >> count); });
}
inline Ints sign_if_both_negative(Ints a, Ints b) {  // -1 or 0
    return each_int([&](int i) { return (a.v[i] & b.v[i]) >> 31; });
}

// Shifts left by the low byte of the count, taken as signed; a negative one shifts right, rounding.
inline int32_t scalar_shift_rounding(int32_t x, int32_t count) {
    const int by = static_cast<int8_t>(count & 0xFF);
    if (by >= 32 || by <= -32)  // by 32 to the right, what rounding leaves of 32 bits is 0 in any case
        return 0;
    if (by >= 0)
        return wrap(int64_t{x} << by);
    return static_cast<int32_t>((int64_t{x} + (int64_t{1} << (-by - 1))) >> -by);
}
inline Ints shift_rounding(Ints a, Ints count) {
    return each_int([&](int i) { return scalar_shift_rounding(a.v[i], count.v[i]); });
}

// Eight narrow integers, in memory, as two sets of lanes.
struct IntPair {
    Ints low, high;
};
inline IntPair load_int8(const void* p) {
    int8_t x[8];
    std::memcpy(x, p, sizeof x);
    return {{{x[0], x[1], x[2], x[3]}}, {{x[4], x[5], x[6], x[7]}}};
}
inline IntPair load_int16(const void* p) {
    int16_t x[8];
    std::memcpy(x, p, sizeof x);
    return {{{x[0], x[1], x[2], x[3]}}, {{x[4], x[5], x[6], x[7]}}};
}
inline void store_int8(void* p, IntPair a) {  // values are in -128..127
    int8_t x[8];
    for (int i = 0; i < 4; ++i) {
        x[i] = static_cast<int8_t>(a.low.v[i]);
        x[i + 4] = static_cast<int8_t>(a.high.v[i]);
    }
    std::memcpy(p, x, sizeof x);
}

}  // namespace portable
}  // namespace
}  // namespace kelrt
