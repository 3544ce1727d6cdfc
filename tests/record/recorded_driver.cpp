// A driver for the tests of the recorder, which the linker has put in front of the library. It shows what a
// driver sees: every status and result, and the platform calls that each context made.
//
//   recorded_driver contexts SEED COUNT   random valid contexts of all operators, on both kinds of memory
//   recorded_driver shared                operands in one memory, outputs among them
//   recorded_driver faults                contexts whose platform calls fail, one after another
//   recorded_driver nested                a log function that executes contexts itself
//   recorded_driver refused               contexts that the library refuses
//   recorded_driver threads COUNT CALLS   contexts on several threads
//   recorded_driver forever               until it is killed
//   recorded_driver nomemory              the heap has no room for a record
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>

#include "kelRt_platform.h"
#include "support/contexts.h"
#include "support/rig.h"

namespace {

std::atomic<bool> heap_is_full{false};

uint32_t digest(const std::vector<uint8_t>& bytes) {
    uint32_t value = 0x811C9DC5;
    for (const uint8_t byte : bytes)
        value = (value ^ byte) * 0x01000193;
    return value;
}

void show_calls(const rig::Rig& rig) {
    for (const NnaSimCall& call : rig.calls())
        std::printf(" %c%u", "psSr"[call.function], call.memid);
    std::printf("\n");
}

// One context of an operator; every second memory is a CPU buffer.
void run_random(const tool::Operator& op, contexts::Random& random) {
    constexpr uint32_t kSlack = 12, kIndex = 1, kFirstBuffer = 16;
    rig::Rig rig;
    nna_sim_set_sram(rig.sim, 4096, 4096);
    for (uint32_t i = 0; i < 4096; ++i)
        nna_sim_sram(rig.sim)[i] = static_cast<uint8_t>(i * 7);
    nna_sim_set_sram_direction(rig.sim,
                               tool::id_of(op) == 18 ? NNA_SIM_MEMORY_TO_SRAM : NNA_SIM_SRAM_TO_MEMORY);
    const std::vector<uint32_t> values = contexts::values(op, random);
    std::vector<KelRtContextArg> arguments;
    std::vector<std::pair<uint32_t, uint32_t>> memories;  // ids and sizes
    const bool any_buffers = random() % 2;
    for (uint32_t i = tool::kFirstArgument; i < values.size(); ++i) {
        const tool::Argument& argument = op.at(i);
        arguments.push_back({argument.type, 0, values[i]});
        if (!argument.is_memory())
            continue;
        uint64_t end = std::max(argument.read_range(values).end, argument.written_range(values).end);
        for (const tool::Lookup& lookup : op.lookups)
            end = lookup.table == i ? lookup.row(kIndex, values).end : end;
        const uint32_t offset = tool::moves_sram(tool::id_of(op)) ? 0 : 4 * contexts::below(random, 3);
        const auto size = static_cast<uint32_t>(end) + kSlack;
        const auto bytes = contexts::operand(size - offset, kIndex, random);
        const bool on_cpu = any_buffers && random() % 2;
        const uint32_t id = on_cpu ? kFirstBuffer + i : rig.memory(size);
        if (on_cpu) {
            tivNnaCpuMemAlloc(&rig.instance, id, size);
            std::memset(rig.table[id].ptr, 0, size);
            tivNnaCpuMemWrite(&rig.instance, id, offset, bytes.data(), size - offset);
        } else {
            nna_sim_device_write(rig.sim, id, offset, bytes.data(), size - offset);
        }
        arguments.back() = rig::mem(id, offset);
        memories.push_back({id, size});
    }
    std::printf("%s %u shift %u", op.name, rig.run(tool::id_of(op), arguments), rig.instance.out_shift);
    for (const auto& [id, size] : memories) {
        std::vector<uint8_t> bytes(size);
        if (id >= kFirstBuffer)
            std::memcpy(bytes.data(), rig.table[id].ptr, size);
        else
            nna_sim_device_read(rig.sim, id, 0, bytes.data(), size);
        std::printf(" %08X", digest(bytes));
    }
    show_calls(rig);
}

struct Sum {
    rig::Rig rig;
    uint32_t out = rig.memory(64), a = rig.memory_of(std::vector<float>(16, 1.5f)),
             b = rig.memory_of(std::vector<float>(16, 2.25f));

    uint32_t run(uint32_t n = 16) {
        return rig.run(4, {rig::mem(out), rig::mem(a), rig::mem(b), rig::val(n)});
    }
};

// Whose context is executed the next time that the library writes to the log, from within.
Sum* logging = nullptr;

void run_within_log(Sum& sum, uint32_t op, const std::vector<KelRtContextArg>& arguments, Sum& within) {
    const int32_t level = std::exchange(g_log_lvl, 0);
    // Always exceeded: the position of a standard output that has none is -1.
    const int32_t size = std::exchange(g_log_file_max_size, -2);
    logging = &within;
    std::printf("around it %u\n", sum.rig.run(op, arguments));
    g_log_lvl = level;
    g_log_file_max_size = size;
}

// An output resolved before the input in the same memory is fetched, and a transposed operand that is
// published along.
void run_shared() {
    for (int turn = 0; turn < 4; ++turn) {
        rig::Rig rig;
        const uint32_t m = rig.memory_of(std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
        const auto at = [&](uint32_t element) { return rig::mem(m, 4 * element); };
        const auto value = [](uint32_t number) { return rig::val(number); };
        // One after the other: the CPU has not seen the memory when the sum's output is resolved.
        errno = 7;
        const uint32_t sum = rig.run(4, {at(0), at(0), at(4), value(4)});
        if (turn == 0)
            std::printf("errno %d\n", errno);
        const uint32_t product =
            rig.run(10, {at(0), at(4), at(8), value(2), value(2), value(2), value(2), value(1), value(0)});
        std::printf("sum %u product %u", sum, product);
        for (const float element : rig.device<float>(m, 12))
            std::printf(" %g", static_cast<double>(element));
        std::printf("\n");
    }
}

void run_faults() {
    // Recorded, the sizes of the memories are asked for first.
    const bool asked = std::getenv("KELRT_RECORD");
    for (uint32_t k = 1; k <= 12; ++k) {
        Sum sum;
        nna_sim_fail_call(sum.rig.sim, k + (asked ? 3 : 0), 777);
        std::printf("fault %u: %u\n", k, sum.run());
        nna_sim_fail_call(sum.rig.sim, 0, 0);
        // In one memory, what fails when an operand is handed back takes nothing from the result.
        nna_sim_fail_call(sum.rig.sim, k + (asked ? 1 : 0), 777);
        const KelRtContextArg all = rig::mem(sum.a);
        std::printf("in one memory: %u\n", sum.rig.run(4, {all, all, all, rig::val(16)}));
    }
    // More failures than a record has room for, of which the last one is the status.
    constexpr uint32_t kRows = 70;
    for (const uint32_t failing : {63u, 64u, kRows}) {
        rig::Rig rig;
        const KelRtContextArg rows = rig::mem(rig.memory(kRows));
        nna_sim_set_sram(rig.sim, 0, kRows);
        for (uint32_t k = 0; k < failing; ++k)  // the first call resolves the memory
            nna_sim_fail_call(rig.sim, 1 + kRows - k + (asked ? 1 : 0), 777);
        std::printf("%u rows fail: %u\n", failing,
                    rig.run(17, {rig::val(0), rig::val(1), rig::val(1), rig::val(kRows), rows}));
    }
}

void run_refused() {
    Sum sum;
    std::printf("null %u\n", kelRt_executeContext(&sum.rig.instance, nullptr));
    std::printf("null instance %u\n", kelRt_executeContext(nullptr, nullptr));
    const KelRtContext target = {nullptr, {}, 6, 0, 2}, few = {nullptr, {}, 2, 0, 1};
    std::printf("target %u few %u\n", kelRt_executeContext(nullptr, &target),
                kelRt_executeContext(nullptr, &few));
    std::printf("operator %u\n", sum.rig.run(200, {rig::val(1)}));
    std::printf("count %u\n", sum.rig.run(4, {rig::val(1), rig::val(1), rig::val(1)}));
    std::printf("type %u\n", sum.rig.run(4, {rig::mem(0), rig::val(1), rig::mem(0), rig::val(1)}));
    std::printf("unknown memory %u\n",
                sum.rig.run(4, {rig::mem(sum.out), rig::mem(30), rig::mem(sum.b), rig::val(1)}));
    std::printf("no memory %u\n", sum.rig.run(4, {rig::mem(sum.out), rig::mem(KEL_RT_NO_MEMORY_ID),
                                                  rig::mem(sum.b), rig::val(1)}));
}

void run_threads(int count, int calls) {
    std::vector<std::thread> threads;
    std::atomic<int> failed{0};
    for (int t = 0; t < count; ++t) {
        threads.emplace_back([&] {
            Sum sum;
            for (int i = 0; i < calls; ++i)
                failed += sum.run() != NNA_STATUS_OK;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    std::printf("failed %d\n", failed.load());
}

}  // namespace

// In front of the simulator's.
int32_t resetTivLogFile(long, int32_t) {
    if (Sum* const sum = std::exchange(logging, nullptr))
        std::printf("%u\n", sum->run());
    return 0;
}

// Under a sanitizer the heap is that of its own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" {
void* __libc_malloc(size_t size);
__attribute__((visibility("default"))) void* malloc(size_t size) {
    constexpr size_t kLargest = 1500;  // a record takes more, the simulator's own list of calls less
    return heap_is_full && size > kLargest ? nullptr : __libc_malloc(size);
}
}
#endif

int main(int argc, char** argv) {
    const std::string scenario = argc > 1 ? argv[1] : "";
    const auto number = [&](int i) { return argc > i ? std::atoi(argv[i]) : 0; };
    if (scenario == "contexts") {
        contexts::Random random(static_cast<uint32_t>(number(2)));
        for (int i = 0; i < number(3); ++i)
            run_random(tool::kOperators[static_cast<size_t>(i) % KEL_RT_NUM_OPS], random);
    } else if (scenario == "faults") {
        run_faults();
    } else if (scenario == "shared") {
        run_shared();
    } else if (scenario == "refused") {
        run_refused();
    } else if (scenario == "threads") {
        run_threads(number(2), number(3));
    } else if (scenario == "forever") {
        for (Sum sum;;)
            sum.run();
    } else if (scenario == "nested") {
        for (int i = 0; i < 8; ++i) {
            Sum sum, within;
            run_within_log(sum, 4, {rig::mem(sum.out), rig::mem(sum.a), rig::mem(sum.b), rig::val(16)},
                           within);
        }
    } else if (scenario == "nomemory") {
        // For a context that is refused, nor for the one that is executed while that is logged.
        Sum sum, within;
        std::printf("%u\n", sum.run());
        heap_is_full = true;
        run_within_log(sum, 200, {rig::val(1)}, within);
        heap_is_full = false;
        std::printf("%u\n", sum.run());
    } else {
        return 2;
    }
    return 0;
}
