// Element-wise kernels: a kernel states what becomes of one block of elements, for_blocks runs it over all
// whole blocks of an array. Several blocks are computed before the first of them is stored, so that one does
// not wait for another; how many is the backend's business.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "math/lanes.h"
#include "math/lanes_pair.h"
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
// Nothing is known: the results tell.
template <bool with_division = false>
struct Watching {
    static constexpr bool divides = with_division;
};

// Lanes by the backend's rules, for blocks of four elements or, as a pair, of eight.
template <uint32_t block>
using Exact = std::conditional_t<block == 8, Pair<lanes::Floats>, lanes::Floats>;

template <class F>
F operand(const float* p) {
    return F::load(p);
}
template <class F>
typename F::Integers operand(const int8_t* p) {
    return F::Integers::load_int8(p);
}
template <class F>
typename F::Integers operand(const int16_t* p) {
    return F::Integers::load_int16(p);
}
template <class F>
typename F::Integers operand(const int32_t* p) {
    return F::Integers::load(p);
}
template <class Result>
void store_block(float* p, Result r) {
    store(p, r);
}
template <class Result>
void store_block(int8_t* p, Result r) {
    store_int8(p, r);
}

// Elements from..to by the backend's rules; they are whole blocks.
template <uint32_t block, class Function, class Out, class... In>
void exact_blocks(size_t from, size_t to, Function f, Out* out, const In*... in) {
    using F = Exact<block>;
    using Result = decltype(f(operand<F>(in)...));
    constexpr size_t kInFlight = 8 / block;
    size_t i = from;
    for (; i + kInFlight * block <= to; i += kInFlight * block) {
        Result result[kInFlight];
        for (size_t k = 0; k < kInFlight; ++k)
            result[k] = f(operand<F>(in + i + k * block)...);
        for (size_t k = 0; k < kInFlight; ++k)
            store_block(out + i + k * block, result[k]);
    }
    for (; i < to; i += block)
        store_block(out + i, f(operand<F>(in + i)...));
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
uint32_t for_blocks(uint32_t n, When when, Function f, Out* out, const In*... in) {
    return for_blocks_then<block>(
        n, when, f, [](size_t, size_t) {}, out, in...);
}

}  // namespace
}  // namespace kelrt
