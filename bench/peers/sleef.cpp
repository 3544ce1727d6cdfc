// SLEEF's vector functions, with errors up to 1 ULP (exp) and 3.5 ULP (tanh), in loops over the widest
// vectors.
#include <immintrin.h>
#include <sleef.h>

#include <cmath>

#include "peers.h"

namespace bench {
namespace {

#ifdef __AVX512F__
using Vector = __m512;
Vector exp(Vector x) {
    return Sleef_expf16_u10avx512f(x);
}
Vector tanh(Vector x) {
    return Sleef_tanhf16_u35avx512f(x);
}
#else
using Vector = __m256;
Vector exp(Vector x) {
    return Sleef_expf8_u10avx2(x);
}
Vector tanh(Vector x) {
    return Sleef_tanhf8_u35avx2(x);
}
#endif
constexpr size_t kLanes = sizeof(Vector) / sizeof(float);
typedef float Unaligned __attribute__((vector_size(sizeof(Vector)), aligned(4), may_alias));

Vector load(const float* from) {
    return *reinterpret_cast<const Unaligned*>(from);
}
void store(float* to, Vector v) {
    *reinterpret_cast<Unaligned*>(to) = v;
}
float total(Vector v) {
    float sum = 0;
    for (size_t i = 0; i < kLanes; ++i)
        sum += v[i];
    return sum;
}
Vector sigmoid(Vector x) {
    return 1 / (1 + exp(-x));
}

template <class F>
Work each(const Problem& p, F f) {
    return repeat([f, out = p.out, n = p.shape.n] {
        for (size_t i = 0; i < n; i += kLanes)
            store(out + i, f(i));
    });
}

void softmax(const float* x, float* y, size_t n) {
    Vector sum = {};
    for (size_t i = 0; i < n; i += kLanes) {
        const Vector e = exp(load(x + i));
        store(y + i, e);
        sum += e;
    }
    const float factor = 1 / total(sum);
    for (size_t i = 0; i < n; i += kLanes)
        store(y + i, load(y + i) * factor);
}

struct Moments {
    float mean, inverse_sd;
    Moments(const float* x, size_t n) {
        Vector sum = {}, squares = {};
        for (size_t i = 0; i < n; i += kLanes) {
            const Vector v = load(x + i);
            sum += v, squares += v * v;
        }
        mean = total(sum) / static_cast<float>(n);
        inverse_sd = 1 / std::sqrt(total(squares) / static_cast<float>(n) - mean * mean + kEpsilon);
    }
};

// One time step from whatever gives the vector of a gate, and of the normalised cell state, at an index.
template <class Gate, class Activate, class Finish>
void lstm(float* out, size_t n, Gate gate, Activate activate, Finish finish) {
    float* cell = out + n;
    for (size_t k = 0; k < n; k += kLanes)
        store(cell + k,
              activate(0, gate(0, k)) * activate(3, gate(3, k)) + activate(1, gate(1, k)) * load(cell + k));
    const auto normalise = finish();
    for (size_t k = 0; k < n; k += kLanes)
        store(out + k, activate(2, gate(2, k)) * tanh(normalise(load(cell + k), k)));
}

void lstm_norm(const float* gates, const float* gamma, const float* beta, float* out, size_t n) {
    const Moments of[] = {{gates, n}, {gates + n, n}, {gates + 2 * n, n}, {gates + 3 * n, n}};
    const auto affine = [=](const Moments& m, Vector x, size_t parameter) {
        return (x - m.mean) * m.inverse_sd * load(gamma + parameter) + load(beta + parameter);
    };
    lstm(
        out, n, [&](size_t g, size_t k) { return affine(of[g], load(gates + g * n + k), g * n / 4 + k); },
        [](size_t g, Vector x) { return g == 3 ? tanh(x) : sigmoid(x); },
        [&] { return [=, m = Moments(out + n, n)](Vector x, size_t k) { return affine(m, x, 4 * n + k); }; });
}

}  // namespace

Work sleef(const Problem& p) {
    const size_t n = p.shape.n;
    const float *a = p.a, *b = p.b, *c = p.c;
    float* const out = p.out;
    if (n % kLanes)
        return {};
    const auto gate = [=](size_t g, size_t k) { return load(a + g * n + k); };
    const auto unchanged = [] { return [](Vector x, size_t) { return x; }; };
    switch (p.op) {
        case Op::exp:
            return each(p, [=](size_t i) { return exp(load(a + i)); });
        case Op::sigmoid:
            return each(p, [=](size_t i) { return sigmoid(load(a + i)); });
        case Op::tanh:
            return each(p, [=](size_t i) { return tanh(load(a + i)); });
        case Op::softmax:
            return repeat([=] { softmax(a, out, n); });
        case Op::lstm:
            return repeat([=] {
                lstm(
                    out, n, gate, [](size_t, Vector x) { return x; }, unchanged);
            });
        case Op::lstm_activation:
            return repeat([=] {
                lstm(
                    out, n, gate, [](size_t g, Vector x) { return g == 3 ? tanh(x) : sigmoid(x); },
                    unchanged);
            });
        case Op::lstm_norm:
            return repeat([=] { lstm_norm(a, b, c, out, n); });
        default:
            return {};
    }
}

}  // namespace bench
