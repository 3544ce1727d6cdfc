// Instance normalisation of one channel: zero mean and unit deviation, then one scale and one bias.
#include <cmath>

#include "element.h"
#include "instruction_sets.h"
#include "log.h"

namespace kelrt::KELRT_SET {

namespace {

constexpr double kEpsilon = 1e-05;

float mean_of(const f32* x, uint32_t n) {
    float sum = 0.0f;
    for (uint32_t i = 0; i < n; ++i)
        sum += x[i];
    return sum / static_cast<float>(n);
}

// Squares and sums in double, but the running sum is rounded to single after every element, which decides
// what large inputs give.
float variance_of(const f32* x, uint32_t n, float mean) {
    float sum = 0.0f;
    for (uint32_t i = 0; i < n; ++i) {
        const double d = x[i] - mean;  // a single-precision difference, widened
        sum = static_cast<float>(static_cast<double>(sum) + d * d);
    }
    return sum / static_cast<float>(n);
}

}  // namespace

uint32_t kelRt_instanceNorm(float* output, const float* input, uint32_t n, float scale, float bias,
                            uint32_t* outputSize) {
    if (!output || !input) {
        KEL_LOG_ERR("Bad Address Input %p Output %p", static_cast<const void*>(input),
                    static_cast<const void*>(output));
        return NNA_STATUS_NULL_POINTER;
    }
    const f32* x = input;
    f32* y = output;
    if (n > 0) {
        const float mean = mean_of(x, n);
        const float variance = variance_of(x, n, mean);
        const float sd = static_cast<float>(std::sqrt(static_cast<double>(variance) + kEpsilon));
        for (uint32_t i = 0; i < n; ++i)
            y[i] = bias + ((x[i] - mean) / sd) * scale;
    }
    if (outputSize)
        *outputSize = n * 4;
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
