// The AVX-512 instructions that the kernels name, in plain C++, so that the sixteen-lane text runs on
// processors without them: included before everything else in a build with KELRT_X86=avx512-emulated. What
// the kernels express by vector types, compilers lower by themselves. Each is written from the instruction's
// definition, lane by lane.
#pragma once

#include <immintrin.h>
// After the compiler's own headers, which would take these for the target's.
#define __AVX512F__ 1
#define __AVX512BW__ 1
#define __AVX512DQ__ 1
#define __AVX512VL__ 1
#define __AVX512VBMI__ 1

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace {
namespace emulated {

template <class To, class From>
To as(const From& from) {
    static_assert(sizeof(To) == sizeof(From));
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}
template <class T>
struct Lanes {
    static constexpr int kCount = 64 / sizeof(T);
    T v[kCount];
};
using Floats = Lanes<float>;
using Words = Lanes<uint32_t>;
using Bytes = Lanes<uint8_t>;

template <class Operation>
__m512 each(__m512 a, __m512 b, Operation operation) {
    Floats x = as<Floats>(a), y = as<Floats>(b);
    for (int i = 0; i < 16; ++i)
        x.v[i] = operation(x.v[i], y.v[i]);
    return as<__m512>(x);
}
// With the second operand where they are equal or one is NaN, as the instructions do.
inline __m512 min_ps(__m512 a, __m512 b) {
    return each(a, b, [](float x, float y) { return x < y ? x : y; });
}
inline __m512 max_ps(__m512 a, __m512 b) {
    return each(a, b, [](float x, float y) { return x > y ? x : y; });
}
// Control 4 is the least, 5 the largest, 10 the least magnitude; zeros have the order of their signs, and of
// a NaN and a number it is the number.
inline __m512 range_ps(__m512 a, __m512 b, int control) {
    return each(a, b, [=](float x, float y) {
        if (control != 4 && control != 5 && control != 10)
            __builtin_trap();
        if (control == 10) {
            x = std::fabs(x);
            y = std::fabs(y);
        }
        if (std::isnan(x) || std::isnan(y))
            return std::isnan(x) ? y : x;
        const bool x_is_less = x == y ? std::signbit(x) : x < y;
        return x_is_less == (control != 5) ? x : y;
    });
}
inline __m512 fmadd_ps(__m512 a, __m512 b, __m512 c) {
    Floats x = as<Floats>(a);
    for (int i = 0; i < 16; ++i)
        x.v[i] = std::fma(x.v[i], b[i], c[i]);
    return as<__m512>(x);
}
inline __m512 fnmadd_ps(__m512 a, __m512 b, __m512 c) {
    return fmadd_ps(-a, b, c);
}
inline __m512 abs_ps(__m512 a) {
    return each(a, a, [](float x, float) { return std::fabs(x); });
}
// The comparisons that are used: NaN in either operand, and not at least.
inline uint16_t cmp_ps_mask(__m512 a, __m512 b, int predicate) {
    const Floats x = as<Floats>(a), y = as<Floats>(b);
    if (predicate != _CMP_NGE_UQ && predicate != _CMP_UNORD_Q)
        __builtin_trap();
    unsigned mask = 0;
    for (int i = 0; i < 16; ++i) {
        const bool holds = predicate == _CMP_NGE_UQ ? !(x.v[i] >= y.v[i]) : std::isunordered(x.v[i], y.v[i]);
        mask |= static_cast<unsigned>(holds) << i;
    }
    return static_cast<uint16_t>(mask);
}
// a * 2^floor(b)
inline __m512 scalef_ps(__m512 a, __m512 b) {
    return each(a, b, [](float x, float y) { return std::scalbn(x, static_cast<int>(std::floor(y))); });
}
// Control 3, which is all that is used: towards zero, to integers.
inline __m512 roundscale_ps(__m512 a, int) {
    return each(a, a, [](float x, float) { return std::trunc(x); });
}
inline __m512i cvttps_epi32(__m512 a) {
    const Floats x = as<Floats>(a);
    Words y;
    for (int i = 0; i < 16; ++i)
        y.v[i] = x.v[i] >= -0x1p31f && x.v[i] < 0x1p31f ? static_cast<uint32_t>(static_cast<int32_t>(x.v[i]))
                                                        : 0x80000000u;
    return as<__m512i>(y);
}
template <class From, class Register>
__m512i widened(Register a) {
    From x[16];
    static_assert(sizeof x == sizeof a);
    std::memcpy(x, &a, sizeof x);
    Lanes<int32_t> y;
    for (int i = 0; i < 16; ++i)
        y.v[i] = x[i];
    return as<__m512i>(y);
}
inline __m128i cvtepi32_epi8(__m512i a) {
    const Words x = as<Words>(a);
    uint8_t y[16];
    for (int i = 0; i < 16; ++i)
        y[i] = static_cast<uint8_t>(x.v[i]);
    __m128i bytes;
    std::memcpy(&bytes, y, sizeof bytes);
    return bytes;
}
inline uint16_t test_epi32_mask(__m512i a, __m512i b) {
    const Words x = as<Words>(a), y = as<Words>(b);
    unsigned mask = 0;
    for (unsigned i = 0; i < 16; ++i)
        mask |= (x.v[i] & y.v[i] ? 1u : 0u) << i;
    return static_cast<uint16_t>(mask);
}
inline __m512i maskz_loadu_epi32(uint16_t mask, const void* p) {
    Words x = {};
    for (unsigned i = 0; i < 16; ++i)
        if (mask >> i & 1)
            std::memcpy(&x.v[i], static_cast<const uint8_t*>(p) + 4 * i, 4);
    return as<__m512i>(x);
}
inline void mask_storeu_epi32(void* p, uint16_t mask, __m512i a) {
    const Words x = as<Words>(a);
    for (unsigned i = 0; i < 16; ++i)
        if (mask >> i & 1)
            std::memcpy(static_cast<uint8_t*>(p) + 4 * i, &x.v[i], 4);
}
// Bytes of two tables of 64, chosen by the low seven (six) bits of each byte.
inline __m512i permutex2var_epi8(__m512i a, __m512i chosen, __m512i b) {
    const Bytes low = as<Bytes>(a), high = as<Bytes>(b), from = as<Bytes>(chosen);
    Bytes result;
    for (int i = 0; i < 64; ++i)
        result.v[i] = (from.v[i] & 64 ? high : low).v[from.v[i] & 63];
    return as<__m512i>(result);
}
inline __m512i permutexvar_epi8(__m512i chosen, __m512i a) {
    return permutex2var_epi8(a, chosen, a);
}
inline __m512i permutexvar_epi32(__m512i chosen, __m512i a) {
    const Words from = as<Words>(chosen), words = as<Words>(a);
    Words result;
    for (int i = 0; i < 16; ++i)
        result.v[i] = words.v[from.v[i] & 15];
    return as<__m512i>(result);
}
// Saturated, and in each quarter first those of a, then those of b.
template <class From, class To>
__m512i packed(__m512i a, __m512i b) {
    const Lanes<From> x = as<Lanes<From>>(a), y = as<Lanes<From>>(b);
    constexpr int kEach = 16 / sizeof(From);  // of a quarter
    Lanes<To> result;
    for (int i = 0; i < Lanes<To>::kCount; ++i) {
        const int quarter = i / (2 * kEach), at = i % (2 * kEach);
        const From value = (at < kEach ? x : y).v[quarter * kEach + at % kEach];
        result.v[i] = static_cast<To>(
            std::clamp<From>(value, std::numeric_limits<To>::min(), std::numeric_limits<To>::max()));
    }
    return as<__m512i>(result);
}
inline __m512i loadu(const void* p) {
    Bytes x;
    std::memcpy(&x, p, sizeof x);
    return as<__m512i>(x);
}
inline void storeu(void* p, __m512i a) {
    std::memcpy(p, &a, sizeof a);
}
template <class Part, int part>
Part extracted(__m512i a) {
    Part result;
    std::memcpy(&result, reinterpret_cast<const uint8_t*>(&a) + sizeof(Part) * part, sizeof result);
    return result;
}
template <int part, class Part>
__m512i inserted(__m512i a, Part b) {
    std::memcpy(reinterpret_cast<uint8_t*>(&a) + sizeof(Part) * part, &b, sizeof b);
    return a;
}

}  // namespace emulated
}  // namespace

#define _mm512_min_ps emulated::min_ps
#define _mm512_max_ps emulated::max_ps
#define _mm512_range_ps emulated::range_ps
#define _mm512_abs_ps emulated::abs_ps
#define _mm512_fmadd_ps emulated::fmadd_ps
#define _mm512_fnmadd_ps emulated::fnmadd_ps
#define _mm512_cmp_ps_mask(a, b, predicate) emulated::cmp_ps_mask(a, b, predicate)
#define _mm512_scalef_ps emulated::scalef_ps
#define _mm512_roundscale_ps(a, control) emulated::roundscale_ps(a, control)
#define _mm512_cvttps_epi32 emulated::cvttps_epi32
#define _mm512_cvtepi8_epi32 emulated::widened<int8_t>
#define _mm512_cvtepi16_epi32 emulated::widened<int16_t>
#define _mm512_cvtepi32_epi8 emulated::cvtepi32_epi8
#define _mm512_test_epi32_mask emulated::test_epi32_mask
#define _mm512_maskz_loadu_epi32 emulated::maskz_loadu_epi32
#define _mm512_mask_storeu_epi32 emulated::mask_storeu_epi32
#define _mm512_permutex2var_epi8 emulated::permutex2var_epi8
#define _mm512_permutexvar_epi8 emulated::permutexvar_epi8
#define _mm512_permutexvar_epi32 emulated::permutexvar_epi32
#define _mm512_packs_epi32 emulated::packed<int32_t, int16_t>
#define _mm512_packs_epi16 emulated::packed<int16_t, int8_t>
#define _mm512_loadu_si512 emulated::loadu
#define _mm512_load_si512 emulated::loadu
#define _mm512_storeu_si512 emulated::storeu
#define _mm512_stream_si512 emulated::storeu
#define _mm512_castsi512_si128(a) (emulated::extracted<__m128i, 0>(a))
#define _mm512_castsi512_si256(a) (emulated::extracted<__m256i, 0>(a))
#define _mm512_castsi256_si512(a) (emulated::inserted<0>(__m512i{}, a))
#define _mm512_extracti32x4_epi32(a, part) (emulated::extracted<__m128i, part>(a))
#define _mm512_extracti64x4_epi64(a, part) (emulated::extracted<__m256i, part>(a))
#define _mm512_inserti64x4(a, b, part) (emulated::inserted<part>(a, b))
