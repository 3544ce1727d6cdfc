// Division of fixed-point integers by a power of two, to nearest with ties away from zero: the rounding step
// of requantisation.
#include <cstring>

#include "kelRt.h"
#include "math/lanes.h"

namespace {

using kelrt::lanes::Ints;

// A rounding right shift sends ties upwards; taking one from negative values first sends theirs downwards.
kelRt_int32x4_t divide_by_pow2(const kelRt_int32x4_t& x, const Ints& exponent) {
    const Ints value = Ints::load(&x);
    const Ints shift = sub(Ints::splat(0), exponent);
    kelRt_int32x4_t result;
    store(&result, shift_rounding(add_sat(value, sign_if_both_negative(value, shift)), shift));
    return result;
}

}  // namespace

kelRt_int32x4_t rounding_divide_by_pow2_a(kelRt_int32x4_t x, kelRt_int32x4_t exponent) {
    return divide_by_pow2(x, Ints::load(&exponent));
}

kelRt_int32x4_t rounding_divide_by_pow2_b(kelRt_int32x4_t x, int32_t exponent) {
    return divide_by_pow2(x, Ints::splat(exponent));
}

int32_t rounding_divide_by_pow2_c(int32_t x, int32_t exponent) {
    const int by = exponent & 31;  // outside 0..31: its low five bits
    const int32_t mask = static_cast<int32_t>((1u << by) - 1);
    const int32_t remainder = x & mask;
    const int32_t threshold = (mask >> 1) + (x < 0);
    return (x >> by) + (remainder > threshold);
}
