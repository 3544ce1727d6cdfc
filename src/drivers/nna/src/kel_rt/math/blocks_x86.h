// for_blocks on x86: blocks as wide as the instruction set, in x86's own arithmetic wherever that and NEON's
// cannot differ, which a few operations a block tell. What does differ is rare, and done again by the exact
// lanes. Most kernels need no change of the processor's mode then, which costs 9 ns and sometimes 40.
#pragma once

#include <algorithm>

#include "math/blocks.h"
#include "math/lanes_plain.h"

namespace kelrt {
namespace {

// Rounding to nearest and trapping nothing, as the lanes need it. Whether subnormals are flushed is no matter
// where there are none.
inline bool caller_has_our_mode() {
    return (_mm_getcsr() & 0x7F80) == 0x1F80;
}

// Up to this many elements a watch over subnormals costs less than switching them off.
constexpr uint32_t kShort = 128;
// Elements that are done again together, so that an array full of rare values pays for few switches.
constexpr size_t kRedone = 256;

// kInFlight blocks of n lanes from element i on; false, with nothing stored, if they need the exact lanes.
template <int n, size_t kInFlight, class Function, class Out, class... In>
[[gnu::always_inline]] inline bool plain_blocks(Below when, size_t i, Function f, Out* out, const In*... in) {
    using F = Plain<n>;
    Watch<n> watch;
    for (size_t k = 0; k < kInFlight; ++k)
        (watch.large(F::load(in + i + k * n).v), ...);
    if (__builtin_expect(any(reinterpret_cast<WordVector<n>>(watch.most >= when.limit)), 0))
        return false;
    decltype(f(operand<F>(in)...)) result[kInFlight];
    for (size_t k = 0; k < kInFlight; ++k)
        result[k] = f(operand<F>(in + i + k * n)...);
    for (size_t k = 0; k < kInFlight; ++k)
        store_block(out + i + k * n, result[k]);
    return true;
}
template <int n, size_t kInFlight, class Function, class Out, class... In>
[[gnu::always_inline]] inline bool plain_blocks(If, size_t i, Function f, Out* out, const In*... in) {
    decltype(f(operand<Plain<n>>(in)...)) result[kInFlight];
    for (size_t k = 0; k < kInFlight; ++k)
        result[k] = f(operand<Plain<n>>(in + i + k * n)...);
    for (size_t k = 0; k < kInFlight; ++k)
        store_block(out + i + k * n, result[k]);
    return true;
}
template <bool flushing>
struct WatchingIn {};
template <int n, size_t kInFlight, bool flushing, class Function, class... In>
[[gnu::always_inline]] inline bool plain_blocks(WatchingIn<flushing>, size_t i, Function f, float* out,
                                                const In*... in) {
    using F = Watched<n, flushing>;
    Watch<n> watch;
    FloatVector<n> result[kInFlight];
    for (size_t k = 0; k < kInFlight; ++k) {
        result[k] = f(F::load(in + i + k * n, watch)...).v;
        watch.large(result[k]);
    }
    if (__builtin_expect(watch.unusual(0x7F800001u), 0))
        return false;
    for (size_t k = 0; k < kInFlight; ++k)
        store(out + i + k * n, Plain<n>{result[k]});
    return true;
}

// All whole blocks, widest first; `exactly(from, to)` does those again that need it.
template <uint32_t block, class When, class Exactly, class Function, class Out, class... In>
[[gnu::always_inline]] inline void mixed_blocks(size_t tail, When when, Exactly exactly, Function f, Out* out,
                                                const In*... in) {
    constexpr size_t kInFlight = 4, kGroup = kInFlight * kWidest;
    size_t i = 0;
    while (i < tail) {
        while (i + kGroup <= tail && plain_blocks<kWidest, kInFlight>(when, i, f, out, in...))
            i += kGroup;
        if (i + kGroup > tail) {
            while (i + 4 <= tail && plain_blocks<4, 1>(when, i, f, out, in...))
                i += 4;
            if (i == tail)
                return;
        }
        // An odd block of four may stand before; the exact lanes want whole blocks.
        i -= i % block;
        const size_t to = std::min(tail, i + kRedone);
        exactly(i, to);
        i = to;
    }
}

// out[i] = f(in[i]...) for the whole blocks among n elements; returns where the tail starts.
template <uint32_t block = 4, class When, class Function, class Out, class... In>
uint32_t for_blocks(uint32_t n, When when, Function f, Out* out, const In*... in) {
    const uint32_t tail = n - n % block;
    if (tail == 0)
        return 0;
    const auto all_exactly = [=] { vector_part([=] { exact_blocks<block>(0, tail, f, out, in...); }); };
    if constexpr (std::is_same_v<When, Below>) {
        if (caller_has_our_mode())
            mixed_blocks<block>(
                tail, when,
                [=](size_t from, size_t to) {
                    vector_part([=] { exact_blocks<block>(from, to, f, out, in...); });
                },
                f, out, in...);
        else
            all_exactly();
    } else if constexpr (std::is_same_v<When, If>) {
        if (when.holds && caller_has_our_mode())
            mixed_blocks<block>(
                tail, when, [](size_t, size_t) {}, f, out, in...);
        else
            all_exactly();
    } else {
        const auto exactly = [=](size_t from, size_t to) __attribute__((noinline)) {
            exact_blocks<block>(from, to, f, out, in...);
        };
        if (tail <= kShort && caller_has_our_mode())
            mixed_blocks<block>(
                tail, WatchingIn<false>{},
                [=](size_t from, size_t to) { vector_part([=] { exactly(from, to); }); }, f, out, in...);
        else
            vector_part([=] { mixed_blocks<block>(tail, WatchingIn<true>{}, exactly, f, out, in...); });
    }
    return tail;
}

}  // namespace
}  // namespace kelrt
