// Tensor elements as kernels read and write them. Operands may sit at any byte offset, so a kernel must not
// promise the compiler an aligned address (a promise that traps on real cores): it goes through these types
// instead of the plain ones. They are the same types in every other respect, and cost nothing.
// Convert to a named pointer: g++ forgets the attribute of a cast that is dereferenced on the spot.
#pragma once

#include <cstdint>

namespace kelrt {

using f32 = float __attribute__((aligned(1)));
using i32 = int32_t __attribute__((aligned(1)));
using i16 = int16_t __attribute__((aligned(1)));
// The bit pattern of any 4-byte element.
using u32 = uint32_t __attribute__((aligned(1), may_alias));

}  // namespace kelrt
