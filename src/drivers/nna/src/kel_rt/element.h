// Tensor elements as kernels read and write them. Operands may sit at any byte offset, so a kernel must not
// promise the compiler an aligned address (a promise that traps on real cores): it goes through these types
// instead of the plain ones. They are the same types in every other respect, and cost nothing.
#pragma once

#include <cstdint>

namespace kelrt {

// typedef, because clang ignores the attribute behind `using`.
typedef float f32 __attribute__((aligned(1)));
typedef int32_t i32 __attribute__((aligned(1)));
typedef int16_t i16 __attribute__((aligned(1)));
static_assert(alignof(f32) == 1 && alignof(i32) == 1 && alignof(i16) == 1);

}  // namespace kelrt
