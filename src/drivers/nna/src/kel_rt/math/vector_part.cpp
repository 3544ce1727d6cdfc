// The switch of the processor's floating-point mode around vector parts.
#include "math/vector_part.h"

namespace {

// Reading and writing the control word.
#if defined(__SSE2__)
using Word = uint32_t;
inline void read_mode(Word& word) {
    asm volatile("stmxcsr %0" : "=m"(word) : : "memory");
}
inline void write_mode(const Word& word) {
    asm volatile("ldmxcsr %0" : : "m"(word) : "memory");
}

#elif defined(__arm__) && defined(__ARM_FP)
using Word = uint32_t;
inline void read_mode(Word& word) {
    asm volatile("vmrs %0, fpscr" : "=r"(word) : : "memory");
}
inline void write_mode(const Word& word) {
    asm volatile("vmsr fpscr, %0" : : "r"(word) : "memory");
}

#elif defined(__aarch64__)
using Word = uint64_t;
inline void read_mode(Word& word) {
    asm volatile("mrs %0, fpcr" : "=r"(word) : : "memory");
}
inline void write_mode(const Word& word) {
    asm volatile("msr fpcr, %0" : : "r"(word) : "memory");
}

#else  // elsewhere the caller's mode is taken to be the default one
using Word = uint32_t;
inline void read_mode(Word&) {}
inline void write_mode(const Word&) {}
#endif

// Its value that rounds to nearest, traps nothing and, unless the lanes see to that themselves, flushes.
#if defined(__SSE2__) && defined(KELRT_LANES_PORTABLE)
constexpr Word kMode = 0x1F80;
#elif defined(__SSE2__)
constexpr Word kMode = 0x1F80 | 0x8000 | 0x0040;  // subnormal results and operands become zero
#elif defined(__ARM_NEON) && !defined(KELRT_LANES_PORTABLE)
constexpr Word kMode = 1 << 24 | 1 << 25;  // subnormals become zero, NaN results the default NaN
#else
constexpr Word kMode = 0;
#endif

}  // namespace

// Compilers do not know that arithmetic depends on the control word, and would move it across a plain change
// of it. Here nothing can move:
// - out of the part or into it: the empty asm makes `part` an unknown function, so that its body is neither
//   inlined here nor known, by link-time optimisation either, to be without side effects; the call then stays
//   between the two volatile statements that clobber memory;
// - from the caller: this function is never inlined and contains no arithmetic, and results reach the caller
//   through memory.
__attribute__((noinline)) void kelrt::run_vector_part(void (*part)(void*), void* context) {
    Word callers = 0;
    read_mode(callers);
    write_mode(kMode);
    asm volatile("" : "+r"(part) : : "memory");
    part(context);
    write_mode(callers);
}
