// The choice between the instruction sets of this build; KELRT_HAS_... name them.
#include "instruction_sets.h"

namespace kelrt {

#define KELRT_DECLARE_SET(set)     \
    namespace set {                \
    extern const Kernels kKernels; \
    }

#if defined(KELRT_HAS_AVX512)
KELRT_DECLARE_SET(avx512)
#endif
#if defined(KELRT_HAS_AVX2)
KELRT_DECLARE_SET(avx2)
#endif
KELRT_DECLARE_SET(KELRT_BASE_SET)

// What the processor has, the compiler's own library has found out when it was loaded: no state of ours.
const Kernels& kernels() {
#if defined(KELRT_HAS_AVX512)
    // The text is compiled for the groups that Ice Lake and Zen 4 brought together; this one came last.
    if (__builtin_cpu_supports("avx512vbmi"))
        return avx512::kKernels;
#endif
#if defined(KELRT_HAS_AVX2)
    if (__builtin_cpu_supports("avx2"))
        return avx2::kKernels;
#endif
    return KELRT_BASE_SET::kKernels;
}

}  // namespace kelrt
