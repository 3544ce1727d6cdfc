// Every element-wise kernel against one line that defines a lane and one that defines the tail: all small
// sizes, operands at odd addresses between walls, in place; and long arrays in which one or two elements are
// special, wherever they lie in the vectors of whatever width that a kernel computes by.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>

#include "kelRt.h"
#include "math/tables.h"
#include "support/floats.h"
#include "support/guarded.h"
#include "support/mode.h"

namespace {

using floats::bits;
using floats::Floats;
using floats::from_bits;
using floats::Random;
using guarded::Wall;
namespace lane = floats::lane;

// The same element of every operand.
struct Row {
    uint32_t word[4];
    float operator[](size_t k) const { return from_bits(word[k]); }
    float i8() const { return static_cast<int8_t>(word[0] & 0xFF); }
    float i16() const { return static_cast<int16_t>(word[0] & 0xFFFF); }
    float i32() const { return static_cast<float>(static_cast<int32_t>(word[0])); }
};

struct Kernel {
    const char* name;
    std::vector<float> parameters;  // `p` of the functions below
    uint32_t (*run)(float* const* x, float* y, uint32_t n, float p);
    float (*in_lane)(const Row& x, float p);
    float (*in_tail)(const Row& x, float p);
    uint32_t block = 4;  // elements that lanes compute together; kNoTail: rounded up to blocks of four
    uint32_t in_bytes = 4, out_bytes = 4;
};
constexpr uint32_t kNoTail = 0, kAllTail = UINT32_MAX;

template <auto primitive, class... More>
float four(float x, const More&... more) {
    float lanes[4];
    const kelRt_float32x4_t y = primitive(splat(x), more...);
    std::memcpy(lanes, &y, sizeof lanes);
    return lanes[0];
}
const Table kExp(kExpCoefficients);

float exp_lane(float x) {
    return four<vexpq_f32>(x, kExp.v);
}
float to_int8(float scaled) {
    return std::isnan(scaled) ? 0 : std::trunc(std::fmin(std::fmax(scaled, -128.0f), 127.0f));
}
float dot_lane(const Row& x) {
    return lane::add(lane::mul(x[0], x[2]), lane::mul(x[1], x[3]));
}
float norm_lane(const Row& x, float mean, float divisor) {
    return lane::add(x[2], lane::mul(x[1], lane::div(lane::sub(x[0], mean), divisor)));
}
float mean_for(float divisor) {  // by no arithmetic, which may trap
    return bits(divisor) == bits(1) ? 0 : 0.37f;
}
template <class Int>
Int* ints(float* x) {
    return reinterpret_cast<Int*>(x);
}

const std::vector<float> kNone = {0}, kScales = {0.37f, 0x1.fffffcp-1f, 0x1p-130f, 1e38f},
                         kInt8Scales = {10, 100, 0x1p-130f, 1e38f};

// clang-format off
const Kernel kKernels[] = {
    {"kelRt_tanhf", kNone, [](auto x, auto y, auto n, auto) { return kelRt_tanhf(*x, y, n); },
     [](auto& x, auto) { return four<vtanhq_f32>(x[0], kExp.v); },
     [](auto& x, auto) { return std::tanh(x[0]); }},
    {"kelRt_expf", kNone, [](auto x, auto y, auto n, auto) { return kelRt_expf(*x, y, n); },
     [](auto& x, auto) { return exp_lane(x[0]); }, [](auto& x, auto) { return std::exp(x[0]); }},
    {"kelRt_sigmoidf", kNone, [](auto x, auto y, auto n, auto) { return kelRt_sigmoidf(*x, y, n); },
     [](auto& x, auto) { return four<vinvq_f32>(lane::add(exp_lane(-x[0]), 1)); },
     [](auto& x, auto) { return 1 / (std::exp(-x[0]) + 1); }},
    {"kelRt_scalef", kScales, [](auto x, auto y, auto n, auto p) { return kelRt_scalef(*x, y, p, n); },
     [](auto& x, auto p) { return lane::mul(x[0], p); }, [](auto& x, auto p) { return x[0] * p; }},
    {"kelRt_mulf", kNone, [](auto x, auto y, auto n, auto) { return kelRt_mulf(x[0], x[1], y, n); },
     [](auto& x, auto) { return lane::mul(x[0], x[1]); }, [](auto& x, auto) { return x[0] * x[1]; }},
    {"kelRt_addf", kNone, [](auto x, auto y, auto n, auto) { return kelRt_addf(x[0], x[1], y, n); },
     [](auto& x, auto) { return lane::add(x[0], x[1]); }, [](auto& x, auto) { return x[0] + x[1]; }},
    {"kelRt_subf", kNone, [](auto x, auto y, auto n, auto) { return kelRt_subf(x[0], x[1], y, n); },
     [](auto& x, auto) { return lane::sub(x[0], x[1]); }, [](auto& x, auto) { return x[0] - x[1]; }},
    {"kelRt_complementf", kNone, [](auto x, auto y, auto n, auto) { return kelRt_complementf(*x, y, n); },
     [](auto& x, auto) { return lane::sub(1, x[0]); }, [](auto& x, auto) { return 1 - x[0]; }},
    {"kelRt_dotproductf", kNone,
     [](auto x, auto y, auto n, auto) { return kelRt_dotproductf(x[0], x[1], x[2], x[3], y, n); },
     [](auto& x, auto) { return dot_lane(x); }, [](auto& x, auto) { return x[0] * x[2] + x[1] * x[3]; }},
    {"kelRt_normf", {0.7f, -1.9f, 1, 1e-30f, 0x1.fp125f, 0x1p126f, std::nanf(""), 0, 0x1p-130f},
     [](auto x, auto y, auto n, auto p) { return kelRt_normf(x[0], x[1], x[2], mean_for(p), p, y, n); },
     [](auto& x, auto p) { return norm_lane(x, mean_for(p), p); },
     [](auto& x, auto p) { return x[2] + ((x[0] - mean_for(p)) / p) * x[1]; }},
    {"kelRt_scaleI8toF", kScales,
     [](auto x, auto y, auto n, auto p) { return kelRt_scaleI8toF(ints<int8_t>(*x), y, p, n); },
     [](auto& x, auto p) { return lane::mul(x.i8(), p); }, [](auto& x, auto p) { return x.i8() * p; }, 8, 1},
    {"kelRt_scaleI16toF", kScales,
     [](auto x, auto y, auto n, auto p) { return kelRt_scaleI16toF(ints<int16_t>(*x), y, p, n); },
     [](auto& x, auto p) { return lane::mul(x.i16(), p); },
     [](auto& x, auto p) { return x.i16() * p; }, 8, 2},
    {"kelRt_scaleI32toF", kScales,
     [](auto x, auto y, auto n, auto p) { return kelRt_scaleI32toF(ints<int32_t>(*x), y, p, n); },
     [](auto& x, auto p) { return lane::mul(x.i32(), p); }, [](auto& x, auto p) { return x.i32() * p; }},
    {"kelRt_scaleFtoI8", kInt8Scales,
     [](auto x, auto y, auto n, auto p) { return kelRt_scaleFtoI8(*x, ints<int8_t>(y), p, n); },
     [](auto& x, auto p) { return to_int8(lane::mul(x[0], p)); },
     [](auto& x, auto p) { return to_int8(x[0] * p); }, 8, 4, 1},
    {"batchMulf", kNone, [](auto x, auto y, auto n, auto) { return batchMulf(x[0], x[1], y, n), 1001u; },
     [](auto& x, auto) { return lane::mul(x[0], x[1]); }, nullptr, kNoTail},
    {"batchAddf", kNone, [](auto x, auto y, auto n, auto) { return batchAddf(x[0], x[1], y, n), 1001u; },
     [](auto& x, auto) { return lane::add(x[0], x[1]); }, nullptr, kNoTail},
    {"batchSubf", kNone, [](auto x, auto y, auto n, auto) { return batchSubf(x[0], x[1], y, n), 1001u; },
     [](auto& x, auto) { return lane::sub(x[0], x[1]); }, nullptr, kNoTail},
    {"batchComplementf", kNone,
     [](auto x, auto y, auto n, auto) { return batchComplementf(*x, y, n), 1001u; },
     [](auto& x, auto) { return lane::sub(1, x[0]); }, nullptr, kNoTail},
    {"batchDotproductf", kNone,
     [](auto x, auto y, auto n, auto) { return batchDotproductf(x[0], x[1], x[2], x[3], y, n), 1001u; },
     [](auto& x, auto) { return dot_lane(x); }, nullptr, kNoTail},
    {"kelRt_ewopAdd", kNone,
     [](auto x, auto y, auto n, auto) { return kelRt_ewopAdd(y, x[0], x[1], n, nullptr); }, nullptr,
     [](auto& x, auto) { return x[0] + x[1]; }, kAllTail},
    {"kelRt_featurenorm", kNone,
     [](auto x, auto y, auto n, auto) { return kelRt_featurenorm(x[0], n, x[1], x[2], n, y); },
     nullptr, [](auto& x, auto) { return (x[0] - x[1]) / x[2]; }, kAllTail},
};
// clang-format on

// One kernel over one length, with what it must give.
class Trial {
  public:
    Trial(const Kernel& kernel, float p, uint32_t n, Wall wall, size_t slack)
        : kernel_(kernel),
          p_(p),
          n_(n),
          elements_(kernel.block == kNoTail ? (n + 3) / 4 * 4 : n),
          whole_(kernel.block == kNoTail ? elements_ : elements_ / kernel.block * kernel.block),
          rows_(elements_),
          expected_(elements_),
          first_operand_(elements_ * kernel.in_bytes),
          out_(elements_ * kernel.out_bytes, wall, slack) {
        for (uint32_t k = 0; k < 4; ++k)
            operands_.push_back(std::make_unique<guarded::Bytes>(elements_ * kernel.in_bytes, wall, slack));
    }
    ~Trial() {
        for (const auto& operand : operands_)
            EXPECT_TRUE(operand->intact()) << kernel_.name;
        EXPECT_TRUE(out_.intact()) << kernel_.name;
    }

    uint32_t elements() const { return elements_; }
    const Row& row(uint32_t i) const { return rows_[i]; }

    void set(uint32_t i, const Row& row, mode::Word callers = mode::kScalar[0]) {
        rows_[i] = row;
        for (size_t k = 0; k < 4; ++k)
            std::memcpy(operands_[k]->data() + i * kernel_.in_bytes, &row.word[k], kernel_.in_bytes);
        std::memcpy(&first_operand_[i * kernel_.in_bytes], &row.word[0], kernel_.in_bytes);
        float y = 0;
        if (i < whole_)
            y = kernel_.in_lane(row, p_);
        else
            mode::kept_in(callers, [&] { y = kernel_.in_tail(row, p_); });
        expected_[i] = kernel_.out_bytes == 1 ? static_cast<uint8_t>(static_cast<int8_t>(y)) : bits(y);
    }

    void run(bool in_place, mode::Word callers = mode::kScalar[0]) {
        in_place = in_place && kernel_.in_bytes == kernel_.out_bytes;
        float* const x[4] = {operands_[0]->floats(), operands_[1]->floats(), operands_[2]->floats(),
                             operands_[3]->floats()};
        guarded::Bytes& out = in_place ? *operands_[0] : out_;
        uint32_t status = 0;
        EXPECT_TRUE(mode::kept_in(callers, [&] { status = kernel_.run(x, out.floats(), n_, p_); }));
        ASSERT_EQ(status, NNA_STATUS_OK);
        for (uint32_t i = 0; i < elements_; ++i) {
            uint32_t found = 0;
            std::memcpy(&found, out.data() + i * kernel_.out_bytes, kernel_.out_bytes);
            // Which NaN comes out of a tail is open.
            const bool both_nan = i >= whole_ && kernel_.out_bytes == 4 && std::isnan(from_bits(found)) &&
                                  std::isnan(from_bits(expected_[i]));
            ASSERT_TRUE(found == expected_[i] || both_nan)
                << kernel_.name << " with " << p_ << ": element " << i << " of " << n_ << " is " << std::hex
                << found << ", not " << expected_[i] << "; operands " << rows_[i].word[0] << ' '
                << rows_[i].word[1] << ' ' << rows_[i].word[2] << ' ' << rows_[i].word[3];
        }
        if (in_place)
            std::copy(first_operand_.begin(), first_operand_.end(), out.data());
    }

  private:
    const Kernel& kernel_;
    const float p_;
    const uint32_t n_, elements_, whole_;
    std::vector<Row> rows_;
    std::vector<uint32_t> expected_;
    std::vector<uint8_t> first_operand_;
    std::vector<std::unique_ptr<guarded::Bytes>> operands_;
    guarded::Bytes out_;
};

class Elementwise : public testing::TestWithParam<Kernel> {};

TEST_P(Elementwise, EverySmallSizeOfEverySortOfFloat) {
    for (const float p : GetParam().parameters) {
        Random random(1);
        for (uint32_t n = 0; n <= 40; ++n) {
            for (const Wall wall : {Wall::Before, Wall::After}) {
                Trial trial(GetParam(), p, n, wall, n % 4);
                for (uint32_t i = 0; i < trial.elements(); ++i)
                    trial.set(i, {{bits(random.wild()), bits(random.wild()), bits(random.wild()),
                                   bits(random.wild())}});
                trial.run(false);
                trial.run(true);
                if (HasFatalFailure())
                    return;
            }
        }
    }
}

// Wide vectors take what is rare out of their straight path, a block at a time, and long arrays may switch
// to another path altogether.
TEST_P(Elementwise, SpecialElementsAmongOrdinaryOnes) {
    for (const float p : GetParam().parameters) {
        Random random(2);
        const auto plain = [&] { return bits(random.plain()); };
        for (const uint32_t n : {16u, 33u, 63u, 64u, 66u, 127u, 128u, 131u, 255u, 256u, 257u, 300u, 515u}) {
            Trial trial(GetParam(), p, n, n % 2 ? Wall::Before : Wall::After, n % 3);
            for (uint32_t i = 0; i < trial.elements(); ++i)
                trial.set(i, {{plain(), plain(), plain(), plain()}});
            trial.run(false);
            for (uint32_t i = 0; i < trial.elements(); ++i) {
                // Any two specials meet in a product; a second one often falls into the same vector.
                const uint32_t a = random.below(floats::kSpecials), b = random.below(floats::kSpecials),
                               j = (i + random.below(20)) % trial.elements();
                const Row at_i = trial.row(i), at_j = trial.row(j);
                trial.set(j, {{floats::special(b), plain(), floats::special(a), plain()}});
                trial.set(i, {{floats::special(a), floats::special(b), plain(), floats::special(b)}});
                trial.run(i % 2);
                if (HasFatalFailure())
                    return;
                trial.set(i, at_i);
                trial.set(j, at_j);
            }
        }
    }
}

// A sum may hide that one of its operands was to be flushed: it does if it is large enough.
TEST_P(Elementwise, SubnormalsBesideSmallNumbers) {
    Random random(3);
    for (uint32_t exponent = 1; exponent <= 40; ++exponent) {
        const auto number = [&](uint32_t e) { return (random() & 0x807FFFFF) | e << 23; };
        Trial trial(GetParam(), GetParam().parameters[0], 132, Wall::After, 0);
        for (uint32_t i = 0; i < trial.elements(); ++i)
            trial.set(i, {{number(0), number(exponent), number(127), number(exponent)}});
        trial.run(false);
        // Products, too: of 2^-126 and less, beside others of some 2^-125 to 2^-85.
        for (uint32_t i = 0; i < trial.elements(); ++i)
            trial.set(i, {{number(64), number(70), number(61 + random.below(3)), number(58 + exponent)}});
        trial.run(false);
    }
}

// Whatever mode the caller computes in, vector parts give the same bits, raise no trap and leave it alone;
// tails are the caller's own arithmetic.
TEST_P(Elementwise, SeesTheCallersModeInTailsOnly) {
    for (const float p : GetParam().parameters) {
        for (const mode::Word callers : mode::kScalar) {
            Random random(4);
            Trial trial(GetParam(), p, 523, Wall::After, 0);
            for (uint32_t i = 0; i < trial.elements(); ++i)
                trial.set(
                    i,
                    {{bits(random.wild()), bits(random.plain()), bits(random.wild()), bits(random.wild())}},
                    callers);
            trial.run(false, callers);
        }
        Trial trapping(GetParam(), p, GetParam().block == kAllTail ? 0 : 512, Wall::After, 0);
        Random random(5);
        for (uint32_t i = 0; i < trapping.elements(); ++i)
            trapping.set(
                i, {{bits(random.wild()), bits(random.wild()), bits(random.wild()), bits(random.wild())}});
        trapping.run(true, mode::kTraps);
    }
}

// Arrays beyond every cache, which may be stored past them, beside parts that are short enough for whatever
// path short arrays have.
TEST_P(Elementwise, HugeArrays) {
    const Kernel& kernel = GetParam();
#if defined(__SSE2__)
    constexpr uint32_t kElements = (4 << 20) + 13;
#else
    constexpr uint32_t kElements = (1 << 16) + 13;
#endif
    constexpr uint32_t kPart = 2048, kPattern = 65521;
    Random random(3);
    std::vector<Floats> operands(4, Floats(kElements + 19));
    for (Floats& operand : operands)
        for (uint32_t i = 0; i < operand.size(); ++i)
            operand[i] = i >= kPattern         ? operand[i - kPattern]
                         : random.below(10000) ? random.plain()
                                               : random.wild();
    Floats whole(kElements + 19), parts(kElements + 19);
    const auto run = [&](Floats& out, uint32_t from, uint32_t count) {
        const auto advanced = [&](Floats& array, uint32_t bytes) {
            return reinterpret_cast<float*>(reinterpret_cast<char*>(array.data()) + size_t{from} * bytes);
        };
        float* x[4];
        for (size_t k = 0; k < 4; ++k)
            x[k] = advanced(operands[k], kernel.in_bytes);
        kernel.run(x, advanced(out, kernel.out_bytes), count, kernel.parameters[0]);
    };
    run(whole, 0, kElements);
    for (uint32_t i = 0; i < kElements; i += kPart)
        run(parts, i, std::min(kPart, kElements - i));
    EXPECT_EQ(std::memcmp(whole.data(), parts.data(), size_t{kElements} * kernel.out_bytes), 0);

    // Rare values all along and two ordinary blocks at the end: the way to the next whole vector, of 64 bytes
    // at most, stops there.
    constexpr uint32_t kShorter = kElements - 5;
    const auto from = static_cast<uint32_t>((80 - reinterpret_cast<uintptr_t>(whole.data()) % 64) % 64 / 4);
    for (Floats& operand : operands)
        std::fill_n(operand.begin(), from + kShorter - 8, std::nanf(""));
    std::memset(whole.data(), 0x55, whole.size() * sizeof(float));
    run(whole, from, kShorter);
    const auto* const behind =
        reinterpret_cast<const char*>(whole.data()) + size_t{from + kShorter} * kernel.out_bytes;
    EXPECT_EQ(std::string(behind, 16), std::string(16, 0x55));
}

INSTANTIATE_TEST_SUITE_P(Kernels, Elementwise, testing::ValuesIn(kKernels),
                         [](const auto& kernel) { return std::string(kernel.param.name); });

// The operator's sum, too, at addresses of which not all come to a whole vector.
TEST(Add, HugeArraysAtAnyAddress) {
#if defined(__SSE2__)
    constexpr uint32_t n = (4 << 20) + 13;
#else
    constexpr uint32_t n = (1 << 12) + 13;
#endif
    const Floats a = floats::plain(n, 1), b = floats::plain(n, 2);
    Floats sums(n), found(n);
    std::transform(a.begin(), a.end(), b.begin(), sums.begin(), std::plus());
    for (const size_t offset : {0u, 4u, 12u, 1u}) {
        std::vector<uint8_t> out(4 * n + 16);
        EXPECT_EQ(kelRt_ewopAdd(reinterpret_cast<float*>(&out[offset]), a.data(), b.data(), n, nullptr),
                  NNA_STATUS_OK);
        std::memcpy(found.data(), &out[offset], 4 * n);
        EXPECT_EQ(found, sums) << offset;
    }
}

// One after the other, whatever goes together: a result may be an operand of a later one.
TEST(Add, ResultsThatReachAnOperand) {
    for (size_t ahead = 1; ahead <= 9; ++ahead) {
        Floats x = floats::plain(60, 1), expected = x;
        const Floats b = floats::plain(50, 2);
        for (size_t i = 0; i < b.size(); ++i)
            expected[i + ahead] = expected[i] + b[i];
        EXPECT_EQ(kelRt_ewopAdd(&x[ahead], x.data(), b.data(), 50, nullptr), NNA_STATUS_OK);
        EXPECT_EQ(x, expected) << ahead;
    }
}

}  // namespace
