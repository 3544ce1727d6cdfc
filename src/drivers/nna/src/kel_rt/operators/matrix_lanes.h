// Vectors of matrix elements, and small rectangles of a matrix turned within registers.
#pragma once

#include <cstddef>
#include <utility>

#include "element.h"
#include "math/vectors.h"

namespace kelrt {
namespace {

// Calls f with the constants 0 to count - 1. What they index stays in registers.
template <int count, typename F>
[[gnu::always_inline]] inline void each(F f) {
    [&]<size_t... i>(std::index_sequence<i...>) {
        (f(std::integral_constant<size_t, i>()), ...);
    }
    (std::make_index_sequence<count>());
}

// Vectors at any address. (Dereferenced, not copied: clang would call a memcpy that checks a size known at
// run time.)
template <typename V>
struct Anywhere {
    typedef V Type __attribute__((aligned(1), may_alias));

    static V load(const void* p) {
        const auto* const from = static_cast<const Type*>(p);
        return *from;
    }
    static void store(void* p, V v) {
        auto* const to = static_cast<Type*>(p);
        *to = v;
    }
};
template <typename V>
V load_elements(const void* p) {
    return Anywhere<V>::load(p);
}
template <typename V>
void store_elements(void* p, V v) {
    Anywhere<V>::store(p, v);
}

template <typename V>
constexpr size_t kLanesOf = sizeof(V) / sizeof(float);

// Turning a rectangle of n rows and four columns, n being a multiple of four. Its rows come in four vectors:
// vector i has four elements of row i, then of row i + 4, and so on. They become its columns.

template <int n>
FloatVector<n> load_row(const f32* from, size_t stride) {
    if constexpr (n == 4) {
        return load_elements<FloatVector<4>>(from);
    } else {
        return [&]<int... e>(std::integer_sequence<int, e...>) {
            return __builtin_shufflevector(load_row<n / 2>(from, stride),
                                           load_row<n / 2>(from + n / 2 * stride, stride), e...);
        }
        (std::make_integer_sequence<int, n>());
    }
}

// Lanes i and j of a, then of b, in every block of four.
template <int i, int j, typename V>
V pick(V a, V b) {
    constexpr int n = kLanesOf<V>;
    return [&]<int... e>(std::integer_sequence<int, e...>) {
        return __builtin_shufflevector(a, b, (e / 4 * 4 + (e % 2 == 0 ? i : j) + (e % 4 < 2 ? 0 : n))...);
    }
    (std::make_integer_sequence<int, n>());
}

template <typename V>
void turn(V (&v)[4]) {
    const V left_01 = pick<0, 1>(v[0], v[1]), right_01 = pick<2, 3>(v[0], v[1]);
    const V left_23 = pick<0, 1>(v[2], v[3]), right_23 = pick<2, 3>(v[2], v[3]);
    v[0] = pick<0, 2>(left_01, left_23);
    v[1] = pick<1, 3>(left_01, left_23);
    v[2] = pick<0, 2>(right_01, right_23);
    v[3] = pick<1, 3>(right_01, right_23);
}

}  // namespace
}  // namespace kelrt
