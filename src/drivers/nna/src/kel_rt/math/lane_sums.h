// Sums in the order that decides their bits: four lane accumulators over whole blocks, these in lane order,
// then a tail in ascending order.
#pragma once

#include <array>

#include "element.h"
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
    // Leaves them where scalar code finds them; the last step of a vector part.
    void finish() { store(finished_, sums_); }
    float total() const { return total_of(finished_); }
    // Scalar work: nothing is flushed.
    static float total_of(const float (&lanes)[4]) {
        return (((0.0f + lanes[0]) + lanes[1]) + lanes[2]) + lanes[3];
    }

  private:
    lanes::Floats sums_ = lanes::Floats::splat(0.0f);
    float finished_[4] = {};
};

// The magnitudes, as words, from which on terms, and the squares of terms, are too large for a sum of them to
// be subnormal: terms of 2^-103 are multiples of 2^-126, and so are their sums.
constexpr uint32_t kLeastTerm = 0x0C000000u, kLeastRoot = 0x26000000u;  // 2^-103, 2^-51

// Whether whole blocks can be added up in the caller's mode with the same result: all term(x) are zero or at
// least that large. Only asked of short arrays, where it costs less than the change of the mode (16 elements:
// 12 ns -> 7; 256: 170 -> 80 on Sapphire Rapids).
#if defined(__SSE2__) && !defined(KELRT_LANES_PORTABLE)
constexpr size_t kShortSum = 512;
template <class Term>
inline bool sums_stay_normal(const float* x, size_t count, uint32_t least, Term term) {
    if (count > kShortSum || !caller_has_our_mode())
        return false;
    const auto small = [=]<int n>(const float* from, size_t elements) {
        CloseLook<n> seen = {~WordVector<n>{}};
        for (size_t i = 0; i < elements; i += n)
            seen = both(seen, CloseLook<n>::at(term(Plain<n>::load(from + i)).v));
        return any(reinterpret_cast<WordVector<n>>(seen.least < least - 1));
    };
    const size_t wide = count - count % kWidest;
    return !small.template operator()<kWidest>(x, wide) &&
           !small.template operator()<4>(x + wide, count - wide);
}
#else
template <class Term>
inline bool sums_stay_normal(const float*, size_t, uint32_t, Term) {
    return false;
}
#endif

template <size_t count>
using Arrays = std::array<const float*, count>;

// The sums of the whole blocks of several arrays of n elements; add(sum, block, k) is the step of array k.
// Side by side, since each addition waits for the one before in its own array only: an LSTM step that
// normalises its gates takes 0.8 of the time.
template <size_t count, class Add>
std::array<float, count> block_sums(const Arrays<count>& x, uint32_t n, bool in_any_mode, Add add) {
    float lanes[count][4] = {};
    const auto part = [&lanes, &x, n, add] {
        std::array<lanes::Floats, count> sums;
        sums.fill(lanes::Floats::splat(0.0f));
        for (uint32_t i = 0; i < n - n % 4; i += 4)
            for (size_t k = 0; k < count; ++k)
                sums[k] = add(sums[k], lanes::Floats::load(x[k] + i), k);
        for (size_t k = 0; k < count; ++k)
            store(lanes[k], sums[k]);
    };
    if (in_any_mode)
        part();
    else
        vector_part(part);
    std::array<float, count> totals;
    for (size_t k = 0; k < count; ++k)
        totals[k] = LaneSums::total_of(lanes[k]);
    return totals;
}

template <size_t count>
std::array<float, count> sums_of(const Arrays<count>& x, uint32_t n) {
    bool in_any_mode = true;
    for (const float* array : x)
        in_any_mode =
            in_any_mode && sums_stay_normal(array, n - n % 4, kLeastTerm, [](auto value) { return value; });
    std::array<float, count> sums =
        block_sums(x, n, in_any_mode, [](auto sum, auto block, size_t) { return add(sum, block); });
    for (size_t k = 0; k < count; ++k) {
        const f32* const values = x[k];
        for_tail(n, [&](size_t i) { sums[k] += values[i]; });
    }
    return sums;
}

template <size_t count>
std::array<float, count> variances_of(const Arrays<count>& x, const std::array<float, count>& means,
                                      uint32_t n) {
    bool in_any_mode = true;
    for (size_t k = 0; k < count; ++k) {
        const auto deviation = [mean = means[k]](auto value) {
            return sub(value, decltype(value)::splat(mean));
        };
        in_any_mode = in_any_mode && sums_stay_normal(x[k], n - n % 4, kLeastRoot, deviation);
    }
    std::array<float, count> sums = block_sums(x, n, in_any_mode, [&](auto sum, auto block, size_t k) {
        const auto d = sub(block, decltype(block)::splat(means[k]));
        return mul_add(sum, d, d);
    });
    for (size_t k = 0; k < count; ++k) {
        const f32* const values = x[k];
        // Double precision here and not in the blocks is deliberate.
        for_tail(n, [&](size_t i) {
            const double d = values[i] - means[k];
            sums[k] = static_cast<float>(static_cast<double>(sums[k]) + d * d);
        });
        sums[k] /= static_cast<float>(n);
    }
    return sums;
}

}  // namespace
}  // namespace kelrt
