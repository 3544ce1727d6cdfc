// Copy with format conversion: the choice of the shift, conversions in both directions at the limits of their
// formats, refusals.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>

#include "kelRt.h"
#include "support/guarded.h"
#include "support/probe.h"

namespace {

using guarded::Wall;
using Bytes = std::vector<uint8_t>;
using Floats = std::vector<float>;
using Lines = std::vector<std::string>;

constexpr uint32_t kFloat = UINT32_MAX;
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

template <typename T>
Bytes bytes_of(const std::vector<T>& values) {
    Bytes bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

struct Format {
    uint32_t tot_bits, frac_bits, scale;
};

// ------------------------------------------------------------------------------------------------ the shift

float shift_of(float max, float min, uint32_t tot_bits, uint32_t frac_bits) {
    float result = -99;
    getExtraInputScaleFactor(max, min, tot_bits, frac_bits, &result);
    return result;
}

// The least k with x <= range * 2^k, found by comparing rather than by a logarithm; at most 4.
float least_shift(double x, double range) {
    float k = -40;
    while (k < 4 && x > std::ldexp(range, static_cast<int>(k)))
        ++k;
    return k;
}

TEST(Shift, IsTheLeastThatFitsAroundEveryPowerOfTwo) {
    for (uint32_t frac = 0; frac < 8; ++frac) {
        const float range = std::ldexp(1.0f, 7 - static_cast<int>(frac));
        Floats magnitudes = {0, 1e-45f, 0.75f * range, 3 * range, 1e30f, kInfinity};
        for (int k = -3; k <= 6; ++k) {
            const float power = std::ldexp(range, k);
            magnitudes.insert(magnitudes.end(),
                              {std::nextafter(power, 0.0f), power, std::nextafter(power, kInfinity)});
        }
        for (const float above : magnitudes) {
            for (const float below : magnitudes) {
                const bool fits = above < range && below <= range;
                const float expected =
                    fits ? 0 : std::max(least_shift(above, range), below > 0 ? least_shift(below, range) : 0);
                ASSERT_EQ(shift_of(above, -below, 8, frac), expected)
                    << "frac " << frac << " max " << above << " min " << -below;
            }
            // Data on one side of zero.
            const float one_sided = above < range ? 0 : least_shift(above, range);
            ASSERT_EQ(shift_of(above, above / 2, 8, frac), one_sided) << above;
            const float negative = above <= range ? 0 : least_shift(above, range);
            if (above > 0) {
                ASSERT_EQ(shift_of(-above / 2, -above, 8, frac), negative) << -above;
            }
        }
    }
}

TEST(Shift, OfOddRangesAndNaN) {
    struct Case {
        float max, min;
        uint32_t tot, frac;
        float expected;
    };
    const Case cases[] = {
        {0, 0, 8, 8, 0},           // range 0: all-zero data
        {1e-45f, 0, 8, 8, 4},      // any positive maximum
        {0, -1e-45f, 8, 8, 4},     // any negative minimum
        {-1, -1, 8, 8, 4},         //
        {kNaN, kNaN, 8, 8, 0},     // NaN fits even in a range of 0
        {kNaN, kNaN, 8, 7, 0},     //
        {100, kNaN, 8, 7, 4},      // and the other bound decides
        {kNaN, -3, 8, 7, 2},       //
        {1e9f, -1e9f, 32, 1, 0},   // range 2^30
        {3e9f, 0, 32, 1, 2},       //
        {1, 0, 64, 0, 4},          // exponent 63 shifts everything out
        {1, 0, 8 + 256, 7, 0},     // exponents count modulo 256: range 1, and 1 needs a shift of 0
        {1.5f, 0, 8 + 256, 7, 1},  //
        {5, 0, 32, 0, 0},          // range -2^31: nothing fits, and the ratio's logarithm is NaN
        {0, 0, 32, 0, 0},          //
    };
    for (const Case& c : cases)
        EXPECT_EQ(shift_of(c.max, c.min, c.tot, c.frac), c.expected)
            << c.max << ' ' << c.min << ' ' << c.tot << ' ' << c.frac;
    EXPECT_TRUE(std::isnan(shift_of(5, -5, 32, 0)));
}

// --------------------------------------------------------------------------------------------- conversions

// Between guard pages, the input at either wall.
Bytes convert(const Bytes& input, Format from, Format to, uint32_t count, size_t output_bytes,
              uint8_t* out_shift = nullptr, Wall wall = Wall::After) {
    guarded::Bytes in(input, wall), out(output_bytes, wall);
    uint32_t out_bytes = 0;
    EXPECT_EQ(kelRt_copyFormatConv(out.data(), to.tot_bits, to.frac_bits, to.scale, in.data(), from.tot_bits,
                                   from.frac_bits, from.scale, count, out_shift, &out_bytes),
              NNA_STATUS_OK);
    EXPECT_EQ(out_bytes, to.tot_bits == 8 ? count : 4 * count);
    return out.copy();
}

int8_t to_int8(float x, float factor) {
    const float v = x * factor;
    return std::isnan(v) ? int8_t{0} : static_cast<int8_t>(std::trunc(std::fmin(std::fmax(v, -128), 127)));
}

// Integers of one width over every count, with the limits of the width among them.
template <typename T>
void check_integers(uint32_t frac, uint32_t scale, float factor) {
    SCOPED_TRACE("bits " + std::to_string(8 * sizeof(T)) + " frac " + std::to_string(frac) + " scale " +
                 std::to_string(scale));
    const Format from = {8 * sizeof(T), frac, scale};
    using Limits = std::numeric_limits<T>;
    for (uint32_t count = 1; count <= 40; ++count) {
        std::vector<T> q(count);
        for (uint32_t i = 0; i < count; ++i)
            q[i] = static_cast<T>(i % 5 == 4   ? Limits::max() - T(i)
                                  : i % 5 == 3 ? Limits::min() + T(i)
                                               : T(0x01000025u * i));
        for (const Wall wall : {Wall::Before, Wall::After}) {
            // An odd end puts the elements at odd addresses.
            Bytes input = bytes_of(q);
            const Bytes floats = convert(input, from, {kFloat, 77, 0}, count, 4 * count, nullptr, wall);
            const Bytes eighths = convert(input, from, {8, 3, 5}, count, count, nullptr, wall);
            for (uint32_t i = 0; i < count; ++i) {
                float x;
                std::memcpy(&x, &floats[4 * i], 4);
                const float expected = static_cast<float>(q[i]) * factor;
                if (std::isnan(expected))
                    ASSERT_TRUE(std::isnan(x)) << i;
                else
                    ASSERT_EQ(x, expected) << i;
                ASSERT_EQ(static_cast<int8_t>(eighths[i]), to_int8(expected, 8.0f / 5)) << i;
            }
        }
    }
}

TEST(CopyFormat, IntegersBecomeFloatsAndBytesAtTheFormatsLimits) {
    check_integers<int8_t>(0, 1, 1.0f);
    check_integers<int8_t>(8, 3, 3.0f / 256);
    check_integers<int16_t>(8, 1, 1.0f / 256);
    check_integers<int16_t>(16, UINT32_MAX, 65536.0f);  // the scale is unsigned
    check_integers<int32_t>(0, 10, 10.0f);
    check_integers<int32_t>(0, 30011, 30011.0f);  // large integers are rounded twice
    check_integers<int32_t>(30, 7, 7 * 0x1p-30f);
    check_integers<int32_t>(31, 1, -0x1p-31f);  // 2^31 is negative
    check_integers<int32_t>(32, 1, kInfinity);  // 2^32 is 0: infinities, and NaN for 0
}

// Scales that single precision cannot hold: the factors are formed in double precision and rounded once.
TEST(CopyFormat, FormsItsFactorsInDoublePrecision) {
    const uint32_t scale = 0x01000003;  // 2^24 + 3: as a float 2^24 + 4
    const int32_t one = 1;
    float real = 0;
    EXPECT_EQ(kelRt_copyFormatConv(reinterpret_cast<uint8_t*>(&real), kFloat, 0, 0,
                                   reinterpret_cast<const uint8_t*>(&one), 32, 0, scale, 1, nullptr, nullptr),
              NNA_STATUS_OK);
    EXPECT_EQ(real, 16777220.0f) << "rounded once";
    // 2^7 / (2^24 + 1) is just below 2^-17, which is what a single-precision divisor would give.
    const float x[4] = {std::ldexp(1.0f, 17), 0, 0, 0};
    int8_t byte = 9;
    EXPECT_EQ(kelRt_copyFormatConv(reinterpret_cast<uint8_t*>(&byte), 8, 7, 0x01000001,
                                   reinterpret_cast<const uint8_t*>(x), kFloat, 0, 0, 1, nullptr, nullptr),
              NNA_STATUS_OK);
    EXPECT_EQ(byte, 0) << "0.99999994 truncates";
    // The scale is unsigned: 2^7 / (2^32 - 1), not 2^7 / -1.
    EXPECT_EQ(kelRt_copyFormatConv(reinterpret_cast<uint8_t*>(&byte), 8, 7, UINT32_MAX,
                                   reinterpret_cast<const uint8_t*>(x), kFloat, 0, 0, 1, nullptr, nullptr),
              NNA_STATUS_OK);
    EXPECT_EQ(byte, 0);
}

TEST(CopyFormat, FloatToFloatCopiesNothing) {
    const Bytes in = bytes_of(Floats{1, 2, 3});
    EXPECT_EQ(convert(in, {kFloat, 5, 0}, {kFloat, 0, 0}, 3, 12), Bytes(12, 0xEE));
}

// The range is measured on what the input holds, read as floats whatever it is, and on four of them at least:
// of four 8-bit integers the last twelve bytes are no elements at all.
TEST(CopyFormat, MeasuresTheRangeOfTheInputsRawBits) {
    const Format floats = {kFloat, 0, 0};
    const Bytes raw = bytes_of(std::vector<uint32_t>(5, 0x40600000));  // 3.5f; in bytes 00 00 60 40
    const struct {
        Bytes input;
        Format from;
        uint32_t frac;
        uint8_t shift;
        std::vector<int8_t> output;
    } cases[] = {
        {bytes_of(Floats{0.5f, -1, 0.999f, 0}), floats, 7, 0, {64, -128, 127, 0}},
        {bytes_of(Floats{3, -1, 0.5f, 0}), floats, 7, 2, {96, -32, 16, 0}},
        {bytes_of(Floats{-kInfinity, kNaN, 1, 2, 3}), floats, 7, 4, {-128, 0, 8, 16, 24}},
        {bytes_of(Floats{0.25f, -0.25f, 0, 0}), floats, 8, 4, {4, -4, 0, 0}},  // a range of 0
        {bytes_of(Floats{0.5f, 0.25f, 6, 0}), floats, 7, 3, {8, 4}},           // the 6 counts
        {raw, {8, 6, 1}, 7, 2, {0, 0, 48, 32}},
        {raw, {16, 14, 1}, 7, 2, {0, 32, 0, 32}},
        {raw, {32, 30, 3}, 7, 2, {96, 96, 96, 96, 96}},
        // Small integers are subnormal floats: shift 0 whatever their value.
        {bytes_of(std::vector<int32_t>(4, 1000)), {32, 3, 1}, 7, 0, {127, 127, 127, 127}},
    };
    for (const auto& c : cases) {
        const auto count = static_cast<uint32_t>(c.output.size());
        const Bytes input(c.input.begin(),
                          c.input.begin() + std::max(ptrdiff_t{16}, static_cast<ptrdiff_t>(4 * count)));
        uint8_t shift = 77, untouched = 77;
        const Bytes out = convert(input, c.from, {8, c.frac, 0}, count, count, &shift);
        EXPECT_EQ(shift, c.shift);
        EXPECT_EQ(out, bytes_of(c.output));
        EXPECT_EQ(convert(input, c.from, {8, c.frac, 1u << c.shift}, count, count, &untouched), out);
        EXPECT_EQ(untouched, 77) << "a scale that is given is not reported";
    }
}

TEST(CopyFormat, RefusesInOrder) {
    struct Case {
        Format from, to;
        uint32_t count;
        Lines messages;
    };
    const auto formats = [](int in_tot, int in_frac, int out_tot, int out_frac) {
        return Lines{"Input Total : " + std::to_string(in_tot) + " Frac : " + std::to_string(in_frac),
                     "Output Total : " + std::to_string(out_tot) + " Frac : " + std::to_string(out_frac)};
    };
    const Case cases[] = {
        {{8, 0, 1}, {8, 9, 1}, 1, formats(8, 0, 8, 9)},
        {{8, 9, 1}, {8, 8, 1}, 1, formats(8, 9, 8, 8)},
        {{32, 33, 1}, {kFloat, 0, 0}, 1, formats(32, 33, -1, 0)},
        {{8, kFloat, 1}, {8, 0, 1}, 1, formats(8, -1, 8, 0)},
        {{0, 0, 1}, {8, 0, 1}, 1, formats(0, 0, 8, 0)},
        {{8, 0, 1}, {0, 0, 1}, 1, formats(8, 0, 0, 0)},
        {{64, 0, 1}, {8, 0, 1}, 1, formats(64, 0, 8, 0)},
        {{24, 0, 1}, {8, 0, 1}, 1, formats(24, 0, 8, 0)},
        {{kFloat, 0, 1}, {16, 0, 1}, 1, formats(-1, 0, 16, 0)},
        {{kFloat, 0, 1}, {32, 0, 1}, 1, formats(-1, 0, 32, 0)},
        {{kFloat - 1, 0, 1}, {8, 0, 1}, 1, formats(-2, 0, 8, 0)},
        {{9, 0, 0}, {8, 0, 1}, 1, formats(9, 0, 8, 0)},  // before the scale is looked at
        {{8, 0, 0}, {8, 0, 1}, 1, {"Input Scale Factor 0"}},
        {{32, 0, 0}, {kFloat, 0, 1}, 1, {"Input Scale Factor 0"}},
        {{9, 9, 0}, {9, 0, 0}, 0, {"Unexpected Size 0"}},  // before the formats
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.messages[0] + ", " + c.messages.back());
        probe::Probe probe;
        Bytes in(16), out(16, 0xEE);
        uint32_t out_bytes = 4711;
        uint8_t shift = 77;
        EXPECT_EQ(kelRt_copyFormatConv(out.data(), c.to.tot_bits, c.to.frac_bits, c.to.scale, in.data(),
                                       c.from.tot_bits, c.from.frac_bits, c.from.scale, c.count, &shift,
                                       &out_bytes),
                  NNA_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(probe.messages(), c.messages);
        EXPECT_EQ(out, Bytes(16, 0xEE));
        EXPECT_EQ(out_bytes, 4711u);
        EXPECT_EQ(shift, 77);
    }
    // Null pointers come first, and without a word.
    probe::Probe probe;
    uint8_t byte = 0;
    EXPECT_EQ(kelRt_copyFormatConv(nullptr, 9, 0, 0, &byte, 9, 0, 0, 0, &byte, nullptr),
              NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kelRt_copyFormatConv(&byte, 9, 0, 0, nullptr, 9, 0, 0, 0, &byte, nullptr),
              NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages(), Lines{});
}

}  // namespace
