#include "lines.h"

#include <algorithm>

namespace bench {
namespace {

constexpr size_t kMany = 8 << 20;  // far beyond the caches

// Multiplications and additions that the formulas prescribe, of one element.
constexpr double kExpFlops = 19, kSigmoidFlops = kExpFlops + 7, kTanhFlops = kExpFlops + 10;

std::vector<Shape> vectors(std::initializer_list<size_t> sizes) {
    std::vector<Shape> shapes;
    for (const size_t n : sizes)
        shapes.push_back({.n = n});
    return shapes;
}

const std::vector<Shape> kVectors = vectors({16, 256, 4096, 65536, kMany});
const std::vector<Shape> kLayers = vectors({64, 256, 1024, 4096, 65536});

double count(size_t n) {
    return static_cast<double>(n);
}

// One pass over vectors with so many bytes and operations an element.
auto elementwise(double read, double written, double flops) {
    return [=](const Shape& s) {
        const double n = count(s.n);
        return std::vector<Pass>{{.read = read * n, .written = written * n, .flops = flops * n}};
    };
}

std::vector<Pass> softmax(const Shape& s) {
    const double n = count(s.n);
    return {{.read = 4 * n, .written = 4 * n, .flops = kExpFlops * n, .chain = n / 4},
            {.read = 4 * n, .written = 4 * n, .flops = n}};
}

std::vector<Pass> sum(const Shape& s) {
    const double n = count(s.n);
    return {{.read = 4 * n, .chain = n / 4}};
}

std::vector<Pass> layer_norm(const Shape& s) {
    const double n = count(s.n);
    return {{.read = 4 * n, .chain = n / 4},
            {.read = 4 * n, .flops = 2 * n, .chain = n / 4},
            {.read = 12 * n, .written = 4 * n, .flops = 3 * n, .divisions = n}};
}

std::vector<Pass> instance_norm(const Shape& s) {
    const double n = count(s.n);
    return {{.read = 4 * n, .chain = n},
            {.read = 4 * n, .flops = 2 * n, .double_chain = n},
            {.read = 4 * n, .written = 4 * n, .flops = 3 * n, .divisions = n}};
}

std::vector<Pass> feature_norm(const Shape& s) {
    const double n = count(s.n);
    return {{.read = 4 * n, .written = 4 * n, .flops = n, .divisions = n}};
}

// Gates and cell state in, cell and hidden state out.
constexpr double kStatesRead = 20, kStatesWritten = 8, kStatesFlops = 4 + kTanhFlops;
constexpr double kActivationFlops = kStatesFlops + kTanhFlops + 3 * kSigmoidFlops;

// Each gate's norm is a sum and a variance of n elements and a division of each, and so is the cell's. The
// four gates' sums are independent of each other.
std::vector<Pass> lstm_norm(const Shape& s) {
    const double n = count(s.n);
    return {{.read = 16 * n, .flops = 4 * n, .chain = n / 4},
            {.read = 16 * n, .flops = 8 * n, .chain = n / 4},
            {.read = 52 * n,
             .written = 4 * n,
             .flops = (12 + kActivationFlops - kTanhFlops) * n,
             .divisions = 4 * n,
             .chain = n / 4},
            {.read = 4 * n, .flops = 2 * n, .chain = n / 4},
            {.read = 16 * n, .written = 4 * n, .flops = (3 + kTanhFlops) * n, .divisions = n}};
}

std::vector<Pass> matmul(const Shape& s) {
    const double m = count(s.rows), k = count(s.inner), n = count(s.cols);
    return {{.read = 4 * (m * k + k * n), .written = 4 * m * n, .flops = 2 * m * k * n, .chain = k}};
}

std::vector<Pass> transpose(const Shape& s) {
    const double bytes = 4 * count(s.rows) * count(s.cols);
    return {{.read = bytes, .written = bytes}};
}

std::vector<Pass> im2col(const Shape& s) {
    return {{.read = count(s.rows * s.cols * s.channels), .written = count(s.patches() * s.patch_bytes())}};
}

std::vector<Shape> products() {
    std::vector<Shape> shapes;
    for (const size_t n : {8, 16, 32, 64, 128, 256, 512})
        for (const int transposed : {0, 1, 2, 3})
            shapes.push_back({.rows = n,
                              .inner = n,
                              .cols = n,
                              .transposed_a = (transposed & 1) != 0,
                              .transposed_b = (transposed & 2) != 0});
    return shapes;
}

// A row vector by a matrix, and a matrix by a column vector.
std::vector<Shape> matrix_vector() {
    std::vector<Shape> shapes;
    for (const size_t n : {32, 128, 512, 1024}) {
        shapes.push_back({.rows = 1, .inner = n, .cols = n});
        shapes.push_back({.rows = n, .inner = n, .cols = 1});
    }
    return shapes;
}

std::vector<Shape> lines_of_hw32() {
    std::vector<Shape> shapes;
    for (const size_t bytes : {4 << 10, 256 << 10, 32 << 20})
        for (const size_t length : {8, 16, 64, 256, 1024})
            shapes.push_back({.rows = bytes / 4 / length, .cols = length});
    return shapes;
}

std::vector<Shape> odd_lines_of_hw32() {
    std::vector<Shape> shapes;
    for (const size_t length : {3, 7, 9, 33, 100, 1001})
        shapes.push_back({.rows = (size_t{256} << 10) / 4 / length, .cols = length});
    return shapes;
}

struct Row {
    const char *group, *name;
    Op op;
    std::vector<Shape> shapes;
    std::function<std::vector<Pass>(const Shape&)> passes;
    double tolerance = 2e-6;
    bool ordered = false;
};

const Row kRows[] = {
    {"dispatch", "kelRt_executeContext, cpu_ewop_add", Op::dispatch, vectors({4}), elementwise(8, 4, 1)},
    {"softmax", "kelRt_softMax", Op::softmax, vectors({16, 64, 256, 1024, 4096, 65536, 1 << 20}), softmax,
     2e-5},
    {"exp", "kelRt_expf", Op::exp, kVectors, elementwise(4, 4, kExpFlops)},
    {"sigmoid, tanh", "kelRt_sigmoidf", Op::sigmoid, kVectors, elementwise(4, 4, kSigmoidFlops)},
    {"sigmoid, tanh", "kelRt_tanhf", Op::tanh, kVectors, elementwise(4, 4, kTanhFlops)},
    {"sum", "kelRt_sumf", Op::sum, kVectors, sum, 4e-5, true},
    {"sum", "kelRt_variancef", Op::variance, kVectors, sum, 4e-5, true},
    {"layer norm", "kelRt_lstmLayerNorm", Op::layer_norm, kVectors, layer_norm, 4e-5, true},
    {"instance norm", "kelRt_instanceNorm", Op::instance_norm, vectors({16, 256, 4096, 65536, 1 << 20}),
     instance_norm, 4e-5, true},
    {"min-max", "kelRt_minMaxf", Op::min_max, kVectors, elementwise(4, 0, 0), 0},
    {"element-wise", "kelRt_scalef", Op::scale, kVectors, elementwise(4, 4, 1)},
    {"element-wise", "kelRt_addf", Op::add, kVectors, elementwise(8, 4, 1)},
    {"element-wise", "kelRt_ewopAdd", Op::operator_add, kVectors, elementwise(8, 4, 1)},
    {"element-wise", "kelRt_subf", Op::sub, kVectors, elementwise(8, 4, 1)},
    {"element-wise", "kelRt_mulf", Op::mul, kVectors, elementwise(8, 4, 1)},
    {"element-wise", "kelRt_complementf", Op::complement, kVectors, elementwise(4, 4, 1)},
    {"element-wise", "kelRt_dotproductf", Op::dot_product, kVectors, elementwise(16, 4, 3)},
    {"conversions", "kelRt_scaleI8toF", Op::i8_to_float, kVectors, elementwise(1, 4, 1)},
    {"conversions", "kelRt_scaleI16toF", Op::i16_to_float, kVectors, elementwise(2, 4, 1)},
    {"conversions", "kelRt_scaleI32toF", Op::i32_to_float, kVectors, elementwise(4, 4, 1)},
    {"conversions", "kelRt_scaleFtoI8", Op::float_to_i8, kVectors, elementwise(4, 1, 1), 1.0},
    {"format copy", "kelRt_copyFormatConv", Op::copy_format, kVectors, elementwise(2, 1, 2), 1.0},
    {"LSTM states", "kelRt_lstmStates", Op::lstm, kLayers,
     elementwise(kStatesRead, kStatesWritten, kStatesFlops)},
    {"LSTM with activations", "kelRt_lstmStatesActivation", Op::lstm_activation, kLayers,
     elementwise(kStatesRead, kStatesWritten, kActivationFlops)},
    {"LSTM with norm", "kelRt_lstmStatesCifgActivationNorm", Op::lstm_norm, kLayers, lstm_norm, 1e-4},
    {"feature norm", "kelRt_featurenorm", Op::feature_norm, vectors({40, 400, 4000, 64000, 4'000'000}),
     feature_norm},
    {"matmul", "kelRt_matmul", Op::matmul, products(), matmul, 1e-5},
    {"matrix x vector", "kelRt_matmul", Op::matmul, matrix_vector(), matmul, 1e-5},
    {"transposition",
     "transpose",
     Op::transpose,
     {{.rows = 8, .cols = 8},
      {.rows = 64, .cols = 64},
      {.rows = 100, .cols = 64},
      {.rows = 64, .cols = 1000},
      {.rows = 1024, .cols = 1024},
      {.rows = 1000, .cols = 1000},
      {.rows = 1024, .cols = 4096},
      {.rows = 4096, .cols = 1023}},
     transpose,
     0},
    {"hw32", "to linear", Op::hw32_to_linear, lines_of_hw32(), transpose, 0},
    {"hw32", "from linear", Op::linear_to_hw32, lines_of_hw32(), transpose, 0},
    {"hw32, odd lines", "to linear", Op::hw32_to_linear, odd_lines_of_hw32(), transpose, 0},
    {"hw32, odd lines", "from linear", Op::linear_to_hw32, odd_lines_of_hw32(), transpose, 0},
    {"im2col",
     "kelRt_im2col",
     Op::im2col,
     {{.rows = 56, .cols = 56, .channels = 64, .kernel = 3},
      {.rows = 224, .cols = 224, .channels = 3, .kernel = 5},
      {.rows = 224, .cols = 224, .channels = 3, .kernel = 7},
      {.rows = 224, .cols = 224, .channels = 1, .kernel = 3},
      {.rows = 28, .cols = 28, .channels = 256, .kernel = 1}},
     im2col,
     0},
    {"split, embedding, one-hot", "kelRt_split", Op::split, kVectors, elementwise(4, 4, 0), 0},
    {"split, embedding, one-hot", "kelRt_embedding", Op::embedding, vectors({16, 256, 4096, 65536, 1 << 20}),
     elementwise(4, 4, 0), 0},
    {"split, embedding, one-hot", "kelRt_oneHot", Op::one_hot, kVectors, elementwise(0, 4, 0), 0},
};

// On subnormal operands beside the same on ordinary ones.
constexpr std::pair<const char*, Op> kSubnormal[] = {
    {"kelRt_expf", Op::exp},
    {"kelRt_sigmoidf", Op::sigmoid},
    {"kelRt_tanhf", Op::tanh},
    {"kelRt_softMax", Op::softmax},
    {"kelRt_sumf", Op::sum},
    {"kelRt_variancef", Op::variance},
    {"kelRt_lstmLayerNorm", Op::layer_norm},
    {"kelRt_minMaxf", Op::min_max},
    {"kelRt_scalef", Op::scale},
    {"kelRt_addf", Op::add},
    {"kelRt_mulf", Op::mul},
    {"kelRt_complementf", Op::complement},
    {"kelRt_dotproductf", Op::dot_product},
    {"kelRt_scaleFtoI8", Op::float_to_i8},
    {"kelRt_lstmStates", Op::lstm},
    {"kelRt_lstmStatesActivation", Op::lstm_activation},
};

// A long sum in one order loses digits that a sum in another keeps.
double tolerance_of(const Row& row, const std::vector<Pass>& passes) {
    double chain = 0;
    for (const Pass& pass : passes)
        chain = std::max({chain, pass.chain, pass.double_chain});
    return row.tolerance * std::max(1.0, chain / 16384);
}

}  // namespace

std::vector<Line> all_lines() {
    std::vector<Line> lines;
    for (const Row& row : kRows)
        for (const Shape& shape : row.shapes)
            lines.push_back({row.group, row.name, row.op, shape, Problem::Input::ordinary,
                             tolerance_of(row, row.passes(shape)), row.ordered, row.passes(shape)});
    for (const auto& [name, op] : kSubnormal)
        lines.push_back({"subnormal input", name, op, {.n = 4096}, Problem::Input::subnormal, 0, false, {}});
    return lines;
}

}  // namespace bench
