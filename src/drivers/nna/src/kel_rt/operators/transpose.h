// In-place matrix transposition.
#pragma once

#include <cstdint>

namespace kelrt {

#if defined(KELRT_SET)
namespace KELRT_SET {

// Transposes a dense row-major rows x cols matrix, at any byte address, into cols x rows. Nothing is done
// unless the 32-bit signed product of the dimensions is at least 1.
void transpose_in_place(float* data, int32_t rows, int32_t cols);

}  // namespace KELRT_SET
#endif

// The same without any memory, which transpose_in_place falls back on; for rows and cols of at least 2.
void transpose_by_cycles(float* data, uint32_t rows, uint32_t cols);

}  // namespace kelrt
