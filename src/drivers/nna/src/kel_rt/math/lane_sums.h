// Sums in the order that decides their bits: four lane accumulators over whole blocks, these in lane order,
// then a tail in ascending order.
#pragma once

#include "math/blocks.h"

namespace kelrt {
namespace {

// Four accumulators, from zero. What adds belongs into a vector part, or where all is normal.
class LaneSums {
  public:
    void add_blocks(const float* x, size_t count) {
        lanes::Floats sums = sums_;  // in a register for the loop, whoever else can see this
        for (size_t i = 0; i < count; i += 4)
            sums = add(sums, lanes::Floats::load(x + i));
        sums_ = sums;
    }
    // Adds up the squares of the distances from `mean`.
    void add_squares(const float* x, float mean, size_t count) {
        lanes::Floats sums = sums_;
        for (size_t i = 0; i < count; i += 4) {
            const lanes::Floats d = sub(lanes::Floats::load(x + i), lanes::Floats::splat(mean));
            sums = mul_add(sums, d, d);
        }
        sums_ = sums;
    }
    // Leaves them where scalar code finds them; the last step of a vector part.
    void finish() { store(finished_, sums_); }
    // Scalar work: nothing is flushed.
    float total() const { return (((0.0f + finished_[0]) + finished_[1]) + finished_[2]) + finished_[3]; }

  private:
    lanes::Floats sums_ = lanes::Floats::splat(0.0f);
    float finished_[4] = {};
};

// The magnitudes, as words, from which on terms, and the squares of terms, are too large for a sum of them to
// be subnormal: terms of 2^-103 are multiples of 2^-126, and so are their sums.
constexpr uint32_t kLeastTerm = 0x0C000000u, kLeastRoot = 0x26000000u;  // 2^-103, 2^-51

// Whether whole blocks can be added up in the caller's mode with the same result: all x - mean are zero or at
// least that large. Only asked of short arrays, where it costs less than the change of the mode (16 elements:
// 12 ns -> 7).
#if defined(__SSE2__) && !defined(KELRT_LANES_PORTABLE)
inline bool sums_stay_normal(const float* x, float mean, size_t count, uint32_t least) {
    if (count > kShort || !caller_has_our_mode())
        return false;
    const auto small = [=]<int n>(const float* from, size_t elements) {
        Watch<n> watch;
        for (size_t i = 0; i < elements; i += n)
            watch.tiny(sub(Plain<n>::load(from + i), Plain<n>::splat(mean)).v);
        return any(reinterpret_cast<WordVector<n>>(watch.least < least - 1));
    };
    const size_t wide = count - count % kWidest;
    return !small.template operator()<kWidest>(x, wide) &&
           !small.template operator()<4>(x + wide, count - wide);
}
#else
inline bool sums_stay_normal(const float*, float, size_t, uint32_t) {
    return false;
}
#endif

}  // namespace
}  // namespace kelrt
