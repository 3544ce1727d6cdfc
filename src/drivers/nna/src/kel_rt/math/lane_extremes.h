// The least and the largest of each of four columns: of the elements whose index leaves the same rest by
// four.
#pragma once

#include "math/lanes.h"
#include "math/vector_part.h"
#if defined(__SSE2__) && !defined(KELRT_LANES_PORTABLE)
#include "math/lanes_plain.h"
#endif

namespace kelrt {
namespace {

#if defined(__SSE4_1__) && !defined(KELRT_LANES_PORTABLE)

// As integers whose order is that of the unit's minimum and maximum: -0 below +0, NaN outside of the
// infinities. What is subnormal is flushed at the end, which comes to the same since flushing keeps the
// order. It takes five operations a vector, where the floating-point ones of lanes_x86.h take nine.
template <int n>
struct Extremes {
    IntVector<n> low, high;

    static IntVector<n> ordered(const float* p) {
        const IntVector<n> word = PlainInts<n>::load(p).v;
        return word ^ ((word >> 31) & 0x7FFFFFFF);
    }
    explicit Extremes(const float* p) : low(ordered(p)), high(low) {}
    Extremes(IntVector<n> lower, IntVector<n> higher) : low(lower), high(higher) {}

    void look(const float* p) { take(ordered(p), ordered(p)); }
    void take(IntVector<n> lower, IntVector<n> higher) {
        low = lower < low ? lower : low;
        high = higher > high ? higher : high;
    }
    // Folded to four columns.
    Extremes<4> columns() const {
        if constexpr (n == 4) {
            return *this;
        } else {
            IntVector<n / 2> parts[4];
            std::memcpy(parts, &low, sizeof low);
            std::memcpy(parts + 2, &high, sizeof high);
            Extremes<n / 2> half(parts[0], parts[2]);
            half.take(parts[1], parts[3]);
            return half.columns();
        }
    }
    // Back to floats: one NaN makes its column one.
    static float value(int32_t key, bool nan) {
        const uint32_t word = static_cast<uint32_t>(key ^ ((key >> 31) & 0x7FFFFFFF));
        return portable::from_word(nan ? 0x7FC00000u : (word & 0x7F800000u) == 0 ? word & 0x80000000u : word);
    }
    void store(float* lows, float* highs) const {
        for (int k = 0; k < 4; ++k) {
            const bool nan = high[k] > 0x7F800000 || low[k] < static_cast<int32_t>(0x807FFFFF);
            lows[k] = value(low[k], nan);
            highs[k] = value(high[k], nan);
        }
    }
};

// Over a whole number of blocks, two or more.
inline void extremes_of_columns(const float* x, size_t count, float* lows, float* highs) {
    Extremes<4> columns(x);
    size_t i = 0;
    constexpr size_t kInFlight = 4, kGroup = kInFlight * kWidest;
    if (count >= kGroup) {
        using Wide = Extremes<kWidest>;
        Wide wide[kInFlight] = {Wide(x), Wide(x + kWidest), Wide(x + 2 * kWidest), Wide(x + 3 * kWidest)};
        for (i = kGroup; i + kGroup <= count; i += kGroup)
            for (size_t k = 0; k < kInFlight; ++k)
                wide[k].look(x + i + k * kWidest);
        for (size_t k = 1; k < kInFlight; ++k)
            wide[0].take(wide[k].low, wide[k].high);
        columns = wide[0].columns();
    }
    for (; i < count; i += 4)
        columns.look(x + i);
    columns.store(lows, highs);
}

#else

inline void extremes_of_columns(const float* x, size_t count, float* lows, float* highs) {
    vector_part([=] {
        lanes::Floats low = lanes::Floats::load(x), high = low;
        for (size_t i = 4; i < count; i += 4) {
            const lanes::Floats block = lanes::Floats::load(x + i);
            low = min(low, block);
            high = max(high, block);
        }
        store(lows, low);
        store(highs, high);
    });
}

#endif

}  // namespace
}  // namespace kelrt
