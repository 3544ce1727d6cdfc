// Runs the vector part of a kernel in the floating-point mode that its lanes need, and restores the
// caller's.
#pragma once

#include <cstdint>

#include "math/lanes.h"

namespace kelrt {

// Calls part(context) with the processor rounding to nearest, trapping nothing and, for lanes that depend on
// it, flushing subnormals and making default NaNs; then puts the caller's mode back, its exception flags
// included. See vector_part.cpp for why no arithmetic can slip in or out.
void run_vector_part(void (*part)(void*), void* context);

namespace {

// Whether lanes compute in a unit that knows no modes, as 32-bit Arm's NEON unit does. Division leaves it.
#if defined(__arm__) && defined(__ARM_NEON) && !defined(KELRT_LANES_PORTABLE)
inline constexpr bool kLanesHaveOneMode = true;
#else
inline constexpr bool kLanesHaveOneMode = false;
#endif

// vector_part(f) calls f(), a copy of it whose captures stay in registers. Results leave by reference. A part
// that `divides` says so.
template <bool divides = false, class Part>
inline void vector_part(Part part) {
    if constexpr (kLanesHaveOneMode && !divides)
        part();
    else
        run_vector_part(
            [](void* context) {
                Part mine = *static_cast<Part*>(context);
                mine();
            },
            &part);
}

}  // namespace
}  // namespace kelrt
