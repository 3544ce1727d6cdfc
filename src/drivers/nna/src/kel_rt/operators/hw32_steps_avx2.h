// The steps of hw32_lines.h in 32-byte registers. Every step is built from eight elements at a time: a byte
// transposition within 16-byte halves, and a permutation of 4-byte groups across them.
#pragma once

#include <immintrin.h>

#include <array>

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

// Lines of 2 to 7 elements, by groups of 20 to 32 bytes: any byte of such a group lies in its first or its
// last
// 16. Where each byte of the converted group's first and last 16 comes from, for either of these; 0x80 is
// nowhere.
constexpr size_t kShortest = 2, kLongest = 7;
constexpr size_t group_bytes(size_t L) {
    return 8 / L * 4 * L;
}
struct Order {
    alignas(32) uint8_t from_first[32], from_last[32];
};
template <class Direction>
constexpr auto orders() {
    std::array<Order, kLongest + 1> result = {};
    for (size_t L = kShortest; L <= kLongest; ++L) {
        const size_t last = group_bytes(L) - 16;
        for (size_t i = 0; i < 32; ++i) {
            const size_t at = source_in_lines<Direction>(i < 16 ? i : last + i - 16, L);
            result[L].from_first[i] = at < 16 ? static_cast<uint8_t>(at) : 0x80;
            result[L].from_last[i] = at < 16 ? 0x80 : static_cast<uint8_t>(at - last);
        }
    }
    return result;
}
template <class Direction>
constexpr auto kOrders = orders<Direction>();

template <class Direction>
size_t short_groups(uint8_t* dst, const uint8_t* src, size_t L, size_t lines) {
    const size_t groups = lines / (8 / L), last = group_bytes(L) - 16;
    const __m256i from_first = load_32(kOrders<Direction>[L].from_first);
    const __m256i from_last = load_32(kOrders<Direction>[L].from_last);
    for (size_t group = 0; group < groups; ++group, dst += last + 16, src += last + 16) {
        const __m256i first_16 = _mm256_broadcastsi128_si256(load_16(src));
        const __m256i last_16 = _mm256_broadcastsi128_si256(load_16(src + last));
        const __m256i bytes = _mm256_or_si256(_mm256_shuffle_epi8(first_16, from_first),
                                              _mm256_shuffle_epi8(last_16, from_last));
        store_16(dst, _mm256_castsi256_si128(bytes));
        store_16(dst + last, _mm256_extracti128_si256(bytes, 1));
    }
    return groups * (8 / L);
}

// How many lines, from the first on, have been converted by groups.
template <class Steps>
size_t convert_groups(uint8_t* dst, const uint8_t* src, size_t L, size_t lines) {
    if (L <= kLongest)
        return short_groups<Steps>(dst, src, L, lines);
    if (L != 16)
        return 0;
    for (size_t c = 0; c + 2 <= lines; c += 2, dst += 128, src += 128)
        Steps::lines_16_16(dst, src);
    return lines / 2 * 2;
}

struct ToLinearBy32 : LinearFromHw32 {
    static constexpr auto groups = convert_groups<ToLinearBy32>;

    static void step_32(uint8_t* linear, const uint8_t* planes, size_t L) {
        store_words(linear, load_32(planes), load_32(planes + L), load_32(planes + 2 * L),
                    load_32(planes + 3 * L));
    }
    static void lines_16_16(uint8_t* linear, const uint8_t* planes) {
        const auto plane = [=](size_t at) { return join(load_16(planes + at), load_16(planes + at + 64)); };
        store_words(linear, plane(0), plane(16), plane(32), plane(48));
    }
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

  private:
    // 32 elements; bytes, then pairs of them are interleaved, which stays within halves.
    static void store_words(uint8_t* linear, __m256i p0, __m256i p1, __m256i p2, __m256i p3) {
        const __m256i low_01 = _mm256_unpacklo_epi8(p0, p1), low_23 = _mm256_unpacklo_epi8(p2, p3);
        const __m256i high_01 = _mm256_unpackhi_epi8(p0, p1), high_23 = _mm256_unpackhi_epi8(p2, p3);
        const __m256i w0 = _mm256_unpacklo_epi16(low_01, low_23), w4 = _mm256_unpackhi_epi16(low_01, low_23);
        const __m256i w8 = _mm256_unpacklo_epi16(high_01, high_23),
                      w12 = _mm256_unpackhi_epi16(high_01, high_23);
        store_32(linear, _mm256_permute2x128_si256(w0, w4, 0x20));
        store_32(linear + 32, _mm256_permute2x128_si256(w8, w12, 0x20));
        store_32(linear + 64, _mm256_permute2x128_si256(w0, w4, 0x31));
        store_32(linear + 96, _mm256_permute2x128_si256(w8, w12, 0x31));
    }
};

struct ToHw32By32 : Hw32FromLinear {
    static constexpr auto groups = convert_groups<ToHw32By32>;

    static void step_32(uint8_t* planes, const uint8_t* linear, size_t L) {
        const Planes p = planes_of_32(linear);
        store_32(planes, p.p0);
        store_32(planes + L, p.p1);
        store_32(planes + 2 * L, p.p2);
        store_32(planes + 3 * L, p.p3);
    }
    static void lines_16_16(uint8_t* planes, const uint8_t* linear) {
        const Planes p = planes_of_32(linear);
        const auto store_halves = [=](size_t at, __m256i plane) {
            store_16(planes + at, _mm256_castsi256_si128(plane));
            store_16(planes + at + 64, _mm256_extracti128_si256(plane, 1));
        };
        store_halves(0, p.p0), store_halves(16, p.p1), store_halves(32, p.p2), store_halves(48, p.p3);
    }
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

  private:
    struct Planes {
        __m256i p0, p1, p2, p3;
    };
    // Of 32 elements; those 16 apart share a register, so that no byte has to leave its half.
    static Planes planes_of_32(const uint8_t* linear) {
        const auto four_and_four = [=](size_t at) {
            return transpose_halves(join(load_16(linear + at), load_16(linear + at + 64)));
        };
        const __m256i q0 = four_and_four(0), q1 = four_and_four(16), q2 = four_and_four(32),
                      q3 = four_and_four(48);
        const __m256i low_01 = _mm256_unpacklo_epi32(q0, q1), high_01 = _mm256_unpackhi_epi32(q0, q1);
        const __m256i low_23 = _mm256_unpacklo_epi32(q2, q3), high_23 = _mm256_unpackhi_epi32(q2, q3);
        return {_mm256_unpacklo_epi64(low_01, low_23), _mm256_unpackhi_epi64(low_01, low_23),
                _mm256_unpacklo_epi64(high_01, high_23), _mm256_unpackhi_epi64(high_01, high_23)};
    }
};

}  // namespace
}  // namespace kelrt
