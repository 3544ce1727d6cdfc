// Indices that arrive as floats: one-hot and embedding take theirs from the first element of a tensor.
#pragma once

#include <bit>
#include <cstdint>

namespace kelrt {

// Truncates toward zero to an unsigned 64-bit integer, which saturates at both ends: anything with a sign
// gives 0, NaN included, and anything from 2^64 on all ones, NaN included.
constexpr uint64_t truncate_to_u64(float x) {
    if (std::bit_cast<uint32_t>(x) >> 31)
        return 0;
    return x < 0x1p64f ? static_cast<uint64_t>(x) : UINT64_MAX;
}

// The index itself is the low half, so 2^32 counts as 0.
constexpr uint32_t float_index(float x) {
    return static_cast<uint32_t>(truncate_to_u64(x));
}

}  // namespace kelrt
