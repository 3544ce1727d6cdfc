// Instance normalisation of one channel: zero mean and unit deviation, then one scale and one bias.
#include <algorithm>
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
// which the next one waits: three cycles an element more on a Cortex-A9.
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
// singles but in it.) So kRun elements are added, in groups; returns how many of them in groups before the
// next power of two. On a Cortex-A9 8 cycles an element, not 15.
constexpr uint32_t kRun = 32, kGroup = kScalars;

uint32_t add_squares_of_run(float& sum, const float* x, float mean) {
    const uint32_t exponent = std::bit_cast<uint32_t>(sum) >> 23;  // of a sum of squares, which has no sign
    if (exponent < 1 || exponent > 254)
        return 0;
    const double power = std::bit_cast<double>((exponent + (1023ull - 127)) << 52), shift = power * 0x1.8p29;
    double shifted = static_cast<double>(sum) + shift, before[kRun / kGroup];
    for (uint32_t i = 0; i < kRun; i += kGroup) {
        before[i / kGroup] = shifted;
        const auto values = Scalars<kGroup>::load(x + i);
        double squares[kGroup];
        for (uint32_t k = 0; k < kGroup; ++k)
            squares[k] = square_of(values.v[k], mean);
        await(squares);
        for (const double square : squares)
            shifted += square;
    }
    uint32_t held = kRun;
    for (; !(shifted - shift < 2 * power); shifted = before[held / kGroup])  // as no NaN is
        held -= kGroup;
    sum = static_cast<float>(shifted - shift);
    return held;
}

float variance_of(const float* x, uint32_t n, float mean) {
    float sum = 0.0f;
    uint32_t i = std::min(n, kRun);  // at first the sum passes one power of two after the other
    add_squares(sum, x, i, mean);
    while (n - i >= kRun) {
        const uint32_t held = add_squares_of_run(sum, x + i, mean);
        const uint32_t literally = held == kRun ? 0 : kGroup;
        add_squares(sum, x + i + held, literally, mean);
        i += held + literally;
    }
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
