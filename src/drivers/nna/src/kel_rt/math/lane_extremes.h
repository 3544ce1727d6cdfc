// The least and the largest of each of four columns: of the elements whose index leaves the same rest by
// four.
#pragma once

#include "math/blocks.h"
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

    static WordVector<n> word(const float* p) { return reinterpret_cast<WordVector<n>>(Plain<n>::load(p).v); }
    explicit Extremes(WordVector<n> words)
        : least_word(words), largest_word(words), largest(reinterpret_cast<IntVector<n>>(words)) {}
    explicit Extremes(const float* p) : Extremes(word(p)) {}
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

// Looks at all groups of four vectors and returns how many elements these are: 0, and nothing is looked at,
// if one of them holds NaN or there is no better way than by words.
template <int n>
size_t look_at_numbers(Extremes<n>&, const float*, size_t) {
    return 0;
}
#if defined(__AVX512F__)
// Numbers need two operations a vector, which put -0 below +0 too and which the processor does twice as many
// of in a cycle as of those on words (4096 elements: 0.6 of the time). Other than those they can trap.
template <>
inline size_t look_at_numbers(Extremes<16>& found, const float* x, size_t count) {
    if (!caller_has_our_mode())
        return 0;
    constexpr int kLeast = 4, kMost = 5;  // with the sign of what is chosen
    // Volatile, or g++ loads a vector for each of its operations, which takes 1.7 times as long.
    const auto at = [x](size_t i) -> __m512 {
        return *reinterpret_cast<const volatile Vectors<16>::MemoryF*>(x + i);
    };
    __m512 least[4], most[4];
    for (size_t k = 0; k < 4; ++k)
        least[k] = most[k] = at(0);
    unsigned nan = 0;
    size_t i = 0;
    for (; i + 64 <= count; i += 64) {
        __m512 v[4];
        for (size_t k = 0; k < 4; ++k) {
            v[k] = at(i + 16 * k);
            least[k] = _mm512_range_ps(least[k], v[k], kLeast);
            most[k] = _mm512_range_ps(most[k], v[k], kMost);
        }
        nan |= _mm512_cmp_ps_mask(v[0], v[1], _CMP_UNORD_Q);
        nan |= _mm512_cmp_ps_mask(v[2], v[3], _CMP_UNORD_Q);
    }
    if (nan)
        return 0;
    const auto fold = [](const __m512(&v)[4], auto of) { return of(of(v[0], v[1]), of(v[2], v[3])); };
    const __m512 low = fold(least, [](__m512 a, __m512 b) { return _mm512_range_ps(a, b, kLeast); });
    const __m512 high = fold(most, [](__m512 a, __m512 b) { return _mm512_range_ps(a, b, kMost); });
    found.take(Extremes<16>(reinterpret_cast<WordVector<16>>(low)));
    found.take(Extremes<16>(reinterpret_cast<WordVector<16>>(high)));
    return i;
}
#endif

// Of n elements or more. Four vectors at a time; the last one together with some that are done, which change
// nothing.
template <int n>
Extremes<4> extremes(const float* x, size_t count) {
    Extremes<n> found(x);
    const bool many = count >= 8 * n;
    size_t i = many ? look_at_numbers<n>(found, x, count) : n;
    if (i == 0) {
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
