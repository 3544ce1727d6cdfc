// The exported kernels: each is the one of the widest instruction set that both this build (KELRT_HAS_...
// name its sets) and this processor have.
#include "instruction_sets.h"

namespace kelrt {

#define KELRT_DECLARE_SET(set)     \
    namespace set {                \
    extern const Kernels kKernels; \
    }
KELRT_DECLARE_SET(avx512)
KELRT_DECLARE_SET(avx2)
KELRT_DECLARE_SET(KELRT_BASE_SET)
#undef KELRT_DECLARE_SET

// What the processor has, the compiler's own library has found out when it was loaded: no state of ours.
static inline const Kernels& kernels() {
#if defined(KELRT_HAS_AVX512)
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
        __builtin_cpu_supports("avx512vbmi"))
        return avx512::kKernels;
#endif
#if defined(KELRT_HAS_AVX2)
    if (__builtin_cpu_supports("avx2"))
        return avx2::kKernels;
#endif
    return KELRT_BASE_SET::kKernels;
}

}  // namespace kelrt

using kelrt::kernels;

uint32_t kelRt_tanhf(const float* in, float* out, uint32_t n) {
    return kernels().kelRt_tanhf(in, out, n);
}

uint32_t kelRt_expf(const float* in, float* out, uint32_t n) {
    return kernels().kelRt_expf(in, out, n);
}

uint32_t kelRt_sigmoidf(const float* in, float* out, uint32_t n) {
    return kernels().kelRt_sigmoidf(in, out, n);
}

uint32_t kelRt_scalef(const float* in, float* out, float scale, uint32_t n) {
    return kernels().kelRt_scalef(in, out, scale, n);
}

uint32_t kelRt_mulf(const float* a, const float* b, float* out, uint32_t n) {
    return kernels().kelRt_mulf(a, b, out, n);
}

uint32_t kelRt_addf(const float* a, const float* b, float* out, uint32_t n) {
    return kernels().kelRt_addf(a, b, out, n);
}

uint32_t kelRt_subf(const float* a, const float* b, float* out, uint32_t n) {
    return kernels().kelRt_subf(a, b, out, n);
}

uint32_t kelRt_complementf(const float* in, float* out, uint32_t n) {
    return kernels().kelRt_complementf(in, out, n);
}

uint32_t kelRt_dotproductf(const float* a, const float* b, const float* c, const float* d, float* out,
                           uint32_t n) {
    return kernels().kelRt_dotproductf(a, b, c, d, out, n);
}

uint32_t kelRt_normf(const float* in, const float* gamma, const float* beta, float mean, float divisor,
                     float* out, uint32_t n) {
    return kernels().kelRt_normf(in, gamma, beta, mean, divisor, out, n);
}

uint32_t kelRt_scaleI8toF(const int8_t* in, float* out, float scale, uint32_t n) {
    return kernels().kelRt_scaleI8toF(in, out, scale, n);
}

uint32_t kelRt_scaleI16toF(const int16_t* in, float* out, float scale, uint32_t n) {
    return kernels().kelRt_scaleI16toF(in, out, scale, n);
}

uint32_t kelRt_scaleI32toF(const int32_t* in, float* out, float scale, uint32_t n) {
    return kernels().kelRt_scaleI32toF(in, out, scale, n);
}

uint32_t kelRt_scaleFtoI8(const float* in, int8_t* out, float scale, uint32_t n) {
    return kernels().kelRt_scaleFtoI8(in, out, scale, n);
}

uint32_t kelRt_sumf(const float* in, float* out, uint32_t n) {
    return kernels().kelRt_sumf(in, out, n);
}

uint32_t kelRt_variancef(const float* in, float mean, float* out, uint32_t n) {
    return kernels().kelRt_variancef(in, mean, out, n);
}

uint32_t kelRt_minMaxf(const float* in, float* min, float* max, uint32_t n) {
    return kernels().kelRt_minMaxf(in, min, max, n);
}

void batchMulf(const float* a, const float* b, float* out, uint32_t n) {
    return kernels().batchMulf(a, b, out, n);
}

void batchAddf(const float* a, const float* b, float* out, uint32_t n) {
    return kernels().batchAddf(a, b, out, n);
}

void batchSubf(const float* a, const float* b, float* out, uint32_t n) {
    return kernels().batchSubf(a, b, out, n);
}

void batchComplementf(const float* in, float* out, uint32_t n) {
    return kernels().batchComplementf(in, out, n);
}

void batchDotproductf(const float* a, const float* b, const float* c, const float* d, float* out,
                      uint32_t n) {
    return kernels().batchDotproductf(a, b, c, d, out, n);
}

uint32_t kelRt_ewopAdd(float* out, const float* a, const float* b, uint32_t n, uint32_t* out_bytes) {
    return kernels().kelRt_ewopAdd(out, a, b, n, out_bytes);
}

uint32_t kelRt_softMax(float* out, const float* in, uint32_t n, uint32_t* out_bytes) {
    return kernels().kelRt_softMax(out, in, n, out_bytes);
}

uint32_t kelRt_oneHot(float* out, const float* index, uint32_t d, uint32_t on_value, uint32_t off_value,
                      uint32_t* out_bytes) {
    return kernels().kelRt_oneHot(out, index, d, on_value, off_value, out_bytes);
}

uint32_t kelRt_lstmStates(float* output, float* cellState, float* gates, uint32_t n) {
    return kernels().kelRt_lstmStates(output, cellState, gates, n);
}

uint32_t kelRt_lstmStatesCifg(float* output, float* cellState, float* gates, uint32_t n) {
    return kernels().kelRt_lstmStatesCifg(output, cellState, gates, n);
}

uint32_t kelRt_lstmStatesActivation(float* output, float* cellState, float* gates, uint32_t n) {
    return kernels().kelRt_lstmStatesActivation(output, cellState, gates, n);
}

uint32_t kelRt_lstmStatesActivationCifg(float* output, float* cellState, float* gates, uint32_t n) {
    return kernels().kelRt_lstmStatesActivationCifg(output, cellState, gates, n);
}

uint32_t kelRt_lstmLayerNorm(float* dst, const float* src, uint32_t n, const float* gamma, const float* beta,
                             float epsilon) {
    return kernels().kelRt_lstmLayerNorm(dst, src, n, gamma, beta, epsilon);
}

uint32_t kelRt_lstmStatesCifgActivationNorm(float* output, float* cellState, float* gates, uint32_t n,
                                            int32_t cifg, int32_t cpuActivation, float epsilon,
                                            const float* gateGamma, const float* gateBeta,
                                            const float* cellGamma, const float* cellBeta, int32_t gateNorm,
                                            int32_t perGateNorm, int32_t cellNorm, int32_t cellNormInPlace) {
    return kernels().kelRt_lstmStatesCifgActivationNorm(output, cellState, gates, n, cifg, cpuActivation,
                                                        epsilon, gateGamma, gateBeta, cellGamma, cellBeta,
                                                        gateNorm, perGateNorm, cellNorm, cellNormInPlace);
}

uint32_t kelRt_instanceNorm(float* output, const float* input, uint32_t n, float scale, float bias,
                            uint32_t* outputSize) {
    return kernels().kelRt_instanceNorm(output, input, n, scale, bias, outputSize);
}

uint32_t kelRt_featurenorm(const float* input, uint32_t total, const float* mean, const float* var,
                           uint32_t featureLen, float* output) {
    return kernels().kelRt_featurenorm(input, total, mean, var, featureLen, output);
}

uint32_t kelRt_im2col(const uint8_t* input, uint8_t* output, uint32_t rows, uint32_t cols, uint32_t channels,
                      uint32_t kernelHeight, uint32_t kernelWidth, uint32_t filters, uint32_t rowStride,
                      uint32_t colStride) {
    return kernels().kelRt_im2col(input, output, rows, cols, channels, kernelHeight, kernelWidth, filters,
                                  rowStride, colStride);
}

uint32_t kelRt_matmul(float* a, float* b, float* c, int32_t aRows, int32_t aCols, int32_t bRows,
                      int32_t bCols, int32_t transA, int32_t transB) {
    return kernels().kelRt_matmul(a, b, c, aRows, aCols, bRows, bCols, transA, transB);
}

void m_multiply(const KelRtMatrix* c, const KelRtMatrix* a, const KelRtMatrix* b) {
    return kernels().m_multiply(c, a, b);
}

void transpose(float* data, int32_t newRows, int32_t newCols) {
    return kernels().transpose(data, newRows, newCols);
}

uint32_t kelRt_hw32FmtConvParam(uint8_t* output, const uint8_t* input, uint32_t size, uint32_t dir,
                                uint32_t nna_out_line_sz, uint32_t* out_bytes) {
    return kernels().kelRt_hw32FmtConvParam(output, input, size, dir, nna_out_line_sz, out_bytes);
}

uint32_t kelRt_hw32FmtConv(uint8_t* output, const uint8_t* input, uint32_t size, uint32_t dir,
                           uint32_t* out_bytes) {
    return kernels().kelRt_hw32FmtConv(output, input, size, dir, out_bytes);
}

void convert_hw_lin(uint8_t* dst, const uint8_t* src, uint32_t L) {
    return kernels().convert_hw_lin(dst, src, L);
}

void convert_hw_lin_neon_1(uint8_t* dst, const uint8_t* src, uint32_t L) {
    return kernels().convert_hw_lin_neon_1(dst, src, L);
}

void convert_hw_lin_neon_2(uint8_t* dst0, const uint8_t* src0, uint8_t* dst1, const uint8_t* src1,
                           uint32_t L) {
    return kernels().convert_hw_lin_neon_2(dst0, src0, dst1, src1, L);
}

void convert_hw_lin_neon_4(uint8_t* dst0, const uint8_t* src0, uint8_t* dst1, const uint8_t* src1,
                           uint8_t* dst2, const uint8_t* src2, uint8_t* dst3, const uint8_t* src3,
                           uint32_t L) {
    return kernels().convert_hw_lin_neon_4(dst0, src0, dst1, src1, dst2, src2, dst3, src3, L);
}

void convert_hw_lin_neon_8(uint8_t* dst0, const uint8_t* src0, uint8_t* dst1, const uint8_t* src1,
                           uint8_t* dst2, const uint8_t* src2, uint8_t* dst3, const uint8_t* src3,
                           uint8_t* dst4, const uint8_t* src4, uint8_t* dst5, const uint8_t* src5,
                           uint8_t* dst6, const uint8_t* src6, uint8_t* dst7, const uint8_t* src7,
                           uint32_t L) {
    return kernels().convert_hw_lin_neon_8(dst0, src0, dst1, src1, dst2, src2, dst3, src3, dst4, src4, dst5,
                                           src5, dst6, src6, dst7, src7, L);
}
