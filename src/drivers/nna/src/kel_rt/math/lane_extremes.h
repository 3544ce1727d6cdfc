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

// By their words, with three integer operations a vector where the floating-point extremes of lanes_x86.h
// take 30. As integers without sign, numbers below zero are the largest words, the lower the larger; as
// integers with one, what is not below zero has the order of its words. So whichever signs there are, both
// extremes are among these three; -0 is below +0 and NaN outside of the infinities, as the unit has it. What
// is subnormal is flushed at the end, which comes to the same since flushing keeps the order.
template <int n>
struct Extremes {
    WordVector<n> least_word, largest_word;
    IntVector<n> largest;

    static WordVector<n> word(const float* p) {
        return reinterpret_cast<WordVector<n>>(PlainInts<n>::load(p).v);
    }
    explicit Extremes(const float* p)
        : least_word(word(p)), largest_word(word(p)), largest(PlainInts<n>::load(p).v) {}
    Extremes(WordVector<n> least, WordVector<n> most, IntVector<n> most_signed)
        : least_word(least), largest_word(most), largest(most_signed) {}

    void look(const float* p) { take(Extremes(p)); }
    void take(const Extremes& other) {
        least_word = smaller<n>(other.least_word, least_word);
        largest_word = larger<n>(other.largest_word, largest_word);
        largest = other.largest > largest ? other.largest : largest;
    }
    // Folded to four columns.
    Extremes<4> columns() const {
        if constexpr (n == 4) {
            return *this;
        } else {
            Extremes<n / 2> half(half_of<0>(least_word), half_of<0>(largest_word), half_of<0>(largest));
            half.take({half_of<1>(least_word), half_of<1>(largest_word), half_of<1>(largest)});
            return half.columns();
        }
    }
    template <int which, class V>
    static auto half_of(V v) {
        return [=]<int... e>(std::integer_sequence<int, e...>) {
            return __builtin_shufflevector(v, v, (which * n / 2 + e)...);
        }
        (std::make_integer_sequence<int, n / 2>());
    }

    // Back to floats: one NaN makes its column one.
    WordVector<n> floats(WordVector<n> word) const {
        const WordVector<n> flushed = (word & 0x7F800000u) == 0 ? word & 0x80000000u : word;
        return largest > 0x7F800000 || largest_word > 0xFF800000u ? WordVector<n>{} + 0x7FC00000u : flushed;
    }
    void store(float* lows, float* highs) const {
        const WordVector<n> low = floats(largest_word >= 0x80000000u ? largest_word : least_word);
        const WordVector<n> high =
            floats(largest >= 0 ? reinterpret_cast<WordVector<n>>(largest) : least_word);
        std::memcpy(lows, &low, sizeof low);
        std::memcpy(highs, &high, sizeof high);
    }
};

// Of n elements or more. Four vectors at a time; the last one together with some that are done, which change
// nothing.
template <int n>
Extremes<4> extremes(const float* x, size_t count) {
    Extremes<n> found(x);
    size_t i = n;
    if (count >= 8 * n) {
        Extremes<n> second(x + n), third(x + 2 * n), fourth(x + 3 * n);
        for (i = 4 * n; i + 4 * n <= count; i += 4 * n) {
            found.look(x + i);
            second.look(x + i + n);
            third.look(x + i + 2 * n);
            fourth.look(x + i + 3 * n);
        }
        second.take(fourth);
        found.take(third);
        found.take(second);
    }
    for (; i + n <= count; i += n)
        found.look(x + i);
    found.look(x + count - n);
    return found.columns();
}

// Over a whole number of blocks.
inline void extremes_of_columns(const float* x, size_t count, float* lows, float* highs) {
    const Extremes<4> columns = count < kWidest ? extremes<4>(x, count) : extremes<kWidest>(x, count);
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
