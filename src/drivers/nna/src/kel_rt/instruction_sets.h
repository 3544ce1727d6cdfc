// The kernels whose text is compiled once for each instruction set of the processor's family; exports.cpp
// chooses between them. A set is a namespace, named by KELRT_SET while the text is compiled: sse2, avx2 and
// avx512 on x86, elsewhere only one. Within it a kernel has its exported name, and calls the others of its
// own set.
#pragma once

#include "kelRt.h"

#define KELRT_KERNELS(X)                  \
    X(kelRt_tanhf)                        \
    X(kelRt_expf)                         \
    X(kelRt_sigmoidf)                     \
    X(kelRt_scalef)                       \
    X(kelRt_mulf)                         \
    X(kelRt_addf)                         \
    X(kelRt_subf)                         \
    X(kelRt_complementf)                  \
    X(kelRt_dotproductf)                  \
    X(kelRt_normf)                        \
    X(kelRt_scaleI8toF)                   \
    X(kelRt_scaleI16toF)                  \
    X(kelRt_scaleI32toF)                  \
    X(kelRt_scaleFtoI8)                   \
    X(kelRt_sumf)                         \
    X(kelRt_variancef)                    \
    X(kelRt_minMaxf)                      \
    X(batchMulf)                          \
    X(batchAddf)                          \
    X(batchSubf)                          \
    X(batchComplementf)                   \
    X(batchDotproductf)                   \
    X(kelRt_ewopAdd)                      \
    X(kelRt_softMax)                      \
    X(kelRt_oneHot)                       \
    X(kelRt_lstmStates)                   \
    X(kelRt_lstmStatesCifg)               \
    X(kelRt_lstmStatesActivation)         \
    X(kelRt_lstmStatesActivationCifg)     \
    X(kelRt_lstmLayerNorm)                \
    X(kelRt_lstmStatesCifgActivationNorm) \
    X(kelRt_instanceNorm)                 \
    X(kelRt_featurenorm)                  \
    X(kelRt_im2col)                       \
    X(kelRt_matmul)                       \
    X(m_multiply)                         \
    X(transpose)                          \
    X(kelRt_hw32FmtConvParam)             \
    X(kelRt_hw32FmtConv)                  \
    X(convert_hw_lin)                     \
    X(convert_hw_lin_neon_1)              \
    X(convert_hw_lin_neon_2)              \
    X(convert_hw_lin_neon_4)              \
    X(convert_hw_lin_neon_8)

namespace kelrt {

// One set's kernels.
struct Kernels {
#define X(name) decltype(::name)* name;
    KELRT_KERNELS(X)
#undef X
};

}  // namespace kelrt

#if defined(KELRT_SET)
namespace kelrt::KELRT_SET {

extern const Kernels kKernels;
#define X(name) decltype(::name) name;
KELRT_KERNELS(X)
#undef X

}  // namespace kelrt::KELRT_SET
#endif
