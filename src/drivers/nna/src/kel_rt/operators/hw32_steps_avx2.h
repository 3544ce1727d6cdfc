// The steps of hw32_lines.h in 32-byte registers. Every step is built from eight elements at a time: a byte
// transposition within 16-byte halves, and a permutation of 4-byte groups across them.
#pragma once

#include <immintrin.h>

#include "hw32_lines.h"

namespace kelrt {
namespace {

inline __m128i load_16(const uint8_t* from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(from));
}
inline void store_16(uint8_t* to, __m128i bytes) {
    _mm_storeu_si128(reinterpret_cast<__m128i_u*>(to), bytes);
}
inline __m256i load_32(const uint8_t* from) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i_u*>(from));
}
inline void store_32(uint8_t* to, __m256i bytes) {
    _mm256_storeu_si256(reinterpret_cast<__m256i_u*>(to), bytes);
}
inline __m256i join(__m128i low, __m128i high) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
}

// 4 x 4 bytes within each half.
inline __m256i transpose_halves(__m256i bytes) {
    const __m256i order =
        _mm256_broadcastsi128_si256(_mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15));
    return _mm256_shuffle_epi8(bytes, order);
}

// Planes p0 p1 p2 p3 of eight elements to their words, and back.
inline __m256i words_of(__m256i planes) {
    return transpose_halves(_mm256_permutevar8x32_epi32(planes, _mm256_setr_epi32(0, 2, 4, 6, 1, 3, 5, 7)));
}
inline __m256i planes_of(__m256i words) {
    return _mm256_permutevar8x32_epi32(transpose_halves(words), _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

inline __m128i load_8_8(const uint8_t* low, const uint8_t* high) {
    return _mm_unpacklo_epi64(_mm_loadu_si64(low), _mm_loadu_si64(high));
}
inline void store_8_8(uint8_t* low, uint8_t* high, __m128i bytes) {
    _mm_storeu_si64(low, bytes);
    _mm_storeu_si64(high, _mm_unpackhi_epi64(bytes, bytes));
}

struct ToLinear : LinearFromHw32 {
    static void step_16(uint8_t* linear, const uint8_t* planes, size_t L) {
        const __m256i p02 = join(load_16(planes), load_16(planes + 2 * L));
        const __m256i p13 = join(load_16(planes + L), load_16(planes + 3 * L));
        store_32(linear, words_of(_mm256_unpacklo_epi64(p02, p13)));
        store_32(linear + 32, words_of(_mm256_unpackhi_epi64(p02, p13)));
    }
    static void step_8(uint8_t* linear, const uint8_t* planes, size_t L) {
        const __m128i p01 = load_8_8(planes, planes + L), p23 = load_8_8(planes + 2 * L, planes + 3 * L);
        store_32(linear, words_of(join(p01, p23)));
    }
    static void line_8(uint8_t* linear, const uint8_t* planes) {
        store_32(linear, words_of(load_32(planes)));
    }
};

struct ToHw32 : Hw32FromLinear {
    static void step_16(uint8_t* planes, const uint8_t* linear, size_t L) {
        const __m256i low = planes_of(load_32(linear)), high = planes_of(load_32(linear + 32));
        const __m256i p02 = _mm256_unpacklo_epi64(low, high), p13 = _mm256_unpackhi_epi64(low, high);
        store_16(planes, _mm256_castsi256_si128(p02));
        store_16(planes + L, _mm256_castsi256_si128(p13));
        store_16(planes + 2 * L, _mm256_extracti128_si256(p02, 1));
        store_16(planes + 3 * L, _mm256_extracti128_si256(p13, 1));
    }
    static void step_8(uint8_t* planes, const uint8_t* linear, size_t L) {
        const __m256i bytes = planes_of(load_32(linear));
        store_8_8(planes, planes + L, _mm256_castsi256_si128(bytes));
        store_8_8(planes + 2 * L, planes + 3 * L, _mm256_extracti128_si256(bytes, 1));
    }
    static void line_8(uint8_t* planes, const uint8_t* linear) {
        store_32(planes, planes_of(load_32(linear)));
    }
};

}  // namespace
}  // namespace kelrt
