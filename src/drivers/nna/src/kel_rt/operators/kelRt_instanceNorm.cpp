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
    double square = d * d;
#if defined(KELRT_SCALARS)
    asm(""
        : "+w"(square));  // or a multiply-accumulate is made, in which the sum waits for the product: 17
                          // cycles, not 15
#endif
    return square;
}

// Squares and sums in double, but the running sum is rounded to single after every element, which decides
// what large inputs give.
void add_squares(float& sum, const float* x, uint32_t n, float mean) {
    in_order(n, x, [&](float value) {
        sum = static_cast<float>(static_cast<double>(sum) + square_of(value, mean));
    });
}

// Both roundings make a chain of ten cycles an element. While the sum stays within one power of two 2^e, a
// single addition does the same: to sum + 1.5 * 2^(e+29), whose last bit in double is that of the sum in
// single. kRun elements are summed so, and then every step is checked by the two roundings themselves, all at
// once. Returns how many steps hold; the next one does not if the sum reached the next power of two, or came
// to lie between two doubles. 1.6 times as fast, except where doubles are checked one by one.
constexpr uint32_t kRun = 32;
#if defined(KELRT_SCALARS)
constexpr bool kRuns = false;
#else
constexpr bool kRuns = true;
#endif

uint32_t add_squares_of_run(float& sum, const f32* x, float mean) {
    const uint32_t exponent = std::bit_cast<uint32_t>(sum) >> 23;  // of a sum of squares, which has no sign
    if (exponent < 1 || exponent > 254)
        return 0;
    const double shift = std::bit_cast<double>((exponent + (1023 - 127) + 29ull) << 52) * 1.5;
    double squares[kRun], sums[kRun + 1];
    for (uint32_t i = 0; i < kRun; ++i)
        squares[i] = square_of(x[i], mean);
    double shifted = static_cast<double>(sum) + shift;
    sums[0] = shifted;
    for (uint32_t i = 0; i < kRun; ++i)
        sums[i + 1] = shifted += squares[i];
    uint64_t differences[kRun], any = 0;
    for (uint32_t i = 0; i < kRun; ++i) {
        const double literally = static_cast<double>(static_cast<float>((sums[i] - shift) + squares[i]));
        differences[i] = std::bit_cast<uint64_t>(literally) ^ std::bit_cast<uint64_t>(sums[i + 1] - shift);
        any |= differences[i];
    }
    uint32_t held = kRun;
    if (any)
        for (held = 0; !differences[held];)
            ++held;
    sum = static_cast<float>(sums[held] - shift);
    return held;
}

float variance_of(const float* x, uint32_t n, float mean) {
    float sum = 0.0f;
    uint32_t i = std::min(n, kRun);  // at first the sum passes one power of two after the other
    add_squares(sum, x, i, mean);
    while (kRuns && n - i >= kRun) {
        const uint32_t held = add_squares_of_run(sum, x + i, mean);
        const uint32_t literally = held == kRun ? 0 : held == 0 ? kRun : 1;
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
