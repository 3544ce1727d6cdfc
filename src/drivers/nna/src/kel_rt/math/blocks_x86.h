// for_blocks on x86: blocks as wide as the instruction set, in x86's own arithmetic wherever that and NEON's
// cannot differ, which a few operations a block tell. What does differ is rare, and done again by the exact
// lanes. Most kernels need no change of the processor's mode then, which costs 9 to 130 ns.
#pragma once

#include <algorithm>
#include <utility>

#include "math/blocks.h"
#include "math/lanes_plain.h"
#include "math/lanes_watched.h"
#include "operators/wide.h"

namespace kelrt {
namespace {

// Rounding to nearest and trapping nothing, as the lanes need it. Whether subnormals are flushed is no matter
// where there are none. Reading the mode word would tell, in 7 ns, longer than 16 elements take. So rounding
// is tried on two sums that only the nearest rounds away from zero both times; and traps are looked for in
// the older unit's control word, into which the C library writes them too (feenableexcept).
inline bool caller_has_our_mode() {
    constexpr uint16_t kNoTraps = 0x3F;
    uint16_t traps;
    asm volatile("fnstcw %0" : "=m"(traps));
    if (__builtin_expect((traps & kNoTraps) != kNoTraps, 0))
        return false;
    float one = 1.0f, more_than_half = 0x1.8p-24f;
    asm volatile("" : "+x"(one), "+x"(more_than_half));  // no compiler knows the sums
    return one + more_than_half > one && -one - more_than_half < -one;
}

// From this many on a change of the mode costs no more than a thirtieth, and on some processors every
// operation on a subnormal 150 cycles if they are not switched off (Sapphire Rapids: exponentials of them 55
// times the time of others).
constexpr uint32_t kLong = 4096;
// Up to this many elements close looks at all of them cost no more than a change of the mode does; and from
// this many on, what a change costs is little beside what subnormals may cost that a glance at sums misses.
constexpr uint32_t kCloselyWatched = 256, kLongWatched = 16384;
// Elements that are done again together, so that an array full of rare values pays for few switches.
constexpr size_t kRedone = 256;

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

// `count` vectors of n lanes, from consecutive elements.
template <class F, class T, size_t... k>
auto operands(std::index_sequence<k...>, const T* p) {
    return Many<decltype(operand<F>(p)), sizeof...(k)>{{operand<F>(p + k * F::kLanes)...}};
}
// Past the caches, to where whole vectors lie.
struct Streamed {
    float* p;
    Streamed operator+(size_t i) const { return {p + i}; }
};
template <class Result>
void store_block(Streamed to, Result r) {
    stream_bytes(reinterpret_cast<uint8_t*>(to.p), reinterpret_cast<Bytes<sizeof r.v>>(r.v));
}
template <class F, size_t count, class To, size_t... k>
void store_all(std::index_sequence<k...>, To to, const Many<F, count>& a) {
    (store_block(to + k * F::kLanes, a.v[k]), ...);
}
template <class F>
void store_all(std::make_index_sequence<4>, int8_t* to, const Many<F, 4>& a) {
    store_int8(to, a.v[0], a.v[1], a.v[2], a.v[3]);
}

// One group of blocks, count * n elements; false, with nothing stored, if it needs the exact lanes.
template <int n, size_t count, class Function, class To, class... In>
[[gnu::always_inline]] inline bool plain_group(Below when, Function f, To out, const In*... in) {
    constexpr auto each = std::make_index_sequence<count>();
    WordVector<n> most = {};
    const auto look = [&]<class F>(const Many<F, count>& x) {
        for (const F& one : x.v)
            most = larger<n>(most, magnitude<n>(one.v));
    };
    (look(operands<Plain<n>>(each, in)), ...);
    if (__builtin_expect(any(reinterpret_cast<WordVector<n>>(most >= when.limit)), 0))
        return false;
    store_all(each, out, f(operands<Plain<n>>(each, in)...));
    return true;
}
template <int n, size_t count, class Function, class To, class... In>
[[gnu::always_inline]] inline bool plain_group(If when, Function f, To out, const In*... in) {
    if (__builtin_expect(!when.holds, 0))
        return false;
    constexpr auto each = std::make_index_sequence<count>();
    store_all(each, out, f(operands<Plain<n>>(each, in)...));
    return true;
}
// Lanes, a bit each, in which a result is NaN.
template <class F, size_t count, size_t... k>
[[gnu::always_inline]] inline unsigned nan_lanes(std::index_sequence<k...>, const Many<F, count>& a) {
    // Two vectors a comparison; a single one with itself.
    return (static_cast<unsigned>(lanes_unordered(a.v[2 * k].v, a.v[(2 * k + 1) % count].v)) | ...);
}
template <int n, size_t count, class Function, class To, class... In>
[[gnu::always_inline]] inline bool plain_group(Numbers, Function f, To out, const In*... in) {
    constexpr auto each = std::make_index_sequence<count>();
    const auto result = f(operands<Plain<n>>(each, in)...);
    if (__builtin_expect(nan_lanes(std::make_index_sequence<(count + 1) / 2>(), result) != 0, 0))
        return false;
    store_all(each, out, result);
    return true;
}

// Where subnormals are switched off, and where they are not.
struct WatchingFlushed {};
struct WatchingAll {
    bool closely;
};
template <class Seen>
Seen seen_of(Seen one) {
    return one;
}
template <class Seen, class... Others>
[[gnu::always_inline]] inline Seen seen_of(Seen one, Others... others) {
    return both(one, seen_of(others...));
}
template <class F, class Function, class To, size_t... k, class... In>
[[gnu::always_inline]] inline bool watched_group(std::index_sequence<k...> each, Function f, To out,
                                                 const In*... in) {
    const auto result = f(operands<F>(each, in)...);
    const auto seen = seen_of(result.v[k].looked_at()...);
    const unsigned nan = nan_lanes(std::make_index_sequence<(sizeof...(k) + 1) / 2>(), result);
    if (__builtin_expect(seen.alarms() || nan != 0, 0))
        return false;
    store_all(each, out, result);
    return true;
}
template <int n, size_t count, class Function, class To, class... In>
[[gnu::always_inline]] inline bool plain_group(WatchingFlushed, Function f, To out, const In*... in) {
    return watched_group<Watched<n, true, CloseLook<n>>>(std::make_index_sequence<count>(), f, out, in...);
}
template <int n, size_t count, class Function, class To, class... In>
[[gnu::noinline]] bool closely_watched_group(Function f, To out, const In*... in) {
    return watched_group<Watched<n, false, CloseLook<n>>>(std::make_index_sequence<count>(), f, out, in...);
}
// A glance, and a close look if that alarmed, as it does at every zero.
template <int n, size_t count, class Function, class To, class... In>
[[gnu::always_inline]] inline bool plain_group(WatchingAll when, Function f, To out, const In*... in) {
    return watched_group<Watched<n, false, Glance<n>>>(std::make_index_sequence<count>(), f, out, in...) ||
           (when.closely && closely_watched_group<n, count>(f, out, in...));
}

// Groups of `count` vectors of n lanes from element i on, as long as they fit and are ordinary. Returns where
// it stopped.
template <int n, size_t count, class When, class Function, class Then, class To, class... In>
[[gnu::always_inline]] inline size_t plain_groups(size_t i, size_t tail, When when, Function f, Then then,
                                                  To out, const In*... in) {
    constexpr size_t kGroup = count * n;
    for (; i + kGroup <= tail && plain_group<n, count>(when, f, out + i, in + i...); i += kGroup)
        then(i, kGroup);
    return i;
}

// Vectors in lockstep: chains as long as that of exp need more than the registers hold with 16 of them (on
// Zen 4 with AVX2 exp takes 1.24, 1.12, 0.95 and 1.07 cycles an element with 2, 4, 6 and 8); with 32, and for
// single operations, four hide what there is to wait for (on Sapphire Rapids softmax takes 0.85 of the time
// that it takes with 8).
template <class When>
constexpr size_t kInFlight = kWidest != 16 && std::is_same_v<When, Below> ? 6 : 4;

// Whether the output is beyond all caches and goes past them: 8 million sums take three quarters of the time.
// Not where the caches have it anyway, as an operand or for what follows, and not for long chains, which are
// no faster, and slower if compilers get them twice.
template <class When, class Then, class Out, class... In>
bool goes_past_caches(size_t n, const Out* out, const In*... in) {
    return std::is_same_v<Out, float> && std::is_same_v<Then, NothingFollows> &&
           !std::is_same_v<When, Below> && __builtin_expect(n * sizeof(Out) >= kStreamed, 0) &&
           ((static_cast<const void*>(in) != out) && ...) &&
           reinterpret_cast<uintptr_t>(out) % (4 * sizeof(float)) == 0;
}
template <class When, class Function, class Then, class... In>
[[gnu::always_inline]] inline size_t streamed_groups(size_t i, size_t tail, When when, Function f, Then then,
                                                     float* out, const In*... in) {
    constexpr size_t kVector = kWidest * sizeof(float);
    const size_t to_vector = -reinterpret_cast<uintptr_t>(out + i) % kVector / sizeof(float);
    const size_t head = std::min(tail, i + to_vector);
    i = plain_groups<4, 1>(i, head, when, f, then, out, in...);
    if (i == head)
        i = plain_groups<kWidest, kInFlight<When>>(i, tail, when, f, then, Streamed{out}, in...);
    return i;
}

// Whole blocks from element i on as long as they are ordinary, in groups, then vector by vector, then by
// four; `then` follows what is done. Returns where it stopped.
template <class When, class Function, class Then, class Out, class... In>
[[gnu::always_inline]] inline size_t ordinary_blocks(size_t i, size_t tail, When when, Function f, Then then,
                                                     Out* out, const In*... in) {
    const bool past_caches = goes_past_caches<When, Then>(tail, out, in...);
    if constexpr (std::is_same_v<Out, float> && !std::is_same_v<When, Below>)
        if (past_caches)
            i = streamed_groups(i, tail, when, f, then, out, in...);
    i = plain_groups<kWidest, kInFlight<When>>(i, tail, when, f, then, out, in...);
    if (i + kInFlight<When> * kWidest > tail) {
        i = plain_groups<kWidest, 1>(i, tail, when, f, then, out, in...);
        if (i + kWidest > tail)
            i = plain_groups<4, 1>(i, tail, when, f, then, out, in...);
    }
    if (past_caches)
        _mm_sfence();
    return i;
}
// All of them; `exactly(from, to)` does those again that need it.
template <class When, class Exactly, class Function, class Then, class Out, class... In>
[[gnu::always_inline]] inline void mixed_blocks(size_t i, size_t tail, When when, Exactly exactly, Function f,
                                                Then then, Out* out, const In*... in) {
    while ((i = ordinary_blocks(i, tail, when, f, then, out, in...)) < tail) {
        const size_t to = std::min(tail, i + kRedone);
        exactly(i, to);
        i = to;
    }
}

// out[i] = f(in[i]...) for the whole blocks among n elements; returns where the tail starts. After each
// stretch then(from, count) is called, in the same mode and in ascending order.
template <uint32_t block = 4, class When, class Function, class Then, class Out, class... In>
[[gnu::always_inline]] inline uint32_t for_blocks_then(uint32_t n, When when, Function f, Then then, Out* out,
                                                       const In*... in) {
    const uint32_t tail = n - n % block;
    if (tail == 0)
        return 0;
    const auto exactly = [=](size_t from, size_t to) __attribute__((noinline)) {
        exact_blocks<block>(from, to, f, out, in...);
        then(from, to - from);
    };
    const auto exactly_in_our_mode = [=](size_t from, size_t to) { vector_part([=] { exactly(from, to); }); };
    if constexpr (std::is_same_v<When, Below> || std::is_same_v<When, Numbers> || std::is_same_v<When, If>) {
        const auto all = [=]() __attribute__((noinline)) {
            mixed_blocks(0, tail, when, exactly_in_our_mode, f, then, out, in...);
        };
        if (tail < kLong && caller_has_our_mode())
            all();
        else
            vector_part(all);
    } else {
        // From the first rare value on subnormals are switched off.
        const auto flushed = [=](size_t i) __attribute__((noinline)) {
            mixed_blocks(i, tail, WatchingFlushed(), exactly, f, then, out, in...);
        };
        const auto watched = [=]() __attribute__((always_inline)) {
            const WatchingAll all = {tail <= kCloselyWatched};
            return when.scalars_are_ordinary ? ordinary_blocks(0, tail, all, f, then, out, in...) : 0;
        };
        if (tail < kLongWatched && caller_has_our_mode()) {
            const size_t i = watched();
            if (i < tail)
                vector_part([=] { flushed(i); });
        } else {
            vector_part([=] { flushed(watched()); });
        }
    }
    return tail;
}

}  // namespace
}  // namespace kelrt
