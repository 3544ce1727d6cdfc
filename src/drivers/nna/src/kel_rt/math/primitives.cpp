// The exported four-lane and two-lane functions: each passes its operands through one algorithm.
#include <bit>

#include "kelRt.h"
#include "math/algorithms.h"
#include "math/vector_part.h"

// Tunable on purpose: the sine functions read them at every call.
float te_sin_coeff2 = 1.0f / 6;
float te_sin_coeff3 = 1.0f / 20;
float te_sin_coeff4 = 1.0f / 42;
float te_sin_coeff5 = 1.0f / 72;

namespace {

using kelrt::lanes::Floats;
using kelrt::lanes::Ints;
using Table = kelrt::CallersTable;

Ints stored(Ints x) {
    return x;
}
Ints stored(Floats x) {
    return bits(x);
}

// f over the lanes of x, as a vector part. Two lanes go in twice and come out once.
template <class Vector, class Function>
Vector on_lanes(Vector x, Function f) {
    struct Copies {
        Vector copy[16 / sizeof(Vector)];
    } operand;
    for (Vector& copy : operand.copy)
        copy = x;
    const Ints lanes = std::bit_cast<Ints>(operand);
    Ints result;
    kelrt::vector_part([=, &result] { result = stored(f(lanes)); });
    return std::bit_cast<Copies>(result).copy[0];
}

auto sine() {
    return [](Ints x) {
        const float c[4] = {te_sin_coeff2, te_sin_coeff3, te_sin_coeff4, te_sin_coeff5};
        return kelrt::sin(from_bits(x), c);
    };
}

}  // namespace

kelRt_float32x4_t vfloorq_f32(kelRt_float32x4_t x) {
    return on_lanes(x, [](Ints x_bits) { return kelrt::floor(from_bits(x_bits)); });
}

kelRt_float32x4_t vroundq_rte_f32(kelRt_float32x4_t x) {
    return on_lanes(x, [](Ints x_bits) { return kelrt::round_to_even(from_bits(x_bits)); });
}

kelRt_float32x2_t vinvsqrt_f32(kelRt_float32x2_t x) {
    return on_lanes(x, [](Ints x_bits) { return kelrt::inverse_sqrt(from_bits(x_bits)); });
}

kelRt_float32x4_t vinvsqrtq_f32(kelRt_float32x4_t x) {
    return on_lanes(x, [](Ints x_bits) { return kelrt::inverse_sqrt(from_bits(x_bits)); });
}

kelRt_float32x2_t vinv_f32(kelRt_float32x2_t x) {
    return on_lanes(x, [](Ints x_bits) { return kelrt::reciprocal(from_bits(x_bits)); });
}

kelRt_float32x4_t vinvq_f32(kelRt_float32x4_t x) {
    return on_lanes(x, [](Ints x_bits) { return kelrt::reciprocal(from_bits(x_bits)); });
}

kelRt_float32x4_t vtaylor_polyq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* table) {
    return on_lanes(x, [=](Ints x_bits) { return kelrt::taylor_poly(from_bits(x_bits), Table{table}); });
}

kelRt_float32x4_t vexpq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* exp_table) {
    return on_lanes(x, [=](Ints x_bits) { return kelrt::exp(from_bits(x_bits), Table{exp_table}); });
}

kelRt_float32x4_t vlogq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* log_table) {
    return on_lanes(x, [=](Ints x_bits) { return kelrt::log<Floats>(x_bits, Table{log_table}); });
}

kelRt_float32x4_t vtanhq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* exp_table) {
    return on_lanes(x, [=](Ints x_bits) { return kelrt::tanh(from_bits(x_bits), Table{exp_table}); });
}

kelRt_float32x4_t vpowq_f32(kelRt_float32x4_t x, kelRt_float32x4_t n, const kelRt_float32x4_t* log_table,
                            const kelRt_float32x4_t* exp_table) {
    return on_lanes(x, [=](Ints x_bits) {
        return kelrt::pow(x_bits, from_bits(std::bit_cast<Ints>(n)), Table{log_table}, Table{exp_table});
    });
}

kelRt_float32x4_t vsinq_f32(kelRt_float32x4_t x) {
    return on_lanes(x, sine());
}

kelRt_float32x2_t vsin_f32(kelRt_float32x2_t x) {
    return on_lanes(x, sine());
}
