// Array kernels: scaled conversions between integers and floats. Blocks of eight where the integers are
// narrower than a lane, of four otherwise.
#include "element.h"
#include "instruction_sets.h"
#include "math/blocks.h"

namespace kelrt::KELRT_SET {

// An integer is zero or at least 1, so by a scale that is zero or normal it becomes nothing subnormal.
static If integers_stay_ordinary(float scale) {
    return {is_ordinary(scale)};
}

static auto scaled_by(float scale) {
    return [=](auto x) {
        const auto value = to_float(x);
        return mul(value, decltype(value)::splat(scale));
    };
}

uint32_t kelRt_scaleI8toF(const int8_t* in, float* out, float scale, uint32_t n) {
    for_blocks<8>(n, integers_stay_ordinary(scale), scaled_by(scale), out, in);
    f32* y = out;
    for_tail<8>(n, [=](size_t i) { y[i] = static_cast<float>(in[i]) * scale; });
    return NNA_STATUS_OK;
}

uint32_t kelRt_scaleI16toF(const int16_t* in, float* out, float scale, uint32_t n) {
    for_blocks<8>(n, integers_stay_ordinary(scale), scaled_by(scale), out, in);
    const i16* x = in;
    f32* y = out;
    for_tail<8>(n, [=](size_t i) { y[i] = static_cast<float>(x[i]) * scale; });
    return NNA_STATUS_OK;
}

uint32_t kelRt_scaleI32toF(const int32_t* in, float* out, float scale, uint32_t n) {
    for_blocks(n, integers_stay_ordinary(scale), scaled_by(scale), out, in);
    const i32* x = in;
    f32* y = out;
    for_tail(n, [=](size_t i) { y[i] = static_cast<float>(x[i]) * scale; });
    return NNA_STATUS_OK;
}

uint32_t kelRt_scaleFtoI8(const float* in, int8_t* out, float scale, uint32_t n) {
    // Whatever is flushed, or not, is nearer to zero than 1 and becomes 0.
    const auto converted = [=](auto x) {
        return to_int_trunc(clamp(mul(x, decltype(x)::splat(scale)), -128.0f, 127.0f));
    };
    for_blocks<8>(n, If{is_ordinary(scale, 0x1p126f)}, converted, out, in);
    const f32* x = in;
    for_tail<8>(n, [=](size_t i) {
        const float v = x[i] * scale;
        const float clamped = v < -128.0f ? -128.0f : v > 127.0f ? 127.0f : v;
        out[i] = v != v ? int8_t{0} : static_cast<int8_t>(clamped);
    });
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
