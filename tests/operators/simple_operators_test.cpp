// Element-wise add, split and feature normalisation, end to end through contexts: numbers, offsets, CPU
// buffers, null tensors.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::mem;
using rig::val;
using Floats = std::vector<float>;
using Lines = std::vector<std::string>;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

TEST(EwopAdd, AddsAtAnyByteOffsetAndInPlace) {
    const auto repeated = [](Floats x) {  // long enough for what adds several at once
        for (size_t i = 0; i < 12; ++i)
            x.push_back(x[i]);
        return x;
    };
    const Floats a = repeated({1, -2.5f, 16777216, kInfinity, 1e-45f, 3e38f});
    const Floats b = repeated({2, 2.5f, 1, 1, 1e-45f, 3e38f});
    const Floats sum = repeated({3, 0, 16777216, kInfinity, 3e-45f, kInfinity});
    for (uint32_t offset : {0u, 1u, 2u, 3u, 4u, 7u}) {
        SCOPED_TRACE(offset);
        rig::Rig rig;
        const uint32_t ma = rig.memory_of(a, offset), mb = rig.memory_of(b, offset + 1),
                       out = rig.memory(72 + offset);
        EXPECT_EQ(rig.run(4, {mem(out, offset), mem(ma, offset), mem(mb, offset + 1), val(18)}),
                  NNA_STATUS_OK);
        EXPECT_EQ(rig.device<float>(out, 18, offset), sum);
        for (uint8_t byte : rig.device<uint8_t>(out, offset))
            EXPECT_EQ(byte, NNA_SIM_STALE_BYTE)
                << "before the operand the memory is published as the CPU saw it";
        EXPECT_EQ(rig.run(4, {mem(ma, offset), mem(ma, offset), mem(mb, offset + 1), val(18)}),
                  NNA_STATUS_OK);
        EXPECT_EQ(rig.device<float>(ma, 18, offset), sum) << "in place";
    }
}

// A sum that lands on an operand still to be read is read there, byte for byte.
TEST(EwopAdd, OverlappingTensorsAreAddedInOrder) {
    constexpr uint32_t kCount = 40, kApart = 80;
    for (uint32_t shift = 0; shift <= 2 * kApart; ++shift) {
        std::vector<uint8_t> found(4 * kCount + 2 * kApart);
        for (size_t i = 0; i < found.size(); ++i)
            found[i] =
                static_cast<uint8_t>(i * 37 % 61);  // of any two bytes and two more, an ordinary number
        std::vector<uint8_t> expected = found;
        for (uint32_t i = 0; i < kCount; ++i) {
            float x[2];
            std::memcpy(&x[0], &expected[kApart + 4 * i], 4);
            std::memcpy(&x[1], &expected[4 * i], 4);
            x[0] += x[1];
            std::memcpy(&expected[shift + 4 * i], &x[0], 4);
        }
        const auto at = [&](uint32_t byte) { return reinterpret_cast<float*>(found.data() + byte); };
        kelRt_ewopAdd(at(shift), at(kApart), at(0), kCount, nullptr);
        EXPECT_EQ(found, expected) << shift;
    }
}

TEST(EwopAdd, ReportsItsBytesAndItsNullPointers) {
    Floats x = {1, 2};
    uint32_t bytes = 99;
    EXPECT_EQ(kelRt_ewopAdd(x.data(), x.data(), x.data(), 0, &bytes), NNA_STATUS_OK);
    EXPECT_EQ(bytes, 0u);
    EXPECT_EQ(kelRt_ewopAdd(x.data(), x.data(), x.data(), 2, &bytes), NNA_STATUS_OK);
    EXPECT_EQ(bytes, 8u);
    EXPECT_EQ(kelRt_ewopAdd(x.data(), x.data(), x.data(), 2, nullptr), NNA_STATUS_OK);
    EXPECT_EQ(x, (Floats{4, 8}));
    probe::Probe probe;
    EXPECT_EQ(kelRt_ewopAdd(x.data(), x.data(), nullptr, 2, &bytes), NNA_STATUS_NULL_POINTER);
    char text[128];
    void* const p = x.data();
    std::snprintf(text, sizeof text, "Bad Address Input 0 %p Input 1 (nil) Output %p", p, p);
    EXPECT_EQ(probe.messages(), Lines{text});
}

TEST(EwopAdd, WithoutATensorTheKernelRefusesAndNothingIsPublished) {
    rig::Rig rig;
    const uint32_t x = rig.memory_of(Floats{1});
    probe::Probe probe;
    EXPECT_EQ(rig.run(4, {mem(KEL_RT_NO_MEMORY_ID), mem(x), mem(x), val(1)}), NNA_STATUS_NULL_POINTER);
    ASSERT_EQ(probe.messages().size(), 3u);
    EXPECT_EQ(probe.messages()[1], "Error executing operator 1056");
    EXPECT_EQ(probe.messages()[2], "Error 1056 kelrt op 1");
    const auto calls = rig.calls();
    ASSERT_EQ(calls.size(), 8u) << "two inputs fetched, then handed back";
    EXPECT_EQ(calls[6].function, NNA_SIM_MEMORY_PTR);
    EXPECT_EQ(calls[7].function, NNA_SIM_MEMORY_PTR);
    EXPECT_EQ(nna_sim_synced_bytes(rig.sim, 0), 0u);
}

TEST(EwopAdd, DumpsItsArgumentsAtDebug) {
    rig::Rig rig;
    const uint32_t a = rig.memory_of(Floats{1, 2}), out = rig.memory(40);
    probe::Probe probe;
    g_log_lvl = 0;
    EXPECT_EQ(rig.run(4, {mem(out, 32), mem(a), mem(a, 0), val(2)}), NNA_STATUS_OK);
    char text[256];
    void *const pa = nna_sim_cpu_view(rig.sim, a), *const pout = nna_sim_cpu_view(rig.sim, out);
    std::snprintf(text, sizeof text,
                  "0x%p(ID=0x01)(offset=0X20) 0x%p(ID=0x00)(offset=0) 0x%p(ID=0x00)(offset=0) 0x00000002",
                  pout, pa, pa);
    EXPECT_EQ(probe.messages(), (Lines{"KEL RT executing operator cpu_ewop_add", text}));
}

TEST(EwopAdd, UsesCpuBuffersWithoutTheAccelerator) {
    rig::Rig rig;
    const Floats x = {1, 2, 3};
    for (uint32_t memid : {7u, 8u})
        ASSERT_EQ(tivNnaCpuMemAlloc(&rig.instance, memid, 12), NNA_STATUS_OK);
    ASSERT_EQ(tivNnaCpuMemWrite(&rig.instance, 7, 0, x.data(), 12), NNA_STATUS_OK);
    EXPECT_EQ(rig.run(4, {mem(8), mem(7), mem(7), val(3)}), NNA_STATUS_OK);
    Floats sum(3);
    EXPECT_EQ(tivNnaCpuMemRead(&rig.instance, 8, 0, sum.data(), 12), NNA_STATUS_OK);
    EXPECT_EQ(sum, (Floats{2, 4, 6}));
    EXPECT_TRUE(rig.calls().empty());
}

TEST(Split, CopiesBytesFromAnOffset) {
    rig::Rig rig;
    const uint32_t in = rig.memory_of(std::vector<uint8_t>{0, 1, 2, 3, 4, 5, 6, 7}), out = rig.memory(5);
    EXPECT_EQ(rig.run(12, {mem(in, 3), mem(out, 1), val(4)}), NNA_STATUS_OK);
    EXPECT_EQ(rig.device<uint8_t>(out, 4, 1), (std::vector<uint8_t>{3, 4, 5, 6}));
    EXPECT_EQ(rig.run(12, {mem(in), mem(out), val(0)}), NNA_STATUS_OK);
    EXPECT_EQ(rig.device<uint8_t>(out, 4, 1), (std::vector<uint8_t>{3, 4, 5, 6}));
}

TEST(Split, WritesItsOwnErrorLine) {
    rig::Rig rig;
    const uint32_t out = rig.memory(4);
    probe::Probe probe;
    g_log_lvl = 0;
    EXPECT_EQ(rig.run(12, {mem(KEL_RT_NO_MEMORY_ID), mem(out), val(4)}), NNA_STATUS_NULL_POINTER);
    char bad[128], dump[128];
    void* const p = nna_sim_cpu_view(rig.sim, out);
    std::snprintf(dump, sizeof dump, "0x(nil)(ID=0xFFFFFFFF) 0x%p(ID=0x00) 0x00000004", p);
    std::snprintf(bad, sizeof bad, "Bad Address Input (nil) Output %p", p);
    EXPECT_EQ(probe.messages(), (Lines{"KEL RT executing operator cpu_split", dump, bad,
                                       "Error executing operator 1056s", "Error 1056 kelrt op 1"}));
}

TEST(FeatureNorm, NormalisesWholeFramesOnly) {
    const Floats in = {1, 2, 3, 4, 5, 6, 7, 8}, mean = {1, 0.1f, 3}, var = {2, 3, 0};
    for (uint32_t offset : {0u, 3u}) {
        rig::Rig rig;
        const uint32_t mi = rig.memory_of(in, offset), mm = rig.memory_of(mean, offset),
                       mv = rig.memory_of(var, offset);
        const uint32_t out = rig.memory(32 + offset);
        EXPECT_EQ(rig.run(11, {mem(mi, offset), val(8), mem(mm, offset), mem(mv, offset), val(3),
                               mem(out, offset)}),
                  NNA_STATUS_OK);
        const auto y = rig.device<float>(out, 8, offset);
        for (size_t i = 0; i < 6; ++i) {
            const float expected = (in[i] - mean[i % 3]) / var[i % 3];
            if (std::isnan(expected))
                EXPECT_TRUE(std::isnan(y[i]));
            else
                EXPECT_EQ(y[i], expected) << i;
        }
        EXPECT_TRUE(std::isnan(y[2])) << "0 / 0";
        EXPECT_EQ(y[5], kInfinity);
        const auto rest = rig.device<uint8_t>(out, 8, offset + 24);
        EXPECT_EQ(rest, std::vector<uint8_t>(8, NNA_SIM_STALE_BYTE)) << "the partial frame is not written";
    }
}

TEST(FeatureNorm, DegenerateLengthsWriteNothing) {
    Floats in = {5}, mean = {1}, var = {2}, out = {-7};
    EXPECT_EQ(kelRt_featurenorm(in.data(), 1, mean.data(), var.data(), 2, out.data()), NNA_STATUS_OK);
    EXPECT_EQ(kelRt_featurenorm(in.data(), 1, mean.data(), var.data(), 0, out.data()), NNA_STATUS_OK);
    EXPECT_EQ(kelRt_featurenorm(in.data(), 0, mean.data(), var.data(), 0, out.data()), NNA_STATUS_OK);
    EXPECT_EQ(out[0], -7);
    EXPECT_EQ(kelRt_featurenorm(in.data(), 1, mean.data(), var.data(), 1, out.data()), NNA_STATUS_OK);
    EXPECT_EQ(out[0], 2);
    probe::Probe probe;
    EXPECT_EQ(kelRt_featurenorm(in.data(), 1, mean.data(), nullptr, 2, out.data()), NNA_STATUS_NULL_POINTER);
    char text[160];
    std::snprintf(text, sizeof text, "Bad Address Input %p mean %p var (nil) Output %p",
                  static_cast<void*>(in.data()), static_cast<void*>(mean.data()),
                  static_cast<void*>(out.data()));
    EXPECT_EQ(probe.messages(), Lines{text});
}

}  // namespace
