// Lines on top of steps, for one direction. An instruction set provides the steps: 16 elements of a line, 8
// elements of a line, and a line of exactly 8. Everything here has internal linkage, because it is compiled
// once for each instruction set, and code for one processor must not stand in for another's.
//
// In a step, `planes` is the address of the first element in plane 0, L the distance from plane to plane, and
// `linear` the address of the first word. A step reads all its bytes before it writes any. Addresses are
// arbitrary, so every access is one of bytes, which promises no alignment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kelrt {
namespace {

// What the steps of a direction derive from: how far an element advances each side, and how far apart the
// four bytes of an element, or the four elements of a byte's plane, lie.
struct LinearFromHw32 {
    static constexpr size_t kDst = 4, kSrc = 1;
    static constexpr size_t dst_stride(size_t) { return 4; }
    static constexpr size_t src_stride(size_t L) { return L; }
    static void element(uint8_t* linear, const uint8_t* planes, size_t L) {
        for (size_t p = 0; p < 4; ++p)
            linear[p] = planes[p * L];
    }
};

struct Hw32FromLinear {
    static constexpr size_t kDst = 1, kSrc = 4;
    static constexpr size_t dst_stride(size_t L) { return L; }
    static constexpr size_t src_stride(size_t) { return 4; }
    static void element(uint8_t* planes, const uint8_t* linear, size_t L) {
        for (size_t p = 0; p < 4; ++p)
            planes[p * L] = linear[p];
    }
};

// 4 elements in either direction: a transposition of 4 x 4 bytes is its own inverse.
inline void step_4(uint8_t* dst, size_t dst_stride, const uint8_t* src, size_t src_stride) {
    constexpr uint32_t kEven = 0x00FF00FF, kOdd = 0xFF00FF00;
    uint32_t in[4];
    for (size_t i = 0; i < 4; ++i)
        std::memcpy(&in[i], src + i * src_stride, 4);
    const uint32_t even_01 = (in[0] & kEven) | (in[1] & kEven) << 8;
    const uint32_t even_23 = (in[2] & kEven) | (in[3] & kEven) << 8;
    const uint32_t odd_01 = (in[0] >> 8 & kEven) | (in[1] & kOdd);
    const uint32_t odd_23 = (in[2] >> 8 & kEven) | (in[3] & kOdd);
    const uint32_t out[4] = {
        (even_01 & 0xFFFF) | even_23 << 16,
        (odd_01 & 0xFFFF) | odd_23 << 16,
        even_01 >> 16 | (even_23 & 0xFFFF0000),
        odd_01 >> 16 | (odd_23 & 0xFFFF0000),
    };
    for (size_t i = 0; i < 4; ++i)
        std::memcpy(dst + i * dst_stride, &out[i], 4);
}

// Planes of this length and more end and begin again too often for hardware that prefetches streams, so the
// next line is fetched while this one is converted. What follows the last line may be fetched for nothing.
constexpr size_t kLongLine = 512;

// One line, apart from its source. The elements that whole steps leave over are covered by one more step that
// ends with the line and does some elements a second time.
template <class Steps>
inline void convert_line(uint8_t* dst, const uint8_t* src, size_t L) {
    size_t i = 0;
    if (L >= 8) {
        for (; i + 16 <= L; i += 16) {
            if (L >= kLongLine) {
                __builtin_prefetch(src + 4 * L + 4 * i);
                __builtin_prefetch(dst + 4 * L + 4 * i, 1);
            }
            Steps::step_16(dst + Steps::kDst * i, src + Steps::kSrc * i, L);
        }
        if (i + 8 <= L) {
            Steps::step_8(dst + Steps::kDst * i, src + Steps::kSrc * i, L);
            i += 8;
        }
        if (i < L)
            Steps::step_8(dst + Steps::kDst * (L - 8), src + Steps::kSrc * (L - 8), L);
    } else if (L >= 4) {
        step_4(dst, Steps::dst_stride(L), src, Steps::src_stride(L));
        step_4(dst + Steps::kDst * (L - 4), Steps::dst_stride(L), src + Steps::kSrc * (L - 4),
               Steps::src_stride(L));
    } else {
        for (; i < L; ++i)
            Steps::element(dst + Steps::kDst * i, src + Steps::kSrc * i, L);
    }
}

// Whole lines, one after another, apart from their sources; lines of 1, 8 and 16 elements also in place.
template <class Steps>
void convert_lines(uint8_t* dst, const uint8_t* src, size_t L, size_t lines) {
    if (L == 1) {
        std::memmove(dst, src, 4 * lines);  // both layouts of one element are the same
    } else if (L == 8) {
        size_t c = 0;
        for (; c + 4 <= lines; c += 4) {  // a loop of one line spends half its time on looping
            Steps::line_8(dst + 32 * c, src + 32 * c);
            Steps::line_8(dst + 32 * c + 32, src + 32 * c + 32);
            Steps::line_8(dst + 32 * c + 64, src + 32 * c + 64);
            Steps::line_8(dst + 32 * c + 96, src + 32 * c + 96);
        }
        for (; c < lines; ++c)
            Steps::line_8(dst + 32 * c, src + 32 * c);
    } else if (L == 16) {
        for (size_t c = 0; c < lines; ++c)
            Steps::step_16(dst + 64 * c, src + 64 * c, 16);
    } else {
        for (size_t c = 0; c < lines; ++c)
            convert_line<Steps>(dst + 4 * L * c, src + 4 * L * c, L);
    }
}

}  // namespace
}  // namespace kelrt
