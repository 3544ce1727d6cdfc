// What is measured: an operation on operands of one size. The library and every peer are given the same
// problem, each with operands of its own, and turn it into work.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bench {

enum class Op {
    dispatch,
    operator_add,
    add,
    sub,
    mul,
    scale,
    complement,
    dot_product,
    exp,
    sigmoid,
    tanh,
    softmax,
    sum,
    variance,
    layer_norm,
    instance_norm,
    feature_norm,
    min_max,
    i8_to_float,
    i16_to_float,
    i32_to_float,
    float_to_i8,
    copy_format,
    lstm,
    lstm_activation,
    lstm_norm,
    matmul,
    transpose,
    hw32_to_linear,
    linear_to_hw32,
    im2col,
    split,
    embedding,
    one_hot,
};

// Vectors have n elements; matrices, and lines of hw32, have rows and columns; a product also has an inner
// dimension. For im2col the input has rows, cols and channels, and the kernel is square.
struct Shape {
    size_t n = 0;
    size_t rows = 0, inner = 0, cols = 0;
    bool transposed_a = false, transposed_b = false;  // as stored: inner x rows, cols x inner
    size_t channels = 0, kernel = 0;

    std::string text() const;
    size_t patch_bytes() const { return (kernel * kernel * channels + 7) / 8 * 8; }
    size_t patches() const { return (rows - kernel + 1) * (cols - kernel + 1); }
};

// Constants of the operations.
constexpr float kScale = 0.7f, kBias = 0.3f, kToBytes = 40.0f, kMean = 0.1f, kEpsilon = 1e-5f;

// The operands, filled the same way for everyone. Which there are, and how long they are, is the operation's
// business:
//   vectors          a, b, c, d and out of n floats; integers of any width are in `integers`
//   sum, variance    out[0]; min_max: out[0] the least, out[1] the largest
//   layer_norm       b gamma, c beta; feature_norm: b mean, c deviation, frames of kFrame
//   copy_format      16-bit integers with kFromFraction fractional bits to bytes with kToFraction
//   lstm*            a the gates i, f, o, g (4n); out: hidden state (n), then cell state (n), in place
//   lstm_norm        b gammas, c betas: of gate k from k * n / 4 floats on, of the cell from 4n
//   matmul           a, b, out; transpose: out alone, rows x cols as stored, in place
//   hw32*, im2col    integers to bytes
//   one_hot          a[0] the index into n; embedding: of a row of n in b, a table of kTableRows
enum : size_t { kFrame = 40, kTableRows = 8 };
enum : uint32_t { kFromFraction = 12, kToFraction = 4 };
constexpr float kFormatFactor = (1 << kToFraction) / static_cast<float>(1 << kFromFraction);

class Problem {
  public:
    enum class Input { ordinary, subnormal };
    Problem(Op op, const Shape& shape, Input input = Input::ordinary);

    Op op;
    Shape shape;
    float *a, *b, *c, *d, *out;
    void* integers;
    int8_t* bytes;
    size_t out_count, bytes_count;  // what the result is: one of these is 0

  private:
    struct Free {
        void operator()(void* memory) const;
    };
    std::vector<std::unique_ptr<void, Free>> memory_;
    void* allocate(size_t count, size_t width);
};

}  // namespace bench
