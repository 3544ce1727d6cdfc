// Eigen's expressions, each one fused loop.
#include <Eigen/Core>
#include <cstring>

#include "peers.h"

namespace bench {
namespace {

using Index = Eigen::Index;
using In = Eigen::Map<const Eigen::ArrayXf>;
using Out = Eigen::Map<Eigen::ArrayXf>;
using Matrix = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using ByteMatrix = Eigen::Matrix<uint8_t, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

template <class Integer>
Work from_integers(const Problem& p) {
    const Eigen::Map<const Eigen::Array<Integer, Eigen::Dynamic, 1>> in(
        static_cast<const Integer*>(p.integers), static_cast<Index>(p.shape.n));
    return repeat([=, out = p.out, n = in.size()] { Out(out, n) = in.template cast<float>() * kScale; });
}

struct Moments {
    float mean, inverse_sd;
    explicit Moments(const In& x) {
        mean = x.mean();
        inverse_sd = 1 / std::sqrt((x - mean).square().mean() + kEpsilon);
    }
};

void softmax(const In& x, Out y) {
    y = x.exp();
    y *= 1 / y.sum();
}

void lstm_norm(const float* gates, const float* gamma, const float* beta, float* out, Index n) {
    const auto gate = [=](Index k) {
        const In x(gates + k * n, n);
        const Moments m(x);
        return (x - m.mean) * m.inverse_sd * In(gamma + k * n / 4, n) + In(beta + k * n / 4, n);
    };
    Out h(out, n), cell(out + n, n);
    cell = gate(0).logistic() * gate(3).tanh() + gate(1).logistic() * cell;
    const In state(out + n, n);
    const Moments m(state);
    h = gate(2).logistic() *
        ((state - m.mean) * m.inverse_sd * In(gamma + 4 * n, n) + In(beta + 4 * n, n)).tanh();
}

Work matmul(const Problem& p) {
    const auto m = static_cast<Index>(p.shape.rows), k = static_cast<Index>(p.shape.inner),
               n = static_cast<Index>(p.shape.cols);
    const bool ta = p.shape.transposed_a, tb = p.shape.transposed_b;
    const Eigen::Map<const Matrix> a(p.a, ta ? k : m, ta ? m : k), b(p.b, tb ? n : k, tb ? k : n);
    if (n == 1)
        return repeat([=, out = p.out] {
            Eigen::Map<Eigen::VectorXf>(out, m).noalias() =
                a * Eigen::Map<const Eigen::VectorXf>(b.data(), k);
        });
    if (m == 1)
        return repeat([=, out = p.out] {
            Eigen::Map<Eigen::RowVectorXf>(out, n).noalias() =
                Eigen::Map<const Eigen::RowVectorXf>(a.data(), k) * b;
        });
    return repeat([=, out = p.out] {
        Eigen::Map<Matrix> c(out, m, n);
        if (ta && tb)
            c.noalias() = a.transpose() * b.transpose();
        else if (ta)
            c.noalias() = a.transpose() * b;
        else if (tb)
            c.noalias() = a * b.transpose();
        else
            c.noalias() = a * b;
    });
}

// Squares by Eigen itself; others from a copy, in blocks that it turns in registers.
Work transpose(const Problem& p) {
    const auto rows = static_cast<Index>(p.shape.rows), cols = static_cast<Index>(p.shape.cols);
    if (rows == cols)
        return repeat([=, out = p.out] { Eigen::Map<Matrix>(out, rows, cols).transposeInPlace(); });
    constexpr Index kBlock = 8;
    using Block = Eigen::Matrix<float, kBlock, kBlock, Eigen::RowMajor>;
    return repeat([=, out = p.out, copy = std::make_shared<Matrix>(rows, cols)] {
        *copy = Eigen::Map<Matrix>(out, rows, cols);
        Eigen::Map<Matrix> turned(out, cols, rows);
        const Index whole_rows = rows / kBlock * kBlock, whole_cols = cols / kBlock * kBlock;
        for (Index j = 0; j < whole_cols; j += kBlock)
            for (Index i = 0; i < whole_rows; i += kBlock) {
                Block block = copy->block<kBlock, kBlock>(i, j);
                block.transposeInPlace();
                turned.block<kBlock, kBlock>(j, i) = block;
            }
        turned.rightCols(rows - whole_rows) = copy->bottomRows(rows - whole_rows).transpose();
        turned.bottomRows(cols - whole_cols) = copy->rightCols(cols - whole_cols).transpose();
    });
}

// The planes of each line as a matrix of four rows.
Work hw32(const Problem& p, bool to_linear) {
    const auto lines = static_cast<Index>(p.shape.rows), length = static_cast<Index>(p.shape.cols);
    using From = Eigen::Map<const ByteMatrix>;
    using To = Eigen::Map<ByteMatrix>;
    return repeat(
        [=, in = static_cast<const uint8_t*>(p.integers), out = reinterpret_cast<uint8_t*>(p.bytes)] {
            for (Index at = 0; at < lines * length * 4; at += length * 4)
                if (to_linear)
                    To(out + at, length, 4) = From(in + at, 4, length).transpose();
                else
                    To(out + at, 4, length) = From(in + at, length, 4).transpose();
        });
}

}  // namespace

Work eigen(const Problem& p) {
    const auto n = static_cast<Index>(p.shape.n);
    const In a(p.a, n), b(p.b, n), c(p.c, n), d(p.d, n);
    float* const out = p.out;
    switch (p.op) {
        case Op::operator_add:
        case Op::add:
            return repeat([=] { Out(out, n) = a + b; });
        case Op::sub:
            return repeat([=] { Out(out, n) = a - b; });
        case Op::mul:
            return repeat([=] { Out(out, n) = a * b; });
        case Op::scale:
            return repeat([=] { Out(out, n) = a * kScale; });
        case Op::complement:
            return repeat([=] { Out(out, n) = 1 - a; });
        case Op::dot_product:
            return repeat([=] { Out(out, n) = a * c + b * d; });
        case Op::exp:
            return repeat([=] { Out(out, n) = a.exp(); });
        case Op::sigmoid:
            return repeat([=] { Out(out, n) = a.logistic(); });
        case Op::tanh:
            return repeat([=] { Out(out, n) = a.tanh(); });
        case Op::softmax:
            return repeat([=] { softmax(a, Out(out, n)); });
        case Op::sum:
            return repeat([=] { *out = a.sum(); });
        case Op::variance:
            return repeat([=] { *out = (a - kMean).square().mean(); });
        case Op::layer_norm:
            return repeat([=] {
                const Moments m(a);
                Out(out, n) = c + b * ((a - m.mean) * m.inverse_sd);
            });
        case Op::instance_norm:
            return repeat([=] {
                const Moments m(a);
                Out(out, n) = kBias + (a - m.mean) * (m.inverse_sd * kScale);
            });
        case Op::feature_norm:
            return repeat([=, x = p.a, mean = In(p.b, kFrame), deviation = In(p.c, kFrame)] {
                for (Index frame = 0; frame < n; frame += kFrame)
                    Out(out + frame, kFrame) = (In(x + frame, kFrame) - mean) / deviation;
            });
        case Op::min_max:
            return repeat([=] { out[0] = a.minCoeff(), out[1] = a.maxCoeff(); });
        case Op::i8_to_float:
            return from_integers<int8_t>(p);
        case Op::i16_to_float:
            return from_integers<int16_t>(p);
        case Op::i32_to_float:
            return from_integers<int32_t>(p);
        case Op::float_to_i8:
            return repeat(
                [=, to = Eigen::Map<Eigen::Array<int8_t, Eigen::Dynamic, 1>>(p.bytes, n)]() mutable {
                    to = (a * kToBytes).max(-128.0f).min(127.0f).cast<int8_t>();
                });
        case Op::copy_format:
            return repeat([=, to = Eigen::Map<Eigen::Array<int8_t, Eigen::Dynamic, 1>>(p.bytes, n),
                           in = Eigen::Map<const Eigen::Array<int16_t, Eigen::Dynamic, 1>>(
                               static_cast<const int16_t*>(p.integers), n)]() mutable {
                to = (in.cast<float>() * kFormatFactor).max(-128.0f).min(127.0f).cast<int8_t>();
            });
        case Op::lstm:
            return repeat([=, g = p.a] {
                Out h(out, n), cell(out + n, n);
                cell = In(g, n) * In(g + 3 * n, n) + In(g + n, n) * cell;
                h = In(g + 2 * n, n) * cell.tanh();
            });
        case Op::lstm_activation:
            return repeat([=, g = p.a] {
                Out h(out, n), cell(out + n, n);
                cell = In(g, n).logistic() * In(g + 3 * n, n).tanh() + In(g + n, n).logistic() * cell;
                h = In(g + 2 * n, n).logistic() * cell.tanh();
            });
        case Op::lstm_norm:
            return repeat(
                [=, gates = p.a, gamma = p.b, beta = p.c] { lstm_norm(gates, gamma, beta, out, n); });
        case Op::matmul:
            return matmul(p);
        case Op::transpose:
            return transpose(p);
        case Op::hw32_to_linear:
            return hw32(p, true);
        case Op::linear_to_hw32:
            return hw32(p, false);
        case Op::split:
            return repeat([=] { Out(out, n) = a; });
        case Op::embedding:
            return repeat([=, index = p.a, table = p.b] {
                Out(out, n) = In(table + static_cast<Index>(*index) * n, n);
            });
        case Op::one_hot:
            return repeat([=, index = p.a] {
                Out(out, n).setZero();
                out[static_cast<Index>(*index)] = 1;
            });
        case Op::dispatch:
        case Op::im2col:
            return {};
    }
    return {};
}

}  // namespace bench
