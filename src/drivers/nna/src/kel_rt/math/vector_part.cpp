// The switch of the x86 control word around vector parts.
#include "math/vector_part.h"

#if defined(__SSE2__)

namespace {

// All exceptions masked, round to nearest.
constexpr uint32_t kIeee = 0x1F80;
// Results (bit 15) and operands (bit 6) that are subnormal become zero.
constexpr uint32_t kFlushing = kIeee | 0x8000 | 0x0040;

#if defined(KELRT_LANES_PORTABLE)
constexpr uint32_t kControl = kIeee;  // these lanes flush by themselves
#else
constexpr uint32_t kControl = kFlushing;
#endif

}  // namespace

// Compilers do not know that arithmetic depends on the control word, and would move it across a plain change
// of it. Here nothing can move:
// - out of the part or into it: the empty asm makes `part` an unknown function, so its body is neither
// inlined
//   here nor known, in this file or by link-time optimisation, to be without side effects; the call then
//   stays between the two volatile statements that clobber memory;
// - from the caller's own arithmetic: this function is never inlined, contains no arithmetic, and what it
// returns
//   reaches the caller through memory.
__attribute__((noinline)) void kelrt::run_vector_part(void (*part)(void*), void* context) {
    uint32_t callers;
    asm volatile("stmxcsr %0" : "=m"(callers) : : "memory");
    asm volatile("ldmxcsr %0" : : "m"(kControl) : "memory");
    asm volatile("" : "+r"(part) : : "memory");
    part(context);
    asm volatile("ldmxcsr %0" : : "m"(callers) : "memory");
}

#endif
