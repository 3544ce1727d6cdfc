// The exported four-lane and two-lane functions: each passes its operands through one algorithm.
#include <cstring>

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
using Table = kelrt::CallersTable<Floats>;

// Calls f with four lanes (two lanes: the pair twice) and returns what it stores, in a vector part.
template <class Vector, class Function>
Vector on_lanes(const Vector& x, Function f) {
    alignas(16) char lanes[16];
    std::memcpy(lanes, &x, sizeof x);
    std::memcpy(lanes + 16 - sizeof x, &x, sizeof x);
    kelrt::vector_part([f, p = static_cast<void*>(lanes)] { store(p, f(p)); });
    Vector result;
    std::memcpy(&result, lanes, sizeof result);
    return result;
}

auto sine() {
    return [](const void* x) {
        const float c[4] = {te_sin_coeff2, te_sin_coeff3, te_sin_coeff4, te_sin_coeff5};
        return kelrt::sin(Floats::load(x), c);
    };
}

}  // namespace

kelRt_float32x4_t vfloorq_f32(kelRt_float32x4_t x) {
    return on_lanes(x, [](const void* p) { return kelrt::floor(Floats::load(p)); });
}

kelRt_float32x4_t vroundq_rte_f32(kelRt_float32x4_t x) {
    return on_lanes(x, [](const void* p) { return kelrt::round_to_even(Floats::load(p)); });
}

kelRt_float32x2_t vinvsqrt_f32(kelRt_float32x2_t x) {
    return on_lanes(x, [](const void* p) { return kelrt::inverse_sqrt(Floats::load(p)); });
}

kelRt_float32x4_t vinvsqrtq_f32(kelRt_float32x4_t x) {
    return on_lanes(x, [](const void* p) { return kelrt::inverse_sqrt(Floats::load(p)); });
}

kelRt_float32x2_t vinv_f32(kelRt_float32x2_t x) {
    return on_lanes(x, [](const void* p) { return kelrt::reciprocal(Floats::load(p)); });
}

kelRt_float32x4_t vinvq_f32(kelRt_float32x4_t x) {
    return on_lanes(x, [](const void* p) { return kelrt::reciprocal(Floats::load(p)); });
}

kelRt_float32x4_t vtaylor_polyq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* table) {
    return on_lanes(x, [=](const void* p) { return kelrt::taylor_poly(Floats::load(p), Table{table}); });
}

kelRt_float32x4_t vexpq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* exp_table) {
    return on_lanes(x, [=](const void* p) { return kelrt::exp(Floats::load(p), Table{exp_table}); });
}

kelRt_float32x4_t vlogq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* log_table) {
    return on_lanes(x, [=](const void* p) { return kelrt::log<Floats>(Ints::load(p), Table{log_table}); });
}

kelRt_float32x4_t vtanhq_f32(kelRt_float32x4_t x, const kelRt_float32x4_t* exp_table) {
    return on_lanes(x, [=](const void* p) { return kelrt::tanh(Floats::load(p), Table{exp_table}); });
}

kelRt_float32x4_t vpowq_f32(kelRt_float32x4_t x, kelRt_float32x4_t n, const kelRt_float32x4_t* log_table,
                            const kelRt_float32x4_t* exp_table) {
    return on_lanes(x, [=, pn = static_cast<const void*>(&n)](const void* p) {
        return kelrt::pow(Ints::load(p), Floats::load(pn), Table{log_table}, Table{exp_table});
    });
}

kelRt_float32x4_t vsinq_f32(kelRt_float32x4_t x) {
    return on_lanes(x, sine());
}

kelRt_float32x2_t vsin_f32(kelRt_float32x2_t x) {
    return on_lanes(x, sine());
}
