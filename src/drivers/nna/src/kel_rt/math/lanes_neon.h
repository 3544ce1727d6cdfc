// Four-lane arithmetic on 32-bit Arm's NEON unit, whose behaviour is the contract: it flushes, quiets and
// estimates by itself. Not for AArch64, where the same intrinsics keep subnormals and round some steps once.
//
// Arithmetic operators on vector types, and with g++ the intrinsics of the ordered comparisons too, become
// scalar instructions of the floating-point unit beside it, which keeps subnormals and payloads. So
// arithmetic here is intrinsics throughout, and comparisons are the instruction itself.
#pragma once

#include <arm_neon.h>

#include "math/lanes_portable.h"

namespace kelrt {
namespace {
namespace neon {

struct Ints {
    int32x4_t v;

    static Ints splat(int32_t value) { return {vdupq_n_s32(value)}; }
    // Memory is read and written as bytes, for which neither compiler promises the instruction an alignment.
    static Ints load(const void* p) {
        return {vreinterpretq_s32_u8(vld1q_u8(static_cast<const uint8_t*>(p)))};
    }
};

struct Floats {
    using Bits = Ints;
    using Integers = Ints;
    float32x4_t v;

    static Floats splat(float value) { return {vdupq_n_f32(value)}; }
    static Floats load(const void* p) {
        return {vreinterpretq_f32_u8(vld1q_u8(static_cast<const uint8_t*>(p)))};
    }
};

struct Mask {
    uint32x4_t v;
};

inline void store(void* p, Floats a) {
    vst1q_u8(static_cast<uint8_t*>(p), vreinterpretq_u8_f32(a.v));
}
inline void store(void* p, Ints a) {
    vst1q_u8(static_cast<uint8_t*>(p), vreinterpretq_u8_s32(a.v));
}

inline Floats add(Floats a, Floats b) {
    return {vaddq_f32(a.v, b.v)};
}
inline Floats sub(Floats a, Floats b) {
    return {vsubq_f32(a.v, b.v)};
}
inline Floats mul(Floats a, Floats b) {
    return {vmulq_f32(a.v, b.v)};
}
inline Floats mul_loose(Floats a, Floats b) {
    return mul(a, b);
}
inline Floats mul_add(Floats sum, Floats a, Floats b) {
    return {vmlaq_f32(sum.v, a.v, b.v)};
}
inline Floats mul_add_loose(Floats sum, Floats a, Floats b) {
    return mul_add(sum, a, b);
}
// The unit cannot divide; the floating-point unit can, and double precision gives room to apply the rules.
inline Floats div(Floats a, Floats b) {
    float x[4], y[4];
    store(x, a);
    store(y, b);
    for (int i = 0; i < 4; ++i)
        x[i] = portable::scalar_div(x[i], y[i]);
    return Floats::load(x);
}
inline Floats min(Floats a, Floats b) {
    return {vminq_f32(a.v, b.v)};
}
inline Floats max(Floats a, Floats b) {
    return {vmaxq_f32(a.v, b.v)};
}
inline Floats clamp(Floats x, float low, float high) {
    return min(max(x, Floats::splat(low)), Floats::splat(high));
}
inline Floats recip_estimate(Floats a) {
    return {vrecpeq_f32(a.v)};
}
inline Floats recip_step(Floats a, Floats b) {
    return {vrecpsq_f32(a.v, b.v)};
}
inline Floats rsqrt_estimate(Floats a) {
    return {vrsqrteq_f32(a.v)};
}
inline Floats rsqrt_step(Floats a, Floats b) {
    return {vrsqrtsq_f32(a.v, b.v)};
}

inline Floats neg(Floats a) {
    return {vreinterpretq_f32_u32(veorq_u32(vreinterpretq_u32_f32(a.v), vdupq_n_u32(0x80000000u)))};
}
inline Floats abs(Floats a) {
    return {vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(a.v), vdupq_n_u32(0x7FFFFFFFu)))};
}

inline Mask greater(Floats a, Floats b) {
    Mask m;
    asm("vcgt.f32 %q0, %q1, %q2" : "=w"(m.v) : "w"(a.v), "w"(b.v));
    return m;
}
inline Mask greater_equal(Floats a, Floats b) {
    Mask m;
    asm("vcge.f32 %q0, %q1, %q2" : "=w"(m.v) : "w"(a.v), "w"(b.v));
    return m;
}
inline Mask equal(Floats a, Floats b) {
    Mask m;
    asm("vceq.f32 %q0, %q1, %q2" : "=w"(m.v) : "w"(a.v), "w"(b.v));
    return m;
}
inline Mask greater(Ints a, Ints b) {
    return {vcgtq_s32(a.v, b.v)};
}
inline Mask odd(Ints a) {
    return {vtstq_s32(a.v, vdupq_n_s32(1))};
}
inline Mask operator&(Mask a, Mask b) {
    return {vandq_u32(a.v, b.v)};
}
inline Mask operator|(Mask a, Mask b) {
    return {vorrq_u32(a.v, b.v)};
}
inline Mask operator^(Mask a, Mask b) {
    return {veorq_u32(a.v, b.v)};
}
inline Mask operator~(Mask a) {
    return {vmvnq_u32(a.v)};
}
inline Floats select(Mask m, Floats yes, Floats no) {
    return {vbslq_f32(m.v, yes.v, no.v)};
}
inline Ints keep(Mask m, Ints a) {
    return {vandq_s32(vreinterpretq_s32_u32(m.v), a.v)};
}

inline Ints bits(Floats a) {
    return {vreinterpretq_s32_f32(a.v)};
}
inline Floats from_bits(Ints a) {
    return {vreinterpretq_f32_s32(a.v)};
}
inline Ints flip_sign(Mask m, Ints a) {
    return {veorq_s32(a.v, vshlq_n_s32(vreinterpretq_s32_u32(m.v), 31))};
}

inline Ints to_int_trunc(Floats a) {
    return {vcvtq_s32_f32(a.v)};
}
inline Floats to_float(Ints a) {
    return {vcvtq_f32_s32(a.v)};
}
inline Ints add(Ints a, Ints b) {
    return {vaddq_s32(a.v, b.v)};
}
inline Ints sub(Ints a, Ints b) {
    return {vsubq_s32(a.v, b.v)};
}
inline Ints abs(Ints a) {
    return {vabsq_s32(a.v)};
}
inline Ints add_sat(Ints a, Ints b) {
    return {vqaddq_s32(a.v, b.v)};
}
template <int count>
Ints shl(Ints a) {
    return {vshlq_n_s32(a.v, count)};
}
template <int count>
Ints shl_sat(Ints a) {
    return {vqshlq_n_s32(a.v, count)};
}
template <int count>
Ints shr_unsigned(Ints a) {
    return {vreinterpretq_s32_u32(vshrq_n_u32(vreinterpretq_u32_s32(a.v), count))};
}
inline Ints sign_if_both_negative(Ints a, Ints b) {
    return {vshrq_n_s32(vandq_s32(a.v, b.v), 31)};
}
inline Ints shift_rounding(Ints a, Ints count) {
    return {vrshlq_s32(a.v, count.v)};
}

struct IntPair {
    Ints low, high;
};
inline IntPair widen(int16x8_t x) {
    return {{vmovl_s16(vget_low_s16(x))}, {vmovl_s16(vget_high_s16(x))}};
}
inline IntPair load_int8(const void* p) {
    return widen(vmovl_s8(vreinterpret_s8_u8(vld1_u8(static_cast<const uint8_t*>(p)))));
}
inline IntPair load_int16(const void* p) {
    return widen(vreinterpretq_s16_u8(vld1q_u8(static_cast<const uint8_t*>(p))));
}
inline void store_int8(void* p, IntPair a) {
    const int16x8_t x = vcombine_s16(vmovn_s32(a.low.v), vmovn_s32(a.high.v));
    vst1_u8(static_cast<uint8_t*>(p), vreinterpret_u8_s8(vmovn_s16(x)));
}

}  // namespace neon
}  // namespace
}  // namespace kelrt
