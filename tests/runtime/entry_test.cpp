// The entry point's checks: each one's status and messages, and, since every case is wrong in all the later
// ways too, their order.
#include <gtest/gtest.h>

#include <cstring>

#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::mem;
using rig::val;
using Lines = std::vector<std::string>;

struct Fault {
    void (*spoil)(rig::Context&);
    uint32_t status;
    Lines lines;
    bool closed;  // whether the closing error line follows
};

// clang-format off
// From the last check to the first: spoiling 0..k leaves check k, the earliest one wrong, to answer.
const Fault kFaults[] = {
    {[](auto& c) { c.args[1].type |= 0x55AA5500; },  // of which the closing line shows the low byte
     1056, {"Bad Address Input 0 (nil) Input 1 (nil) Output (nil)", "Error executing operator 1056"}, true},
    {[](auto& c) { c.args[5].type = 3; },
     1065, {"Context Argument[5] Type Mismatch expected init_to_val actual init_to_flt"}, true},
    {[](auto& c) { c.args[3].type = 9; }, 1065, {"Unknown Context Argument[3] Type 9"}, true},
    {[](auto& c) { c.args[0].value = 0x10004; },
     1064, {"Number of Context args do not match", "Expected 4 Actual 65540"}, true},
    {[](auto& c) { c.args[1].value = 0xABCDEF13; }, 1064, {"KEL RT Unknown operator 19"}, true},
    {[](auto& c) { c.args[1].value = 0x84; }, 1064, {"KEL RT Unknown operator 132"}, true},
    {[](auto& c) { c.args[1].type = 7; }, 1064, {"Unknown Context Argument[1] Type 7"}, false},
    {[](auto& c) { c.args[0].type = 2; },
     1065, {"Context Argument[0] Type Mismatch expected init_to_val actual init_to_mem_idx"}, false},
    {[](auto& c) { c.args[0].type = 4; }, 1064, {"Unknown Context Argument[0] Type 4"}, false},
    {[](auto& c) { c.record.num_args = 2; }, 1064, {"Insufficient arguments for CPU 2"}, false},
    {[](auto& c) { c.record.num_args = -5; }, 1064, {"Insufficient arguments for CPU -5"}, false},
    {[](auto& c) { c.record.target = 0; }, 1064, {"Unsupported target 0"}, false},
    {[](auto& c) { c.record.target = 2; }, 1064, {"Unsupported target 2"}, false},
};
// clang-format on

TEST(EntryPoint, ChecksInOrder) {
    rig::Rig rig;
    const KelRtContextArg none = mem(KEL_RT_NO_MEMORY_ID);
    rig::Context context(4, {none, none, none, val(2)});
    probe::Probe probe;
    for (const Fault& fault : kFaults) {
        SCOPED_TRACE(fault.lines[0]);
        fault.spoil(context);
        const auto args = context.args;
        probe.clear();
        EXPECT_EQ(kelRt_executeContext(&rig.instance, &context.record), fault.status);
        Lines expected = fault.lines;
        if (fault.closed)
            expected.push_back("Error " + std::to_string(fault.status) + " kelrt op 1");
        EXPECT_EQ(probe.messages(), expected);
        EXPECT_EQ(probe.android.size(), expected.size());
        EXPECT_TRUE(rig.calls().empty()) << "a refused context reaches no memory";
        EXPECT_EQ(std::memcmp(context.args.data(), args.data(), args.size() * sizeof args[0]), 0);
    }
    probe.clear();
    EXPECT_EQ(kelRt_executeContext(&rig.instance, nullptr), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages(), Lines{"Unexpected NULL context"});
}

// One whose operator has nothing to do: no kernel refuses the pointer, which is not null, and publishing
// does.
TEST(EntryPoint, RefusesToPublishWhatIsNoMemory) {
    rig::Rig rig;
    rig::Context context(4, {mem(KEL_RT_NO_MEMORY_ID, 4), mem(rig.memory(4)), mem(rig.memory(4)), val(0)});
    probe::Probe probe;
    EXPECT_EQ(kelRt_executeContext(&rig.instance, &context.record), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages().at(0), "KEL RT Null address");
}

TEST(EntryPoint, ReadsOnlyLowBytesOfTypesAndIdAndOnlyTheRowsCount) {
    rig::Rig rig;
    const uint32_t x = rig.memory_of(std::vector<float>{1, 2});
    const uint32_t out = rig.memory(8);
    rig::Context context(0xFFFFFF04, {mem(out), mem(x), mem(x), val(2)});
    for (KelRtContextArg& arg : context.args)
        arg.type |= 0x55AA5500;
    context.record.num_args = 3;  // more than 2 is enough, whatever the row's total
    EXPECT_EQ(kelRt_executeContext(&rig.instance, &context.record), NNA_STATUS_OK);
    EXPECT_EQ(rig.device<float>(out, 2), (std::vector<float>{2, 4}));
}

}  // namespace
