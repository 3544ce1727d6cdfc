// Tensor elements as kernels read and write them. Operands may sit at any byte offset, so a kernel must not
// promise the compiler an aligned address (a promise that traps on real cores): it goes through these types
// instead of the plain ones. They are the same types in every other respect, and cost nothing.
// Convert to a named pointer: g++ forgets the attribute of a cast that is dereferenced on the spot.
#pragma once

#include <cstdint>

namespace kelrt {

// typedef, because clang ignores the attribute behind `using`.
typedef float f32 __attribute__((aligned(1)));
typedef int32_t i32 __attribute__((aligned(1)));
typedef int16_t i16 __attribute__((aligned(1)));
// The bit pattern of any 4-byte element.
typedef uint32_t u32 __attribute__((aligned(1), may_alias));
static_assert(alignof(f32) == 1 && alignof(i32) == 1 && alignof(i16) == 1 && alignof(u32) == 1);

}  // namespace kelrt
