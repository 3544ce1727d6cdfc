// The steps of NEON, SSE2 and plain C++, and what is the same for all:
// lines in place, and buffers that overlap.
#include "hw32_shuffle.h"

#include <algorithm>
#include <cstring>

#include "hw32_lines.h"

#if defined(KELRT_LANES_PORTABLE)
#define KEL_STEPS_PORTABLE
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#elif defined(__AVX512VBMI__)
#include "hw32_steps_avx512.h"
#elif defined(__AVX2__)
#include "hw32_steps_avx2.h"
#elif defined(__SSE2__)
#include <emmintrin.h>
#else
#define KEL_STEPS_PORTABLE
#endif

namespace kelrt::KELRT_SET {
namespace {

#if defined(KEL_STEPS_PORTABLE)

struct ToLinear : LinearFromHw32 {
    template <size_t count>
    static void step(uint8_t* linear, const uint8_t* planes, size_t L) {
        uint8_t words[4 * count];
        for (size_t i = 0; i < count; ++i)
            step_1(words + 4 * i, planes + i, L);
        std::memcpy(linear, words, sizeof words);
    }
    static constexpr auto step_16 = step<16>;
    static constexpr auto step_8 = step<8>;
    static void line_8(uint8_t* linear, const uint8_t* planes) { step<8>(linear, planes, 8); }
};

struct ToHw32 : Hw32FromLinear {
    template <size_t count>
    static void step(uint8_t* planes, const uint8_t* linear, size_t L) {
        uint8_t bytes[4 * count];
        for (size_t i = 0; i < count; ++i)
            step_1(bytes + i, linear + 4 * i, count);
        for (size_t p = 0; p < 4; ++p)
            std::memcpy(planes + p * L, bytes + p * count, count);
    }
    static constexpr auto step_16 = step<16>;
    static constexpr auto step_8 = step<8>;
    static void line_8(uint8_t* planes, const uint8_t* linear) { step<8>(planes, linear, 8); }
};

#elif defined(__ARM_NEON)

// The interleaving loads and stores are the shuffle. (Some compilers have them as macros: no braces inside.)

struct ToLinear : LinearFromHw32 {
    static void step_16(uint8_t* linear, const uint8_t* planes, size_t L) {
        uint8x16x4_t bytes;
        bytes.val[0] = vld1q_u8(planes);
        bytes.val[1] = vld1q_u8(planes + L);
        bytes.val[2] = vld1q_u8(planes + 2 * L);
        bytes.val[3] = vld1q_u8(planes + 3 * L);
        vst4q_u8(linear, bytes);
    }
    static void step_8(uint8_t* linear, const uint8_t* planes, size_t L) {
        uint8x8x4_t bytes;
        bytes.val[0] = vld1_u8(planes);
        bytes.val[1] = vld1_u8(planes + L);
        bytes.val[2] = vld1_u8(planes + 2 * L);
        bytes.val[3] = vld1_u8(planes + 3 * L);
        vst4_u8(linear, bytes);
    }
    static void line_8(uint8_t* linear, const uint8_t* planes) { step_8(linear, planes, 8); }
};

struct ToHw32 : Hw32FromLinear {
    static void step_16(uint8_t* planes, const uint8_t* linear, size_t L) {
        const uint8x16x4_t bytes = vld4q_u8(linear);
        vst1q_u8(planes, bytes.val[0]);
        vst1q_u8(planes + L, bytes.val[1]);
        vst1q_u8(planes + 2 * L, bytes.val[2]);
        vst1q_u8(planes + 3 * L, bytes.val[3]);
    }
    static void step_8(uint8_t* planes, const uint8_t* linear, size_t L) {
        const uint8x8x4_t bytes = vld4_u8(linear);
        vst1_u8(planes, bytes.val[0]);
        vst1_u8(planes + L, bytes.val[1]);
        vst1_u8(planes + 2 * L, bytes.val[2]);
        vst1_u8(planes + 3 * L, bytes.val[3]);
    }
    static void line_8(uint8_t* planes, const uint8_t* linear) {
        const uint8x8x4_t bytes = vld4_u8(linear);
        vst1q_u8(planes, vcombine_u8(bytes.val[0], bytes.val[1]));
        vst1q_u8(planes + 16, vcombine_u8(bytes.val[2], bytes.val[3]));
    }
};

#elif defined(__AVX512VBMI__)

using ToLinear = ToLinearBy64;
using ToHw32 = ToHw32By64;

#elif defined(__AVX2__)

using ToLinear = ToLinearBy32;
using ToHw32 = ToHw32By32;

#else  // SSE2

inline __m128i load_16(const uint8_t* from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(from));
}
inline void store_16(uint8_t* to, __m128i bytes) {
    _mm_storeu_si128(reinterpret_cast<__m128i_u*>(to), bytes);
}

// Two 8-byte halves, from and to two places.
inline __m128i load_8_8(const uint8_t* low, const uint8_t* high) {
    return _mm_unpacklo_epi64(_mm_loadu_si64(low), _mm_loadu_si64(high));
}
inline void store_8_8(uint8_t* low, uint8_t* high, __m128i bytes) {
    _mm_storeu_si64(low, bytes);
    _mm_storeu_si64(high, _mm_unpackhi_epi64(bytes, bytes));
}

struct ToLinear : LinearFromHw32 {
    static void step_16(uint8_t* linear, const uint8_t* planes, size_t L) {
        const __m128i p0 = load_16(planes), p1 = load_16(planes + L);
        const __m128i p2 = load_16(planes + 2 * L), p3 = load_16(planes + 3 * L);
        const __m128i low_01 = _mm_unpacklo_epi8(p0, p1), low_23 = _mm_unpacklo_epi8(p2, p3);
        const __m128i high_01 = _mm_unpackhi_epi8(p0, p1), high_23 = _mm_unpackhi_epi8(p2, p3);
        store_16(linear, _mm_unpacklo_epi16(low_01, low_23));
        store_16(linear + 16, _mm_unpackhi_epi16(low_01, low_23));
        store_16(linear + 32, _mm_unpacklo_epi16(high_01, high_23));
        store_16(linear + 48, _mm_unpackhi_epi16(high_01, high_23));
    }
    static void step_8(uint8_t* linear, const uint8_t* planes, size_t L) {
        store_words(linear, load_8_8(planes, planes + L), load_8_8(planes + 2 * L, planes + 3 * L));
    }
    static void line_8(uint8_t* linear, const uint8_t* planes) {
        store_words(linear, load_16(planes), load_16(planes + 16));
    }

  private:
    static void store_words(uint8_t* linear, __m128i p01, __m128i p23) {
        const __m128i p02 = _mm_unpacklo_epi8(p01, p23), p13 = _mm_unpackhi_epi8(p01, p23);
        store_16(linear, _mm_unpacklo_epi8(p02, p13));
        store_16(linear + 16, _mm_unpackhi_epi8(p02, p13));
    }
};

struct ToHw32 : Hw32FromLinear {
    static void step_16(uint8_t* planes, const uint8_t* linear, size_t L) {
        const Planes low = planes_of_8(linear), high = planes_of_8(linear + 32);
        store_16(planes, _mm_unpacklo_epi64(low.p01, high.p01));
        store_16(planes + L, _mm_unpackhi_epi64(low.p01, high.p01));
        store_16(planes + 2 * L, _mm_unpacklo_epi64(low.p23, high.p23));
        store_16(planes + 3 * L, _mm_unpackhi_epi64(low.p23, high.p23));
    }
    static void step_8(uint8_t* planes, const uint8_t* linear, size_t L) {
        const Planes bytes = planes_of_8(linear);
        store_8_8(planes, planes + L, bytes.p01);
        store_8_8(planes + 2 * L, planes + 3 * L, bytes.p23);
    }
    static void line_8(uint8_t* planes, const uint8_t* linear) {
        const Planes bytes = planes_of_8(linear);
        store_16(planes, bytes.p01);
        store_16(planes + 16, bytes.p23);
    }

  private:
    struct Planes {
        __m128i p01, p23;
    };
    // Three rounds of interleaving what lies four, then two, then one element apart.
    static Planes planes_of_8(const uint8_t* linear) {
        const __m128i w0 = load_16(linear), w1 = load_16(linear + 16);
        const __m128i a0 = _mm_unpacklo_epi8(w0, w1), a1 = _mm_unpackhi_epi8(w0, w1);
        const __m128i b0 = _mm_unpacklo_epi8(a0, a1), b1 = _mm_unpackhi_epi8(a0, a1);
        return {_mm_unpacklo_epi8(b0, b1), _mm_unpackhi_epi8(b0, b1)};
    }
};

#endif

using Convert = void (*)(uint8_t* dst, const uint8_t* src, size_t L, size_t lines);

// Lines in place. Neither a stack nor a heap can be trusted to hold a copy of any line, and nobody could be
// told. Up to kScratch elements go through the stack; a longer line is converted by halves, whose planes are
// joined (or were parted) by rotation, at the cost of a pass or two for each halving.

constexpr size_t kScratch = 4096;

// Its own frame, so that recursion does not hold one scratch area a level.
[[gnu::noinline]] void convert_through_stack(Convert convert, uint8_t* area, size_t L, size_t lines) {
    uint8_t scratch[4 * kScratch];
    convert(scratch, area, L, lines);
    std::memcpy(area, scratch, 4 * L * lines);
}

// Exchanges two neighbouring blocks of `left` and `right` bytes.
void rotate(uint8_t* first, size_t left, size_t right) {
    while (left > kScratch && right > kScratch) {
        // The shorter block takes its final place; what it pushed out remains to be exchanged.
        if (left <= right) {
            std::swap_ranges(first, first + left, first + right);
            right -= left;
        } else {
            std::swap_ranges(first, first + right, first + left);
            first += right;
            left -= right;
        }
    }
    uint8_t scratch[kScratch];
    if (left <= right) {
        std::memcpy(scratch, first, left);
        std::memmove(first, first + left, right);
        std::memcpy(first + right, scratch, left);
    } else {
        std::memcpy(scratch, first + left, right);
        std::memmove(first + right, first, left);
        std::memcpy(first, scratch, right);
    }
}

void to_hw32_in_place(Convert convert, uint8_t* line, size_t L) {
    if (L <= kScratch)
        return convert_through_stack(convert, line, L, 1);
    const size_t a = L / 2, b = L - a;
    to_hw32_in_place(convert, line, a);
    to_hw32_in_place(convert, line + 4 * a, b);
    // A0 A1 A2 A3 B0 B1 B2 B3 becomes A0 B0 A1 B1 A2 B2 A3 B3.
    for (size_t p = 0; p < 3; ++p)
        rotate(line + p * L + a, (3 - p) * a, b);
}

void to_linear_in_place(Convert convert, uint8_t* line, size_t L) {
    if (L <= kScratch)
        return convert_through_stack(convert, line, L, 1);
    const size_t a = L / 2, b = L - a;
    for (size_t p = 3; p-- > 0;)
        rotate(line + p * L + a, b, (3 - p) * a);
    to_linear_in_place(convert, line, a);
    to_linear_in_place(convert, line + 4 * a, b);
}

bool apart(const uint8_t* a, const uint8_t* b, size_t bytes) {
    const auto x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
    return (x < y ? y - x : x - y) >= bytes;
}

template <void (*long_line_in_place)(Convert, uint8_t*, size_t)>
void convert_buffer(Convert convert, uint8_t* dst, const uint8_t* src, size_t L, size_t lines) {
    if (L == 0)
        return;
    const bool in_place = dst == src;
    if (apart(dst, src, 4 * L * lines) || (in_place && (L == 8 || L == 16)))
        return convert(dst, src, L, lines);
    const size_t at_once = in_place && L <= kScratch ? kScratch / L : 1;
    for (size_t c = 0; c < lines; c += at_once) {
        uint8_t* const line = dst + 4 * L * c;
        if (!in_place)
            std::memmove(line, src + 4 * L * c, 4 * L);
        if (L <= kScratch)
            convert_through_stack(convert, line, L, std::min(at_once, lines - c));
        else
            long_line_in_place(convert, line, L);
    }
}

}  // namespace

void hw32_to_linear(uint8_t* linear, const uint8_t* planes, size_t L, size_t lines) {
    convert_buffer<to_linear_in_place>(convert_lines<ToLinear>, linear, planes, L, lines);
}

void convert_lin_hw(uint8_t* planes, const uint8_t* linear, size_t L, size_t lines) {
    convert_buffer<to_hw32_in_place>(convert_lines<ToHw32>, planes, linear, L, lines);
}

}  // namespace kelrt::KELRT_SET
