// Array kernels: the activations. Whole blocks of four take the four-lane approximation, the tail the C
// library's function, so the same input may differ in its last bits by where it lies.
#include <cmath>

#include "element.h"
#include "kelRt.h"
#include "math/algorithms.h"
#include "math/vector_part.h"

using kelrt::f32;
using kelrt::for_blocks;
using kelrt::lanes::Floats;

static constexpr kelrt::SplatTable<Floats> kTable = {kelrt::kExpTable};

uint32_t kelRt_tanhf(const float* in, float* out, uint32_t n) {
    const f32* x = in;
    f32* y = out;
    const uint32_t tail =
        for_blocks<4>(n, [=](size_t i) { store(y + i, kelrt::tanh(Floats::load(x + i), kTable)); });
    for (size_t i = tail; i < n; ++i)
        y[i] = std::tanh(x[i]);
    return NNA_STATUS_OK;
}

uint32_t kelRt_expf(const float* in, float* out, uint32_t n) {
    const f32* x = in;
    f32* y = out;
    const uint32_t tail =
        for_blocks<4>(n, [=](size_t i) { store(y + i, kelrt::exp(Floats::load(x + i), kTable)); });
    for (size_t i = tail; i < n; ++i)
        y[i] = std::exp(x[i]);
    return NNA_STATUS_OK;
}

uint32_t kelRt_sigmoidf(const float* in, float* out, uint32_t n) {
    const f32* x = in;
    f32* y = out;
    const uint32_t tail =
        for_blocks<4>(n, [=](size_t i) { store(y + i, kelrt::sigmoid(Floats::load(x + i), kTable)); });
    for (size_t i = tail; i < n; ++i)
        y[i] = 1.0f / (std::exp(-x[i]) + 1.0f);
    return NNA_STATUS_OK;
}
