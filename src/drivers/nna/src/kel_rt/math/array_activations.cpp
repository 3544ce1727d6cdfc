// Array kernels: the activations. Whole blocks of four take the four-lane approximation, the tail the C
// library's function, so the same input may differ in its last bits by where it lies.
#include <cmath>

#include "element.h"
#include "instruction_sets.h"
#include "math/algorithms.h"
#include "math/blocks.h"

namespace kelrt::KELRT_SET {

uint32_t kelRt_tanhf(const float* in, float* out, uint32_t n) {
    for_blocks(
        n, kNumbers, [](auto x) { return tanh(x, kExpTable); }, out, in);
    const f32* x = in;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = std::tanh(x[i]); });
    return NNA_STATUS_OK;
}

uint32_t kelRt_expf(const float* in, float* out, uint32_t n) {
    for_blocks(
        n, kOrdinaryExp, [](auto x) { return exp(x, kExpTable); }, out, in);
    const f32* x = in;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = std::exp(x[i]); });
    return NNA_STATUS_OK;
}

uint32_t kelRt_sigmoidf(const float* in, float* out, uint32_t n) {
    for_blocks(
        n, kOrdinaryExp, [](auto x) { return sigmoid(x, kExpTable); }, out, in);
    const f32* x = in;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = 1.0f / (std::exp(-x[i]) + 1.0f); });
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
