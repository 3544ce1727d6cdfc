// Array kernels: scaled conversions between integers and floats. Blocks of eight where the integers are
// narrower than a lane, of four otherwise.
#include "element.h"
#include "kelRt.h"
#include "math/vector_part.h"

using kelrt::f32;
using kelrt::for_blocks;
using kelrt::i16;
using kelrt::i32;
using kelrt::lanes::Floats;
using kelrt::lanes::IntPair;
using kelrt::lanes::Ints;

static void store_scaled(f32* out, IntPair x, float scale) {
    store(out, mul(to_float(x.low), Floats::splat(scale)));
    store(out + 4, mul(to_float(x.high), Floats::splat(scale)));
}

uint32_t kelRt_scaleI8toF(const int8_t* in, float* out, float scale, uint32_t n) {
    const int8_t* x = in;
    f32* y = out;
    const uint32_t tail =
        for_blocks<8>(n, [=](size_t i) { store_scaled(y + i, kelrt::lanes::load_int8(x + i), scale); });
    for (size_t i = tail; i < n; ++i)
        y[i] = static_cast<float>(x[i]) * scale;
    return NNA_STATUS_OK;
}

uint32_t kelRt_scaleI16toF(const int16_t* in, float* out, float scale, uint32_t n) {
    const i16* x = in;
    f32* y = out;
    const uint32_t tail =
        for_blocks<8>(n, [=](size_t i) { store_scaled(y + i, kelrt::lanes::load_int16(x + i), scale); });
    for (size_t i = tail; i < n; ++i)
        y[i] = static_cast<float>(x[i]) * scale;
    return NNA_STATUS_OK;
}

uint32_t kelRt_scaleI32toF(const int32_t* in, float* out, float scale, uint32_t n) {
    const i32* x = in;
    f32* y = out;
    const uint32_t tail = for_blocks<4>(
        n, [=](size_t i) { store(y + i, mul(to_float(Ints::load(x + i)), Floats::splat(scale))); });
    for (size_t i = tail; i < n; ++i)
        y[i] = static_cast<float>(x[i]) * scale;
    return NNA_STATUS_OK;
}

static Ints clamped(Floats x, float scale) {
    return to_int_trunc(clamp(mul(x, Floats::splat(scale)), -128.0f, 127.0f));
}

uint32_t kelRt_scaleFtoI8(const float* in, int8_t* out, float scale, uint32_t n) {
    const f32* x = in;
    int8_t* y = out;
    const uint32_t tail = for_blocks<8>(n, [=](size_t i) {
        const IntPair v = {clamped(Floats::load(x + i), scale), clamped(Floats::load(x + i + 4), scale)};
        store_int8(y + i, v);
    });
    for (size_t i = tail; i < n; ++i) {
        const float v = x[i] * scale;
        const float clamped = v < -128.0f ? -128.0f : v > 127.0f ? 127.0f : v;
        y[i] = v != v ? int8_t{0} : static_cast<int8_t>(clamped);
    }
    return NNA_STATUS_OK;
}
