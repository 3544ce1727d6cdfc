// SRAM rows: both directions, addresses that wrap, the rule that only the last row counts, and what the
// adapter does not do (cache maintenance, byte offsets).
#include <gtest/gtest.h>

#include <numeric>

#include "adapters/adapters.h"
#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::mem;
using rig::val;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

constexpr uint32_t kGet = 17, kSet = 18;
constexpr uint32_t kFailure = 4242;

struct Sram : testing::TestWithParam<uint32_t> {
    rig::Rig rig;
    const uint32_t id = GetParam();
    const uint32_t memid = rig.memory(64);
    uint8_t* const view = nna_sim_cpu_view(rig.sim, memid);

    Sram() { nna_sim_set_sram(rig.sim, 0, 256); }

    uint32_t run(uint32_t address, uint32_t row, uint32_t stride, uint32_t rows, uint32_t offset = 0) {
        return rig.run(id, {val(address), val(row), val(stride), val(rows), mem(memid, offset)});
    }
    // The SRAM transfers among the platform calls: address, size, place in the view.
    struct Row {
        uint32_t address, size;
        uintptr_t place;
        bool operator==(const Row&) const = default;
    };
    std::vector<Row> rows() const {
        std::vector<Row> rows;
        for (const NnaSimCall& call : rig.calls()) {
            if (call.function == NNA_SIM_DUMP_SRAM)
                rows.push_back(
                    {call.address, call.size,
                     reinterpret_cast<uintptr_t>(call.pointer) - reinterpret_cast<uintptr_t>(view)});
        }
        return rows;
    }
};

TEST_P(Sram, MovesStridedRowsToPackedMemoryAndBack) {
    uint8_t* const sram = nna_sim_sram(rig.sim);
    std::iota(sram, sram + 256, uint8_t{0});
    EXPECT_EQ(run(10, 3, 50, 4), NNA_STATUS_OK);
    EXPECT_EQ(Bytes(view, view + 12), (Bytes{10, 11, 12, 60, 61, 62, 110, 111, 112, 160, 161, 162}));
    EXPECT_EQ(view[12], NNA_SIM_STALE_BYTE);

    nna_sim_set_sram_direction(rig.sim, NNA_SIM_MEMORY_TO_SRAM);
    EXPECT_EQ(run(200, 4, 8, 3), NNA_STATUS_OK);
    EXPECT_EQ(Bytes(sram + 200, sram + 213),
              (Bytes{10, 11, 12, 60, 204, 205, 206, 207, 61, 62, 110, 111, 212}));
    EXPECT_EQ(nna_sim_synced_bytes(rig.sim, 0) + nna_sim_synced_bytes(rig.sim, 1), 0u)
        << "no cache maintenance around SRAM";
}

TEST_P(Sram, AddressesWrapAndTheByteOffsetIsIgnored) {
    nna_sim_set_sram(rig.sim, 0, 64);
    EXPECT_EQ(run(32, 4, 0xFFFFFFF0, 3, /*offset=*/9), NNA_STATUS_OK);
    EXPECT_EQ(rows(), (std::vector<Row>{{32, 4, 0}, {16, 4, 4}, {0, 4, 8}}));
    nna_sim_clear_calls(rig.sim);
    EXPECT_EQ(run(0xFFFFFFFC, 8, 8, 2), NNA_STATUS_OK);
    EXPECT_EQ(rows(), (std::vector<Row>{{0xFFFFFFFC, 8, 0}, {4, 8, 8}}));
    nna_sim_clear_calls(rig.sim);
    probe::Probe quiet;
    run(0, 0x80000000, 0, 3);  // too large for the SRAM: nothing moves, the addresses show
    EXPECT_EQ(rows(),
              (std::vector<Row>{{0, 0x80000000, 0}, {0, 0x80000000, 0x80000000}, {0, 0x80000000, 0}}));
}

TEST_P(Sram, OnlyTheLastRowCounts) {
    // Platform call 1 resolves the tensor, calls 2 to 4 are the rows, call 5 hands the tensor back.
    for (uint32_t failing_row : {1u, 2u, 3u}) {
        SCOPED_TRACE(failing_row);
        rig::Rig fresh;
        nna_sim_set_sram(fresh.sim, 0, 64);
        const uint32_t tensor = fresh.memory(32);
        nna_sim_fail_call(fresh.sim, 1 + failing_row, kFailure);
        probe::Probe probe;
        const uint32_t status = fresh.run(id, {val(0), val(4), val(4), val(3), mem(tensor)});
        const bool last = failing_row == 3;
        EXPECT_EQ(status, last ? kFailure : uint32_t{NNA_STATUS_OK});
        EXPECT_EQ(probe.messages(),
                  last ? (Lines{"Error executing operator 4242", "Error 4242 kelrt op 1"}) : Lines{});
        const auto calls = fresh.calls();
        ASSERT_EQ(calls.size(), 5u);
        EXPECT_EQ(calls[3].function, NNA_SIM_DUMP_SRAM) << "a failed row does not stop the others";
        EXPECT_EQ(calls[4].function, NNA_SIM_MEMORY_PTR) << "handed back either way";
    }
}

TEST_P(Sram, NoRowsIsSuccessWithoutATransfer) {
    EXPECT_EQ(run(0xFFFFFFFF, 100, 100, 0), NNA_STATUS_OK);
    ASSERT_EQ(rig.calls().size(), 2u);
    EXPECT_EQ(rig.calls()[1].function, NNA_SIM_MEMORY_PTR);
}

TEST_P(Sram, EveryRowIsACallAndTheRecordKeepsTheFirst) {
    EXPECT_EQ(run(0, 0, 0, 2 * NNA_SIM_MAX_CALLS), NNA_STATUS_OK);
    EXPECT_EQ(nna_sim_call_count(rig.sim), 2u * NNA_SIM_MAX_CALLS + 2) << "resolved and handed back";
    ASSERT_EQ(rig.calls().size(), size_t{NNA_SIM_MAX_CALLS});
    EXPECT_EQ(rig.calls()[0].function, NNA_SIM_MEMORY_PTR);
    EXPECT_EQ(rig.calls().back().function, NNA_SIM_DUMP_SRAM);
}

TEST_P(Sram, AFailingAllocationIsReturnedAsItIs) {
    for (const auto fail : {nna_sim_fail_call, nna_sim_fail_call_late}) {
        nna_sim_clear_calls(rig.sim);
        fail(rig.sim, 1, kFailure);
        probe::Probe probe;
        EXPECT_EQ(run(0, 4, 4, 1), kFailure);
        EXPECT_EQ(probe.messages(), Lines{"Error 4242 kelrt op 1"});
        EXPECT_EQ(rig.calls().size(), 1u) << "nothing is handed back, though the platform left a pointer";
    }
}

TEST_P(Sram, WithoutATensorRowsCountFromAddressZero) {
    probe::Probe quiet;
    nna_sim_set_sram(rig.sim, 0, 0);  // nothing can move to address zero
    EXPECT_EQ(rig.run(id, {val(8), val(4), val(16), val(2), mem(KEL_RT_NO_MEMORY_ID)}),
              uint32_t{NNA_SIM_STATUS_OUT_OF_RANGE});
    const auto calls = rig.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].pointer, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(calls[1].pointer), 4u);
}

INSTANTIATE_TEST_SUITE_P(Operators, Sram, testing::Values(kGet, kSet));

TEST(SramAdapter, RefusesAnOperatorThatIsNotItsOwn) {
    rig::Rig rig;
    const uint32_t tensor = rig.memory(16);
    const rig::Context context(16, {val(0), val(4), val(4), val(1), mem(tensor)});
    probe::Probe probe;
    EXPECT_EQ(kelrt::run_sram(&rig.instance, &context.record), NNA_STATUS_FAILED);
    EXPECT_EQ(probe.messages(), Lines{"Operator verification failed 16"});
    EXPECT_EQ(rig.calls().size(), 2u) << "resolved and handed back, no transfer";
}

}  // namespace
