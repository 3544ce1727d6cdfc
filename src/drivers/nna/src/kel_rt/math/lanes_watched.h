// Lanes of x86's own arithmetic that note where it came near to what the NEON unit flushes: a subnormal, or a
// product that rounds up to 2^-126.
#pragma once

#include "math/lanes_plain.h"

namespace kelrt {
namespace {

// Lanes, a bit each, that are below a limit or NaN, and in which an operand is NaN.
inline int lanes_below(FloatVector<4> a, float limit) {
    return _mm_movemask_ps(_mm_cmpnge_ps(a, _mm_set1_ps(limit)));
}
inline int lanes_unordered(FloatVector<4> a, FloatVector<4> b) {
    return _mm_movemask_ps(_mm_cmpunord_ps(a, b));
}
#if defined(__AVX2__)
inline int lanes_below(FloatVector<8> a, float limit) {
    return _mm256_movemask_ps(_mm256_cmp_ps(a, _mm256_set1_ps(limit), _CMP_NGE_UQ));
}
inline int lanes_unordered(FloatVector<8> a, FloatVector<8> b) {
    return _mm256_movemask_ps(_mm256_cmp_ps(a, b, _CMP_UNORD_Q));
}
#endif
#if defined(__AVX512F__)
inline int lanes_below(FloatVector<16> a, float limit) {
    return _mm512_cmp_ps_mask(a, Plain<16>::splat(limit).v, _CMP_NGE_UQ);
}
inline int lanes_unordered(FloatVector<16> a, FloatVector<16> b) {
    return _mm512_cmp_ps_mask(a, b, _CMP_UNORD_Q);
}
#endif

// What has been seen of values, in each lane. A close look: the least magnitude other than zero, less one, as
// a word (zero itself wraps to the largest).
template <int n>
struct CloseLook {
    static constexpr bool at_operands_of_sums = true;
    WordVector<n> least;

    static CloseLook at(FloatVector<n> a) { return {magnitude<n>(a) - 1}; }
    // Something subnormal or 2^-126 itself.
    bool alarms() const { return any(reinterpret_cast<WordVector<n>>(least < 0x00800000u)); }
};
template <int n>
CloseLook<n> both(CloseLook<n> a, CloseLook<n> b) {
    return {smaller<n>(a.least, b.least)};
}
// A glance, for a third of the operations and with more alarms: the least magnitude, zero too. Beside a sum
// of 2^-100 and more whatever is flushed is less than half of the last place, and is rounded away; so
// operands of sums need no glance, only their results do.
template <int n>
struct Glance {
    static constexpr bool at_operands_of_sums = false;
    FloatVector<n> least;

    static Glance at(FloatVector<n> a) { return {reinterpret_cast<FloatVector<n>>(magnitude<n>(a))}; }
    bool alarms() const { return lanes_below(least, 0x1p-100f) != 0; }
};
template <int n>
Glance<n> both(Glance<n> a, Glance<n> b) {
    return {least(a.least, b.least)};
}
#if defined(__AVX512F__)
// One operation, not three.
template <>
inline Glance<16> Glance<16>::at(FloatVector<16> a) {
    return {a};
}
template <>
inline bool Glance<16>::alarms() const {
    return lanes_below(_mm512_abs_ps(least), 0x1p-100f) != 0;
}
inline Glance<16> both(Glance<16> a, Glance<16> b) {
    constexpr int kLeastMagnitude = 0b1010;
#if !defined(_mm512_range_ps)  // it is a macro of clang's, which knows this
    // To the register of the first operand: on Intel's processors VRANGEPS waits for what its destination
    // held before, and groups would wait for each other (1024 elements added: 74 ns -> 59).
    asm volatile("" : "+v"(a.least));
#endif
    return {_mm512_range_ps(a.least, b.least, kLeastMagnitude)};
}
#endif
struct Unseen {
    static constexpr bool alarms() { return false; }
};
inline Unseen both(Unseen, Unseen) {
    return {};
}
template <class Seen>
Seen both(Seen a, Unseen) {
    return a;
}
template <class Seen>
Seen both(Unseen, Seen b) {
    return b;
}

// Arithmetic under a watch. `flushing` says that the processor flushes, so that only a product that came out
// as 2^-126 can be wrong; otherwise subnormal operands and results count too. `due` says that a value has not
// been looked at. NaN travels to the end.
template <int n, bool flushing, class Look, class Seen = Unseen, bool due = !flushing>
struct Watched {
    static constexpr int kLanes = n;
    static constexpr bool is_due = due, flushes = flushing;
    using Looking = Look;
    FloatVector<n> v;
    Seen seen;  // of it and of all from which it comes

    template <bool result_due, class ResultSeen>
    static Watched<n, flushing, Look, ResultSeen, result_due> result(FloatVector<n> r, ResultSeen seen) {
        return {r, seen};
    }
    // The same for all blocks: the kernel has looked at it.
    struct Same : Watched<n, flushing, Look, Unseen, false> {};
    static Same splat(float value) { return {{Plain<n>::splat(value).v, Unseen()}}; }
    static Watched load(const void* p) { return {Plain<n>::load(p).v, {}}; }
    [[gnu::always_inline]] auto looked_at() const {
        if constexpr (due)
            return both(seen, Look::at(v));
        else
            return seen;
    }
};
template <class T>
concept IsWatched = requires {
    typename T::Looking;
};
template <IsWatched A>
[[gnu::always_inline]] inline void store(void* p, A a) {
    store(p, Plain<A::kLanes>{a.v});
}
// What a and b became. A glance is at the sum alone, and not even at that where neither operand is due: both
// have been seen to be far from what is flushed. A close look is at the operands, too.
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto sum_of(decltype(A::v) r, A a, B b) {
    constexpr bool closely = A::Looking::at_operands_of_sums;
    constexpr bool sum_is_due = closely ? !A::flushes : A::is_due || B::is_due;
    const auto seen = [&] {
        if constexpr (closely)
            return both(a.looked_at(), b.looked_at());
        else
            return both(a.seen, b.seen);
    }();
    return A::template result<false>(r, A::template result<sum_is_due>(r, seen).looked_at());
}
// Factors are looked at here, their product where it becomes one or is stored; in a sum it may be hidden.
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto product_of(decltype(A::v) r, A a, B b) {
    return A::template result<true>(r, both(a.looked_at(), b.looked_at()));
}
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto add(A a, B b) {
    return sum_of(a.v + b.v, a, b);
}
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto sub(A a, B b) {
    return sum_of(a.v - b.v, a, b);
}
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto mul(A a, B b) {
    return product_of(a.v * b.v, a, b);
}
template <IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto div(A a, B b) {
    return product_of(a.v / b.v, a, b);
}
#if defined(__AVX512F__)
// By what is the same for all, in five operations that follow each other at once where a division takes ten
// cycles (Markstein). The reciprocal gives a first quotient; what that leaves makes it a neighbour of the
// true one; and what this leaves, which fused operations give exactly, the nearest. Exactly, since of
// dividends of 2^-100 and more (zero alarms) whatever is left is a multiple of 2^-149. Where a quotient
// overflows and where an operand is infinite NaN comes of it, which alarms.
template <class Seen>
[[gnu::always_inline]] inline auto div(Watched<16, false, Glance<16>, Seen, false> a,
                                       typename Watched<16, false, Glance<16>>::Same b) {
    const __m512 reciprocal = 1.0f / b.v;
    __m512 quotient = a.v * reciprocal;
    for (int i = 0; i < 2; ++i)
        quotient = _mm512_fmadd_ps(_mm512_fnmadd_ps(quotient, b.v, a.v), reciprocal, quotient);
    return product_of(quotient, a, b);
}
#endif
template <IsWatched Sum, IsWatched A, IsWatched B>
[[gnu::always_inline]] inline auto mul_add(Sum sum, A a, B b) {
    return add(sum, mul(a, b));
}

}  // namespace
}  // namespace kelrt
