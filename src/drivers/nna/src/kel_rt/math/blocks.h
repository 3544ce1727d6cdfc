// Element-wise kernels: a kernel states what becomes of one block of elements, for_blocks runs it over all
// whole blocks of an array. Several blocks are computed before the first of them is stored, so that one does
// not wait for another; how many is the backend's business.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "math/lanes.h"
#include "math/lanes_many.h"
#include "math/vector_part.h"

namespace kelrt {
namespace {

// What a kernel knows about its operands; backends that compute by NEON's rules anyway need not ask.
//
// Below{limit}: no operation of the kernel can meet a subnormal, a NaN or an overflow that matters, as long
// as the magnitudes of all operands are below the limit, a float's word.
struct Below {
    uint32_t limit;
    static constexpr bool divides = false;
};
constexpr Below kNumbers = {0x7F800001u};      // anything but NaN
constexpr Below kOrdinaryExp = {0x42AC0000u};  // 86: neither e^x nor 1 / (e^x + 1) leaves the normal numbers
// The same for operands of any kind, if only `holds`.
struct If {
    bool holds;
    static constexpr bool divides = false;
};
// As kNumbers, for kernels as short as that test: NaN shows in their results.
struct Numbers {
    static constexpr bool divides = false;
};
// Nothing is known: what the operations meet tells. But what is the same for all blocks is looked at once, by
// the kernel: factors and terms have to be ordinary, and divisors below 2^126, so that their reciprocals are.
template <bool with_division = false>
struct Watching {
    bool scalars_are_ordinary = true;
    static constexpr bool divides = with_division;
};
// Zero, or normal and below the limit in magnitude. By its bits: comparing a subnormal traps where the caller
// has asked for that.
inline bool is_ordinary(float x, float limit = __builtin_inff()) {
    const uint32_t magnitude = std::bit_cast<uint32_t>(x) & 0x7FFFFFFF;
    return magnitude == 0 || (magnitude >= 0x00800000 && magnitude < std::bit_cast<uint32_t>(limit));
}

// What follows a stretch where nothing does.
struct NothingFollows {
    void operator()(size_t, size_t) const {}
};

// `count` vectors of the backend's lanes, from consecutive elements. Narrow integers come and go eight at a
// time.
template <size_t count>
Many<lanes::Floats, count> vectors(const float* p) {
    return Many<lanes::Floats, count>::filled([=](size_t k) { return lanes::Floats::load(p + 4 * k); });
}
template <size_t count>
Many<lanes::Ints, count> vectors(const int32_t* p) {
    return Many<lanes::Ints, count>::filled([=](size_t k) { return lanes::Ints::load(p + 4 * k); });
}
template <size_t count, class Load>
Many<lanes::Ints, count> eights(Load load) {
    Many<lanes::Ints, count> a;
    for (size_t k = 0; k < count; k += 2) {
        const lanes::IntPair x = load(4 * k);
        a.v[k] = x.low;
        a.v[k + 1] = x.high;
    }
    return a;
}
template <size_t count>
Many<lanes::Ints, count> vectors(const int8_t* p) {
    return eights<count>([=](size_t i) { return lanes::load_int8(p + i); });
}
template <size_t count>
Many<lanes::Ints, count> vectors(const int16_t* p) {
    return eights<count>([=](size_t i) { return lanes::load_int16(p + i); });
}
template <class T, size_t count>
void store_vectors(float* p, const Many<T, count>& a) {
    for (size_t k = 0; k < count; ++k)
        store(p + 4 * k, a.v[k]);
}
template <size_t count>
void store_vectors(int8_t* p, const Many<lanes::Ints, count>& a) {
    for (size_t k = 0; k < count; k += 2)
        lanes::store_int8(p + 4 * k, {a.v[k], a.v[k + 1]});
}

// How many vectors go through a kernel in lockstep: what the registers hold. Conversions need few.
#if defined(__aarch64__)
template <uint32_t block>
constexpr size_t kVectors = 4;
#else
template <uint32_t block>
constexpr size_t kVectors = block == 8 ? 4 : 2;
#endif

// Elements from..to by the backend's rules; they are whole blocks.
template <uint32_t block, class Function, class Out, class... In>
void exact_blocks(size_t from, size_t to, Function f, Out* out, const In*... in) {
    constexpr size_t kGroup = 4 * kVectors<block>;
    size_t i = from;
    for (const size_t groups = to - (to - from) % kGroup; i < groups; i += kGroup)
        store_vectors(out + i, f(vectors<kVectors<block>>(in + i)...));
    for (; i < to; i += block)
        store_vectors(out + i, f(vectors<block / 4>(in + i)...));
}

}  // namespace
}  // namespace kelrt

#if defined(__SSE2__) && !defined(KELRT_LANES_PORTABLE)
#include "math/blocks_x86.h"
#else
namespace kelrt {
namespace {

// out[i] = f(in[i]...) for the whole blocks among n elements; returns where the tail starts. After each
// stretch then(from, count) is called, in the same mode and in ascending order.
template <uint32_t block = 4, class When, class Function, class Then, class Out, class... In>
uint32_t for_blocks_then(uint32_t n, When, Function f, Then then, Out* out, const In*... in) {
    const uint32_t tail = n - n % block;
    if (tail > 0)
        vector_part<When::divides>([=] {
            exact_blocks<block>(0, tail, f, out, in...);
            then(0, tail);
        });
    return tail;
}

}  // namespace
}  // namespace kelrt
#endif

namespace kelrt {
namespace {

template <uint32_t block = 4, class When, class Function, class Out, class... In>
void for_blocks(uint32_t n, When when, Function f, Out* out, const In*... in) {
    for_blocks_then<block>(n, when, f, NothingFollows{}, out, in...);
}

// one(i) for the elements that whole blocks leave. So few that no compiler makes vectors of them, whose code
// every call would have to pass.
template <uint32_t block = 4, class One>
void for_tail(uint32_t n, One one) {
#if defined(__clang__)
#pragma clang loop vectorize(disable)
#endif
    for (uint32_t left = n % block; left > 0; --left)
        one(size_t{n - left});
}

}  // namespace
}  // namespace kelrt
