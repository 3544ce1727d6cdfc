// Array kernels: element-wise arithmetic and normalisation. Blocks of four by the rules of the lanes, the
// tail in ordinary single precision by the same formula.
#include "element.h"
#include "kelRt.h"
#include "math/vector_part.h"

using kelrt::f32;
using kelrt::for_blocks;
using kelrt::lanes::Floats;

uint32_t kelRt_scalef(const float* in, float* out, float scale, uint32_t n) {
    const f32* x = in;
    f32* y = out;
    const uint32_t tail =
        for_blocks<4>(n, [=](size_t i) { store(y + i, mul(Floats::load(x + i), Floats::splat(scale))); });
    for (size_t i = tail; i < n; ++i)
        y[i] = x[i] * scale;
    return NNA_STATUS_OK;
}

uint32_t kelRt_mulf(const float* a, const float* b, float* out, uint32_t n) {
    const f32 *x = a, *z = b;
    f32* y = out;
    const uint32_t tail =
        for_blocks<4>(n, [=](size_t i) { store(y + i, mul(Floats::load(x + i), Floats::load(z + i))); });
    for (size_t i = tail; i < n; ++i)
        y[i] = x[i] * z[i];
    return NNA_STATUS_OK;
}

uint32_t kelRt_addf(const float* a, const float* b, float* out, uint32_t n) {
    const f32 *x = a, *z = b;
    f32* y = out;
    const uint32_t tail =
        for_blocks<4>(n, [=](size_t i) { store(y + i, add(Floats::load(x + i), Floats::load(z + i))); });
    for (size_t i = tail; i < n; ++i)
        y[i] = x[i] + z[i];
    return NNA_STATUS_OK;
}

uint32_t kelRt_subf(const float* a, const float* b, float* out, uint32_t n) {
    const f32 *x = a, *z = b;
    f32* y = out;
    const uint32_t tail =
        for_blocks<4>(n, [=](size_t i) { store(y + i, sub(Floats::load(x + i), Floats::load(z + i))); });
    for (size_t i = tail; i < n; ++i)
        y[i] = x[i] - z[i];
    return NNA_STATUS_OK;
}

uint32_t kelRt_complementf(const float* in, float* out, uint32_t n) {
    const f32* x = in;
    f32* y = out;
    const uint32_t tail =
        for_blocks<4>(n, [=](size_t i) { store(y + i, sub(Floats::splat(1.0f), Floats::load(x + i))); });
    for (size_t i = tail; i < n; ++i)
        y[i] = 1.0f - x[i];
    return NNA_STATUS_OK;
}

uint32_t kelRt_dotproductf(const float* a, const float* b, const float* c, const float* d, float* out,
                           uint32_t n) {
    const f32 *p = a, *q = b, *r = c, *s = d;
    f32* y = out;
    const uint32_t tail = for_blocks<4>(n, [=](size_t i) {
        const Floats first = mul(Floats::load(p + i), Floats::load(r + i));
        store(y + i, mul_add(first, Floats::load(q + i), Floats::load(s + i)));
    });
    for (size_t i = tail; i < n; ++i)
        y[i] = p[i] * r[i] + q[i] * s[i];
    return NNA_STATUS_OK;
}

uint32_t kelRt_normf(const float* in, const float* gamma, const float* beta, float mean, float divisor,
                     float* out, uint32_t n) {
    const f32 *x = in, *g = gamma, *b = beta;
    f32* y = out;
    const uint32_t tail = for_blocks<4, true>(n, [=](size_t i) {
        const Floats q = div(sub(Floats::load(x + i), Floats::splat(mean)), Floats::splat(divisor));
        store(y + i, mul_add(Floats::load(b + i), Floats::load(g + i), q));
    });
    for (size_t i = tail; i < n; ++i)
        y[i] = b[i] + ((x[i] - mean) / divisor) * g[i];
    return NNA_STATUS_OK;
}
