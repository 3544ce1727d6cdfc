// Softmax, instance and feature normalisation by their definitions: the order of sums and roundings, every
// small size and larger ones, special values, degenerate inputs.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "kelRt.h"
#include "support/floats.h"
#include "support/guarded.h"
#include "support/mode.h"

namespace {

using floats::Floats;
using guarded::Wall;

std::vector<uint32_t> sizes() {
    std::vector<uint32_t> sizes = {63, 64, 65, 127, 128, 130, 191, 255, 256, 257, 515, 1000, 4100};
    for (uint32_t n = 1; n <= 40; ++n)
        sizes.push_back(n);
    return sizes;
}

// Ordinary numbers with `specials` values of every sort among them.
Floats input(uint32_t n, uint32_t specials) {
    floats::Random random(n + specials);
    Floats x = floats::plain(n, n);
    for (uint32_t i = 0; i < specials; ++i)
        x[random.below(n)] = random.wild();
    return x;
}

// kernel(out, in) between walls, apart and in place.
template <class Kernel>
void expect_both_ways(const Floats& in, const Floats& expected, size_t scalar, Kernel kernel,
                      mode::Word callers = mode::kScalar[0]) {
    for (const Wall wall : {Wall::Before, Wall::After}) {
        guarded::Bytes x(4 * in.size(), wall, in.size() % 4), y(4 * in.size(), wall, in.size() % 3);
        std::memcpy(x.data(), in.data(), 4 * in.size());
        for (float* const out : {y.floats(), x.floats()}) {
            EXPECT_TRUE(mode::kept_in(callers, [&] { kernel(out, x.floats()); }));
            Floats found(in.size());
            std::memcpy(found.data(), out, 4 * in.size());
            const size_t at = floats::differ_at(found, expected, scalar);
            ASSERT_EQ(at, in.size()) << found[at] << ", not " << expected[at];
        }
        EXPECT_TRUE(x.intact() && y.intact());
    }
}

TEST(Softmax, IsTheArrayKernelsInOrderAndNearTheTrueOne) {
    for (const uint32_t n : sizes()) {
        for (const uint32_t specials : {0u, 0u, 1u, 2u}) {
            SCOPED_TRACE(n);
            const Floats in = input(n, specials);
            Floats composed(n);
            float sum = 0;
            kelRt_expf(in.data(), composed.data(), n);
            kelRt_sumf(composed.data(), &sum, n);
            kelRt_scalef(composed.data(), composed.data(), 1.0f / sum, n);
            expect_both_ways(in, composed, n / 4 * 4,
                             [n](float* out, const float* x) { kelRt_softMax(out, x, n, nullptr); });
            if (specials > 0)
                continue;
            double total = 0;
            for (const float value : in)
                total += std::exp(double{value});
            for (uint32_t i = 0; i < n; ++i)
                EXPECT_NEAR(composed[i], std::exp(double{in[i]}) / total, 2e-6 * composed[i]) << i;
        }
    }
}

TEST(Softmax, DoesNotSubtractTheLargestInput) {
    for (const float x : {100.0f, -200.0f}) {  // infinities over infinity, 0 times 1 / 0
        Floats y(5, x);
        EXPECT_EQ(kelRt_softMax(y.data(), y.data(), x > 0 ? 5 : 4, nullptr), NNA_STATUS_OK);
        for (size_t i = 0; i < 4; ++i)
            EXPECT_TRUE(std::isnan(y[i])) << x;
    }
}

constexpr float kScale = 1.7f, kBias = -0.3f;

Floats instance_norm(const Floats& in) {
    const auto n = static_cast<float>(in.size());
    float sum = 0, squares = 0;
    for (const float x : in)
        sum += x;
    const float mean = sum / n;
    for (const float x : in) {
        const float d = x - mean;
        squares = static_cast<float>(static_cast<double>(squares) + double{d} * double{d});
    }
    const auto sd = static_cast<float>(std::sqrt(static_cast<double>(squares / n) + 1e-05));
    Floats out;
    for (const float x : in)
        out.push_back(kBias + (x - mean) / sd * kScale);
    return out;
}

void expect_instance_norm(const Floats& in) {
    const auto n = static_cast<uint32_t>(in.size());
    for (const mode::Word callers : mode::kScalar) {
        Floats expected;
        mode::kept_in(callers, [&] { expected = instance_norm(in); });
        expect_both_ways(
            in, expected, 0,
            [n](float* out, const float* x) { kelRt_instanceNorm(out, x, n, kScale, kBias, nullptr); },
            callers);
    }
}

TEST(InstanceNorm, RoundsItsSumsAfterEveryElement) {
    for (const uint32_t n : sizes()) {
        for (const uint32_t specials : {0u, 0u, 1u, 2u})
            expect_instance_norm(input(n, specials));
        floats::Random random(n);
        Floats growing(n), tied(n, 0.0f);
        for (uint32_t i = 0; i < n; ++i)  // through one power of two after another
            growing[i] = random.number(std::ldexp(1.0f, static_cast<int>(i % 50)));
        expect_instance_norm(growing);
        std::reverse(growing.begin(), growing.end());
        expect_instance_norm(growing);
        // A mean of 0, and squares that fall on and around ties of the sum, which stays within one power of
        // two, or crosses into the next.
        for (const float size : {4096.0f, 5790.0f}) {
            for (uint32_t i = 0; i + 1 < n; i += 2) {
                tied[i] = i < 2 ? size : static_cast<float>(random.below(5)) * 0.5f;
                tied[i + 1] = -tied[i];
            }
            expect_instance_norm(tied);
        }
    }
}

TEST(InstanceNorm, RoundsLongSumsAfterEveryElement) {
    // 4096 and -4096 make 2^25, to which each 1 is too small to add; a sum kept in double has them all. The
    // other way round 4094 comes first, then two sums that are rounded to even numbers of their size.
    Floats in = {4096, -4096};
    for (int i = 0; i < 2047; ++i)
        in.insert(in.end(), {1, -1});
    expect_instance_norm(in);
    std::rotate(in.begin(), in.begin() + 2, in.end());
    expect_instance_norm(in);
    expect_instance_norm({0x1p24f, 1, 1, -0x1p24f});  // both ones vanish in the mean
    expect_instance_norm(floats::plain(100000, 1));
    expect_instance_norm(Floats(70000, 0.1f));
}

// That rounding to double before rounding to single makes no difference to them relies on this. A square is
// as one of these integers is; it is added to a sum whose last bit is 2^j, and to double rounds at 2^(j -
// 29).
TEST(InstanceNorm, NoSquareLiesNextToTheMiddleOfTwoSums) {
    for (uint64_t significand = 1 << 23; significand < 1 << 24; ++significand) {
        const uint64_t square = significand * significand;
        uint64_t same =
            ~(square ^ square >> 1);  // bits equal to the next, then 2, 4, 8, 16, 27 of them in a row
        for (const int further : {1, 2, 4, 8, 11})
            same &= same >> further;
        if (same == 0)
            continue;
        for (int j = 30; j < 50; ++j) {
            const int64_t beyond = static_cast<int64_t>(square % (1ull << j)) - (1ll << (j - 1));
            EXPECT_TRUE(beyond == 0 || std::abs(beyond) > 1ll << (j - 30)) << significand << ' ' << j;
        }
    }
}

TEST(InstanceNorm, OfNextToNoDeviation) {
    Floats one = {123.5f};
    EXPECT_EQ(kelRt_instanceNorm(one.data(), one.data(), 1, 3, 0.25f, nullptr), NNA_STATUS_OK);
    EXPECT_EQ(one, Floats{0.25f});
    for (uint32_t i = 1; i < 200; ++i)  // where the digits of epsilon show, and the root's precision
        expect_instance_norm({static_cast<float>(i) * 0x1p-17f, static_cast<float>(i) * -0x1p-17f});
}

TEST(FeatureNorm, NormalisesWholeFramesOnly) {
    for (uint32_t length = 0; length <= 20; ++length) {
        const Floats mean = floats::plain(length + 1, 1), var = floats::wild(length + 1, 2);
        for (uint32_t total = 0; total <= 40; ++total) {
            const Floats in = floats::wild(total + 1, total);
            Floats out(total + 1, -7), expected = out;
            for (uint32_t i = 0; length > 0 && i < total / length * length; ++i)
                expected[i] = (in[i] - mean[i % length]) / var[i % length];
            EXPECT_EQ(kelRt_featurenorm(in.data(), total, mean.data(), var.data(), length, out.data()),
                      NNA_STATUS_OK);
            ASSERT_EQ(floats::differ_at(out, expected), out.size()) << total << " by " << length;
        }
    }
}

}  // namespace
