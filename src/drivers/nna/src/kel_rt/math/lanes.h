// The lane type of this build: four lanes of single precision as 32-bit Arm's NEON unit computes them, from
// the backend that suits the processor. Every backend gives the same operations, described in the portable
// one, and the same bits.
//
// Everything under math/lanes*.h, algorithms.h and blocks.h has internal linkage: on x86 the kernels are
// compiled once per instruction set, and code for one processor must not stand in for another's.
#pragma once

#if defined(KELRT_LANES_PORTABLE)
#define KELRT_BACKEND portable
#include "math/lanes_portable.h"
#elif defined(__ARM_NEON)
#define KELRT_BACKEND neon
#include "math/lanes_neon.h"
#elif defined(__SSE2__)
#define KELRT_BACKEND x86
#include "math/lanes_x86.h"
#else
#define KELRT_BACKEND portable
#include "math/lanes_portable.h"
#endif

namespace kelrt {
namespace {
namespace lanes = KELRT_BACKEND;
}
}  // namespace kelrt
#undef KELRT_BACKEND
