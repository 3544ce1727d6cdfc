// Two tensors that should be the same bits.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "npy.h"

namespace tool {

struct Difference {
    uint64_t elements = 0, different = 0;
    uint64_t first = 0;          // the first element that differs ...
    std::string recorded, here;  // ... and its values, with their bits where that helps
    bool is_float = false;
    uint64_t ulps = 0;                  // between those two; of integers, their distance
    uint64_t most_ulps = 0, worst = 0;  // the largest distance, and its element
    uint64_t by_maths = 0;              // how many differ where the maths library has a say
};

// Whether an element may differ because another machine's maths library rounds otherwise.
using ByMaths = bool (*)(std::span<const uint32_t> values, uint64_t element);

// Compares elements of a type; the bytes beyond the last whole element are one more.
Difference compare(npy::Type type, std::span<const uint8_t> recorded, std::span<const uint8_t> here,
                   ByMaths by_maths, std::span<const uint32_t> values);

// How many floats lie between two, one of the two included; both zeros are one float. UINT32_MAX if one of
// them is NaN and the other is not.
uint64_t ulp_distance(uint32_t a_bits, uint32_t b_bits);

}  // namespace tool
