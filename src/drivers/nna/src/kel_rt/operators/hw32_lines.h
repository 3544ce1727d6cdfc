// Lines on top of steps, for one direction. An instruction set provides the steps: 16 elements of a line, 8
// elements of a line, and a line of exactly 8; and, if it can, 32 elements, and several short lines at once.
// Everything here has internal linkage, because it is compiled once for each instruction set, and code for
// one processor must not stand in for another's.
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

// 4 elements in either direction: a transposition of 4 x 4 bytes is its own inverse.
inline void transpose_4(uint8_t* dst, size_t dst_stride, const uint8_t* src, size_t src_stride) {
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

// What the steps of a direction derive from: how far an element advances each side, which byte of a line
// becomes byte `at` of the converted one, and the steps that registers are no use for.
struct LinearFromHw32 {
    static constexpr size_t kDst = 4, kSrc = 1;
    static constexpr size_t source(size_t at, size_t L) { return at % 4 * L + at / 4; }
    static void step_4(uint8_t* linear, const uint8_t* planes, size_t L) {
        transpose_4(linear, 4, planes, L);
    }
    static void step_1(uint8_t* linear, const uint8_t* planes, size_t L) {
        for (size_t p = 0; p < 4; ++p)
            linear[p] = planes[p * L];
    }
};

struct Hw32FromLinear {
    static constexpr size_t kDst = 1, kSrc = 4;
    static constexpr size_t source(size_t at, size_t L) { return at % L * 4 + at / L; }
    static void step_4(uint8_t* planes, const uint8_t* linear, size_t L) {
        transpose_4(planes, L, linear, 4);
    }
    static void step_1(uint8_t* planes, const uint8_t* linear, size_t L) {
        for (size_t p = 0; p < 4; ++p)
            planes[p * L] = linear[p];
    }
};

// Which byte becomes byte `at`, of several lines one after another.
template <class Direction>
constexpr size_t source_in_lines(size_t at, size_t L) {
    return at / (4 * L) * (4 * L) + Direction::source(at % (4 * L), L);
}

// Planes of this length and more end and begin again too often for hardware that prefetches streams, so the
// next line is fetched while this one is converted. What follows the last line may be fetched for nothing.
constexpr size_t kLongLine = 512;

// Lines of at least `count` elements, by steps of as many. The last step ends with the line, and does some
// elements a second time.
template <class Direction, size_t count, void (*step)(uint8_t*, const uint8_t*, size_t)>
void lines_by(uint8_t* dst, const uint8_t* src, size_t L, size_t lines) {
    for (; lines > 0; --lines, dst += 4 * L, src += 4 * L) {
        const size_t last = L - count;
        for (size_t i = 0; i < last; i += count) {
            if (L >= kLongLine) {
                for (size_t k = 0; k < count; k += 16) {
                    __builtin_prefetch(src + 4 * (L + i + k));
                    __builtin_prefetch(dst + 4 * (L + i + k), 1);
                }
            }
            step(dst + Direction::kDst * i, src + Direction::kSrc * i, L);
        }
        step(dst + Direction::kDst * last, src + Direction::kSrc * last, L);
    }
}

// Whole lines, one after another, apart from their sources; lines of 1, 8 and 16 elements also in place.
template <class Steps>
void convert_lines(uint8_t* dst, const uint8_t* src, size_t L, size_t lines) {
    if (L == 1) {
        std::memmove(dst, src, 4 * lines);  // both layouts of one element are the same
        return;
    }
    if constexpr (requires { Steps::groups; }) {
        const size_t done = Steps::groups(dst, src, L, lines);
        dst += 4 * L * done, src += 4 * L * done, lines -= done;
    }
    if (L == 8) {
        for (; lines >= 4; lines -= 4, dst += 128, src += 128)  // one by one, looping takes half the time
            for (size_t at = 0; at < 128; at += 32)
                Steps::line_8(dst + at, src + at);
        for (; lines > 0; --lines, dst += 32, src += 32)
            Steps::line_8(dst, src);
        return;
    }
    if constexpr (requires { Steps::step_32; }) {
        if (L >= 32)
            return lines_by<Steps, 32, Steps::step_32>(dst, src, L, lines);
    }
    if (L >= 16)
        lines_by<Steps, 16, Steps::step_16>(dst, src, L, lines);
    else if (L >= 8)
        lines_by<Steps, 8, Steps::step_8>(dst, src, L, lines);
    else if (L >= 4)
        lines_by<Steps, 4, Steps::step_4>(dst, src, L, lines);
    else
        lines_by<Steps, 1, Steps::step_1>(dst, src, L, lines);
}

}  // namespace
}  // namespace kelrt
