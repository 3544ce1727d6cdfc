// Instance normalisation of one channel: zero mean and unit deviation, then one scale and one bias.
#include <bit>
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
float add_square(float sum, float x, float mean) {
    const double d = x - mean;  // a single-precision difference, widened
    return static_cast<float>(static_cast<double>(sum) + d * d);
}

// Both roundings make a chain of ten cycles an element. While the sum stays within one power of two 2^e, a
// single addition does the same: to sum + 1.5 * 2^(e+29), whose last bit in double is that of the sum in
// single. kRun elements are summed so, and then every step is checked by the two roundings themselves, all at
// once; false if one differs (the sum reached the next power of two, or came to lie between two doubles). 1.6
// times as fast.
constexpr uint32_t kRun = 32;

bool add_squares_of_run(float& sum, const f32* x, float mean) {
    const uint32_t exponent = std::bit_cast<uint32_t>(sum) >> 23;  // of a sum of squares, which has no sign
    if (exponent < 1 || exponent > 254)
        return false;
    const double shift = std::bit_cast<double>((exponent + (1023 - 127) + 29ull) << 52) * 1.5;
    double squares[kRun], sums[kRun + 1];
    for (uint32_t i = 0; i < kRun; ++i) {
        const double d = x[i] - mean;
        squares[i] = d * d;
    }
    double shifted = static_cast<double>(sum) + shift;
    sums[0] = shifted;
    for (uint32_t i = 0; i < kRun; ++i)
        sums[i + 1] = shifted += squares[i];
    uint64_t differs = 0;
    for (uint32_t i = 0; i < kRun; ++i) {
        const double literally = static_cast<double>(static_cast<float>((sums[i] - shift) + squares[i]));
        differs |= std::bit_cast<uint64_t>(literally) ^ std::bit_cast<uint64_t>(sums[i + 1] - shift);
    }
    if (differs)
        return false;
    sum = static_cast<float>(shifted - shift);
    return true;
}

float variance_of(const f32* x, uint32_t n, float mean) {
    float sum = 0.0f;
    uint32_t i = 0;
    while (n - i >= kRun) {
        if (!add_squares_of_run(sum, x + i, mean))
            for (uint32_t k = 0; k < kRun; ++k)
                sum = add_square(sum, x[i + k], mean);
        i += kRun;
    }
    for (; i < n; ++i)
        sum = add_square(sum, x[i], mean);
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
