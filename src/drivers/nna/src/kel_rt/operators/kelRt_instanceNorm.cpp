// Instance normalisation of one channel: zero mean and unit deviation, then one scale and one bias.
#include <bit>
#include <cmath>

#include "instruction_sets.h"
#include "log.h"
#include "scalars.h"

namespace kelrt::KELRT_SET {

namespace {

constexpr double kEpsilon = 1e-05;

float mean_of(const float* x, uint32_t n) {
    float sum = 0.0f;
    in_order(n, x, [&](float value) { sum += value; });
    return sum / static_cast<float>(n);
}

double square_of(float x, float mean) {
    const double d = x - mean;  // a single-precision difference, widened
    return d * d;
}

// Squares and sums in double, but the running sum is rounded to single after every element, which decides
// what large inputs give.
void add_squares(float& sum, const float* x, uint32_t n, float mean) {
    in_order(n, x, [&](float value) {
        sum = static_cast<float>(static_cast<double>(sum) + square_of(value, mean));
    });
}

// The squares are ready before the first is added. Otherwise clang makes each in its multiply-accumulate, for
// which the next one waits: on a Cortex-A9 10 cycles an element, not 6.6.
void await(double (&squares)[kScalars]) {
#if defined(KELRT_SCALARS)
    asm(""
        : "+w"(squares[0]), "+w"(squares[1]), "+w"(squares[2]), "+w"(squares[3]), "+w"(squares[4]),
          "+w"(squares[5]), "+w"(squares[6]), "+w"(squares[7]));
#else
    static_cast<void>(squares);
#endif
}

// Both roundings make a chain of ten cycles an element. While the sum stays within one power of two, 2^e, one
// addition does the same: to sum + 1.5 * 2^(e+29), whose last bit in double is that of the sum in single.
// (Rounding to double first makes no difference, as no square of a float lies that near to the middle of two
// singles but in it.) False, and nothing is done, if the sum is no normal number or reaches the next power of
// two. On a Cortex-A9 6.6 cycles an element, not 15.
constexpr uint32_t kRun = 32;

bool add_squares_of_run(float& sum, const float* x, float mean) {
    const uint32_t exponent = std::bit_cast<uint32_t>(sum) >> 23;  // of a sum of squares, which has no sign
    if (exponent < 1 || exponent > 254)
        return false;
    const double power = std::bit_cast<double>((exponent + (1023ull - 127)) << 52), shift = power * 0x1.8p29;
    double shifted = static_cast<double>(sum) + shift;
    for (uint32_t i = 0; i < kRun; i += kScalars) {
        const auto values = Scalars<kScalars>::load(x + i);
        double squares[kScalars];
        for (int k = 0; k < kScalars; ++k)
            squares[k] = square_of(values.v[k], mean);
        await(squares);
        for (const double square : squares)
            shifted += square;
    }
    const double total = shifted - shift;
    if (!(total < 2 * power))  // as no NaN is
        return false;
    sum = static_cast<float>(total);
    return true;
}

float variance_of(const float* x, uint32_t n, float mean) {
    float sum = 0.0f;
    uint32_t i = 0;
    for (; n - i >= kRun; i += kRun)
        if (!add_squares_of_run(sum, x + i, mean))
            add_squares(sum, x + i, kRun, mean);
    add_squares(sum, x + i, n - i, mean);
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
    if (n > 0) {
        const float mean = mean_of(input, n);
        const float variance = variance_of(input, n, mean);
        const float sd = static_cast<float>(std::sqrt(static_cast<double>(variance) + kEpsilon));
        for_elements(
            n, [=](auto x) { return bias + ((x - mean) / sd) * scale; }, output, input);
    }
    if (outputSize)
        *outputSize = n * 4;
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
