// Copy with conversion of the number format: fixed point of 8, 16 or 32 bits, or float, to float or to 8-bit
// fixed point. A raw integer q stands for q * scale / 2^frac_bits.
#include <cmath>
#include <cstdlib>

#include "element.h"
#include "kelRt.h"
#include "log.h"

namespace {

// Total bits that stand for single-precision float.
constexpr uint32_t kFloat = 0xFFFFFFFF;

// 2^n as the 32-bit signed integer 1 << (n mod 256): 2^31 is negative, what is shifted out is 0. Formats at
// the limits depend on it.
int32_t pow2(uint32_t n) {
    n &= 0xFF;
    return n < 32 ? static_cast<int32_t>(uint32_t{1} << n) : 0;
}

bool accepts(uint32_t out_tot_bits, uint32_t out_frac_bits, uint32_t inp_tot_bits, uint32_t inp_frac_bits) {
    const bool input_width =
        inp_tot_bits == kFloat || inp_tot_bits == 8 || inp_tot_bits == 16 || inp_tot_bits == 32;
    const bool output_width = out_tot_bits == kFloat || out_tot_bits == 8;
    return input_width && output_width && inp_tot_bits >= inp_frac_bits && out_tot_bits >= out_frac_bits;
}

void to_float(const uint8_t* input, uint32_t tot_bits, float factor, float* output, uint32_t count) {
    switch (tot_bits) {
        case 8:
            kelRt_scaleI8toF(reinterpret_cast<const int8_t*>(input), output, factor, count);
            break;
        case 16:
            kelRt_scaleI16toF(reinterpret_cast<const int16_t*>(input), output, factor, count);
            break;
        case 32:
            kelRt_scaleI32toF(reinterpret_cast<const int32_t*>(input), output, factor, count);
            break;
        default:  // cannot be reached past accepts()
            KEL_LOG_ERR("unsupported inp_tot_bits=%u", tot_bits);
    }
}

// The shift that makes the data fit the output format. Measured on the input as it was given: of integers the
// bits are read as floats, four bytes an element, whatever their width. That is the rule.
uint8_t automatic_shift(const uint8_t* input, uint32_t count, uint32_t tot_bits, uint32_t frac_bits) {
    float min, max, shift;
    kelRt_minMaxf(reinterpret_cast<const float*>(input), &min, &max, count);
    getExtraInputScaleFactor(max, min, tot_bits, frac_bits, &shift);
    // 0 to 4: an 8-bit output has a range of 0 or 2^0 .. 2^7, for which the factor is never negative or NaN.
    return static_cast<uint8_t>(static_cast<int32_t>(shift));
}

}  // namespace

void getExtraInputScaleFactor(float max, float min, uint32_t tot_bits, uint32_t frac_bits, float* result) {
    const float range = static_cast<float>(pow2(tot_bits - frac_bits - 1));
    // A NaN fits: it is outside of no bound.
    if (!(min < -range) && !(max >= range)) {
        *result = 0;
        return;
    }
    // At a bound the logarithm is 0, and that of a maximum of 0 never wins: with strict bounds above, or
    // without a look at a maximum of 0, the result would be the same.
    float below = 0, above = 0;
    if (min < 0)
        below = static_cast<float>(std::ceil(std::log2(static_cast<double>(min / -range))));
    if (max >= 0)
        above = static_cast<float>(std::ceil(std::log2(static_cast<double>(max / range))));
    // In this order, so that a NaN `above` (0 / 0) gives way to `below`.
    *result = above > below ? above : below;
    if (*result > 4)
        *result = 4;
}

uint32_t kelRt_copyFormatConv(uint8_t* output, uint32_t out_tot_bits, uint32_t out_frac_bits,
                              uint32_t out_scale, const uint8_t* input, uint32_t inp_tot_bits,
                              uint32_t inp_frac_bits, uint32_t inp_scale, uint32_t count, uint8_t* out_shift,
                              uint32_t* out_bytes) {
    if (!output || !input)
        return NNA_STATUS_NULL_POINTER;
    if (count == 0) {
        KEL_LOG_ERR("Unexpected Size %d", count);
        return NNA_STATUS_INVALID_ARGUMENT;
    }
    if (!accepts(out_tot_bits, out_frac_bits, inp_tot_bits, inp_frac_bits)) {
        KEL_LOG_ERR("Input Total : %d Frac : %d", inp_tot_bits, inp_frac_bits);
        KEL_LOG_ERR("Output Total : %d Frac : %d", out_tot_bits, out_frac_bits);
        return NNA_STATUS_INVALID_ARGUMENT;
    }
    if (inp_tot_bits != kFloat && inp_scale == 0) {
        KEL_LOG_ERR("Input Scale Factor 0");
        return NNA_STATUS_INVALID_ARGUMENT;
    }
    if (out_bytes)
        *out_bytes = count * 4;

    // Everything becomes float first: float input where it is, integers in the output or, if that is to be 8
    // bits, in a block of their own.
    const float* floats = reinterpret_cast<const float*>(input);
    float* block = nullptr;
    if (inp_tot_bits != kFloat) {
        float* destination = reinterpret_cast<float*>(output);
        if (out_tot_bits != kFloat) {
            destination = block = static_cast<float*>(std::calloc(count, sizeof(float)));
            if (!block) {
                KEL_LOG_ERR("Malloc Failed");
                return NNA_STATUS_OUT_OF_MEMORY;
            }
        }
        // A power of two is exact: single precision would round the scale to the same factor.
        const double factor = 1.0 / pow2(inp_frac_bits) * inp_scale;
        to_float(input, inp_tot_bits, static_cast<float>(factor), destination, count);
        floats = destination;
    }
    // Float to float copies nothing, deliberately.
    if (out_tot_bits == kFloat)
        return NNA_STATUS_OK;

    if (out_scale == 0) {
        *out_shift = automatic_shift(input, count, out_tot_bits, out_frac_bits);
        out_scale = static_cast<uint32_t>(pow2(*out_shift));
    }
    const double factor = static_cast<double>(pow2(out_frac_bits)) / out_scale;
    kelRt_scaleFtoI8(floats, reinterpret_cast<int8_t*>(output), static_cast<float>(factor), count);
    if (out_bytes)
        *out_bytes = count;
    std::free(block);
    return NNA_STATUS_OK;
}
