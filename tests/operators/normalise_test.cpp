// Softmax and instance normalisation: numbers, the order of their roundings, degenerate sizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::flt;
using rig::mem;
using rig::val;
using Floats = std::vector<float>;
using Lines = std::vector<std::string>;

Floats random_floats(size_t n, float low, float high, uint32_t seed) {
    std::mt19937 random(seed);
    Floats values(n);
    for (float& value : values)
        value = std::uniform_real_distribution<float>(low, high)(random);
    return values;
}

std::string bad_address(const void* in, const void* out) {
    char text[128];
    std::snprintf(text, sizeof text, "Bad Address Input %p Output %p", in, out);
    return text;
}

TEST(Softmax, IsTheArrayKernelsInOrderAndNearTheTrueOne) {
    for (uint32_t n : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 33u, 1000u}) {
        const uint32_t offset = n % 4;
        SCOPED_TRACE(n);
        const Floats in = random_floats(n, -20, 20, n);
        rig::Rig rig;
        const uint32_t x = rig.memory_of(in, offset), out = rig.memory(4 * n + offset);
        ASSERT_EQ(rig.run(5, {mem(out, offset), mem(x, offset), val(n)}), NNA_STATUS_OK);
        const Floats y = rig.device<float>(out, n, offset);

        Floats composed(n);
        float sum = 0;
        kelRt_expf(in.data(), composed.data(), n);
        kelRt_sumf(composed.data(), &sum, n);
        kelRt_scalef(composed.data(), composed.data(), 1.0f / sum, n);
        EXPECT_EQ(y, composed);

        double total = 0;
        for (float value : in)
            total += std::exp(double{value});
        for (uint32_t i = 0; i < n; ++i)
            EXPECT_NEAR(y[i], std::exp(double{in[i]}) / total, 2e-6 * y[i]) << i;

        ASSERT_EQ(rig.run(5, {mem(x, offset), mem(x, offset), val(n)}), NNA_STATUS_OK);
        EXPECT_EQ(rig.device<float>(x, n, offset), composed) << "in place";
    }
}

TEST(Softmax, DoesNotSubtractTheLargestInput) {
    Floats x = {100, 100, 100, 100, 100};
    EXPECT_EQ(kelRt_softMax(x.data(), x.data(), 5, nullptr), NNA_STATUS_OK);
    for (float value : x)
        EXPECT_TRUE(std::isnan(value)) << "infinities over infinity";
    x = {-200, -200, -200, -200};
    EXPECT_EQ(kelRt_softMax(x.data(), x.data(), 4, nullptr), NNA_STATUS_OK);
    for (float value : x)
        EXPECT_TRUE(std::isnan(value)) << "0 times 1 / 0";
    x = {3, 3, 3, 3, 3, 3, 3, 3};
    EXPECT_EQ(kelRt_softMax(x.data(), x.data(), 8, nullptr), NNA_STATUS_OK);
    for (float value : x)
        EXPECT_NEAR(value, 0.125f, 1.5e-8f);
}

TEST(Softmax, ReportsItsBytesAndItsNullPointers) {
    Floats x = {1}, out = {-7};
    uint32_t bytes = 99;
    probe::Probe probe;
    EXPECT_EQ(kelRt_softMax(out.data(), x.data(), 0, &bytes), NNA_STATUS_OK);
    EXPECT_EQ(bytes, 0u);
    EXPECT_EQ(out[0], -7);
    EXPECT_EQ(kelRt_softMax(out.data(), x.data(), 1, &bytes), NNA_STATUS_OK);
    EXPECT_EQ(bytes, 4u);
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(kelRt_softMax(nullptr, x.data(), 1, &bytes), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kelRt_softMax(out.data(), nullptr, 1, &bytes), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages(), (Lines{bad_address(x.data(), nullptr), bad_address(nullptr, out.data())}));
}

Floats instance_norm(const Floats& in, float scale, float bias) {
    Floats out(in.size(), std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(
        kelRt_instanceNorm(out.data(), in.data(), static_cast<uint32_t>(in.size()), scale, bias, nullptr),
        NNA_STATUS_OK);
    return out;
}

TEST(InstanceNorm, RoundsTheVarianceAfterEveryElement) {
    // 4096 and -4096 make 2^25, to which each 1 is too small to add; a sum kept in double has them all.
    Floats in = {4096, -4096};
    for (int i = 0; i < 2047; ++i)
        in.insert(in.end(), {1, -1});
    ASSERT_EQ(in.size(), 4096u);
    const auto sd = [](double variance) { return static_cast<float>(std::sqrt(variance + 1e-05)); };
    EXPECT_EQ(instance_norm(in, 1, 0)[0], 4096 / sd(8192));
    ASSERT_NE(4096 / sd(8192), 4096 / sd((0x1p25 + 4094) / 4096)) << "the data tell the two apart";

    // The ones first: 4094, then two sums that are rounded to even numbers of their size.
    std::rotate(in.begin(), in.begin() + 2, in.end());
    const float variance = (4094.0f + 0x1p24f + 0x1p24f) / 4096.0f;
    EXPECT_EQ(instance_norm(in, 1, 0)[4095], -4096 / sd(variance));
    ASSERT_NE(sd(variance), sd(8192));
}

TEST(InstanceNorm, SumsTheMeanInSinglePrecision) {
    const Floats out = instance_norm({0x1p24f, 1, 1, -0x1p24f}, 1, 0);
    EXPECT_EQ(out[1] * 0x1p24f, out[0]) << "both ones vanish in the sum, so the mean is 0";
    EXPECT_EQ(out[3], -out[0]);
}

TEST(InstanceNorm, EqualsTheOrderedSumsForEverySizeAndOffset) {
    for (uint32_t n = 1; n <= 40; ++n) {
        const uint32_t offset = n % 8;
        SCOPED_TRACE(n);
        const Floats in = random_floats(n, -3, 1000, n);
        const float scale = 1.7f, bias = -0.3f;
        rig::Rig rig;
        const uint32_t x = rig.memory_of(in, offset), out = rig.memory(4 * n + offset);
        ASSERT_EQ(rig.run(0, {mem(out, offset), mem(x, offset), val(n), flt(scale), flt(bias)}),
                  NNA_STATUS_OK);
        const Floats y = rig.device<float>(out, n, offset);

        float mean = 0, variance = 0;
        double true_mean = 0, true_variance = 0;
        for (float value : in)
            mean += value, true_mean += value / static_cast<double>(n);
        mean /= static_cast<float>(n);
        for (float value : in) {
            const float d = value - mean;
            variance = static_cast<float>(variance + static_cast<double>(d) * d);
            true_variance += (value - true_mean) * (value - true_mean) / n;
        }
        const float sd = static_cast<float>(std::sqrt(double{variance / static_cast<float>(n)} + 1e-05));
        for (uint32_t i = 0; i < n; ++i) {
            EXPECT_EQ(y[i], bias + (in[i] - mean) / sd * scale) << i;
            EXPECT_NEAR(y[i], bias + (in[i] - true_mean) / std::sqrt(true_variance + 1e-05) * scale, 1e-5)
                << i;
        }
    }
}

TEST(InstanceNorm, DegenerateInputs) {
    EXPECT_EQ(instance_norm({123.5f}, 3, 0.25f), Floats{0.25f});
    EXPECT_EQ(instance_norm(Floats(7, 0.5f), 3, 0.25f), Floats(7, 0.25f));
    Floats x = {1}, out = {-7};
    uint32_t bytes = 99;
    probe::Probe probe;
    EXPECT_EQ(kelRt_instanceNorm(out.data(), x.data(), 0, 1, 1, &bytes), NNA_STATUS_OK);
    EXPECT_EQ(bytes, 0u);
    EXPECT_EQ(out[0], -7);
    EXPECT_EQ(kelRt_instanceNorm(out.data(), x.data(), 1, 1, 1, &bytes), NNA_STATUS_OK);
    EXPECT_EQ(bytes, 4u);
    EXPECT_EQ(kelRt_instanceNorm(nullptr, x.data(), 0, 1, 1, &bytes), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kelRt_instanceNorm(out.data(), nullptr, 1, 1, 1, &bytes), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages(), (Lines{bad_address(x.data(), nullptr), bad_address(nullptr, out.data())}));
}

}  // namespace
