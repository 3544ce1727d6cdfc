// Plain loops, the C library's memcpy and memset, and the compiler's freedom: built with -O3 -ffast-math
// -march=native, which vectorises, reorders sums, fuses and calls the C library's vector maths.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "peers.h"

namespace bench {
namespace {

using std::size_t;

template <class F>
[[gnu::always_inline]] inline void each(float* __restrict out, size_t n, F f) {
    for (size_t i = 0; i < n; ++i)
        out[i] = f(i);
}

inline float sigmoid(float x) {
    return 1.0f / (1.0f + std::exp(-x));
}

float sum(const float* x, size_t n) {
    float total = 0;
    for (size_t i = 0; i < n; ++i)
        total += x[i];
    return total;
}

float variance(const float* x, size_t n, float mean) {
    float total = 0;
    for (size_t i = 0; i < n; ++i)
        total += (x[i] - mean) * (x[i] - mean);
    return total / static_cast<float>(n);
}

void softmax(const float* __restrict x, float* __restrict y, size_t n) {
    float total = 0;
    for (size_t i = 0; i < n; ++i)
        total += y[i] = std::exp(x[i]);
    const float factor = 1 / total;
    for (size_t i = 0; i < n; ++i)
        y[i] *= factor;
}

// The moments in one pass, which values around zero bear.
std::pair<float, float> moments(const float* x, size_t n) {
    float total = 0, squares = 0;
    for (size_t i = 0; i < n; ++i)
        total += x[i], squares += x[i] * x[i];
    const float mean = total / static_cast<float>(n);
    return {mean, squares / static_cast<float>(n) - mean * mean};
}

void layer_norm(const float* x, const float* __restrict gamma, const float* __restrict beta,
                float* __restrict y, size_t n) {
    const auto [mean, var] = moments(x, n);
    const float factor = 1 / std::sqrt(var + kEpsilon);
    for (size_t i = 0; i < n; ++i)
        y[i] = beta[i] + gamma[i] * (x[i] - mean) * factor;
}

void instance_norm(const float* x, float* __restrict y, size_t n) {
    const auto [mean, var] = moments(x, n);
    const float factor = kScale / std::sqrt(var + kEpsilon), offset = kBias - mean * factor;
    for (size_t i = 0; i < n; ++i)
        y[i] = x[i] * factor + offset;
}

void min_max(const float* x, size_t n, float* out) {
    float least = x[0], largest = x[0];
    for (size_t i = 1; i < n; ++i) {
        least = std::min(least, x[i]);
        largest = std::max(largest, x[i]);
    }
    out[0] = least, out[1] = largest;
}

void lstm(const float* __restrict gates, float* __restrict h, float* __restrict cell, size_t n) {
    const float *i = gates, *f = gates + n, *o = gates + 2 * n, *g = gates + 3 * n;
    for (size_t k = 0; k < n; ++k) {
        cell[k] = i[k] * g[k] + f[k] * cell[k];
        h[k] = o[k] * std::tanh(cell[k]);
    }
}

void lstm_activation(const float* __restrict gates, float* __restrict h, float* __restrict cell, size_t n) {
    const float *i = gates, *f = gates + n, *o = gates + 2 * n, *g = gates + 3 * n;
    for (size_t k = 0; k < n; ++k) {
        cell[k] = sigmoid(i[k]) * std::tanh(g[k]) + sigmoid(f[k]) * cell[k];
        h[k] = sigmoid(o[k]) * std::tanh(cell[k]);
    }
}

// The normalisation is an affine map of each gate, applied as the gate is read.
void lstm_norm(const float* __restrict gates, const float* gamma, const float* beta, float* __restrict h,
               float* __restrict cell, size_t n) {
    const float *i = gates, *f = gates + n, *o = gates + 2 * n, *g = gates + 3 * n;
    float mean[4], factor[4];
    for (size_t gate = 0; gate < 4; ++gate) {
        const auto [m, var] = moments(gates + gate * n, n);
        mean[gate] = m, factor[gate] = 1 / std::sqrt(var + kEpsilon);
    }
    const size_t q = n / 4;
    const float *gi = gamma, *gf = gamma + q, *go = gamma + 2 * q, *gg = gamma + 3 * q;
    const float *bi = beta, *bf = beta + q, *bo = beta + 2 * q, *bg = beta + 3 * q;
    for (size_t k = 0; k < n; ++k)
        cell[k] = sigmoid((i[k] - mean[0]) * factor[0] * gi[k] + bi[k]) *
                      std::tanh((g[k] - mean[3]) * factor[3] * gg[k] + bg[k]) +
                  sigmoid((f[k] - mean[1]) * factor[1] * gf[k] + bf[k]) * cell[k];
    const auto [m, var] = moments(cell, n);
    const float scale = 1 / std::sqrt(var + kEpsilon);
    for (size_t k = 0; k < n; ++k)
        h[k] = sigmoid((o[k] - mean[2]) * factor[2] * go[k] + bo[k]) *
               std::tanh((cell[k] - m) * scale * gamma[4 * n + k] + beta[4 * n + k]);
}

void matmul(const float* a, const float* __restrict b, float* __restrict c, const Shape& s) {
    const size_t a_row = s.transposed_a ? 1 : s.inner, a_inner = s.transposed_a ? s.rows : 1;
    for (size_t i = 0; i < s.rows; ++i) {
        float* __restrict row = c + i * s.cols;
        if (s.transposed_b || s.cols == 1) {
            for (size_t j = 0; j < s.cols; ++j) {
                float total = 0;
                for (size_t k = 0; k < s.inner; ++k)
                    total += a[i * a_row + k * a_inner] * b[j * s.inner + k];
                row[j] = total;
            }
        } else {
            std::fill_n(row, s.cols, 0.0f);
            for (size_t k = 0; k < s.inner; ++k)
                for (size_t j = 0; j < s.cols; ++j)
                    row[j] += a[i * a_row + k * a_inner] * b[k * s.cols + j];
        }
    }
}

void transpose(float* x, float* __restrict copy, size_t rows, size_t cols) {
    constexpr size_t kTile = 8;
    if (rows == cols) {
        for (size_t i = 0; i < rows; i += kTile)
            for (size_t j = i; j < cols; j += kTile)
                for (size_t r = i; r < std::min(rows, i + kTile); ++r)
                    for (size_t c = std::max(j, r + 1); c < std::min(cols, j + kTile); ++c)
                        std::swap(x[r * cols + c], x[c * cols + r]);
        return;
    }
    std::memcpy(copy, x, rows * cols * sizeof(float));
    for (size_t i = 0; i < rows; i += kTile)
        for (size_t j = 0; j < cols; j += kTile)
            for (size_t c = j; c < std::min(cols, j + kTile); ++c)
                for (size_t r = i; r < std::min(rows, i + kTile); ++r)
                    x[c * rows + r] = copy[r * cols + c];
}

void hw32_to_linear(const uint8_t* __restrict in, uint8_t* __restrict out, size_t lines, size_t length) {
    for (size_t line = 0; line < lines; ++line, in += 4 * length, out += 4 * length)
        for (size_t i = 0; i < length; ++i)
            for (size_t plane = 0; plane < 4; ++plane)
                out[4 * i + plane] = in[plane * length + i];
}

void linear_to_hw32(const uint8_t* __restrict in, uint8_t* __restrict out, size_t lines, size_t length) {
    for (size_t line = 0; line < lines; ++line, in += 4 * length, out += 4 * length)
        for (size_t i = 0; i < length; ++i)
            for (size_t plane = 0; plane < 4; ++plane)
                out[plane * length + i] = in[4 * i + plane];
}

void im2col(const uint8_t* __restrict in, uint8_t* __restrict out, const Patches& s) {
    const size_t used = s.kernel * s.stripe;
    for (size_t row = 0; row < s.out_rows; ++row)
        for (size_t col = 0; col < s.out_cols; ++col, out += s.patch) {
            const uint8_t* corner = in + row * s.row_bytes + col * (s.stripe / s.kernel);
            for (size_t k = 0; k < s.kernel; ++k)
                std::memcpy(out + k * s.stripe, corner + k * s.row_bytes, s.stripe);
            std::memset(out + used, 0, s.patch - used);
        }
}

template <class Integer>
Work from_integers(const Problem& p) {
    return repeat([in = static_cast<const Integer*>(p.integers), out = p.out, n = p.shape.n] {
        each(out, n, [=](size_t i) { return static_cast<float>(in[i]) * kScale; });
    });
}

}  // namespace

Work loop(const Problem& p) {
    const size_t n = p.shape.n, rows = p.shape.rows, cols = p.shape.cols;
    const float *a = p.a, *b = p.b, *c = p.c, *d = p.d;
    float* const out = p.out;
    const auto* bytes_in = static_cast<const uint8_t*>(p.integers);
    auto* bytes_out = reinterpret_cast<uint8_t*>(p.bytes);
    switch (p.op) {
        case Op::dispatch:
            return {};  // there is no work to speak of, and a loop has no dispatch
        case Op::operator_add:
        case Op::add:
            return repeat([=] { each(out, n, [=](size_t i) { return a[i] + b[i]; }); });
        case Op::sub:
            return repeat([=] { each(out, n, [=](size_t i) { return a[i] - b[i]; }); });
        case Op::mul:
            return repeat([=] { each(out, n, [=](size_t i) { return a[i] * b[i]; }); });
        case Op::scale:
            return repeat([=] { each(out, n, [=](size_t i) { return a[i] * kScale; }); });
        case Op::complement:
            return repeat([=] { each(out, n, [=](size_t i) { return 1 - a[i]; }); });
        case Op::dot_product:
            return repeat([=] { each(out, n, [=](size_t i) { return a[i] * c[i] + b[i] * d[i]; }); });
        case Op::exp:
            return repeat([=] { each(out, n, [=](size_t i) { return std::exp(a[i]); }); });
        case Op::sigmoid:
            return repeat([=] { each(out, n, [=](size_t i) { return sigmoid(a[i]); }); });
        case Op::tanh:
            return repeat([=] { each(out, n, [=](size_t i) { return std::tanh(a[i]); }); });
        case Op::softmax:
            return repeat([=] { softmax(a, out, n); });
        case Op::sum:
            return repeat([=] { *out = sum(a, n); });
        case Op::variance:
            return repeat([=] { *out = variance(a, n, kMean); });
        case Op::layer_norm:
            return repeat([=] { layer_norm(a, b, c, out, n); });
        case Op::instance_norm:
            return repeat([=] { instance_norm(a, out, n); });
        case Op::feature_norm:
            return repeat([=] {
                for (size_t frame = 0; frame < n; frame += kFrame)
                    each(out + frame, kFrame, [=](size_t k) { return (a[frame + k] - b[k]) / c[k]; });
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
            return repeat([=, to = p.bytes] {
                for (size_t i = 0; i < n; ++i)
                    to[i] = static_cast<int8_t>(std::min(std::max(a[i] * kToBytes, -128.0f), 127.0f));
            });
        case Op::copy_format:
            return repeat([=, in = static_cast<const int16_t*>(p.integers), to = p.bytes] {
                for (size_t i = 0; i < n; ++i)
                    to[i] = static_cast<int8_t>(
                        std::min(std::max(static_cast<float>(in[i]) * kFormatFactor, -128.0f), 127.0f));
            });
        case Op::lstm:
            return repeat([=] { lstm(a, out, out + n, n); });
        case Op::lstm_activation:
            return repeat([=] { lstm_activation(a, out, out + n, n); });
        case Op::lstm_norm:
            return repeat([=] { lstm_norm(a, b, c, out, out + n, n); });
        case Op::matmul:
            return repeat([=, s = p.shape] { matmul(a, b, out, s); });
        case Op::transpose:
            return repeat([=, copy = std::make_shared<std::vector<float>>(rows * cols)] {
                transpose(out, copy->data(), rows, cols);
            });
        case Op::hw32_to_linear:
            return repeat([=] { hw32_to_linear(bytes_in, bytes_out, rows, cols); });
        case Op::linear_to_hw32:
            return repeat([=] { linear_to_hw32(bytes_in, bytes_out, rows, cols); });
        case Op::im2col:
            return repeat([=, s = Patches(p.shape)] { im2col(bytes_in, bytes_out, s); });
        case Op::split:
            return repeat([=] { std::memcpy(out, a, n * sizeof(float)); });
        case Op::embedding:
            return repeat([=] { std::memcpy(out, b + static_cast<size_t>(a[0]) * n, n * sizeof(float)); });
        case Op::one_hot:
            return repeat([=] {
                std::memset(out, 0, n * sizeof(float));
                out[static_cast<size_t>(a[0])] = 1;
            });
    }
    return {};
}

}  // namespace bench
