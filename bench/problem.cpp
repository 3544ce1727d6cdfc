#include "problem.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <new>

namespace bench {
namespace {

struct Counts {
    size_t a = 0, b = 0, c = 0, d = 0, out = 0, integer_bytes = 0, bytes = 0;
};

Counts counts_of(Op op, const Shape& s) {
    const size_t n = s.n;
    switch (op) {
        case Op::dispatch:
        case Op::operator_add:
        case Op::add:
        case Op::sub:
        case Op::mul:
            return {.a = n, .b = n, .out = n};
        case Op::scale:
        case Op::complement:
        case Op::exp:
        case Op::sigmoid:
        case Op::tanh:
        case Op::softmax:
        case Op::instance_norm:
        case Op::split:
            return {.a = n, .out = n};
        case Op::dot_product:
            return {.a = n, .b = n, .c = n, .d = n, .out = n};
        case Op::sum:
        case Op::variance:
            return {.a = n, .out = 1};
        case Op::min_max:
            return {.a = n, .out = 2};
        case Op::layer_norm:
            return {.a = n, .b = n, .c = n, .out = n};
        case Op::feature_norm:
            return {.a = n, .b = kFrame, .c = kFrame, .out = n};
        case Op::i8_to_float:
            return {.out = n, .integer_bytes = n};
        case Op::i16_to_float:
            return {.out = n, .integer_bytes = 2 * n};
        case Op::i32_to_float:
            return {.out = n, .integer_bytes = 4 * n};
        case Op::copy_format:
            return {.integer_bytes = 2 * n, .bytes = n};
        case Op::float_to_i8:
            return {.a = n, .bytes = n};
        case Op::lstm:
        case Op::lstm_activation:
            return {.a = 4 * n, .out = 2 * n};
        case Op::lstm_norm:
            return {.a = 4 * n, .b = 5 * n, .c = 5 * n, .out = 2 * n};
        case Op::matmul:
            return {.a = s.rows * s.inner, .b = s.inner * s.cols, .out = s.rows * s.cols};
        case Op::transpose:
            return {.out = s.rows * s.cols};
        case Op::hw32_to_linear:
        case Op::linear_to_hw32:
            return {.integer_bytes = 4 * s.rows * s.cols, .bytes = 4 * s.rows * s.cols};
        case Op::im2col:
            return {.integer_bytes = s.rows * s.cols * s.channels, .bytes = s.patches() * s.patch_bytes()};
        case Op::one_hot:
            return {.a = 1, .out = n};
        case Op::embedding:
            return {.a = 1, .b = n * kTableRows, .out = n};
    }
    std::abort();
}

// What `make` makes of random words, the same for everyone who asks with the same seed; repeated after a
// prime number of them, because filling takes longer than measuring.
template <class T, class Make>
void fill(T* values, size_t count, uint32_t seed, Make make) {
    constexpr size_t kPeriod = 65521;
    for (size_t i = 0; i < std::min(count, kPeriod); ++i)
        values[i] = make(seed = seed * 1664525 + 1013904223);
    for (size_t filled = kPeriod; filled < count; filled += kPeriod)
        std::copy_n(values, std::min(count - filled, kPeriod), values + filled);
}

auto uniform(float low, float high) {
    return [=](uint32_t word) { return low + (high - low) * static_cast<float>(word >> 8) * 0x1p-24f; };
}

}  // namespace

std::string Shape::text() const {
    if (kernel)
        return std::to_string(kernel) + "x" + std::to_string(kernel) + "x" + std::to_string(channels) +
               " on " + std::to_string(rows) + "x" + std::to_string(cols);
    if (inner)
        return std::to_string(rows) + "x" + std::to_string(inner) + "x" + std::to_string(cols) +
               (transposed_a || transposed_b
                    ? std::string(" ") + (transposed_a ? "T" : "N") + (transposed_b ? "T" : "N")
                    : "");
    if (rows)
        return std::to_string(rows) + "x" + std::to_string(cols);
    return std::to_string(n);
}

void Problem::Free::operator()(void* memory) const {
    std::free(memory);
}

void* Problem::allocate(size_t count, size_t width) {
    if (count == 0)
        return nullptr;
    // Operands start on lines of the cache, at different places of their pages: equal ones would fall into
    // the same sets, and loads would wait for stores that only look like theirs.
    constexpr size_t kPage = 4096, kLine = 64;
    const size_t start = memory_.size() * 17 * kLine % kPage;
    char* memory =
        static_cast<char*>(std::aligned_alloc(kPage, (start + count * width + kPage) / kPage * kPage));
    if (!memory)
        throw std::bad_alloc();
    memory_.emplace_back(memory);
    return memory + start;
}

Problem::Problem(Op operation, const Shape& s, Input input) : op(operation), shape(s) {
    const Counts count = counts_of(op, s);
    const auto floats = [&](size_t n, uint32_t seed) {
        auto* values = static_cast<float*>(allocate(n, sizeof(float)));
        if (input == Input::subnormal)
            fill(values, n, seed, [](uint32_t word) { return std::bit_cast<float>(word & 0x807FFFFFu); });
        else if (op == Op::lstm)
            fill(values, n, seed, uniform(0.05f, 0.95f));  // activated gates
        else if (op == Op::feature_norm && seed == 3)
            fill(values, n, seed, uniform(0.5f, 2));  // deviations
        else if (op == Op::sum)
            fill(values, n, seed, uniform(0, 1));  // or peers could not agree on what is left
        else
            fill(values, n, seed, uniform(-4, 4));
        return values;
    };
    a = floats(count.a, 1);
    b = floats(count.b, 2);
    c = floats(count.c, 3);
    d = floats(count.d, 4);
    out = floats(count.out, 5);
    if (op == Op::one_hot || op == Op::embedding)
        a[0] = 3;
    integers = allocate(count.integer_bytes, 1);
    fill(static_cast<uint8_t*>(integers), count.integer_bytes, 6,
         [](uint32_t word) { return static_cast<uint8_t>(word >> 24); });
    bytes = static_cast<int8_t*>(allocate(count.bytes, 1));
    std::fill_n(bytes, count.bytes, static_cast<int8_t>(99));
    out_count = count.out;
    bytes_count = count.bytes;
}

}  // namespace bench
