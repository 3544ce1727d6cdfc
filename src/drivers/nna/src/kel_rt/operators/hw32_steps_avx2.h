// Whole lines by AVX2. Call only where the processor has it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelrt {

void hw32_to_linear_avx2(uint8_t* linear, const uint8_t* planes, size_t L, size_t lines);
void linear_to_hw32_avx2(uint8_t* planes, const uint8_t* linear, size_t L, size_t lines);

}  // namespace kelrt
