// Highway: loops over its vectors, its exp and tanh, its interleaving loads and stores, and streaming stores
// where a result does not fit the caches.
#include <hwy/cache_control.h>
#include <hwy/contrib/math/math-inl.h>
#include <hwy/highway.h>

#include <cmath>
#include <cstring>

#include "peers.h"

namespace bench {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using D = hn::ScalableTag<float>;
using V = hn::Vec<D>;
constexpr D d;
const size_t kLanes = hn::Lanes(d);
constexpr size_t kStreamed = 1 << 20;  // floats; more than the second cache holds

V load(const float* from) {
    return hn::LoadU(d, from);
}
void store(float* to, V v) {
    hn::StoreU(v, d, to);
}
V splat(float x) {
    return hn::Set(d, x);
}
float total(V v) {
    return hn::GetLane(hn::SumOfLanes(d, v));
}
V sigmoid(V x) {
    return hn::Div(splat(1), hn::Add(splat(1), hn::Exp(d, hn::Neg(x))));
}
V tanh(V x) {  // its own is by expm1 and slower
    return hn::Sub(splat(1), hn::Div(splat(2), hn::Add(splat(1), hn::Exp(d, hn::Add(x, x)))));
}

// Four vectors in flight; the outputs of all problems start on lines of the cache, so streaming needs no
// head.
template <class F>
Work each(const Problem& p, F f) {
    const size_t n = p.shape.n;
    if (n >= kStreamed)
        return repeat([f, out = p.out, n] {
            for (size_t i = 0; i < n; i += kLanes)
                hn::Stream(f(i), d, out + i);
            hwy::FlushStream();
        });
    return repeat([f, out = p.out, n] {
        size_t i = 0;
        for (; i + 4 * kLanes <= n; i += 4 * kLanes) {
            const V v0 = f(i), v1 = f(i + kLanes), v2 = f(i + 2 * kLanes), v3 = f(i + 3 * kLanes);
            store(out + i, v0);
            store(out + i + kLanes, v1);
            store(out + i + 2 * kLanes, v2);
            store(out + i + 3 * kLanes, v3);
        }
        for (; i < n; i += kLanes)
            store(out + i, f(i));
    });
}

// Folds f over all indices into eight vectors, then these with `merge`.
template <class F, class Merge>
V fold(size_t n, V start, F f, Merge merge) {
    V v0 = start, v1 = start, v2 = start, v3 = start, v4 = start, v5 = start, v6 = start, v7 = start;
    size_t i = 0;
    for (; i + 8 * kLanes <= n; i += 8 * kLanes) {
        v0 = f(v0, i), v1 = f(v1, i + kLanes), v2 = f(v2, i + 2 * kLanes), v3 = f(v3, i + 3 * kLanes);
        v4 = f(v4, i + 4 * kLanes), v5 = f(v5, i + 5 * kLanes), v6 = f(v6, i + 6 * kLanes),
        v7 = f(v7, i + 7 * kLanes);
    }
    for (; i < n; i += kLanes)
        v0 = f(v0, i);
    return merge(merge(merge(v0, v1), merge(v2, v3)), merge(merge(v4, v5), merge(v6, v7)));
}

float sum(const float* x, size_t n) {
    return total(fold(
        n, hn::Zero(d), [=](V s, size_t i) { return hn::Add(s, load(x + i)); },
        [](V s, V t) { return hn::Add(s, t); }));
}

float squares(const float* x, size_t n, float mean) {
    const V m = splat(mean);
    return total(fold(
        n, hn::Zero(d),
        [=](V s, size_t i) {
            const V e = hn::Sub(load(x + i), m);
            return hn::MulAdd(e, e, s);
        },
        [](V s, V t) { return hn::Add(s, t); }));
}

struct Moments {
    float mean, inverse_sd;
    Moments(const float* x, size_t n) {
        mean = sum(x, n) / static_cast<float>(n);
        inverse_sd = 1 / std::sqrt(squares(x, n, mean) / static_cast<float>(n) + kEpsilon);
    }
};

void min_max(const float* x, size_t n, float* out) {
    V least[4], largest[4];
    for (size_t k = 0; k < 4; ++k)
        least[k] = largest[k] = load(x);
    size_t i = 0;
    for (; i + 4 * kLanes <= n; i += 4 * kLanes)
        for (size_t k = 0; k < 4; ++k) {
            const V v = load(x + i + k * kLanes);
            least[k] = hn::Min(least[k], v);
            largest[k] = hn::Max(largest[k], v);
        }
    for (; i < n; i += kLanes) {
        least[0] = hn::Min(least[0], load(x + i));
        largest[0] = hn::Max(largest[0], load(x + i));
    }
    out[0] =
        hn::GetLane(hn::MinOfLanes(d, hn::Min(hn::Min(least[0], least[1]), hn::Min(least[2], least[3]))));
    out[1] = hn::GetLane(
        hn::MaxOfLanes(d, hn::Max(hn::Max(largest[0], largest[1]), hn::Max(largest[2], largest[3]))));
}

void softmax(const float* x, float* y, size_t n) {
    V s = hn::Zero(d);
    for (size_t i = 0; i < n; i += kLanes) {
        const V e = hn::Exp(d, load(x + i));
        store(y + i, e);
        s = hn::Add(s, e);
    }
    const V factor = splat(1 / total(s));
    for (size_t i = 0; i < n; i += kLanes)
        store(y + i, hn::Mul(load(y + i), factor));
}

template <class Integer>
Work from_integers(const Problem& p) {
    const auto* in = static_cast<const Integer*>(p.integers);
    const V factor = splat(kScale);
    return each(p, [=](size_t i) {
        const hn::RebindToSigned<D> wide;
        if constexpr (sizeof(Integer) == 4)
            return hn::Mul(hn::ConvertTo(d, hn::LoadU(wide, in + i)), factor);
        else
            return hn::Mul(hn::ConvertTo(d, hn::PromoteTo(wide, hn::LoadU(hn::Rebind<Integer, D>(), in + i))),
                           factor);
    });
}

// Narrowing saturates, which clamps.
void to_bytes(const float* x, int8_t* out, size_t n) {
    const V factor = splat(kToBytes);
    const hn::RebindToSigned<D> wide;
    const hn::Rebind<int8_t, D> narrow;
    for (size_t i = 0; i < n; i += kLanes)
        hn::StoreU(hn::DemoteTo(narrow, hn::ConvertTo(wide, hn::Mul(load(x + i), factor))), narrow, out + i);
}

// One time step from whatever gives the vector of an activated gate, and of the normalised cell state, at an
// index.
template <class Gate, class Finish>
void lstm(float* out, size_t n, Gate gate, Finish finish) {
    float* cell = out + n;
    for (size_t k = 0; k < n; k += kLanes)
        store(cell + k, hn::MulAdd(gate(0, k), gate(3, k), hn::Mul(gate(1, k), load(cell + k))));
    const auto normalise = finish();
    for (size_t k = 0; k < n; k += kLanes)
        store(out + k, hn::Mul(gate(2, k), tanh(normalise(load(cell + k), k))));
}

void lstm_norm(const float* gates, const float* gamma, const float* beta, float* out, size_t n) {
    const Moments of[] = {{gates, n}, {gates + n, n}, {gates + 2 * n, n}, {gates + 3 * n, n}};
    const auto affine = [=](const Moments& m, V x, size_t parameter) {
        return hn::MulAdd(hn::Mul(hn::Sub(x, splat(m.mean)), splat(m.inverse_sd)), load(gamma + parameter),
                          load(beta + parameter));
    };
    lstm(
        out, n,
        [&](size_t g, size_t k) {
            const V x = affine(of[g], load(gates + g * n + k), g * n / 4 + k);
            return g == 3 ? tanh(x) : sigmoid(x);
        },
        [&] { return [=, m = Moments(out + n, n)](V x, size_t k) { return affine(m, x, 4 * n + k); }; });
}

// A line of more than a vector's bytes a plane; shorter ones are shuffled as halves and quarters of vectors.
template <class Tag>
size_t planes_to_linear(Tag tag, const uint8_t* in, uint8_t* out, size_t length, size_t i) {
    for (; i + hn::Lanes(tag) <= length; i += hn::Lanes(tag))
        hn::StoreInterleaved4(hn::LoadU(tag, in + i), hn::LoadU(tag, in + length + i),
                              hn::LoadU(tag, in + 2 * length + i), hn::LoadU(tag, in + 3 * length + i), tag,
                              out + 4 * i);
    return i;
}

template <class Tag>
size_t linear_to_planes(Tag tag, const uint8_t* in, uint8_t* out, size_t length, size_t i) {
    for (; i + hn::Lanes(tag) <= length; i += hn::Lanes(tag)) {
        hn::Vec<Tag> plane[4];
        hn::LoadInterleaved4(tag, in + 4 * i, plane[0], plane[1], plane[2], plane[3]);
        for (size_t k = 0; k < 4; ++k)
            hn::StoreU(plane[k], tag, out + k * length + i);
    }
    return i;
}

Work hw32(const Problem& p, bool to_linear) {
    const size_t lines = p.shape.rows, length = p.shape.cols;
    const hn::ScalableTag<uint8_t> whole;
    const hn::CappedTag<uint8_t, 16> sixteen;
    const hn::CappedTag<uint8_t, 8> eight;
    if (length % 8)
        return {};
    return repeat(
        [=, in = static_cast<const uint8_t*>(p.integers), out = reinterpret_cast<uint8_t*>(p.bytes)] {
            for (size_t at = 0; at < lines * length * 4; at += length * 4)
                if (to_linear) {
                    size_t i = planes_to_linear(whole, in + at, out + at, length, 0);
                    i = planes_to_linear(sixteen, in + at, out + at, length, i);
                    planes_to_linear(eight, in + at, out + at, length, i);
                } else {
                    size_t i = linear_to_planes(whole, in + at, out + at, length, 0);
                    i = linear_to_planes(sixteen, in + at, out + at, length, i);
                    linear_to_planes(eight, in + at, out + at, length, i);
                }
        });
}

}  // namespace

Work highway(const Problem& p) {
    const size_t n = p.shape.n;
    const float *a = p.a, *b = p.b, *c = p.c, *e = p.d;
    float* const out = p.out;
    if (n % kLanes)
        return {};
    const V one = splat(1), factor = splat(kScale);
    switch (p.op) {
        case Op::operator_add:
        case Op::add:
            return each(p, [=](size_t i) { return hn::Add(load(a + i), load(b + i)); });
        case Op::sub:
            return each(p, [=](size_t i) { return hn::Sub(load(a + i), load(b + i)); });
        case Op::mul:
            return each(p, [=](size_t i) { return hn::Mul(load(a + i), load(b + i)); });
        case Op::scale:
            return each(p, [=](size_t i) { return hn::Mul(load(a + i), factor); });
        case Op::complement:
            return each(p, [=](size_t i) { return hn::Sub(one, load(a + i)); });
        case Op::dot_product:
            return each(p, [=](size_t i) {
                return hn::MulAdd(load(a + i), load(c + i), hn::Mul(load(b + i), load(e + i)));
            });
        case Op::exp:
            return each(p, [=](size_t i) { return hn::Exp(d, load(a + i)); });
        case Op::sigmoid:
            return each(p, [=](size_t i) { return sigmoid(load(a + i)); });
        case Op::tanh:
            return each(p, [=](size_t i) { return tanh(load(a + i)); });
        case Op::softmax:
            return repeat([=] { softmax(a, out, n); });
        case Op::sum:
            return repeat([=] { *out = sum(a, n); });
        case Op::variance:
            return repeat([=] { *out = squares(a, n, kMean) / static_cast<float>(n); });
        case Op::layer_norm:
            return repeat([=] {
                const Moments m(a, n);
                const V mean = splat(m.mean), scale = splat(m.inverse_sd);
                for (size_t i = 0; i < n; i += kLanes)
                    store(out + i,
                          hn::MulAdd(hn::Mul(hn::Sub(load(a + i), mean), scale), load(b + i), load(c + i)));
            });
        case Op::instance_norm:
            return repeat([=] {
                const Moments m(a, n);
                const V scale = splat(m.inverse_sd * kScale),
                        offset = splat(kBias - m.mean * m.inverse_sd * kScale);
                for (size_t i = 0; i < n; i += kLanes)
                    store(out + i, hn::MulAdd(load(a + i), scale, offset));
            });
        case Op::min_max:
            return repeat([=] { min_max(a, n, out); });
        case Op::i8_to_float:
            return from_integers<int8_t>(p);
        case Op::i16_to_float:
            return from_integers<int16_t>(p);
        case Op::i32_to_float:
            return from_integers<int32_t>(p);
        case Op::float_to_i8:
            return repeat([=, to = p.bytes] { to_bytes(a, to, n); });
        case Op::lstm:
            return repeat([=] {
                lstm(
                    out, n, [=](size_t g, size_t k) { return load(a + g * n + k); },
                    [] { return [](V x, size_t) { return x; }; });
            });
        case Op::lstm_activation:
            return repeat([=] {
                lstm(
                    out, n,
                    [=](size_t g, size_t k) {
                        const V x = load(a + g * n + k);
                        return g == 3 ? tanh(x) : sigmoid(x);
                    },
                    [] { return [](V x, size_t) { return x; }; });
            });
        case Op::lstm_norm:
            return repeat([=] { lstm_norm(a, b, c, out, n); });
        case Op::hw32_to_linear:
            return hw32(p, true);
        case Op::linear_to_hw32:
            return hw32(p, false);
        case Op::split:
            return each(p, [=](size_t i) { return load(a + i); });
        case Op::one_hot:
            return repeat([=, fill = each(p, [](size_t) { return hn::Zero(d); })] {
                fill(1);
                out[static_cast<size_t>(*a)] = 1;
            });
        default:
            return {};
    }
}

}  // namespace bench
