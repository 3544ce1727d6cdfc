// Ordinary single-precision arithmetic on arrays, in the caller's mode and without flushing: what operators
// compute outside of lanes. Vectors do so too on x86 and 64-bit Arm. On 32-bit Arm, whose vector unit
// flushes, they do not, and a float that may lie at any address would go to the floating-point unit and back
// by way of a core register. So there several are loaded and stored as vectors, whose lanes are the
// unit's registers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "element.h"
#include "math/vectors.h"
#include "wide.h"
#if defined(__arm__) && defined(__ARM_NEON)
#include <arm_neon.h>
#define KELRT_SCALARS
#endif

namespace kelrt {
namespace {

// How many go together in a loop over elements.
constexpr uint32_t kScalars = 8;

#if defined(KELRT_SCALARS)

// n floats, on which arithmetic is that of each; n is 2 or a multiple of 4.
template <int n>
struct Scalars {
    float v[n];

    Scalars() = default;
    Scalars(float value) {
        for (float& x : v)
            x = value;
    }
    static Scalars load(const void* p) {
        const auto* const bytes = static_cast<const uint8_t*>(p);
        Scalars a;
        if constexpr (n == 2) {
            float32x2_t pair = vreinterpret_f32_u8(vld1_u8(bytes));
            asm("" : "+t"(pair));  // or clang loads the lanes one by one
            a.v[0] = vget_lane_f32(pair, 0), a.v[1] = vget_lane_f32(pair, 1);
        } else {
            for (int i = 0; i < n; i += 4) {
                float32x4_t four = vreinterpretq_f32_u8(vld1q_u8(bytes + 4 * i));
                asm("" : "+t"(four));
                a.v[i] = vgetq_lane_f32(four, 0), a.v[i + 1] = vgetq_lane_f32(four, 1);
                a.v[i + 2] = vgetq_lane_f32(four, 2), a.v[i + 3] = vgetq_lane_f32(four, 3);
            }
        }
        for (float& x : a.v)
            asm("" : "+t"(x));  // or it takes them for lanes and computes with vectors
        return a;
    }
    void store(void* p) const {
        auto* const bytes = static_cast<uint8_t*>(p);
        for (int i = 0; i < n; i += 4)
            vst1q_u8(bytes + 4 * i, vreinterpretq_u8_f32(float32x4_t{v[i], v[i + 1], v[i + 2], v[i + 3]}));
    }
    template <class Operation>
    static Scalars each(Operation operation) {
        Scalars result;
        for (int k = 0; k < n; ++k)
            result.v[k] = operation(k);
        return result;
    }
    friend Scalars operator+(Scalars a, Scalars b) {
        return each([&](int k) { return a.v[k] + b.v[k]; });
    }
    friend Scalars operator-(Scalars a, Scalars b) {
        return each([&](int k) { return a.v[k] - b.v[k]; });
    }
    friend Scalars operator*(Scalars a, Scalars b) {
        return each([&](int k) { return a.v[k] * b.v[k]; });
    }
    friend Scalars operator/(Scalars a, Scalars b) {
        return each([&](int k) { return a.v[k] / b.v[k]; });
    }
};

// Whether the results of a group reach no operand that is still to be read, as those of one would.
inline bool reads_first(const float* out, const float* in) {
    const uintptr_t ahead = reinterpret_cast<uintptr_t>(out) - reinterpret_cast<uintptr_t>(in);
    return ahead == 0 || ahead >= sizeof(Scalars<kScalars>);
}

#else

template <int n>
struct Scalars {
    float v[n];

    static Scalars load(const void* p) {
        Scalars a;
        std::memcpy(a.v, p, sizeof a.v);
        return a;
    }
};

#endif

inline float element(const f32* p) {
    return *p;
}

#if defined(__SSE2__)

// An output beyond all caches that is no operand, stored past them: 8 million floats take 0.7 of the time.
template <class Function, class... In>
[[gnu::noinline]] void for_elements_past_caches(uint32_t n, Function f, float* out, const In*... in) {
    using Memory = typename Vectors<kWidest>::MemoryF;
    const size_t ahead = -reinterpret_cast<uintptr_t>(out) % sizeof(Memory);  // of the first whole vector
    f32* y = out;
    uint32_t i = 0;
    for (; i < ahead / sizeof(float); ++i)
        y[i] = f(element(in + i)...);
    if (ahead % sizeof(float) == 0)
        for (; n - i >= kWidest; i += kWidest) {
            const FloatVector<kWidest> result = f(*reinterpret_cast<const Memory*>(in + i)...);
            stream_bytes(reinterpret_cast<uint8_t*>(out + i), reinterpret_cast<Bytes<sizeof result>>(result));
        }
    _mm_sfence();
    for (; i < n; ++i)
        y[i] = f(element(in + i)...);
}

#endif

// out[i] = f(in[i]...), in ascending order.
template <class Function, class... In>
inline void for_elements(uint32_t n, Function f, float* out, const In*... in) {
    uint32_t i = 0;
#if defined(KELRT_SCALARS)
    if ((reads_first(out, in) && ...))
        for (const uint32_t groups = n - n % kScalars; i < groups; i += kScalars)
            f(Scalars<kScalars>::load(in + i)...).store(out + i);
#elif defined(__SSE2__)
    if (__builtin_expect(n >= kStreamed / sizeof(float), 0) && ((out != in) && ...))
        return for_elements_past_caches(n, f, out, in...);
#endif
    f32* y = out;
    for (; i < n; ++i)
        y[i] = f(element(in + i)...);
}

// step(in[i]) in ascending order, for sums whose order decides.
template <class Step>
inline void in_order(uint32_t n, const float* in, Step step) {
    uint32_t i = 0;
#if defined(KELRT_SCALARS)
    for (const uint32_t groups = n - n % kScalars; i < groups; i += kScalars)
        for (const float x : Scalars<kScalars>::load(in + i).v)
            step(x);
#endif
    const f32* x = in;
    for (; i < n; ++i)
        step(x[i]);
}

}  // namespace
}  // namespace kelrt
