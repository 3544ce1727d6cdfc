// Several vectors of lanes in lockstep: every operation is done to all of them before the next one, so that
// what waits for the first has the others to do. (A processor that reorders does not find this work by itself
// when the vectors come one after the other: its scheduler fills up with operations that wait. Sigmoid costs
// twice as much then.)
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include "math/lanes.h"

namespace kelrt {
namespace {

template <class F, size_t count>
struct Many {
    F v[count];

    static auto splat(auto value) {
        return Many<decltype(F::splat(value)), count>::filled([=](size_t) { return F::splat(value); });
    }
    // v[k] = one(k).
    template <class One>
    [[gnu::always_inline]] static Many filled(One one) {
        return [&]<size_t... k>(std::index_sequence<k...>) {
            return Many{{one(k)...}};
        }
        (std::make_index_sequence<count>());
    }
};

// The kth vector of an operand, or the operand that is the same for all.
template <class F, size_t count>
const F& one_of(const Many<F, count>& a, size_t k) {
    return a.v[k];
}
template <class T>
const T& one_of(const T& a, size_t) {
    return a;
}

// Without a loop, so that nothing is left to compilers to unroll.
#define KELRT_IN_LOCKSTEP(operation)                                                                        \
    template <class F, size_t count, size_t... k, class... Rest>                                            \
    [[gnu::always_inline]] inline auto operation##_each(std::index_sequence<k...>, const Many<F, count>& a, \
                                                        const Rest&... rest) {                              \
        const auto one = [&](size_t at) { return operation(a.v[at], one_of(rest, at)...); };                \
        return Many<decltype(one(0)), count>{{one(k)...}};                                                  \
    }                                                                                                       \
    template <class F, size_t count, class... Rest>                                                         \
    [[gnu::always_inline]] inline auto operation(const Many<F, count>& a, const Rest&... rest) {            \
        return operation##_each(std::make_index_sequence<count>(), a, rest...);                             \
    }

KELRT_IN_LOCKSTEP(add)
KELRT_IN_LOCKSTEP(sub)
KELRT_IN_LOCKSTEP(mul)
KELRT_IN_LOCKSTEP(mul_loose)
KELRT_IN_LOCKSTEP(mul_add)
KELRT_IN_LOCKSTEP(mul_add_loose)
KELRT_IN_LOCKSTEP(div)
KELRT_IN_LOCKSTEP(neg)
KELRT_IN_LOCKSTEP(clamp)
KELRT_IN_LOCKSTEP(recip_estimate)
KELRT_IN_LOCKSTEP(recip_step)
KELRT_IN_LOCKSTEP(whole)
KELRT_IN_LOCKSTEP(bits)
KELRT_IN_LOCKSTEP(from_bits)
KELRT_IN_LOCKSTEP(to_float)
KELRT_IN_LOCKSTEP(to_int_trunc)
KELRT_IN_LOCKSTEP(add_sat)
KELRT_IN_LOCKSTEP(greater)
KELRT_IN_LOCKSTEP(keep)
#undef KELRT_IN_LOCKSTEP

template <int by, class I, size_t count>
Many<I, count> shl_sat(const Many<I, count>& a) {
    return Many<I, count>::filled([&](size_t k) { return shl_sat<by>(a.v[k]); });
}
// Of lanes that have their own; the others go through its steps.
template <class F, class I, size_t count>
requires(!std::is_same_v<I, lanes::Ints>)
    [[gnu::always_inline]] inline Many<F, count> scale_by_power(const Many<F, count>& a,
                                                                const Many<I, count>& m) {
    return Many<F, count>::filled([&](size_t k) { return scale_by_power(a.v[k], m.v[k]); });
}

}  // namespace
}  // namespace kelrt
