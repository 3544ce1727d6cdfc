// The simulated accelerator by itself: a test of the library is worth no more than it.
#include <gtest/gtest.h>

#include <functional>

#include "kelRt_platform.h"
#include "support/rig.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Simulator : testing::Test {
    rig::Rig rig;
    NnaSim* const sim = rig.sim;
    uint32_t size = 0;
    void* pointer = nullptr;

    uint32_t sync(uint32_t memid, uint32_t direction, uint32_t bytes) {
        return tivNnaMemorySyncCache(sim, memid, direction, 0, bytes);
    }
};

TEST_F(Simulator, CarriesBytesOnlyByCacheMaintenance) {
    const uint32_t memid = rig.memory(4);
    uint8_t* const view = nna_sim_cpu_view(sim, memid);
    EXPECT_EQ(rig.device<uint8_t>(memid, 4), Bytes(4, 0));
    EXPECT_EQ(Bytes(view, view + 4), Bytes(4, NNA_SIM_STALE_BYTE));
    const Bytes written = {1, 2, 3, 4};
    EXPECT_EQ(nna_sim_device_write(sim, memid, 0, written.data(), 4), NNA_STATUS_OK);
    EXPECT_EQ(view[0], NNA_SIM_STALE_BYTE);
    EXPECT_EQ(sync(memid, 1, 3), NNA_STATUS_OK);
    EXPECT_EQ(Bytes(view, view + 4), (Bytes{1, 2, 3, NNA_SIM_STALE_BYTE}));
    view[1] = 9;
    EXPECT_EQ(sync(memid, 0, 2), NNA_STATUS_OK);
    EXPECT_EQ(rig.device<uint8_t>(memid, 4), (Bytes{1, 9, 3, 4}));
    EXPECT_EQ(nna_sim_synced_bytes(sim, 1), 3u);
    EXPECT_EQ(nna_sim_synced_bytes(sim, 0), 2u);
    EXPECT_EQ(nna_sim_synced_bytes(sim, 2), 0u);
    EXPECT_EQ(tivNnaMemoryPtr(sim, memid, &pointer), NNA_STATUS_OK);
    EXPECT_EQ(pointer, view);
    EXPECT_EQ(tivNnaMemoryPtr(sim, rig.memory(0), &pointer), NNA_STATUS_OK);
    EXPECT_NE(pointer, nullptr) << "an empty memory has an address too";
    EXPECT_EQ(nna_sim_cpu_view(sim, 0), view) << "memories keep theirs when others are added";
}

TEST_F(Simulator, RefusesAndRecordsWhatNoAcceleratorCouldDo) {
    const uint32_t memid = rig.memory(4);
    nna_sim_set_sram(sim, 100, 8);
    uint8_t bytes[16] = {};
    const auto sram = [&](uint32_t address, uint32_t count) {
        return tivNnaUdrv_dumpSram(sim, address, count, bytes);
    };
    constexpr uint32_t kUnknown = NNA_SIM_STATUS_UNKNOWN_MEMORY, kRange = NNA_SIM_STATUS_OUT_OF_RANGE;
    const struct {
        uint32_t status;
        std::function<uint32_t()> call;
    } recorded[] = {
        {kUnknown, [&] { return tivNnaMemoryPtr(sim, 1, &pointer); }},
        {kUnknown, [&] { return tivNnaMemorySize(sim, 1, &size); }},
        {kUnknown, [&] { return sync(1, 1, 0); }},
        {kRange, [&] { return sync(memid, 1, 5); }},
        {NNA_SIM_STATUS_BAD_DIRECTION, [&] { return sync(memid, 2, 4); }},
        {kRange, [&] { return sram(99, 1); }},
        {kRange, [&] { return sram(100, 9); }},
        {kRange, [&] { return sram(109, 0); }},
        {kRange, [&] { return sram(104, 0xFFFFFFFF); }},
        {NNA_STATUS_OK, [&] { return sram(108, 0); }},
        {NNA_STATUS_OK, [&] { return sram(100, 8); }},
    };
    for (const auto& c : recorded) {
        EXPECT_EQ(c.call(), c.status);
        EXPECT_EQ(rig.calls().back().status, c.status) << rig.calls().size();
    }
    EXPECT_EQ(rig.calls().size(), std::size(recorded));
    EXPECT_EQ(nna_sim_device_write(sim, 1, 0, bytes, 1), kUnknown);
    EXPECT_EQ(nna_sim_device_read(sim, 1, 0, bytes, 1), kUnknown);
    EXPECT_EQ(nna_sim_device_write(sim, memid, 1, bytes, 4), kRange);
    EXPECT_EQ(nna_sim_device_read(sim, memid, 0xFFFFFFFF, bytes, 4), kRange);
    EXPECT_EQ(nna_sim_cpu_view(sim, 1), nullptr);
    EXPECT_EQ(rig.calls().size(), std::size(recorded)) << "the accelerator's own side leaves no record";
}

TEST_F(Simulator, CountsEveryCallAndKeepsTheFirst) {
    for (uint32_t i = 0; i < NNA_SIM_MAX_CALLS + 5; ++i)
        sync(i, 1, 0);
    EXPECT_EQ(nna_sim_call_count(sim), NNA_SIM_MAX_CALLS + 5u);
    ASSERT_EQ(rig.calls().size(), size_t{NNA_SIM_MAX_CALLS});
    EXPECT_EQ(rig.calls().back().memid, NNA_SIM_MAX_CALLS - 1u);
    nna_sim_clear_calls(sim);
    EXPECT_TRUE(rig.calls().empty());
    EXPECT_EQ(nna_sim_call_count(sim), 0u);
}

TEST_F(Simulator, MovesSramBothWays) {
    EXPECT_EQ(nna_sim_sram(sim), nullptr);
    nna_sim_set_sram(sim, 100, 8);
    uint8_t bytes[4] = {1, 2, 3, 4};
    nna_sim_set_sram_direction(sim, NNA_SIM_MEMORY_TO_SRAM);
    EXPECT_EQ(tivNnaUdrv_dumpSram(sim, 102, 3, bytes), NNA_STATUS_OK);
    EXPECT_EQ(Bytes(nna_sim_sram(sim), nna_sim_sram(sim) + 8), (Bytes{0, 0, 1, 2, 3, 0, 0, 0}));
    nna_sim_set_sram_direction(sim, NNA_SIM_SRAM_TO_MEMORY);
    EXPECT_EQ(tivNnaUdrv_dumpSram(sim, 103, 2, bytes), NNA_STATUS_OK);
    EXPECT_EQ(Bytes(bytes, bytes + 4), (Bytes{2, 3, 3, 4}));
}

TEST_F(Simulator, FailsTheCallsThatItIsToldTo) {
    const uint32_t memid = rig.memory(4);
    const auto ask = [&] {
        size = 99;
        return tivNnaMemorySize(sim, memid, &size);
    };
    EXPECT_EQ(ask(), NNA_STATUS_OK);
    nna_sim_fail_call(sim, 2, 71);
    nna_sim_fail_call_late(sim, 3, 72);
    nna_sim_fail_call(sim, 5, 73);
    const uint32_t statuses[] = {NNA_STATUS_OK, 71, 72, NNA_STATUS_OK, 73, NNA_STATUS_OK};
    for (const uint32_t status : statuses) {
        EXPECT_EQ(ask(), status);
        EXPECT_EQ(rig.calls().back().status, status);
        EXPECT_EQ(size, status == 71 || status == 73 ? 99u : 4u) << "late is after the work";
    }
    nna_sim_fail_call(sim, 1, 74);
    nna_sim_fail_call_late(sim, 2, 75);
    nna_sim_fail_call(sim, 0, 0);
    EXPECT_EQ(ask(), NNA_STATUS_OK) << "all faults are taken back";
    EXPECT_EQ(ask(), NNA_STATUS_OK);
}

TEST(SimulatedCommon, ProfilesTheEventsOfItsMask) {
    EXPECT_EQ(tivIsProfileEvent(1), 0);
    nna_sim_set_profile_events(0x80000002);
    for (const uint32_t event : {0u, 1u, 2u, 31u, 32u, 33u})
        EXPECT_EQ(tivIsProfileEvent(event) != 0, event == 1 || event == 31) << event;
    nna_sim_set_profile_events(0);
}

TEST(SimulatedLog, PrintsTheBriefFormOfOneLine) {
    testing::internal::CaptureStderr();
    __android_log_print(6, "tag", "a %d\nb", 7);
    __android_log_print(5, "tag", "%s", std::string(2000, 'x').c_str());
    for (const int priority : {7, 8})
        __android_log_print(priority, "tag", "c");
    const std::string pid = "(" + std::string(5 - std::min<size_t>(5, std::to_string(getpid()).size()), ' ') +
                            std::to_string(getpid()) + "): ";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "E/tag" + pid + "a 7\nW/tag" + pid +
                                                          std::string(1023, 'x') + "\nF/tag" + pid +
                                                          "c\n?/tag" + pid + "c\n");
}

}  // namespace
