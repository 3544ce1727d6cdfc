// Contexts side by side, on one instance and one simulator: each thread adds memories of its own and runs
// contexts on them; results are those of a thread alone, and no platform call and no synchronised byte goes
// missing. A build with -DKELRT_SANITIZE=thread finds for certain what shows here only when two threads meet.
#include <gtest/gtest.h>

#include <latch>
#include <thread>

#include "kelRt_platform.h"
#include "support/rig.h"

namespace {

using rig::mem;
using rig::val;
using Floats = std::vector<float>;

constexpr int kThreads = 4, kRounds = 500, kMeetings = 1000;
constexpr uint32_t kCount = 36, kFailure = 4242;

// Bytes to floats, a product of these, the sum of both, its softmax: a result of `seed` alone, or an empty
// one if a context failed.
Floats run_round(rig::Rig& rig, int seed) {
    std::vector<int8_t> bytes(kCount);
    for (uint32_t i = 0; i < kCount; ++i)
        bytes[i] = static_cast<int8_t>(seed * 7 + static_cast<int>(i * i));
    const uint32_t in = rig.memory_of(bytes, 3), x = rig.memory(4 * kCount), y = rig.memory(4 * kCount),
                   z = rig.memory(4 * kCount);
    const uint32_t statuses[] = {
        rig.run(2,
                {mem(x), val(UINT32_MAX), val(0), val(1), mem(in, 3), val(8), val(8), val(1), val(kCount)}),
        rig.run(10, {mem(x), mem(x), mem(y), val(6), val(6), val(6), val(6), val(0), val(1)}),
        rig.run(4, {mem(z), mem(x), mem(y), val(kCount)}),
        rig.run(5, {mem(z), mem(z), val(kCount)}),
    };
    for (const uint32_t status : statuses) {
        if (status != NNA_STATUS_OK)
            return {};
    }
    // Calls short enough for the threads to meet in the simulator's books.
    for (int i = 0; i < kMeetings; ++i) {
        kel_rtMemory_copyTo(&rig.instance, &rig, z);
        if (i % 100 == 0)
            rig.memory(0);
    }
    return rig.device<float>(z, kCount);
}

TEST(Threads, RunContextsSideBySide) {
    std::vector<Floats> alone;
    rig::Rig single, shared;
    single.instance.cpu_buffer_lookup = shared.instance.cpu_buffer_lookup =
        nullptr;  // accelerator memory alone
    for (int seed = 0; seed < kThreads; ++seed)
        alone.push_back(run_round(single, seed));
    ASSERT_NE(alone[0], Floats{});
    ASSERT_NE(alone[0], alone[1]) << "inputs that tell the threads apart";

    const uint64_t calls = kRounds * nna_sim_call_count(single.sim);
    nna_sim_fail_call(shared.sim, static_cast<uint32_t>(calls) + 1, kFailure);
    std::vector<int> wrong(kThreads);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int round = 0; round < kRounds; ++round) {
                const int seed = (t + round) % kThreads;
                wrong[static_cast<size_t>(t)] += run_round(shared, seed) != alone[static_cast<size_t>(seed)];
            }
        });
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(wrong, std::vector<int>(kThreads));
    EXPECT_EQ(nna_sim_call_count(shared.sim), calls);
    for (const uint32_t direction : {0u, 1u})
        EXPECT_EQ(nna_sim_synced_bytes(shared.sim, direction),
                  kRounds * nna_sim_synced_bytes(single.sim, direction));
    EXPECT_EQ(shared.calls().size(), size_t{NNA_SIM_MAX_CALLS});
    uint32_t size = 0;
    EXPECT_EQ(tivNnaMemorySize(shared.sim, 0, &size), kFailure) << "the fault falls due after all of theirs";
}

}  // namespace
