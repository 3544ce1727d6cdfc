// Times a piece of work and a reference in turns. Their least times are compared, which a busy machine
// disturbs least.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>

// Runs the loop of `state` over both, with `work`'s own time as the benchmark's (registered with
// UseManualTime), and sets `counter` to how many times as fast as the reference the work is. Returns the
// least seconds of the work.
template <typename Work, typename Reference>
double run_beside(benchmark::State& state, const char* counter, Work work, Reference reference) {
    const auto seconds_of = [](auto& timed) {
        const auto start = std::chrono::steady_clock::now();
        timed();
        benchmark::ClobberMemory();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    double least_work = 1e9, least_reference = 1e9;
    for (auto _ : state) {
        least_reference = std::min(least_reference, seconds_of(reference));
        const double seconds = seconds_of(work);
        least_work = std::min(least_work, seconds);
        state.SetIterationTime(seconds);
    }
    state.counters[counter] = least_reference / least_work;
    return least_work;
}
