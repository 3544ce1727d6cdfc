// SRAM rows: where they lie on both sides, in wrapping arithmetic. That only the last one counts is
// faults_test's.
#include <gtest/gtest.h>

#include "support/rig.h"

namespace {

TEST(SramRows, AdvanceInWrappingArithmetic) {
    struct Row {
        uint32_t address;
        uintptr_t place;  // from the tensor's pointer
    };
    const struct {
        uint32_t address, size, stride;
        std::vector<Row> rows;
    } cases[] = {
        {10, 3, 50, {{10, 0}, {60, 3}, {110, 6}, {160, 9}}},
        {32, 4, 0xFFFFFFF0, {{32, 0}, {16, 4}, {0, 8}}},
        {0xFFFFFFFC, 8, 8, {{0xFFFFFFFC, 0}, {4, 8}}},
        {0, 0x80000000, 0, {{0, 0}, {0, 0x80000000}, {0, 0}}},
        {7, 8, 9, {}},
    };
    // Without SRAM nothing moves, so that the pointer may be anything: that of no tensor, too.
    for (const auto move : {kel_rtNnaSramGet, kel_rtNnaSramSet}) {
        for (const auto& c : cases) {
            for (const uintptr_t tensor : {uintptr_t{0}, uintptr_t{4096}}) {
                rig::Rig rig;
                const auto count = static_cast<uint32_t>(c.rows.size());
                EXPECT_EQ(
                    move(&rig.instance, c.address, c.size, c.stride, count, reinterpret_cast<void*>(tensor)),
                    count ? uint32_t{NNA_SIM_STATUS_OUT_OF_RANGE} : uint32_t{NNA_STATUS_OK});
                const auto calls = rig.calls();
                ASSERT_EQ(calls.size(), c.rows.size());
                for (size_t i = 0; i < calls.size(); ++i) {
                    EXPECT_EQ(calls[i].function, NNA_SIM_DUMP_SRAM);
                    EXPECT_EQ(calls[i].address, c.rows[i].address);
                    EXPECT_EQ(calls[i].size, c.size);
                    EXPECT_EQ(reinterpret_cast<uintptr_t>(calls[i].pointer), tensor + c.rows[i].place);
                }
            }
        }
    }
}

}  // namespace
