// Inputs for tests by strategy, the bits of floats, and the arithmetic of vector parts by its definition.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

namespace floats {

using Floats = std::vector<float>;

inline uint32_t bits(float x) {
    return std::bit_cast<uint32_t>(x);
}
inline float from_bits(uint32_t x) {
    return std::bit_cast<float>(x);
}

// Where arithmetic, conversions or approximations change their mind; of either sign.
inline constexpr uint32_t kSpecial[] = {
    0x00000000, 0x00000001, 0x007FFFFF,              // zero, subnormals
    0x00800000, 0x00800001, 0x3F7FFFFE,              // 2^-126; two whose product rounds up to it
    0x3F000000, 0x3F800000, 0x3FC00000, 0x40200000,  // 0.5 1 1.5 2.5
    0x41200000, 0x42AEAC50, 0x42B00000, 0x42B17217, 0x42B17218, 0x42B20000, 0x447A0000,  // ends of tanh, exp
    0x4EFFFFFF, 0x4F000000, 0x7E7FFFFF, 0x7E800000,  // ends of integers and of reciprocals
    0x7F7FFFFF, 0x7F800000, 0x7F800001, 0x7FC12345,  // largest, infinity, NaN signalling and quiet
};
inline constexpr uint32_t kSpecials = 2 * std::size(kSpecial);
inline uint32_t special(uint32_t i) {
    return kSpecial[i / 2 % std::size(kSpecial)] | i % 2 << 31;
}

class Random {
  public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint32_t operator()() {
        state_ = state_ * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>(state_ >> 32);
    }
    uint32_t below(uint32_t end) { return (*this)() % end; }
    float number(float size) { return static_cast<float>(static_cast<int32_t>((*this)())) * 0x1p-31f * size; }
    // An ordinary number: nothing subnormal, infinite or NaN comes of a few of them.
    float plain() { return std::copysign(0.25f + std::fabs(number(4)), number(1)); }
    // One of every sort: special values, near zero, where functions are used, near overflow, any bits.
    float wild() {
        switch (const uint32_t kind = below(8), word = (*this)(); kind) {
            case 0:
                return from_bits(special(word));
            case 1:
                return from_bits(word & 0x80FFFFFFu);
            case 2:
                return from_bits(word);
            case 3:
                return number(0x1p127f);
            default:
                return number(kind == 4 ? 90 : 8);
        }
    }

  private:
    uint64_t state_;
};

inline Floats wild(size_t n, uint32_t seed) {
    Random random(seed);
    Floats x(n);
    for (float& value : x)
        value = random.wild();
    return x;
}

inline Floats plain(size_t n, uint32_t seed) {
    Random random(seed);
    Floats x(n);
    for (float& value : x)
        value = random.plain();
    return x;
}

inline std::vector<uint8_t> noise(size_t n, uint32_t seed) {
    Random random(seed);
    std::vector<uint8_t> bytes(n);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(random() >> 24);
    return bytes;
}

// The first element whose bits differ, or the size. From element `scalar` on, which NaN it is stays open.
inline size_t differ_at(const Floats& found, const Floats& expected, size_t scalar = 0) {
    size_t i = 0;
    while (i < expected.size() && (bits(found[i]) == bits(expected[i]) ||
                                   (i >= scalar && std::isnan(found[i]) && std::isnan(expected[i]))))
        ++i;
    return i;
}

// Lanes: subnormal operands count as zero, results below 2^-126 before rounding become zero, NaN is
// 0x7FC00000. Doubles hold what two floats make closely enough that rounding it again gives the float.
namespace lane {

inline double operand(float x) {
    const auto wide = static_cast<double>(x);
    return std::fpclassify(x) == FP_SUBNORMAL ? std::copysign(0.0, wide) : wide;
}
inline float result(double x) {
    if (std::isnan(x))
        return from_bits(0x7FC00000u);
    return std::fabs(x) < 0x1p-126 ? std::copysign(0.0f, std::signbit(x) ? -1.0f : 1.0f)
                                   : static_cast<float>(x);
}
inline float add(float a, float b) {
    return result(operand(a) + operand(b));
}
inline float sub(float a, float b) {
    return result(operand(a) - operand(b));
}
inline float mul(float a, float b) {
    return result(operand(a) * operand(b));
}
inline float div(float a, float b) {
    return result(operand(a) / operand(b));
}

}  // namespace lane
}  // namespace floats
