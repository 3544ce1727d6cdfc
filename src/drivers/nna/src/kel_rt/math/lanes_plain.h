// Lanes of x86's own arithmetic, as many as the instruction set of this text has: for blocks in which it and
// the NEON unit cannot differ, which blocks.h finds out. Four kinds of value do differ (lanes_x86.h): results
// that are subnormal, products that round up to 2^-126, NaN, and what leaves the range of an integer. Plain
// lanes are for algorithms that make none of these from operands in a known range; watched lanes
// (lanes_watched.h) note where arithmetic came near one.
//
// Only the operations that some kernel needs are here; what they compute is described in the portable lanes.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "math/vectors.h"

namespace kelrt {
namespace {

// ---- integers

template <int n>
struct PlainInts {
    static constexpr int kLanes = n;
    IntVector<n> v;

    static PlainInts load(const void* p) { return {*static_cast<const typename Vectors<n>::MemoryI*>(p)}; }
    static PlainInts load_int8(const void* p);
    static PlainInts load_int16(const void* p);
};

// ---- plain floats

template <int n>
struct Plain {
    static constexpr int kLanes = n;
    using Bits = Plain;  // nothing here makes a pattern that arithmetic could change
    using Integers = PlainInts<n>;
    FloatVector<n> v;

    static Plain splat(float value) { return {value - FloatVector<n>{}}; }
    static Plain load(const void* p) { return {*static_cast<const typename Vectors<n>::MemoryF*>(p)}; }
};

template <int n>
void store(void* p, Plain<n> a) {
    *static_cast<typename Vectors<n>::MemoryF*>(p) = a.v;
}
template <int n>
Plain<n> bits(Plain<n> a) {
    return a;
}
template <int n>
Plain<n> from_bits(Plain<n> a) {
    return a;
}
template <int n>
Plain<n> add(Plain<n> a, Plain<n> b) {
    return {a.v + b.v};
}
template <int n>
Plain<n> sub(Plain<n> a, Plain<n> b) {
    return {a.v - b.v};
}
template <int n>
Plain<n> mul(Plain<n> a, Plain<n> b) {
    return {a.v * b.v};
}
template <int n>
Plain<n> mul_loose(Plain<n> a, Plain<n> b) {
    return mul(a, b);
}
template <int n>
Plain<n> mul_add(Plain<n> sum, Plain<n> a, Plain<n> b) {
    return {sum.v + a.v * b.v};
}
template <int n>
Plain<n> mul_add_loose(Plain<n> sum, Plain<n> a, Plain<n> b) {
    return mul_add(sum, a, b);
}
template <int n>
Plain<n> neg(Plain<n> a) {
    return {-a.v};
}
template <int n>
Plain<n> to_float(PlainInts<n> a) {
    return {__builtin_convertvector(a.v, FloatVector<n>)};
}

// The three instructions that vector types do not express. With NaN as the second operand, minimum and
// maximum give it back.
inline FloatVector<4> least(FloatVector<4> a, FloatVector<4> b) {
    return _mm_min_ps(a, b);
}
inline FloatVector<4> most(FloatVector<4> a, FloatVector<4> b) {
    return _mm_max_ps(a, b);
}
inline IntVector<4> truncated(FloatVector<4> a) {
    return reinterpret_cast<IntVector<4>>(_mm_cvttps_epi32(a));
}
#if defined(__AVX2__)
inline FloatVector<8> least(FloatVector<8> a, FloatVector<8> b) {
    return _mm256_min_ps(a, b);
}
inline FloatVector<8> most(FloatVector<8> a, FloatVector<8> b) {
    return _mm256_max_ps(a, b);
}
inline IntVector<8> truncated(FloatVector<8> a) {
    return reinterpret_cast<IntVector<8>>(_mm256_cvttps_epi32(a));
}
#endif
#if defined(__AVX512F__)
inline FloatVector<16> least(FloatVector<16> a, FloatVector<16> b) {
    return _mm512_min_ps(a, b);
}
inline FloatVector<16> most(FloatVector<16> a, FloatVector<16> b) {
    return _mm512_max_ps(a, b);
}
inline IntVector<16> truncated(FloatVector<16> a) {
    return reinterpret_cast<IntVector<16>>(_mm512_cvttps_epi32(a));
}
#endif

template <int n>
Plain<n> clamp(Plain<n> x, float low, float high) {
    return {least(Plain<n>::splat(high).v, most(Plain<n>::splat(low).v, x.v))};
}
// Of numbers below 2^31; of NaN zero.
template <int n>
PlainInts<n> to_int_trunc(Plain<n> a) {
    return {(a.v == a.v) & truncated(a.v)};
}

// The estimate of lanes_portable.h for x in [1, 2^126): the reciprocal of the middle of x's interval, rounded
// to nine bits. Division is exact enough for every interval, and runs beside the other arithmetic.
template <int n>
Plain<n> recip_estimate(Plain<n> x) {
    const auto interval = reinterpret_cast<WordVector<n>>(x.v) & 0xFFFF8000u;
    const auto middle = reinterpret_cast<FloatVector<n>>(interval | 0x4000u);
    const auto quotient = reinterpret_cast<WordVector<n>>(1.0f / middle);
    return {reinterpret_cast<FloatVector<n>>((quotient + 0x4000u) & 0xFFFF8000u)};
}
template <int n>
Plain<n> recip_step(Plain<n> a, Plain<n> b) {
    return {2.0f - a.v * b.v};
}

// The integer next to x towards zero, for |x| < 2^31, in both forms.
template <int n>
struct PlainWhole {
    FloatVector<n> value;
    IntVector<n> integer;
};
template <int n>
PlainWhole<n> whole(Plain<n> x) {
    const IntVector<n> integer = truncated(x.v);
    return {__builtin_convertvector(integer, FloatVector<n>), integer};
}
template <int n>
Plain<n> to_float(PlainWhole<n> m) {
    return {m.value};
}
// a * 2^m, for normal a and results.
template <int n>
Plain<n> scale_by_power(Plain<n> a, PlainWhole<n> m) {
    return {reinterpret_cast<FloatVector<n>>(reinterpret_cast<IntVector<n>>(a.v) + (m.integer << 23))};
}
#if defined(__AVX512F__)
// One instruction each (exp is 22 then, against 24 by integer steps).
struct PlainWhole16 {
    __m512 value;
};
inline PlainWhole16 whole(Plain<16> x) {
    return {_mm512_roundscale_ps(x.v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC)};
}
inline Plain<16> to_float(PlainWhole16 m) {
    return {m.value};
}
inline Plain<16> scale_by_power(Plain<16> a, PlainWhole16 m) {
    return {_mm512_scalef_ps(a.v, m.value)};
}
#endif

// ---- narrow integers

template <>
inline PlainInts<4> PlainInts<4>::load_int8(const void* p) {
    int32_t four;
    std::memcpy(&four, p, sizeof four);
    const __m128i bytes = _mm_cvtsi32_si128(four), pairs = _mm_unpacklo_epi8(bytes, bytes);
    return {reinterpret_cast<IntVector<4>>(_mm_srai_epi32(_mm_unpacklo_epi16(pairs, pairs), 24))};
}
template <>
inline PlainInts<4> PlainInts<4>::load_int16(const void* p) {
    const __m128i halves = _mm_loadl_epi64(static_cast<const __m128i_u*>(p));
    return {reinterpret_cast<IntVector<4>>(_mm_srai_epi32(_mm_unpacklo_epi16(halves, halves), 16))};
}
inline void store_int8(void* p, PlainInts<4> a) {  // values are in -128..127
    const __m128i halves = _mm_packs_epi32(reinterpret_cast<__m128i>(a.v), _mm_setzero_si128());
    const int32_t four = _mm_cvtsi128_si32(_mm_packs_epi16(halves, halves));
    std::memcpy(p, &four, sizeof four);
}
// Four vectors at once, which packing takes fewer operations for.
inline void store_int8(void* p, PlainInts<4> a, PlainInts<4> b, PlainInts<4> c, PlainInts<4> d) {
    const auto packed = [](PlainInts<4> x, PlainInts<4> y) {
        return _mm_packs_epi32(reinterpret_cast<__m128i>(x.v), reinterpret_cast<__m128i>(y.v));
    };
    _mm_storeu_si128(static_cast<__m128i_u*>(p), _mm_packs_epi16(packed(a, b), packed(c, d)));
}
#if defined(__AVX2__)
template <>
inline PlainInts<8> PlainInts<8>::load_int8(const void* p) {
    return {reinterpret_cast<IntVector<8>>(
        _mm256_cvtepi8_epi32(_mm_loadl_epi64(static_cast<const __m128i_u*>(p))))};
}
template <>
inline PlainInts<8> PlainInts<8>::load_int16(const void* p) {
    return {reinterpret_cast<IntVector<8>>(
        _mm256_cvtepi16_epi32(_mm_loadu_si128(static_cast<const __m128i_u*>(p))))};
}
inline void store_int8(void* p, PlainInts<8> a) {
    const __m256i words = reinterpret_cast<__m256i>(a.v);
    const __m128i halves = _mm_packs_epi32(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1));
    _mm_storel_epi64(static_cast<__m128i_u*>(p), _mm_packs_epi16(halves, halves));
}
inline void store_int8(void* p, PlainInts<8> a, PlainInts<8> b, PlainInts<8> c, PlainInts<8> d) {
    const auto packed = [](PlainInts<8> x, PlainInts<8> y) {
        return _mm256_packs_epi32(reinterpret_cast<__m256i>(x.v), reinterpret_cast<__m256i>(y.v));
    };
    const __m256i bytes = _mm256_packs_epi16(packed(a, b), packed(c, d));  // by fours, each half for itself
    _mm256_storeu_si256(static_cast<__m256i_u*>(p),
                        _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7)));
}
#endif
#if defined(__AVX512F__)
template <>
inline PlainInts<16> PlainInts<16>::load_int8(const void* p) {
    return {reinterpret_cast<IntVector<16>>(
        _mm512_cvtepi8_epi32(_mm_loadu_si128(static_cast<const __m128i_u*>(p))))};
}
template <>
inline PlainInts<16> PlainInts<16>::load_int16(const void* p) {
    return {reinterpret_cast<IntVector<16>>(
        _mm512_cvtepi16_epi32(_mm256_loadu_si256(static_cast<const __m256i_u*>(p))))};
}
inline void store_int8(void* p, PlainInts<16> a) {
    _mm_storeu_si128(static_cast<__m128i_u*>(p), _mm512_cvtepi32_epi8(reinterpret_cast<__m512i>(a.v)));
}
inline void store_int8(void* p, PlainInts<16> a, PlainInts<16> b, PlainInts<16> c, PlainInts<16> d) {
    const auto packed = [](PlainInts<16> x, PlainInts<16> y) {
        return _mm512_packs_epi32(reinterpret_cast<__m512i>(x.v), reinterpret_cast<__m512i>(y.v));
    };
    const __m512i bytes =
        _mm512_packs_epi16(packed(a, b), packed(c, d));  // by fours, each quarter for itself
    const auto order =
        reinterpret_cast<__m512i>(IntVector<16>{0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15});
    _mm512_storeu_si512(p, _mm512_permutexvar_epi32(order, bytes));
}
#endif

// ---- words

template <int n>
WordVector<n> magnitude(FloatVector<n> a) {
    return reinterpret_cast<WordVector<n>>(a) & 0x7FFFFFFFu;
}
template <int n>
WordVector<n> smaller(WordVector<n> a, WordVector<n> b) {
    return a < b ? a : b;
}
template <int n>
WordVector<n> larger(WordVector<n> a, WordVector<n> b) {
    return a > b ? a : b;
}
inline bool any(WordVector<4> mask) {
    return _mm_movemask_epi8(reinterpret_cast<__m128i>(mask)) != 0;
}
#if defined(__AVX2__)
inline bool any(WordVector<8> mask) {
    return _mm256_movemask_epi8(reinterpret_cast<__m256i>(mask)) != 0;
}
#endif
#if defined(__AVX512F__)
inline bool any(WordVector<16> mask) {
    return _mm512_test_epi32_mask(reinterpret_cast<__m512i>(mask), reinterpret_cast<__m512i>(mask)) != 0;
}
#endif

}  // namespace
}  // namespace kelrt
