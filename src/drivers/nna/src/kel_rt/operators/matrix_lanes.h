// Vectors of matrix elements, and small rectangles of a matrix turned within registers.
#pragma once

#include <cstddef>
#include <cstring>
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
    }(std::make_index_sequence<count>());
}

template <typename V>
V load_elements(const void* p) {
    V v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <typename V>
void store_elements(void* p, const V& v) {
    std::memcpy(p, &v, sizeof v);
}

// Eight lanes are enough to turn a rectangle as fast as its cache lines come.
#if defined(__AVX2__)
constexpr int kTurned = 8;
#else
constexpr int kTurned = 4;
#endif
using Turned = FloatVector<kTurned>;

// Four neighbouring elements of a row and, in the upper lanes, of the row four below.
inline Turned load_row(const f32* from, [[maybe_unused]] size_t stride) {
    const auto four = load_elements<FloatVector<4>>(from);
#if defined(__AVX2__)
    return __builtin_shufflevector(four, load_elements<FloatVector<4>>(from + 4 * stride), 0, 1, 2, 3, 4, 5, 6, 7);
#else
    return four;
#endif
}

// Lanes i and j of a, then of b, within every four lanes.
template <int i, int j>
Turned pick(Turned a, Turned b) {
#if defined(__AVX2__)
    return __builtin_shufflevector(a, b, i, j, i + 8, j + 8, i + 4, j + 4, i + 12, j + 12);
#else
    return __builtin_shufflevector(a, b, i, j, i + 4, j + 4);
#endif
}

// Turns what load_row gave for rows 0 to 3 into the four columns, of four rows or eight.
inline void turn(Turned (&v)[4]) {
    const Turned left_01 = pick<0, 1>(v[0], v[1]), right_01 = pick<2, 3>(v[0], v[1]);
    const Turned left_23 = pick<0, 1>(v[2], v[3]), right_23 = pick<2, 3>(v[2], v[3]);
    v[0] = pick<0, 2>(left_01, left_23);
    v[1] = pick<1, 3>(left_01, left_23);
    v[2] = pick<0, 2>(right_01, right_23);
    v[3] = pick<1, 3>(right_01, right_23);
}

}  // namespace
}  // namespace kelrt
