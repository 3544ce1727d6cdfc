// Four-lane arithmetic on x86 with SSE2. Used inside vector parts only (vector_part.h): there the processor
// itself flushes subnormal operands and results and rounds to nearest. It still differs from NEON in this:
//
// - A result is flushed when it is tiny after rounding, on NEON before. The two part where a product rounds
//   up to exactly 2^-126, which `mul` recognises and settles in double precision. (Sums that small are exact,
//   and no quotient of two floats rounds up to it.)
// - NaN results carry a sign or a payload. Nothing arithmetic depends on which NaN it is, so the default one
//   is put in only where bits leave the arithmetic: in `bits` and `store`.
// - Minima, maxima, saturation, estimates and their steps, each put right where it is written.
//
// Under a flush mode even x * 1 has an effect, of which compilers know nothing: they would drop it. So
// nothing here flushes by arithmetic of no other effect, but by masks.
#pragma once

#include <emmintrin.h>

#include "math/lanes_portable.h"

namespace kelrt {
namespace {
namespace x86 {

struct Ints {
    __m128i v;

    static Ints splat(int32_t value) { return {_mm_set1_epi32(value)}; }
    static Ints load(const void* p) { return {_mm_loadu_si128(static_cast<const __m128i*>(p))}; }
};

struct Floats {
    using Bits = Ints;
    using Integers = Ints;
    __m128 v;

    static Floats splat(float value) { return {_mm_set1_ps(value)}; }
    static Floats load(const void* p) { return {_mm_castsi128_ps(Ints::load(p).v)}; }
};

struct Mask {
    __m128i v;
};

// ---- words of 128 bits

inline __m128i choose(__m128i mask, __m128i yes, __m128i no) {
    return _mm_or_si128(_mm_and_si128(mask, yes), _mm_andnot_si128(mask, no));
}
inline __m128i words(__m128 a) {
    return _mm_castps_si128(a);
}
inline __m128 floats(__m128i a) {
    return _mm_castsi128_ps(a);
}
inline __m128i all(uint32_t word) {
    return _mm_set1_epi32(static_cast<int32_t>(word));
}
inline bool any(__m128i mask) {
    return _mm_movemask_epi8(mask) != 0;
}
inline __m128i nan_lanes(__m128 a) {
    return words(_mm_cmpunord_ps(a, a));
}
inline __m128 flush(__m128 a) {
    const __m128i exponent = _mm_and_si128(words(a), all(0x7F800000u));
    const __m128i tiny = _mm_cmpeq_epi32(exponent, _mm_setzero_si128());
    return floats(_mm_andnot_si128(_mm_srli_epi32(tiny, 1), words(a)));
}

// ---- the operations

inline Ints bits(Floats a) {
    return {choose(nan_lanes(a.v), all(0x7FC00000u), words(a.v))};
}
inline Floats from_bits(Ints a) {
    return {floats(a.v)};
}
inline void store(void* p, Ints a) {
    _mm_storeu_si128(static_cast<__m128i*>(p), a.v);
}
inline void store(void* p, Floats a) {
    store(p, bits(a));
}

inline Floats add(Floats a, Floats b) {
    return {_mm_add_ps(a.v, b.v)};
}
inline Floats sub(Floats a, Floats b) {
    return {_mm_sub_ps(a.v, b.v)};
}
// May take 2^-126 for a product just below it.
inline Floats mul_loose(Floats a, Floats b) {
    return {_mm_mul_ps(a.v, b.v)};
}
inline Floats mul(Floats a, Floats b) {
    __m128 p = _mm_mul_ps(a.v, b.v);
    const __m128i shifted = _mm_add_epi32(words(p), words(p));  // the sign bit falls out
    const __m128i at_boundary = _mm_cmpeq_epi32(shifted, all(0x00800000u << 1));
    if (__builtin_expect(any(at_boundary), 0)) {
        const auto below = [](__m128 x, __m128 y) {  // the exact product of the low two lanes
            const __m128d exact = _mm_mul_pd(_mm_cvtps_pd(x), _mm_cvtps_pd(y));
            const __m128d size = _mm_andnot_pd(_mm_set1_pd(-0.0), exact);
            return _mm_castpd_ps(_mm_cmplt_pd(size, _mm_set1_pd(0x1p-126)));
        };
        const __m128 low = below(a.v, b.v);
        const __m128 high = below(_mm_movehl_ps(a.v, a.v), _mm_movehl_ps(b.v, b.v));
        const __m128i tiny = words(_mm_shuffle_ps(low, high, _MM_SHUFFLE(2, 0, 2, 0)));
        p = floats(_mm_andnot_si128(_mm_srli_epi32(tiny, 1), words(p)));
    }
    return {p};
}
inline Floats mul_add(Floats sum, Floats a, Floats b) {
    return add(sum, mul(a, b));
}
inline Floats mul_add_loose(Floats sum, Floats a, Floats b) {
    return add(sum, mul_loose(a, b));
}
inline Floats div(Floats a, Floats b) {
    return {_mm_div_ps(a.v, b.v)};
}

// `minps` returns its second operand for two zeros and when either operand is NaN. Both ways round, or-ed: a
// negative zero keeps its sign and a NaN stays one; any other pair gives the same value twice. Not every
// processor flushes in a minimum as in a sum (qemu's do not).
inline Floats min(Floats a, Floats b) {
    const __m128 x = flush(a.v), y = flush(b.v);
    return {_mm_or_ps(_mm_min_ps(x, y), _mm_min_ps(y, x))};
}
inline Floats neg(Floats a) {
    return {_mm_xor_ps(a.v, _mm_set1_ps(-0.0f))};
}
inline Floats max(Floats a, Floats b) {
    return neg(min(neg(a), neg(b)));
}
// With x as the second operand both instructions return it when it is NaN.
inline Floats clamp(Floats x, float low, float high) {
    return {_mm_min_ps(_mm_set1_ps(high), _mm_max_ps(_mm_set1_ps(low), x.v))};
}
inline Floats abs(Floats a) {
    return {_mm_andnot_ps(_mm_set1_ps(-0.0f), a.v)};
}

// The procedures of the portable backend. Single precision holds their quotient and root exactly enough: over
// all 256 mantissas of each, truncation finds the same integer.
inline Floats recip_estimate(Floats a) {
    const __m128i word = words(a.v), sign = _mm_and_si128(word, all(0x80000000u));
    const __m128i exponent = _mm_and_si128(_mm_srli_epi32(word, 23), all(0xFF));
    const __m128i mantissa = _mm_or_si128(_mm_and_si128(_mm_srli_epi32(word, 14), all(0x1FE)), all(513));
    const __m128i b = _mm_cvttps_epi32(_mm_div_ps(_mm_set1_ps(0x1p19f), _mm_cvtepi32_ps(mantissa)));
    const __m128i r = _mm_srli_epi32(_mm_add_epi32(b, all(1)), 1);
    // r is in 256..511: its top bit adds one to the exponent field.
    __m128i estimate =
        _mm_add_epi32(_mm_slli_epi32(_mm_sub_epi32(all(252), exponent), 23), _mm_slli_epi32(r, 15));
    estimate = _mm_andnot_si128(_mm_cmpgt_epi32(exponent, all(252)), estimate);
    estimate = choose(_mm_cmpeq_epi32(exponent, _mm_setzero_si128()), all(0x7F800000u), estimate);
    estimate = _mm_or_si128(estimate, sign);
    return {floats(choose(nan_lanes(a.v), word, estimate))};
}
inline Floats rsqrt_estimate(Floats a) {
    const __m128i word = words(a.v);
    const __m128i exponent = _mm_and_si128(_mm_srli_epi32(word, 23), all(0xFF));
    const __m128i mantissa = _mm_or_si128(_mm_and_si128(_mm_srli_epi32(word, 15), all(0xFE)), all(257));
    const __m128i odd = _mm_srai_epi32(_mm_slli_epi32(exponent, 31), 31);
    const __m128i scaled = choose(odd, mantissa, _mm_add_epi32(mantissa, mantissa));
    const __m128i b =
        _mm_cvttps_epi32(_mm_sqrt_ps(_mm_div_ps(_mm_set1_ps(0x1p28f), _mm_cvtepi32_ps(scaled))));
    const __m128i r = _mm_srli_epi32(_mm_add_epi32(b, all(1)), 1);
    const __m128i halved = _mm_srli_epi32(_mm_sub_epi32(all(378), exponent), 1);
    __m128i estimate = _mm_add_epi32(_mm_slli_epi32(halved, 23), _mm_slli_epi32(r, 15));
    estimate = _mm_andnot_si128(_mm_cmpeq_epi32(exponent, all(0xFF)), estimate);  // of infinity, zero
    const __m128i zero = _mm_cmpeq_epi32(exponent, _mm_setzero_si128());
    const __m128i infinity = _mm_or_si128(_mm_and_si128(word, all(0x80000000u)), all(0x7F800000u));
    const __m128i negative = _mm_srai_epi32(word, 31);
    const __m128i invalid = _mm_or_si128(nan_lanes(a.v), negative);
    return {floats(choose(zero, infinity, choose(invalid, all(0x7FC00000u), estimate)))};
}
// A product that is NaN though neither factor is, is zero times infinity: the steps take it as zero.
inline __m128 step_product(Floats a, Floats b) {
    const __m128 p = mul_loose(a, b).v;
    if (__builtin_expect(any(nan_lanes(p)), 0))
        return _mm_and_ps(p, _mm_or_ps(_mm_cmpord_ps(p, p), _mm_cmpunord_ps(a.v, b.v)));
    return p;
}
inline Floats recip_step(Floats a, Floats b) {
    return {_mm_sub_ps(_mm_set1_ps(2.0f), step_product(a, b))};
}
inline Floats rsqrt_step(Floats a, Floats b) {
    return {_mm_mul_ps(_mm_sub_ps(_mm_set1_ps(3.0f), step_product(a, b)), _mm_set1_ps(0.5f))};
}

inline Mask greater(Floats a, Floats b) {
    return {words(_mm_cmpgt_ps(a.v, b.v))};
}
inline Mask greater_equal(Floats a, Floats b) {
    return {words(_mm_cmpge_ps(a.v, b.v))};
}
inline Mask equal(Floats a, Floats b) {
    return {words(_mm_cmpeq_ps(a.v, b.v))};
}
inline Mask greater(Ints a, Ints b) {
    return {_mm_cmpgt_epi32(a.v, b.v)};
}
inline Mask odd(Ints a) {
    return {_mm_srai_epi32(_mm_slli_epi32(a.v, 31), 31)};
}
inline Mask operator&(Mask a, Mask b) {
    return {_mm_and_si128(a.v, b.v)};
}
inline Mask operator|(Mask a, Mask b) {
    return {_mm_or_si128(a.v, b.v)};
}
inline Mask operator^(Mask a, Mask b) {
    return {_mm_xor_si128(a.v, b.v)};
}
inline Mask operator~(Mask a) {
    return {_mm_xor_si128(a.v, all(0xFFFFFFFFu))};
}
inline Floats select(Mask m, Floats yes, Floats no) {
    return {floats(choose(m.v, words(yes.v), words(no.v)))};
}
inline Ints keep(Mask m, Ints a) {
    return {_mm_and_si128(m.v, a.v)};
}
inline Ints flip_sign(Mask m, Ints a) {
    return {_mm_xor_si128(a.v, _mm_slli_epi32(m.v, 31))};
}

// The conversion gives 0x80000000 for everything out of range.
inline Ints to_int_trunc(Floats a) {
    const __m128i number = words(_mm_cmpord_ps(a.v, a.v));
    const __m128i too_large = words(_mm_cmpge_ps(a.v, _mm_set1_ps(0x1p31f)));
    return {_mm_and_si128(number, _mm_xor_si128(too_large, _mm_cvttps_epi32(a.v)))};
}
inline Floats to_float(Ints a) {
    return {_mm_cvtepi32_ps(a.v)};
}
inline Ints add(Ints a, Ints b) {
    return {_mm_add_epi32(a.v, b.v)};
}
inline Ints sub(Ints a, Ints b) {
    return {_mm_sub_epi32(a.v, b.v)};
}
inline Ints abs(Ints a) {
    const __m128i sign = _mm_srai_epi32(a.v, 31);
    return {_mm_sub_epi32(_mm_xor_si128(a.v, sign), sign)};
}
inline __m128i saturated(__m128i a) {  // the extreme value of a's sign
    return _mm_xor_si128(_mm_srai_epi32(a, 31), all(0x7FFFFFFFu));
}
inline Ints add_sat(Ints a, Ints b) {
    const __m128i sum = _mm_add_epi32(a.v, b.v);
    // It overflowed where the operands agree in sign and the sum does not.
    const __m128i wrong = _mm_andnot_si128(_mm_xor_si128(a.v, b.v), _mm_xor_si128(a.v, sum));
    return {choose(_mm_srai_epi32(wrong, 31), saturated(a.v), sum)};
}
template <int count>
Ints shl(Ints a) {
    return {_mm_slli_epi32(a.v, count)};
}
template <int count>
Ints shl_sat(Ints a) {
    const __m128i shifted = _mm_slli_epi32(a.v, count);
    const __m128i exact = _mm_cmpeq_epi32(_mm_srai_epi32(shifted, count), a.v);
    return {choose(exact, shifted, saturated(a.v))};
}
template <int count>
Ints shr_unsigned(Ints a) {
    return {_mm_srli_epi32(a.v, count)};
}
inline Ints sign_if_both_negative(Ints a, Ints b) {
    return {_mm_srai_epi32(_mm_and_si128(a.v, b.v), 31)};
}

struct IntPair {
    Ints low, high;
};
inline IntPair widen(__m128i x) {  // eight 16-bit integers
    return {{_mm_srai_epi32(_mm_unpacklo_epi16(x, x), 16)}, {_mm_srai_epi32(_mm_unpackhi_epi16(x, x), 16)}};
}
inline IntPair load_int8(const void* p) {
    const __m128i x = _mm_loadl_epi64(static_cast<const __m128i*>(p));
    return widen(_mm_srai_epi16(_mm_unpacklo_epi8(x, x), 8));
}
inline IntPair load_int16(const void* p) {
    return widen(_mm_loadu_si128(static_cast<const __m128i*>(p)));
}
inline void store_int8(void* p, IntPair a) {  // values are in -128..127
    const __m128i x = _mm_packs_epi32(a.low.v, a.high.v);
    _mm_storel_epi64(static_cast<__m128i*>(p), _mm_packs_epi16(x, x));
}

// SSE2 has no shift by lane.
inline Ints shift_rounding(Ints a, Ints count) {
    portable::Ints x, y;
    store(x.v, a);
    store(y.v, count);
    return Ints::load(portable::shift_rounding(x, y).v);
}

}  // namespace x86
}  // namespace
}  // namespace kelrt
