// The approximations, written once over any backend's lanes and shared by the exported primitives and the
// array kernels. F is a backend's Floats. Where an algorithm assembles or takes apart a float by its bits it
// takes or returns the bits, since those are no arithmetic values: they may be subnormal or any NaN.
#pragma once

#include "math/lanes.h"

namespace kelrt {
namespace {

constexpr float kInverseLn2 = 1.442695f;
constexpr float kLn2 = 0.6931472f;
constexpr float kInversePi = 0.31830987f;
constexpr float kPi = 3.1415927f;
constexpr float kHalfPi = 1.5707964f;

// A polynomial's coefficients, in the order of taylor_poly: the same in every lane.
struct SplatTable {
    float c[8];
    // Products of these polynomials end in sums with constants many orders above 2^-126, for every argument.
    static constexpr bool loose = true;
    template <class F>
    F at(int i) const {
        return F::splat(c[i]);
    }
};

// The table that the array kernels use.
constexpr SplatTable kExpTable = {{1.0f, 0.0416598916054f, 0.500000596046f, 0.0014122662833f, 1.00000011921f,
                                   0.00833693705499f, 0.166665703058f, 0.000195780929062f}};

// Eight four-lane vectors of the caller's, about which nothing is known.
struct CallersTable {
    const void* c;
    static constexpr bool loose = false;
    template <class F>
    F at(int i) const {
        return F::load(static_cast<const char*>(c) + 16 * i);
    }
};

// A table as the steps of a polynomial take from it.
#if defined(KELRT_LANE_TABLE)
inline lanes::LaneTable at_hand(const SplatTable& table) {
    return lanes::LaneTable(table.c);
}
#else
inline SplatTable at_hand(const SplatTable& table) {
    return table;
}
#endif
inline CallersTable at_hand(const CallersTable& table) {
    return table;
}

template <class F>
F floor(F x) {  // within the range of 32-bit integers
    const F t = to_float(to_int_trunc(x));
    return select(greater(t, x), sub(t, F::splat(1.0f)), t);
}

template <class F>
F round_to_even(F x) {
    const F down = floor(x), rest = sub(x, down), half = F::splat(0.5f);
    const auto keeps = greater(half, rest) | (equal(rest, half) & ~odd(to_int_trunc(down)));
    return select(keeps, down, add(down, F::splat(1.0f)));
}

template <class F>
[[gnu::always_inline]] inline F reciprocal(F x) {
    F r = recip_estimate(x);
    r = mul(r, recip_step(x, r));
    return mul(r, recip_step(x, r));
}

template <class F>
F inverse_sqrt(F x) {
    F e = rsqrt_estimate(x);
    e = mul(e, rsqrt_step(mul(x, e), e));
    return mul(e, rsqrt_step(mul(x, e), e));
}

// The polynomial c0 + c4 x + c2 x^2 + c6 x^3 + c1 x^4 + c5 x^5 + c3 x^6 + c7 x^7, in this grouping.
template <class F, class Table>
[[gnu::always_inline]] inline F taylor_poly(F x, const Table& table) {
    const auto c = at_hand(table);
    const auto product = [](F a, F b) {
        if constexpr (Table::loose)
            return mul_loose(a, b);
        else
            return mul(a, b);
    };
    const auto plus_product = [](F sum, F a, F b) {
        if constexpr (Table::loose)
            return mul_add_loose(sum, a, b);
        else
            return mul_add(sum, a, b);
    };
    const F a = plus_product(c.template at<F>(0), c.template at<F>(4), x);
    const F b = plus_product(c.template at<F>(2), c.template at<F>(6), x);
    const F cc = plus_product(c.template at<F>(1), c.template at<F>(5), x);
    const F d = plus_product(c.template at<F>(3), c.template at<F>(7), x);
    const F x2 = product(x, x);
    const F x4 = product(x2, x2);
    return plus_product(plus_product(a, b, x2), plus_product(cc, d, x2), x4);
}

// x towards zero, and a * 2^m for such an m, by integer steps: added into the exponent field of a. At m =
// -126 that field may become zero, and from m = 128 it is all ones, a NaN pattern: deliberately there is no
// clamp. Lanes that have nothing to do with such values bring their own.
template <class F>
typename F::Bits whole(F x) {
    return to_int_trunc(x);
}
template <class F, class I>
I scale_by_power(F a, I m) {
    return keep(greater(m, I::splat(-127)), add_sat(bits(a), shl_sat<23>(m)));
}

// e^x as 2^m * e^r.
template <class F, class Table>
[[gnu::always_inline]] inline auto exp(F x, const Table& table) {
    const auto m = whole(mul_loose(x, F::splat(kInverseLn2)));
    const F r = mul_add_loose(x, to_float(m), F::splat(-kLn2));
    return scale_by_power(taylor_poly(r, table), m);
}

// ln x from the bits of x, as m ln 2 + ln v with v in [1, 2). For positive normal x only.
template <class F, class Table>
F log(typename F::Bits x, const Table& table) {
    using I = typename F::Bits;
    const I m = sub(shr_unsigned<23>(x), I::splat(127));
    const F v = from_bits(sub(x, shl<23>(m)));
    return mul_add_loose(taylor_poly(v, table), to_float(m), F::splat(kLn2));
}

template <class F, class Table>
[[gnu::always_inline]] inline F tanh(F x, const Table& table) {
    // Only the upper bound decides a result: e^2y is lost beside -1 and 1 from y = -9 down, and tanh is -1.
    const F y = clamp(x, -10.0f, 10.0f);
    const F e = from_bits(exp(add(y, y), table));
    const F one = F::splat(1.0f);
    return mul(sub(e, one), reciprocal(add(e, one)));
}

template <class F, class Table>
[[gnu::always_inline]] inline F sigmoid(F x, const Table& table) {
    const F e = from_bits(exp(neg(x), table));
    return reciprocal(add(e, F::splat(1.0f)));
}

template <class F, class LogTable, class ExpTable>
typename F::Bits pow(typename F::Bits x, F n, const LogTable& log_table, const ExpTable& exp_table) {
    return exp(mul(n, log<F>(x, log_table)), exp_table);
}

// sin x folded into [0, pi/2], then the series to x^9, each term built from the one before by the factors
// c[0] to c[3]. The bits, because the sign is put on by exclusive or, whatever the value.
template <class F>
typename F::Bits sin(F x, const float (&c)[4]) {
    const auto k = abs(to_int_trunc(mul_loose(x, F::splat(kInversePi))));  // half periods
    const auto negative = odd(k) ^ greater_equal(F::splat(0.0f), x);
    const F pi = F::splat(kPi);
    const F folded = sub(abs(x), mul_loose(to_float(k), pi));
    // kPi is twice kHalfPi to the bit, so at kHalfPi itself both sides are the same.
    const F a = select(greater_equal(folded, F::splat(kHalfPi)), sub(pi, folded), folded);
    const F a2 = mul(a, a);
    F t = mul(mul(a2, a), F::splat(c[0]));
    F s = sub(a, t);
    t = mul(F::splat(c[1]), mul(a2, t));
    s = add(s, t);
    t = mul(F::splat(c[2]), mul(a2, t));
    s = sub(s, t);
    t = mul(a2, t);
    s = mul_add(s, F::splat(c[3]), t);
    return flip_sign(negative, bits(s));
}

}  // namespace
}  // namespace kelrt
