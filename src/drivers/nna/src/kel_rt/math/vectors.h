// Vectors of any width as the compiler knows them, and the widest that this instruction set has. Their
// arithmetic is the processor's own: on 32-bit Arm not that of scalars, which flush nothing.
#pragma once

#include <cstdint>

namespace kelrt {
namespace {

#if defined(__AVX512F__)
constexpr int kWidest = 16;
#elif defined(__AVX2__)
constexpr int kWidest = 8;
#else
constexpr int kWidest = 4;
#endif

template <int n>
struct Vectors {
    typedef float F __attribute__((vector_size(4 * n)));
    typedef int32_t I __attribute__((vector_size(4 * n)));
    typedef uint32_t U __attribute__((vector_size(4 * n)));
    // As they lie in memory, at any address; each for arrays of its own type. (That it may alias others is an
    // attribute which g++ forgets in templates.)
    typedef float MemoryF __attribute__((vector_size(4 * n), aligned(1)));
    typedef int32_t MemoryI __attribute__((vector_size(4 * n), aligned(1)));
};
template <int n>
using FloatVector = typename Vectors<n>::F;
template <int n>
using IntVector = typename Vectors<n>::I;
template <int n>
using WordVector = typename Vectors<n>::U;

}  // namespace
}  // namespace kelrt
