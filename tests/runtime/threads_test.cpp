// Contexts side by side, on one instance and one simulator: each thread adds memories of its own and runs
// contexts on them; results are those of a thread alone, and no platform call and no synchronised byte goes
// missing. A build with -DKELRT_SANITIZE=thread finds for certain what shows here only when two threads meet.
#include <gtest/gtest.h>

#include <algorithm>
#include <latch>
#include <numeric>
#include <random>
#include <thread>

#include "kelRt_platform.h"
#include "support/rows.h"

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

// One thread's share of an accelerator: memories of its own for every operator, every other one a CPU buffer;
// and an instance of its own, which contexts write to.
struct Share {
    KelRtInstance instance;
    std::vector<uint32_t> first;  // memory, by row

    explicit Share(rows::Bench& bench) : instance(bench.instance) {
        for (const rows::Operator& op : rows::kOperators) {
            first.push_back(bench.add(op));
            for (uint32_t i = 1; i < op.bytes.size(); i += 2) {
                const uint32_t memid = first.back() + i;
                tivNnaCpuMemAlloc(&instance, memid, bench.size(memid));
                tivNnaCpuMemWrite(&instance, memid, 0, bench.image(memid).data(), bench.size(memid));
            }
        }
    }

    // What the operator's tensors hold after its next context: the states that it keeps move on.
    std::vector<rows::Bytes> next(const rows::Bench& bench, size_t row) {
        const rows::Operator& op = rows::kOperators[row];
        const rig::Context context(op.id, op.args_at(first[row]));
        std::vector<rows::Bytes> tensors;
        if (kelRt_executeContext(&instance, &context.record) == NNA_STATUS_OK) {
            for (uint32_t i = 0; i < op.bytes.size(); ++i) {
                const auto* const buffer = static_cast<const uint8_t*>(bench.table[first[row] + i].ptr);
                tensors.push_back(buffer ? rows::Bytes(buffer, buffer + bench.size(first[row] + i))
                                         : bench.view(first[row] + i));
            }
        }
        return tensors;
    }
};

// All nineteen at once on one accelerator, with one table of CPU buffers, each thread in an order of its own.
TEST(Threads, RunEveryOperatorOnMemoriesOfTheirOwn) {
    constexpr size_t kShares = 8, kTurns = 20;
    const size_t count = rows::kOperators.size();
    rows::Bench single(1000), bench(1000);
    Share alone(single);
    std::vector<std::vector<std::vector<rows::Bytes>>> expected(kTurns);
    for (auto& turn : expected)
        for (size_t row = 0; row < count; ++row)
            turn.push_back(alone.next(single, row));
    ASSERT_FALSE(expected[0][1].empty());
    ASSERT_NE(expected[0][1], expected[1][1]) << "a state that moves on";

    std::vector<Share> shares;
    for (size_t t = 0; t < kShares; ++t)
        shares.emplace_back(bench);
    std::vector<size_t> equal(kShares);
    std::latch start(kShares);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kShares; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 random(static_cast<uint32_t>(t));
            std::vector<size_t> order(count);
            std::iota(order.begin(), order.end(), 0);
            start.arrive_and_wait();
            for (const auto& turn : expected) {
                std::shuffle(order.begin(), order.end(), random);
                for (const size_t row : order)
                    equal[t] += !turn[row].empty() && shares[t].next(bench, row) == turn[row];
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(equal, std::vector<size_t>(kShares, kTurns * count));
}

}  // namespace
