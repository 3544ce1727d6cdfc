// Handlers called past the entry point, for what no verified context can reach.
#include <gtest/gtest.h>

#include "adapters/adapters.h"
#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::mem;
using rig::val;

TEST(LstmHandler, RefusesOperatorsThatItDoesNotServe) {
    for (uint32_t id : {0u, 2u, 12u, 15u, 255u, 0x100u}) {
        SCOPED_TRACE(id);
        rig::Rig rig;
        for (int i = 0; i < 3; ++i)
            rig.memory(64);
        const rig::Context context(id, {mem(0), mem(1), mem(2), val(4)});
        probe::Probe probe;
        EXPECT_EQ(kelrt::run_lstmStates(&rig.instance, &context.record), NNA_STATUS_FAILED);
        EXPECT_EQ(probe.messages(),
                  std::vector<std::string>{"Operator verification failed " + std::to_string(id & 0xFF)});
        const auto calls = rig.calls();
        ASSERT_EQ(calls.size(), 12u) << "three fetches, then three handed back";
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(calls[9 + i].function, NNA_SIM_MEMORY_PTR);
            EXPECT_EQ(calls[9 + i].memid, 2 - i);
        }
    }
}

}  // namespace
