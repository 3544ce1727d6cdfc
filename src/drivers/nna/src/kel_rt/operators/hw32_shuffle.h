// The two byte shuffles between the accelerator's hw32 layout and the linear one. A hw32 line of L elements
// is four planes of L bytes, the least significant bytes first; a linear line is L little-endian 32-bit
// words. Bytes are only moved, never interpreted.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelrt::KELRT_SET {

// Whole buffers: `lines` lines of L elements, one after another in both layouts. Any L; the buffers may be
// the same. If they overlap otherwise, lines are converted in ascending order, each read before it is
// written. `convert_lin_hw` mirrors the exported `convert_hw_lin`, which converts one line.
void hw32_to_linear(uint8_t* linear, const uint8_t* planes, size_t L, size_t lines);
void convert_lin_hw(uint8_t* planes, const uint8_t* linear, size_t L, size_t lines);

}  // namespace kelrt::KELRT_SET
