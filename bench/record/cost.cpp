// What recording costs a call: the least time of cpu_ewop_add at some sizes, on accelerator memory of the
// simulator. `./dev bench --record` runs it bare, with the recorder loaded and idle, and recording.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "kelRt.h"
#include "nna_sim.h"

namespace {

using Clock = std::chrono::steady_clock;

// Few, as each leaves a record of up to a megabyte.
constexpr int kCalls = 10, kBatches = 20;

double least_microseconds(uint32_t n) {
    NnaSim* const sim = nna_sim_create();
    for (int i = 0; i < 3; ++i)
        nna_sim_add_memory(sim, 4 * n);
    KelRtInstance instance{};
    instance.device = sim;
    const KelRtContextArg args[] = {{KEL_RT_ARG_VAL, 0, 4}, {KEL_RT_ARG_VAL, 0, 4}, {KEL_RT_ARG_MEM, 0, 0},
                                    {KEL_RT_ARG_MEM, 0, 1}, {KEL_RT_ARG_MEM, 0, 2}, {KEL_RT_ARG_VAL, 0, n}};
    KelRtContext context{};
    context.args = args;
    context.num_args = 6;
    context.target = KEL_RT_TARGET_CPU;
    double least = 1e30;
    for (int batch = 0; batch < kBatches; ++batch) {
        const Clock::time_point start = Clock::now();
        for (int call = 0; call < kCalls; ++call)
            kelRt_executeContext(&instance, &context);
        const std::chrono::duration<double, std::micro> time = Clock::now() - start;
        least = std::min(least, time.count() / kCalls);
        nna_sim_clear_calls(sim);
    }
    nna_sim_destroy(sim);
    return least;
}

}  // namespace

int main() {
    for (const uint32_t n : {16u, 256u, 4096u, 65536u})
        std::printf(" %9.2f", least_microseconds(n));
    std::printf("\n");
}
