// What is measured: the vector formulas with references in double precision and ranges of arguments, and the
// arguments at which a formula stops working.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "kelRt.h"
#include "math/tables.h"

namespace accuracy {

// A formula over n floats, n a multiple of four.
using Run = void (*)(const float* x, float* y, uint32_t n);

template <class Vector, auto primitive, class... More>
void each(const float* x, float* y, uint32_t n, const More&... more) {
    for (uint32_t i = 0; i < n; i += sizeof(Vector) / sizeof(float)) {
        Vector v;
        std::memcpy(&v, x + i, sizeof v);
        v = primitive(v, more...);
        std::memcpy(y + i, &v, sizeof v);
    }
}
template <auto primitive, class... More>
void each4(const float* x, float* y, uint32_t n, const More&... more) {
    each<kelRt_float32x4_t, primitive>(x, y, n, more...);
}
template <auto primitive>
void each2(const float* x, float* y, uint32_t n) {
    each<kelRt_float32x2_t, primitive>(x, y, n);
}
template <auto kernel>
void whole(const float* x, float* y, uint32_t n) {
    kernel(x, y, n);
}

inline const Table kExp(kExpCoefficients), kLog(kLogCoefficients);

inline void run_exp(const float* x, float* y, uint32_t n) {
    each4<vexpq_f32>(x, y, n, kExp.v);
}
inline void run_tanh(const float* x, float* y, uint32_t n) {
    each4<vtanhq_f32>(x, y, n, kExp.v);
}
inline constexpr Run run_sigmoid = whole<kelRt_sigmoidf>;
inline void run_log(const float* x, float* y, uint32_t n) {
    each4<vlogq_f32>(x, y, n, kLog.v);
}
template <int n_halves>
void run_pow(const float* x, float* y, uint32_t n) {
    each4<vpowq_f32>(x, y, n, splat(n_halves / 2.0f), kLog.v, kExp.v);
}

inline double exact_sigmoid(double x) {
    return 1 / (1 + std::exp(-x));
}
inline double exact_inverse(double x) {
    return 1 / x;
}
inline double exact_inverse_root(double x) {
    return 1 / std::sqrt(x);
}
template <int n_halves>
double exact_pow(double x) {
    return std::pow(x, n_halves / 2.0);
}

struct Range {
    float low, high;        // both included
    bool mirrored = false;  // and from -high to -low
};

// What is told beside units in the last place, which mislead where the result passes through zero.
enum class Beside { absolute, relative };
// Over which arguments the mean is taken: spaced evenly, or by a constant ratio.
enum class Spacing { even, ratio };

struct Function {
    const char* name;
    const char* title;
    Run run, twin;  // the twin is to give the same bits, where there is one
    double (*exact)(double);
    Beside beside;
    Spacing spacing;
    std::vector<Range> ranges;
};

inline constexpr float kLeast = 0x1p-126f, kMost = std::numeric_limits<float>::max();
// Where the results of vexpq_f32 and of the sigmoid stop being normal, and the former's finite.
inline constexpr float kExpLow = -0x1.5d58ap6f, kExpHigh = 0x1.62e42ep6f, kSigmoidLow = -0x1.5d589ep6f;

inline const std::vector<Function> kFunctions = {
    {"vexpq_f32",
     "`vexpq_f32`, `kelRt_expf`",
     run_exp,
     whole<kelRt_expf>,
     std::exp,
     Beside::relative,
     Spacing::even,
     {{kExpLow, -64}, {-64, -16}, {-16, -1}, {-1, 1}, {1, 16}, {16, 64}, {64, kExpHigh}}},
    {"vtanhq_f32",
     "`vtanhq_f32`, `kelRt_tanhf`",
     run_tanh,
     whole<kelRt_tanhf>,
     std::tanh,
     Beside::absolute,
     Spacing::ratio,
     {{1e-7f, 1e-6f, true},
      {1e-6f, 1e-5f, true},
      {1e-5f, 1e-4f, true},
      {1e-4f, 1e-3f, true},
      {1e-3f, 0.01f, true},
      {0.01f, 0.1f, true},
      {0.1f, 1, true},
      {1, 4, true},
      {4, 10, true},
      {10, kMost, true}}},
    {"sigmoid",
     "`kelRt_sigmoidf`",
     run_sigmoid,
     nullptr,
     exact_sigmoid,
     Beside::absolute,
     Spacing::even,
     {{kSigmoidLow, -64}, {-64, -16}, {-16, -1}, {-1, 1}, {1, 16}, {16, 100}}},
    {"vinvq_f32",
     "`vinvq_f32`, `vinv_f32`",
     each4<vinvq_f32>,
     each2<vinv_f32>,
     exact_inverse,
     Beside::relative,
     Spacing::ratio,
     {{kLeast, 0x1.fffffep125f, true}}},
    {"vinvsqrtq_f32",
     "`vinvsqrtq_f32`, `vinvsqrt_f32`",
     each4<vinvsqrtq_f32>,
     each2<vinvsqrt_f32>,
     exact_inverse_root,
     Beside::relative,
     Spacing::ratio,
     {{kLeast, kMost}}},
    {"vlogq_f32",
     "`vlogq_f32`",
     run_log,
     nullptr,
     std::log,
     Beside::absolute,
     Spacing::ratio,
     {{kLeast, 0x1p-16f},
      {0x1p-16f, 0.5f},
      {0.5f, 0.99f},
      {0.99f, 1.01f},
      {1.01f, 2},
      {2, 65536},
      {65536, kMost}}},
    {"vpowq_f32/0.5",
     "`vpowq_f32`, n = 0.5",
     run_pow<1>,
     nullptr,
     exact_pow<1>,
     Beside::relative,
     Spacing::ratio,
     {{0.01f, 100}, {kLeast, kMost}}},
    {"vpowq_f32/2",
     "`vpowq_f32`, n = 2",
     run_pow<4>,
     nullptr,
     exact_pow<4>,
     Beside::relative,
     Spacing::ratio,
     {{0.01f, 100}, {0x1p-62f, 0x1p62f}}},
    {"vpowq_f32/-10",
     "`vpowq_f32`, n = −10",
     run_pow<-20>,
     nullptr,
     exact_pow<-20>,
     Beside::relative,
     Spacing::ratio,
     {{0.5f, 2}, {0.01f, 100}}},
    {"vsinq_f32",
     "`vsinq_f32`, `vsin_f32`",
     each4<vsinq_f32>,
     each2<vsin_f32>,
     std::sin,
     Beside::absolute,
     Spacing::even,
     {{kLeast, 1.5f, true}, {1.5f, 6.3f, true}, {6.3f, 100, true}, {100, 1e4f, true}, {1e4f, 1e6f, true}}},
    {"vfloorq_f32",
     "`vfloorq_f32`",
     each4<vfloorq_f32>,
     nullptr,
     std::floor,
     Beside::absolute,
     Spacing::ratio,
     {{kLeast, 0x1.fffffep30f, true}}},
    {"vroundq_rte_f32",
     "`vroundq_rte_f32`",
     each4<vroundq_rte_f32>,
     nullptr,
     std::nearbyint,
     Beside::absolute,
     Spacing::ratio,
     {{kLeast, 0x1.fffffep30f, true}}},
};

// An argument at which a formula changes its behaviour: the last one, going from `from` to `to`, whose result
// still has a property.
struct Limit {
    const char* name;
    const char* title;
    Run run;
    float from, to;
    bool (*holds)(float y);
};

inline bool is_finite(float y) {
    return std::isfinite(y);
}
inline bool is_number(float y) {
    return !std::isnan(y);
}
inline bool is_normal(float y) {
    return std::fabs(y) >= kLeast;
}
inline bool is_not_zero(float y) {
    return std::bit_cast<uint32_t>(y) << 1 != 0;
}

inline bool is_zero(float y) {
    return !is_not_zero(y);
}

inline constexpr Limit kLimits[] = {
    {"exp/finite", "`vexpq_f32` is finite up to", run_exp, 80, 100, is_finite},
    {"exp/number", "`vexpq_f32` is no NaN up to", run_exp, 80, 100, is_number},
    {"exp/normal", "`vexpq_f32` is a normal number down to", run_exp, -80, -100, is_normal},
    {"exp/nonzero", "`vexpq_f32` is not +0 down to", run_exp, -80, -100, is_not_zero},
    {"tanh/zero+", "`vtanhq_f32` of a positive x is 0 up to", run_tanh, 1e-9f, 1e-7f, is_zero},
    {"tanh/zero-", "`vtanhq_f32` of a negative x is 0 down to", run_tanh, -1e-9f, -1e-7f, is_zero},
    {"sigmoid/number", "`kelRt_sigmoidf` is no NaN down to", run_sigmoid, -80, -100, is_number},
    {"sigmoid/nonzero", "`kelRt_sigmoidf` is not 0 down to", run_sigmoid, -80, -88, is_not_zero},
};

// Floats in their order: consecutive keys are neighbouring floats, 0 is zero.
inline int64_t key(float x) {
    const uint32_t bits = std::bit_cast<uint32_t>(x);
    return bits >> 31 ? -int64_t{bits & 0x7FFFFFFFu} : int64_t{bits};
}
inline float from_key(int64_t k) {
    return std::bit_cast<float>(k < 0 ? static_cast<uint32_t>(-k) | 0x80000000u : static_cast<uint32_t>(k));
}

// The size of a unit in the last place of a float nearest to x.
inline double unit(double x) {
    const int exponent = static_cast<int>(std::bit_cast<uint64_t>(x) >> 52 & 0x7FF) - 1023;
    return std::bit_cast<double>(static_cast<uint64_t>((exponent < -126 ? -126 : exponent) - 23 + 1023)
                                 << 52);
}

// How far y is from the truth, in such units. Anything but a number is infinitely far.
inline double error_in_units(float y, double exact) {
    const double error = std::fabs(static_cast<double>(y) - exact) / unit(exact);
    return std::isnan(error) ? std::numeric_limits<double>::infinity() : error;
}

inline float one(Run run, float x) {
    const float in[4] = {x, x, x, x};
    float out[4];
    run(in, out, 4);
    return out[0];
}

}  // namespace accuracy
