// The shuffles: three steps for each direction, which are the only code that knows the instruction set, and
// above them lines, lines in place, and whole buffers.
#include "hw32_shuffle.h"

#include <algorithm>
#include <cstring>

#if defined(KELRT_LANES_PORTABLE)
#define KEL_STEPS_PORTABLE
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#else
#define KEL_STEPS_PORTABLE
#endif

namespace kelrt {
namespace {

// The steps: 16 elements of a line, 8 elements of a line, and a line of exactly 8. `planes` is the address of
// the first element in plane 0 and L the distance from plane to plane; `linear` is the address of the first
// word. A step reads all its bytes before it writes any. Addresses are arbitrary, so every access is one of
// bytes, which promises no alignment.

#if defined(KEL_STEPS_PORTABLE)

template <size_t count>
void step_to_linear(uint8_t* linear, const uint8_t* planes, size_t L) {
    uint8_t words[4 * count];
    for (size_t i = 0; i < count; ++i) {
        for (size_t p = 0; p < 4; ++p)
            words[4 * i + p] = planes[p * L + i];
    }
    std::memcpy(linear, words, sizeof words);
}

template <size_t count>
void step_to_hw32(uint8_t* planes, const uint8_t* linear, size_t L) {
    uint8_t bytes[4][count];
    for (size_t i = 0; i < count; ++i) {
        for (size_t p = 0; p < 4; ++p)
            bytes[p][i] = linear[4 * i + p];
    }
    for (size_t p = 0; p < 4; ++p)
        std::memcpy(planes + p * L, bytes[p], count);
}

void to_linear_16(uint8_t* linear, const uint8_t* planes, size_t L) {
    step_to_linear<16>(linear, planes, L);
}
void to_linear_8(uint8_t* linear, const uint8_t* planes, size_t L) {
    step_to_linear<8>(linear, planes, L);
}
void to_hw32_16(uint8_t* planes, const uint8_t* linear, size_t L) {
    step_to_hw32<16>(planes, linear, L);
}
void to_hw32_8(uint8_t* planes, const uint8_t* linear, size_t L) {
    step_to_hw32<8>(planes, linear, L);
}
void to_linear_line_8(uint8_t* linear, const uint8_t* planes) {
    step_to_linear<8>(linear, planes, 8);
}
void to_hw32_line_8(uint8_t* planes, const uint8_t* linear) {
    step_to_hw32<8>(planes, linear, 8);
}

#elif defined(__ARM_NEON)

// The interleaving loads and stores are the shuffle.

inline void to_linear_16(uint8_t* linear, const uint8_t* planes, size_t L) {
    const uint8x16x4_t bytes = {
        {vld1q_u8(planes), vld1q_u8(planes + L), vld1q_u8(planes + 2 * L), vld1q_u8(planes + 3 * L)}};
    vst4q_u8(linear, bytes);
}

inline void to_linear_8(uint8_t* linear, const uint8_t* planes, size_t L) {
    const uint8x8x4_t bytes = {
        {vld1_u8(planes), vld1_u8(planes + L), vld1_u8(planes + 2 * L), vld1_u8(planes + 3 * L)}};
    vst4_u8(linear, bytes);
}

inline void to_hw32_16(uint8_t* planes, const uint8_t* linear, size_t L) {
    const uint8x16x4_t bytes = vld4q_u8(linear);
    vst1q_u8(planes, bytes.val[0]);
    vst1q_u8(planes + L, bytes.val[1]);
    vst1q_u8(planes + 2 * L, bytes.val[2]);
    vst1q_u8(planes + 3 * L, bytes.val[3]);
}

inline void to_hw32_8(uint8_t* planes, const uint8_t* linear, size_t L) {
    const uint8x8x4_t bytes = vld4_u8(linear);
    vst1_u8(planes, bytes.val[0]);
    vst1_u8(planes + L, bytes.val[1]);
    vst1_u8(planes + 2 * L, bytes.val[2]);
    vst1_u8(planes + 3 * L, bytes.val[3]);
}

inline void to_linear_line_8(uint8_t* linear, const uint8_t* planes) {
    const uint8x16_t p01 = vld1q_u8(planes), p23 = vld1q_u8(planes + 16);
    const uint8x8x4_t bytes = {{vget_low_u8(p01), vget_high_u8(p01), vget_low_u8(p23), vget_high_u8(p23)}};
    vst4_u8(linear, bytes);
}

inline void to_hw32_line_8(uint8_t* planes, const uint8_t* linear) {
    const uint8x8x4_t bytes = vld4_u8(linear);
    vst1q_u8(planes, vcombine_u8(bytes.val[0], bytes.val[1]));
    vst1q_u8(planes + 16, vcombine_u8(bytes.val[2], bytes.val[3]));
}

#else  // SSE2

inline __m128i load_16(const uint8_t* from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(from));
}
inline void store_16(uint8_t* to, __m128i bytes) {
    _mm_storeu_si128(reinterpret_cast<__m128i_u*>(to), bytes);
}

// Two 8-byte halves, from and to two places.
inline __m128i load_8_8(const uint8_t* low, const uint8_t* high) {
    int64_t halves[2];
    std::memcpy(&halves[0], low, 8);
    std::memcpy(&halves[1], high, 8);
    return _mm_set_epi64x(halves[1], halves[0]);
}
inline void store_8_8(uint8_t* low, uint8_t* high, __m128i bytes) {
    _mm_storel_epi64(reinterpret_cast<__m128i_u*>(low), bytes);
    _mm_storel_epi64(reinterpret_cast<__m128i_u*>(high), _mm_unpackhi_epi64(bytes, bytes));
}

// The even-numbered bytes of a then b, and the odd-numbered ones.
inline __m128i even_bytes(__m128i a, __m128i b) {
    const __m128i low_half = _mm_set1_epi16(0x00FF);
    return _mm_packus_epi16(_mm_and_si128(a, low_half), _mm_and_si128(b, low_half));
}
inline __m128i odd_bytes(__m128i a, __m128i b) {
    return _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8));
}

inline void to_linear_16(uint8_t* linear, const uint8_t* planes, size_t L) {
    const __m128i p0 = load_16(planes), p1 = load_16(planes + L);
    const __m128i p2 = load_16(planes + 2 * L), p3 = load_16(planes + 3 * L);
    const __m128i low_01 = _mm_unpacklo_epi8(p0, p1), low_23 = _mm_unpacklo_epi8(p2, p3);
    const __m128i high_01 = _mm_unpackhi_epi8(p0, p1), high_23 = _mm_unpackhi_epi8(p2, p3);
    store_16(linear, _mm_unpacklo_epi16(low_01, low_23));
    store_16(linear + 16, _mm_unpackhi_epi16(low_01, low_23));
    store_16(linear + 32, _mm_unpacklo_epi16(high_01, high_23));
    store_16(linear + 48, _mm_unpackhi_epi16(high_01, high_23));
}

inline void store_8_words(uint8_t* linear, __m128i p01, __m128i p23) {
    const __m128i p02 = _mm_unpacklo_epi8(p01, p23), p13 = _mm_unpackhi_epi8(p01, p23);
    store_16(linear, _mm_unpacklo_epi8(p02, p13));
    store_16(linear + 16, _mm_unpackhi_epi8(p02, p13));
}

inline void to_linear_8(uint8_t* linear, const uint8_t* planes, size_t L) {
    store_8_words(linear, load_8_8(planes, planes + L), load_8_8(planes + 2 * L, planes + 3 * L));
}

inline void to_linear_line_8(uint8_t* linear, const uint8_t* planes) {
    store_8_words(linear, load_16(planes), load_16(planes + 16));
}

inline void to_hw32_16(uint8_t* planes, const uint8_t* linear, size_t L) {
    const __m128i w0 = load_16(linear), w1 = load_16(linear + 16);
    const __m128i w2 = load_16(linear + 32), w3 = load_16(linear + 48);
    const __m128i low_02 = even_bytes(w0, w1), high_02 = even_bytes(w2, w3);
    const __m128i low_13 = odd_bytes(w0, w1), high_13 = odd_bytes(w2, w3);
    store_16(planes, even_bytes(low_02, high_02));
    store_16(planes + L, even_bytes(low_13, high_13));
    store_16(planes + 2 * L, odd_bytes(low_02, high_02));
    store_16(planes + 3 * L, odd_bytes(low_13, high_13));
}

struct Planes8 {
    __m128i p01, p23;
};
inline Planes8 planes_of_8_words(const uint8_t* linear) {
    const __m128i w0 = load_16(linear), w1 = load_16(linear + 16);
    const __m128i p02 = even_bytes(w0, w1), p13 = odd_bytes(w0, w1);
    return {even_bytes(p02, p13), odd_bytes(p02, p13)};
}

inline void to_hw32_8(uint8_t* planes, const uint8_t* linear, size_t L) {
    const Planes8 bytes = planes_of_8_words(linear);
    store_8_8(planes, planes + L, bytes.p01);
    store_8_8(planes + 2 * L, planes + 3 * L, bytes.p23);
}

inline void to_hw32_line_8(uint8_t* planes, const uint8_t* linear) {
    const Planes8 bytes = planes_of_8_words(linear);
    store_16(planes, bytes.p01);
    store_16(planes + 16, bytes.p23);
}

#endif

// The two directions: how many bytes an element advances each side, and what runs at its place.

struct ToLinear {
    static constexpr size_t kDst = 4, kSrc = 1;
    static void step_16(uint8_t* dst, const uint8_t* src, size_t L) { to_linear_16(dst, src, L); }
    static void step_8(uint8_t* dst, const uint8_t* src, size_t L) { to_linear_8(dst, src, L); }
    static void line_8(uint8_t* dst, const uint8_t* src) { to_linear_line_8(dst, src); }
    static void element(uint8_t* dst, const uint8_t* src, size_t L) {
        for (size_t p = 0; p < 4; ++p)
            dst[p] = src[p * L];
    }
};

struct ToHw32 {
    static constexpr size_t kDst = 1, kSrc = 4;
    static void step_16(uint8_t* dst, const uint8_t* src, size_t L) { to_hw32_16(dst, src, L); }
    static void step_8(uint8_t* dst, const uint8_t* src, size_t L) { to_hw32_8(dst, src, L); }
    static void line_8(uint8_t* dst, const uint8_t* src) { to_hw32_line_8(dst, src); }
    static void element(uint8_t* dst, const uint8_t* src, size_t L) {
        for (size_t p = 0; p < 4; ++p)
            dst[p * L] = src[p];
    }
};

// One line, apart from its source. The elements that whole steps leave over are covered by one more step of 8
// that ends with the line and does some of them a second time; only a line of fewer than 8 goes by elements.
template <class To>
inline void convert_line(uint8_t* dst, const uint8_t* src, size_t L) {
    size_t i = 0;
    for (; i + 16 <= L; i += 16)
        To::step_16(dst + To::kDst * i, src + To::kSrc * i, L);
    for (; i + 8 <= L; i += 8)
        To::step_8(dst + To::kDst * i, src + To::kSrc * i, L);
    if (i < L && L >= 8) {
        To::step_8(dst + To::kDst * (L - 8), src + To::kSrc * (L - 8), L);
        return;
    }
    for (; i < L; ++i)
        To::element(dst + To::kDst * i, src + To::kSrc * i, L);
}

// Elements of a line that are converted in place through the stack.
constexpr size_t kScratchElements = 4096;

// Its own frame, so that the recursion below does not hold one scratch area a level.
template <class To>
[[gnu::noinline]] void convert_in_place_through_stack(uint8_t* line, size_t L) {
    uint8_t scratch[4 * kScratchElements];
    convert_line<To>(scratch, line, L);
    std::memcpy(line, scratch, 4 * L);
}

// From two lines of a and b elements, planes A0 A1 A2 A3 B0 B1 B2 B3, to one of a + b: A0 B0 A1 B1 A2 B2 A3
// B3.
void join_planes(uint8_t* planes, size_t a, size_t b) {
    for (size_t p = 0; p < 3; ++p) {
        uint8_t* const after_a = planes + p * (a + b) + a;  // A(p+1) .. A3, then B(p)
        std::rotate(after_a, after_a + (3 - p) * a, after_a + (3 - p) * a + b);
    }
}

void part_planes(uint8_t* planes, size_t a, size_t b) {
    for (size_t p = 3; p-- > 0;) {
        uint8_t* const after_a = planes + p * (a + b) + a;
        std::rotate(after_a, after_a + b, after_a + b + (3 - p) * a);
    }
}

// A line in place. Neither a stack nor a heap can be trusted to hold a copy of any line, and nobody could be
// told: a long line is converted by halves, whose planes are joined (or were parted) by rotation. That costs
// a pass over the line for each halving.
void convert_in_place(ToHw32 to, uint8_t* line, size_t L);
void convert_in_place(ToLinear to, uint8_t* line, size_t L);

void convert_in_place(ToHw32 to, uint8_t* line, size_t L) {
    if (L <= kScratchElements)
        return convert_in_place_through_stack<ToHw32>(line, L);
    const size_t half = L / 2;
    convert_in_place(to, line, half);
    convert_in_place(to, line + 4 * half, L - half);
    join_planes(line, half, L - half);
}

void convert_in_place(ToLinear to, uint8_t* line, size_t L) {
    if (L <= kScratchElements)
        return convert_in_place_through_stack<ToLinear>(line, L);
    const size_t half = L / 2;
    part_planes(line, half, L - half);
    convert_in_place(to, line, half);
    convert_in_place(to, line + 4 * half, L - half);
}

bool disjoint(const uint8_t* a, const uint8_t* b, size_t bytes) {
    const auto x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
    return (x < y ? y - x : x - y) >= bytes;
}

template <class To>
void convert_lines(uint8_t* dst, const uint8_t* src, size_t L, size_t lines) {
    const size_t bytes = 4 * L;
    if (L == 8 && (dst == src || disjoint(dst, src, bytes * lines))) {
        for (size_t c = 0; c < lines; ++c)
            To::line_8(dst + 32 * c, src + 32 * c);
        return;
    }
    if (disjoint(dst, src, bytes * lines)) {
        for (size_t c = 0; c < lines; ++c)
            convert_line<To>(dst + bytes * c, src + bytes * c, L);
        return;
    }
    for (size_t c = 0; c < lines; ++c) {
        std::memmove(dst + bytes * c, src + bytes * c, bytes);
        convert_in_place(To{}, dst + bytes * c, L);
    }
}

}  // namespace

void hw32_to_linear(uint8_t* linear, const uint8_t* planes, size_t L, size_t lines) {
    convert_lines<ToLinear>(linear, planes, L, lines);
}

void linear_to_hw32(uint8_t* planes, const uint8_t* linear, size_t L, size_t lines) {
    convert_lines<ToHw32>(planes, linear, L, lines);
}

void convert_lin_hw(uint8_t* dst, const uint8_t* src, uint32_t L) {
    linear_to_hw32(dst, src, L, 1);
}

}  // namespace kelrt
