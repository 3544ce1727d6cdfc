// The lane type of this build: four lanes of single precision as 32-bit Arm's NEON unit computes them, from
// the backend that suits the processor. Every backend gives the same operations, described in the portable
// one, and the same bits.
#pragma once

#if defined(KELRT_LANES_PORTABLE)
#include "math/lanes_portable.h"
namespace kelrt {
namespace lanes = portable;
}
#elif defined(__arm__) && defined(__ARM_NEON)
#include "math/lanes_neon.h"
namespace kelrt {
namespace lanes = neon;
}
#elif defined(__SSE2__)
#include "math/lanes_x86.h"
namespace kelrt {
namespace lanes = x86;
}
#else
#include "math/lanes_portable.h"
namespace kelrt {
namespace lanes = portable;
}
#endif
