// Handlers called past the entry point, for what no verified context can reach: operators that they do not
// serve. What was resolved is handed back, last first.
#include <gtest/gtest.h>

#include "adapters/adapters.h"
#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::mem;
using rig::val;

TEST(Handlers, RefuseOperatorsThatTheyDoNotServe) {
    const struct {
        uint32_t (*run)(KelRtInstance*, const KelRtContext*);
        std::vector<uint32_t> ids;
        std::vector<KelRtContextArg> args;
        std::vector<uint32_t> handed_back;
    } cases[] = {
        {kelrt::run_lstmStates, {0, 2, 12, 15, 255, 0x100}, {mem(0), mem(1), mem(2), val(4)}, {2, 1, 0}},
        {kelrt::run_sram, {0, 16, 19, 0x110}, {val(0), val(4), val(4), val(1), mem(0)}, {0}},
    };
    for (const auto& c : cases) {
        for (const uint32_t id : c.ids) {
            SCOPED_TRACE(id);
            rig::Rig rig;
            for (int i = 0; i < 3; ++i)
                rig.memory(64);
            const rig::Context context(id, c.args);
            probe::Probe probe;
            EXPECT_EQ(c.run(&rig.instance, &context.record), NNA_STATUS_FAILED);
            EXPECT_EQ(probe.messages(),
                      std::vector<std::string>{"Operator verification failed " + std::to_string(id & 0xFF)});
            const auto calls = rig.calls();
            const size_t resolving = c.handed_back.size() == 3 ? 9 : 1;
            ASSERT_EQ(calls.size(), resolving + c.handed_back.size());
            for (size_t i = 0; i < c.handed_back.size(); ++i) {
                EXPECT_EQ(calls[resolving + i].function, NNA_SIM_MEMORY_PTR);
                EXPECT_EQ(calls[resolving + i].memid, c.handed_back[i]);
            }
        }
    }
}

}  // namespace
