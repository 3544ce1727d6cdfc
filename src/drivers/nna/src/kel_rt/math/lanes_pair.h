// Two vectors of lanes as one operand of eight: what conversions need, whose narrow integers come and go
// eight at a time.
#pragma once

#include "math/lanes.h"

namespace kelrt {
namespace {

struct PairInts {
    lanes::IntPair v;

    static PairInts load_int8(const void* p) { return {lanes::load_int8(p)}; }
    static PairInts load_int16(const void* p) { return {lanes::load_int16(p)}; }
};

template <class F>
struct Pair {
    using Integers = PairInts;
    F low, high;

    static Pair splat(float value) { return {F::splat(value), F::splat(value)}; }
    static Pair load(const float* p) { return {F::load(p), F::load(p + 4)}; }
};

template <class F>
void store(float* p, Pair<F> a) {
    store(p, a.low);
    store(p + 4, a.high);
}
inline void store_int8(void* p, PairInts a) {
    lanes::store_int8(p, a.v);
}
inline Pair<lanes::Floats> to_float(PairInts a) {
    return {to_float(a.v.low), to_float(a.v.high)};
}
template <class F>
PairInts to_int_trunc(Pair<F> a) {
    return {{to_int_trunc(a.low), to_int_trunc(a.high)}};
}
template <class F>
Pair<F> mul(Pair<F> a, Pair<F> b) {
    return {mul(a.low, b.low), mul(a.high, b.high)};
}
template <class F>
Pair<F> clamp(Pair<F> x, float low, float high) {
    return {clamp(x.low, low, high), clamp(x.high, low, high)};
}

}  // namespace
}  // namespace kelrt
