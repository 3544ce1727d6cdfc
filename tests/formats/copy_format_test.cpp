// Copy with format conversion: the choice of the shift, conversions in both directions at the limits of their
// formats, refusals, the 8-bit output over the patterns of a float, and the operator's own records.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "support/guarded.h"
#include "support/probe.h"
#include "support/rig.h"

#if defined(__SANITIZE_ADDRESS__)
// Lets an allocation fail as it does without the sanitizer.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=4096";
}
#endif

namespace {

using guarded::Wall;
using rig::mem;
using rig::val;
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
                                               : T(37 * i));
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
}

TEST(CopyFormat, AcceptsOddAddresses) {
    const std::vector<int32_t> q = {1, -2, 300000, 4, 5, -6, 7, 8, 9};
    for (size_t odd = 1; odd < 4; ++odd) {
        Bytes in(36 + odd), out(36 + odd), eight(9 + odd);
        std::memcpy(in.data() + odd, q.data(), 36);
        EXPECT_EQ(kelRt_copyFormatConv(out.data() + odd, kFloat, 0, 0, in.data() + odd, 32, 1, 1, 9, nullptr,
                                       nullptr),
                  NNA_STATUS_OK);
        uint8_t shift = 9;
        EXPECT_EQ(kelRt_copyFormatConv(eight.data() + odd, 8, 0, 0, out.data() + odd, kFloat, 0, 0, 9, &shift,
                                       nullptr),
                  NNA_STATUS_OK);
        EXPECT_EQ(shift, 4);
        EXPECT_EQ(Bytes(eight.begin() + static_cast<ptrdiff_t>(odd), eight.end()),
                  (Bytes{0, 0, 127, 0, 0, 0, 0, 0, 0}));
    }
}

TEST(CopyFormat, FloatToFloatCopiesNothing) {
    const Bytes in = bytes_of(Floats{1, 2, 3});
    EXPECT_EQ(convert(in, {kFloat, 5, 0}, {kFloat, 0, 0}, 3, 12), Bytes(12, 0xEE));
}

TEST(CopyFormat, ChoosesTheShiftOfTheInput) {
    struct Case {
        Floats input;
        uint32_t frac;
        uint8_t shift;
        std::vector<int8_t> output;
    };
    const Case cases[] = {
        {{0.5f, -1, 0.999f, 0}, 7, 0, {64, -128, 127, 0}},
        {{3, -1, 0.5f, 0}, 7, 2, {96, -32, 16, 0}},
        {{1, 0, 0, 0}, 7, 0, {127, 0, 0, 0}},  // the maximum equals the range
        {{1000, -1, 0, 8}, 7, 4, {127, -8, 0, 64}},
        {{-130, 0, 0, 0}, 0, 1, {-65, 0, 0, 0}},
        {{-kInfinity, kNaN, 1, 2, 3}, 7, 4, {-128, 0, 8, 16, 24}},
        {{kNaN, -kInfinity, 1, 2, 3}, 7, 0, {0, -128, 127, 127, 127}},  // a NaN first hides all others
        {{0, 0, 0, 0}, 8, 0, {0, 0, 0, 0}},                             // a range of 0
        {{0.25f, -0.25f, 0, 0}, 8, 4, {4, -4, 0, 0}},                   //
    };
    for (const Case& c : cases) {
        const auto count = static_cast<uint32_t>(c.input.size());
        uint8_t shift = 77;
        const Bytes out = convert(bytes_of(c.input), {kFloat, 0, 0}, {8, c.frac, 0}, count, count, &shift);
        EXPECT_EQ(shift, c.shift);
        EXPECT_EQ(out, bytes_of(c.output));
        // The same scale, given: the shift is left alone.
        uint8_t untouched = 77;
        EXPECT_EQ(
            convert(bytes_of(c.input), {kFloat, 0, 0}, {8, c.frac, 1u << c.shift}, count, count, &untouched),
            out);
        EXPECT_EQ(untouched, 77);
    }
}

TEST(CopyFormat, MeasuresFourElementsEvenOfFewer) {
    const Bytes in = bytes_of(Floats{0.5f, 0.25f, 6, 0});
    uint8_t shift = 77;
    EXPECT_EQ(convert(in, {kFloat, 0, 0}, {8, 7, 0}, 2, 2, &shift), (Bytes{8, 4}));
    EXPECT_EQ(shift, 3) << "the 6 behind the two elements counts";
}

// Integers are measured as if their bytes were floats: 16 bytes for four 8-bit elements, of which the last
// twelve are no elements at all.
TEST(CopyFormat, MeasuresIntegersByTheirRawBits) {
    const auto from_raw = [](uint32_t bits, uint32_t count, Format from) {
        Bytes in(4 * count);
        for (size_t i = 0; i < in.size(); i += 4)
            std::memcpy(&in[i], &bits, 4);
        uint8_t shift = 77;
        const Bytes out = convert(in, from, {8, 7, 0}, count, count, &shift);
        return std::pair<int, Bytes>(shift, out);
    };
    // 0x40600000 is 3.5f: shift 2, factor 128 / 4 = 32. As bytes 00 00 60 40, as 16 bits 0 and 0x4060.
    EXPECT_EQ(from_raw(0x40600000, 4, {8, 6, 1}), (std::pair<int, Bytes>{2, {0, 0, 48, 32}}));
    EXPECT_EQ(from_raw(0x40600000, 4, {16, 14, 1}), (std::pair<int, Bytes>{2, {0, 32, 0, 32}}));
    EXPECT_EQ(from_raw(0x40600000, 5, {32, 30, 3}), (std::pair<int, Bytes>{2, {96, 96, 96, 96, 96}}));
    // Small integers are subnormal floats: shift 0 whatever their value.
    EXPECT_EQ(from_raw(1000, 4, {32, 3, 1}), (std::pair<int, Bytes>{0, {127, 127, 127, 127}}));
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

// Four times 2^32 - 1 bytes: no 32-bit machine has them, and on others the address space is limited first.
TEST(CopyFormat, ReportsAnExhaustedHeap) {
#if !defined(__SANITIZE_ADDRESS__)
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    const rlimit small = {rlim_t{2} << 30, before.rlim_max};
    ASSERT_EQ(sizeof(void*) == 4 ? 0 : setrlimit(RLIMIT_AS, &small), 0);
#endif
    uint8_t byte = 0;
    uint32_t out_bytes = 0;
    {
        probe::Probe probe;
        EXPECT_EQ(kelRt_copyFormatConv(&byte, 8, 0, 1, &byte, 8, 0, 1, UINT32_MAX, nullptr, &out_bytes),
                  NNA_STATUS_OUT_OF_MEMORY);
        EXPECT_EQ(probe.messages(), Lines{"Malloc Failed"});
    }
    EXPECT_EQ(out_bytes, UINT32_MAX - 3) << "already set, and wrapped";
#if !defined(__SANITIZE_ADDRESS__)
    EXPECT_EQ(sizeof(void*) == 4 ? 0 : setrlimit(RLIMIT_AS, &before), 0);
#endif
}

// ----------------------------------------------------------- 8-bit output over the patterns of a float

// Digests of the NEON build over every `kStride`-th of the 2^32 patterns, and over all of them, which is
// looked at when KELRT_ALL_PATTERNS is set in the environment, as `./dev sweep 1` does.
constexpr uint64_t kStride = 4099;

struct Golden {
    uint32_t frac_bits, out_scale;
    uint64_t digest, of_all_patterns;
};
const Golden kGolden[] = {
    {0, 1, 0xac7b12fbab468205, 0xd4cbfcffbb2fdff4},
    {7, 1, 0x0a099bf346d090a0, 0xcda888ef8cb0be57},
    {8, 3, 0x6b8b89c5bede8c33, 0x5a9d1f57b93eb42b},
    {0, UINT32_MAX, 0xe1216da561e2aaf8, 0xe9c58f3d30be3c93},
};

template <typename Check>
uint64_t digest_of(const Golden& golden, uint64_t stride, Check check) {
    constexpr uint32_t kBlock = 8192;
    Floats x(kBlock);
    std::vector<int8_t> y(kBlock);
    uint64_t digest = 0xCBF29CE484222325;
    for (uint64_t first = 0; first < uint64_t{1} << 32; first += kBlock * stride) {
        for (uint32_t i = 0; i < kBlock; ++i)
            x[i] = std::bit_cast<float>(static_cast<uint32_t>(first + i * stride));
        kelRt_copyFormatConv(reinterpret_cast<uint8_t*>(y.data()), 8, golden.frac_bits, golden.out_scale,
                             reinterpret_cast<const uint8_t*>(x.data()), kFloat, 0, 0, kBlock, nullptr,
                             nullptr);
        for (uint32_t i = 0; i < kBlock; i += 8) {
            uint64_t word;
            std::memcpy(&word, &y[i], 8);
            digest = (digest ^ word) * 0x100000001B3;
            digest ^= digest >> 29;
        }
        for (uint32_t i = 0; i < kBlock; ++i)
            check(x[i], y[i]);
    }
    return digest;
}

TEST(CopyFormatSweep, EightBitOutputIsTheNeonBuilds) {
    for (const Golden& golden : kGolden) {
        const auto factor =
            static_cast<float>(std::ldexp(1.0, static_cast<int>(golden.frac_bits)) / golden.out_scale);
        uint64_t differences = 0, distinct[256] = {};
        const uint64_t digest = digest_of(golden, kStride, [&](float x, int8_t y) {
            differences += y != to_int8(x, factor);
            ++distinct[static_cast<uint8_t>(y)];
        });
        EXPECT_EQ(differences, 0u) << "factor " << factor;
        EXPECT_EQ(std::count(std::begin(distinct), std::end(distinct), 0u), 0) << "every result occurs";
        EXPECT_EQ(digest, golden.digest) << std::hex << "0x" << digest << " at factor " << factor;
    }
}

class CopyFormatLongSweep : public testing::TestWithParam<Golden> {};

TEST_P(CopyFormatLongSweep, OfAllPatterns) {
    if (!std::getenv("KELRT_ALL_PATTERNS"))
        GTEST_SKIP() << "KELRT_ALL_PATTERNS is not set: minutes on an emulated processor";
    const uint64_t digest = digest_of(GetParam(), 1, [](float, int8_t) {});
    EXPECT_EQ(digest, GetParam().of_all_patterns) << std::hex << "0x" << digest;
}

INSTANTIATE_TEST_SUITE_P(Factors, CopyFormatLongSweep, testing::ValuesIn(kGolden));

// ------------------------------------------------------------------------------------------------ operator

TEST(CopyFormatOperator, ReportsTheShiftInTheInstance) {
    rig::Rig rig;
    const uint32_t in = rig.memory_of(Floats{3, -1, 0.5f, 0.25f, 0}, 3), out = rig.memory(12);
    rig.instance.out_shift = 77;
    const auto run = [&](uint32_t out_scale) {
        return rig.run(2, {mem(out, 5), val(8), val(7), val(out_scale), mem(in, 3), val(kFloat), val(0),
                           val(0), val(5)});
    };
    EXPECT_EQ(run(4), NNA_STATUS_OK);
    EXPECT_EQ(rig.instance.out_shift, 77);
    EXPECT_EQ(rig.device<int8_t>(out, 5, 5), (std::vector<int8_t>{96, -32, 16, 8, 0}));
    EXPECT_EQ(run(0), NNA_STATUS_OK);
    EXPECT_EQ(rig.instance.out_shift, 2);
    EXPECT_EQ(rig.device<int8_t>(out, 5, 5), (std::vector<int8_t>{96, -32, 16, 8, 0}));
    EXPECT_EQ(rig.device<uint8_t>(out, 2, 10), Bytes(2, NNA_SIM_STALE_BYTE));
}

TEST(CopyFormatOperator, DumpsFormatsBeforeItFetchesTheInput) {
    rig::Rig rig;
    const uint32_t out = rig.memory(64), in = rig.memory_of(std::vector<int16_t>{384, -256, 0}, 2);
    const std::vector<KelRtContextArg> args = {mem(out, 0x1C), val(kFloat), val(2), val(3), mem(in, 2),
                                               val(16),        val(8),      val(1), val(3)};
    probe::Probe probe;
    g_log_lvl = 0;
    EXPECT_EQ(rig.run(2, args), NNA_STATUS_OK);
    EXPECT_EQ(rig.device<float>(out, 3, 0x1C), (Floats{1.5f, -1, 0}));
    char tensors[256];
    std::snprintf(tensors, sizeof tensors,
                  "0x%p(ID=0x00) 0xFFFFFFFF 0x00000002 0x00000003 0x%p(ID=0x01) 0x00000010 0x00000008 "
                  "0x00000001 0x00000003",
                  static_cast<void*>(nna_sim_cpu_view(rig.sim, out)),
                  static_cast<void*>(nna_sim_cpu_view(rig.sim, in)));
    Lines expected = {"KEL RT executing operator cpu_copy_fmt_conv",
                      "output: memid=0, ofs=1c, ele_sz=4, bytes=12",
                      "input: memid=1, ofs=2, ele_sz=2, bytes=6", tensors};
    EXPECT_EQ(probe.messages(), expected);

    probe.clear();
    nna_sim_fail_call(rig.sim, 2, 4242);  // the size query of the input
    EXPECT_EQ(rig.run(2, args), NNA_STATUS_MEMORY_SYNC_FAILED);
    expected.pop_back();
    expected.insert(expected.end(), {"tivNnaMemorySize failed, err = 4242", "Error 1070 kelrt op 1"});
    EXPECT_EQ(probe.messages(), expected);
}

TEST(CopyFormatOperator, ReportsARefusal) {
    rig::Rig rig;
    const uint32_t out = rig.memory(16), in = rig.memory(16);
    probe::Probe probe;
    EXPECT_EQ(rig.run(2, {mem(out), val(16), val(0), val(1), mem(in), val(8), val(0), val(1), val(4)}),
              NNA_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(probe.messages(), (Lines{"Input Total : 8 Frac : 0", "Output Total : 16 Frac : 0",
                                       "Error executing operator 1064", "Error 1064 kelrt op 1"}));
    EXPECT_EQ(nna_sim_synced_bytes(rig.sim, 0), 0u);
}

}  // namespace
