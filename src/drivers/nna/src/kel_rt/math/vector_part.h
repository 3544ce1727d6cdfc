// Runs the vector part of a kernel under the arithmetic that its lanes need, and leaves the caller's as it
// was.
#pragma once

#include <cstdint>

#include "math/lanes.h"

namespace kelrt {

// Calls part(context) with the processor rounding to nearest, trapping nothing and, for the SSE2 lanes,
// flushing subnormals; then puts the caller's mode back, its exception flags included. See vector_part.cpp
// for why no arithmetic can slip in or out.
void run_vector_part(void (*part)(void*), void* context);

// vector_part(f) calls f(), a copy of it whose captures stay in registers. Results leave by reference.
template <class Part>
inline void vector_part(Part part) {
#if defined(__SSE2__)
    run_vector_part(
        [](void* context) {
            Part mine = *static_cast<Part*>(context);
            mine();
        },
        &part);
#else
    part();  // a NEON unit has one mode
#endif
}

// Runs step(i) for the first element i of every whole block of `width` among n; returns where the tail
// starts.
template <uint32_t width, class Step>
inline uint32_t for_blocks(uint32_t n, Step step) {
    const uint32_t tail = n - n % width;
    if (tail > 0)
        vector_part([=] {
            for (uint32_t i = 0; i < tail; i += width)
                step(i);
        });
    return tail;
}

}  // namespace kelrt
