// Array kernels: element-wise arithmetic and normalisation. Blocks of four by the rules of the lanes, the
// tail in ordinary single precision by the same formula.
#include "element.h"
#include "instruction_sets.h"
#include "math/blocks.h"

namespace kelrt::KELRT_SET {

uint32_t kelRt_scalef(const float* in, float* out, float scale, uint32_t n) {
    const auto scaled = [=](auto x) { return mul(x, decltype(x)::splat(scale)); };
    for_blocks(n, Watching<>{is_ordinary(scale)}, scaled, out, in);
    const f32* x = in;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = x[i] * scale; });
    return NNA_STATUS_OK;
}

uint32_t kelRt_mulf(const float* a, const float* b, float* out, uint32_t n) {
    for_blocks(
        n, Watching{}, [](auto x, auto z) { return mul(x, z); }, out, a, b);
    const f32 *x = a, *z = b;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = x[i] * z[i]; });
    return NNA_STATUS_OK;
}

uint32_t kelRt_addf(const float* a, const float* b, float* out, uint32_t n) {
    for_blocks(
        n, Watching{}, [](auto x, auto z) { return add(x, z); }, out, a, b);
    const f32 *x = a, *z = b;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = x[i] + z[i]; });
    return NNA_STATUS_OK;
}

uint32_t kelRt_subf(const float* a, const float* b, float* out, uint32_t n) {
    for_blocks(
        n, Watching{}, [](auto x, auto z) { return sub(x, z); }, out, a, b);
    const f32 *x = a, *z = b;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = x[i] - z[i]; });
    return NNA_STATUS_OK;
}

uint32_t kelRt_complementf(const float* in, float* out, uint32_t n) {
    const auto complement = [](auto x) { return sub(decltype(x)::splat(1.0f), x); };
    for_blocks(n, Numbers{}, complement, out, in);
    const f32* x = in;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = 1.0f - x[i]; });
    return NNA_STATUS_OK;
}

uint32_t kelRt_dotproductf(const float* a, const float* b, const float* c, const float* d, float* out,
                           uint32_t n) {
    const auto dot = [](auto p, auto q, auto r, auto s) { return mul_add(mul(p, r), q, s); };
    for_blocks(n, Watching{}, dot, out, a, b, c, d);
    const f32 *p = a, *q = b, *r = c, *s = d;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = p[i] * r[i] + q[i] * s[i]; });
    return NNA_STATUS_OK;
}

uint32_t kelRt_normf(const float* in, const float* gamma, const float* beta, float mean, float divisor,
                     float* out, uint32_t n) {
    const auto norm = [=](auto x, auto g, auto b) {
        using F = decltype(x);
        return mul_add(b, g, div(sub(x, F::splat(mean)), F::splat(divisor)));
    };
    const Watching<true> watching = {is_ordinary(mean) && is_ordinary(divisor, 0x1p126f)};
    for_blocks(n, watching, norm, out, in, gamma, beta);
    const f32 *x = in, *g = gamma, *b = beta;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = b[i] + ((x[i] - mean) / divisor) * g[i]; });
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
