// Four-lane arithmetic on Arm's NEON unit. The one of 32-bit Arm is the contract: it flushes, quiets and
// estimates by itself. The one of 64-bit Arm does so too in the mode that vector parts set; it differs in
// that it can divide, and that its multiply-accumulate and its refinement steps round once, not twice.
//
// On 32-bit Arm, arithmetic operators on vector types, and with g++ the intrinsics of the ordered comparisons
// too, become scalar instructions of the floating-point unit beside it, which keeps subnormals and payloads.
// So arithmetic here is intrinsics throughout, and comparisons are the instruction itself there.
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
    static Floats splat(Floats value) { return value; }
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

// ---- where the two units differ

#if defined(__aarch64__)

inline Floats mul_add(Floats sum, Floats a, Floats b) {
    return add(sum, mul(a, b));
}
inline Floats div(Floats a, Floats b) {
    return {vdivq_f32(a.v, b.v)};
}
// The unit's own steps round once; they are taken where the product is NaN, because they know 0 x infinity.
inline float32x4_t unless_nan(float32x4_t product, float32x4_t step, float32x4_t units_own) {
    return vbslq_f32(vceqq_f32(product, product), step, units_own);
}
inline Floats recip_step(Floats a, Floats b) {
    const Floats product = mul(a, b), step = sub(Floats::splat(2.0f), product);
    return {unless_nan(product.v, step.v, vrecpsq_f32(a.v, b.v))};
}
inline Floats rsqrt_step(Floats a, Floats b) {
    const Floats product = mul(a, b), step = mul(sub(Floats::splat(3.0f), product), Floats::splat(0.5f));
    return {unless_nan(product.v, step.v, vrsqrtsq_f32(a.v, b.v))};
}
inline Mask greater(Floats a, Floats b) {
    return {vcgtq_f32(a.v, b.v)};
}
inline Mask greater_equal(Floats a, Floats b) {
    return {vcgeq_f32(a.v, b.v)};
}
inline Mask equal(Floats a, Floats b) {
    return {vceqq_f32(a.v, b.v)};
}

#else

inline Floats mul_add(Floats sum, Floats a, Floats b) {
    return {vmlaq_f32(sum.v, a.v, b.v)};
}
// The unit cannot divide; the floating-point unit beside it can, and flushes in the mode of dividing parts.
inline Floats div(Floats a, Floats b) {
    return {float32x4_t{a.v[0] / b.v[0], a.v[1] / b.v[1], a.v[2] / b.v[2], a.v[3] / b.v[3]}};
}
inline Floats recip_step(Floats a, Floats b) {
    return {vrecpsq_f32(a.v, b.v)};
}
inline Floats rsqrt_step(Floats a, Floats b) {
    return {vrsqrtsq_f32(a.v, b.v)};
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

// Eight coefficients in the lanes of two registers, from where multiplications take them: spread over eight,
// they would leave no room to work in. The empty asm keeps compilers from spreading them ahead of a loop.
// (kelRt_expf by clang: 7.6 -> 6.6 instructions an element.)
#define KELRT_LANE_TABLE
class LaneTable {
  public:
    static constexpr bool loose = true;

    explicit LaneTable(const float (&c)[8]) : low_(vld1q_f32(c)), high_(vld1q_f32(c + 4)) {
        asm volatile("" : "+w"(low_), "+w"(high_));
    }
    template <class F>
    F at(int i) const {
        const float32x4_t four = i < 4 ? low_ : high_;
        const float32x2_t two = i % 4 < 2 ? vget_low_f32(four) : vget_high_f32(four);
        return F::splat(Floats{i % 2 == 0 ? vdupq_lane_f32(two, 0) : vdupq_lane_f32(two, 1)});
    }

  private:
    float32x4_t low_, high_;
};

#endif

inline Floats mul_add_loose(Floats sum, Floats a, Floats b) {
    return mul_add(sum, a, b);
}

// ---- the same on both

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
inline Floats rsqrt_estimate(Floats a) {
    return {vrsqrteq_f32(a.v)};
}

inline Floats neg(Floats a) {
    return {vreinterpretq_f32_u32(veorq_u32(vreinterpretq_u32_f32(a.v), vdupq_n_u32(0x80000000u)))};
}
inline Floats abs(Floats a) {
    return {vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(a.v), vdupq_n_u32(0x7FFFFFFFu)))};
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
#if defined(__arm__)
    // clang takes the intrinsic through core registers and the stack: 1.9 instructions an element, not 1.6.
    uint8x8_t x;
    asm("vld1.8 {%P0}, %1" : "=w"(x) : "Q"(*static_cast<const uint8_t(*)[8]>(p)));
#else
    const uint8x8_t x = vld1_u8(static_cast<const uint8_t*>(p));
#endif
    return widen(vmovl_s8(vreinterpret_s8_u8(x)));
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
