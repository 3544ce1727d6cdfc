// Lanes of x86's own arithmetic, as many as the instruction set of this text has: for blocks in which it and
// the NEON unit cannot differ, which blocks.h finds out. Four kinds of value do differ (lanes_x86.h): results
// that are subnormal, products that round up to 2^-126, NaN, and what leaves the range of an integer. Plain
// lanes are for algorithms that make none of these from operands in a known range; Watched lanes note where
// arithmetic came near one.
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

// ---- watching

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

// Lanes, a bit each, that are below a limit or NaN, and in which an operand is NaN.
inline int lanes_below(FloatVector<4> a, float limit) {
    return _mm_movemask_ps(_mm_cmpnge_ps(a, _mm_set1_ps(limit)));
}
inline int lanes_unordered(FloatVector<4> a, FloatVector<4> b) {
    return _mm_movemask_ps(_mm_cmpunord_ps(a, b));
}
#if defined(__AVX2__)
inline int lanes_below(FloatVector<8> a, float limit) {
    return _mm256_movemask_ps(_mm256_cmp_ps(a, _mm256_set1_ps(limit), _CMP_NGE_UQ));
}
inline int lanes_unordered(FloatVector<8> a, FloatVector<8> b) {
    return _mm256_movemask_ps(_mm256_cmp_ps(a, b, _CMP_UNORD_Q));
}
#endif
#if defined(__AVX512F__)
inline int lanes_below(FloatVector<16> a, float limit) {
    return _mm512_cmp_ps_mask(a, _mm512_set1_ps(limit), _CMP_NGE_UQ);
}
inline int lanes_unordered(FloatVector<16> a, FloatVector<16> b) {
    return _mm512_cmp_ps_mask(a, b, _CMP_UNORD_Q);
}
#endif

// What has been seen of values, in each lane. A close look: the least magnitude other than zero, less one, as
// a word (zero itself wraps to the largest).
template <int n>
struct CloseLook {
    static constexpr bool at_operands_of_sums = true;
    WordVector<n> least;

    static CloseLook at(FloatVector<n> a) { return {magnitude<n>(a) - 1}; }
    // Something subnormal or 2^-126 itself.
    bool alarms() const { return any(reinterpret_cast<WordVector<n>>(least < 0x00800000u)); }
};
template <int n>
CloseLook<n> both(CloseLook<n> a, CloseLook<n> b) {
    return {smaller<n>(a.least, b.least)};
}
// A glance, for a third of the operations and with more alarms: the least magnitude, zero too. Beside a sum
// of 2^-100 and more whatever is flushed is less than half of the last place, and is rounded away; so
// operands of sums need no glance, only their results do.
template <int n>
struct Glance {
    static constexpr bool at_operands_of_sums = false;
    FloatVector<n> least;

    static Glance at(FloatVector<n> a) { return {reinterpret_cast<FloatVector<n>>(magnitude<n>(a))}; }
    bool alarms() const { return lanes_below(least, 0x1p-100f) != 0; }
};
template <int n>
Glance<n> both(Glance<n> a, Glance<n> b) {
    return {least(a.least, b.least)};
}
#if defined(__AVX512F__)
// One operation, not three.
template <>
inline Glance<16> Glance<16>::at(FloatVector<16> a) {
    return {a};
}
template <>
inline bool Glance<16>::alarms() const {
    return lanes_below(_mm512_abs_ps(least), 0x1p-100f) != 0;
}
inline Glance<16> both(Glance<16> a, Glance<16> b) {
    constexpr int kLeastMagnitude = 0b1010;
    // To the register of the first operand: on Intel's processors VRANGEPS waits for what its destination
    // held before (4096 elements scaled: 1203 ns -> 320).
    asm volatile("" : "+v"(a.least));
    return {_mm512_range_ps(a.least, b.least, kLeastMagnitude)};
}
#endif
struct Unseen {
    static constexpr bool alarms() { return false; }
};
inline Unseen both(Unseen, Unseen) {
    return {};
}
template <class Seen>
Seen both(Seen a, Unseen) {
    return a;
}
template <class Seen>
Seen both(Unseen, Seen b) {
    return b;
}

// Arithmetic under a watch. `flushing` says that the processor flushes, so that only a product that came out
// as 2^-126 can be wrong; otherwise subnormal operands and results count too. `due` says that a value has not
// been looked at. NaN travels to the end.
template <int n, bool flushing, class Look, class Seen = Unseen, bool due = !flushing>
struct Watched {
    static constexpr int kLanes = n;
    static constexpr bool is_due = due, flushes = flushing;
    using Looking = Look;
    FloatVector<n> v;
    Seen seen;  // of it and of all from which it comes

    template <bool result_due, class ResultSeen>
    static Watched<n, flushing, Look, ResultSeen, result_due> result(FloatVector<n> r, ResultSeen seen) {
        return {r, seen};
    }
    // The same for all blocks: the kernel has looked at it.
    static auto splat(float value) { return result<false>(Plain<n>::splat(value).v, Unseen()); }
    static Watched load(const void* p) { return {Plain<n>::load(p).v, {}}; }
    [[gnu::always_inline]] auto looked_at() const {
        if constexpr (due)
            return both(seen, Look::at(v));
        else
            return seen;
    }
};
template <class T>
concept IsWatched = requires {
    typename T::Looking;
};
template <IsWatched A>
[[gnu::always_inline]] inline void store(void* p, A a) {
    store(p, Plain<A::kLanes>{a.v});
}
// What a and b became. A factor wants a look, and whether its product does shows in what follows.
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto sum_of(decltype(A::v) r, A a, B b) {
    if constexpr (A::Looking::at_operands_of_sums) {
        const auto seen = both(a.looked_at(), b.looked_at());
        return A::template result<false>(r, A::template result<!A::flushes>(r, seen).looked_at());
    } else {
        const auto seen = both(a.seen, b.seen);
        return A::template result<false>(r,
                                         A::template result < A::is_due || B::is_due > (r, seen).looked_at());
    }
}
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto product_of(decltype(A::v) r, A a, B b) {
    return A::template result<true>(r, both(a.looked_at(), b.looked_at()));
}
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto add(A a, B b) {
    return sum_of(a.v + b.v, a, b);
}
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto sub(A a, B b) {
    return sum_of(a.v - b.v, a, b);
}
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto mul(A a, B b) {
    return product_of(a.v * b.v, a, b);
}
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto div(A a, B b) {
    return product_of(a.v / b.v, a, b);
}
template <IsWatched Sum, IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto mul_add(Sum sum, A a, B b) {
    return add(sum, mul(a, b));
}

}  // namespace
}  // namespace kelrt
