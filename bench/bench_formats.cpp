// hw32 conversion in both directions, as a fraction of memcpy of the same bytes. Conversion and memcpy are
// timed in turns, and the counter `of_memcpy` compares the least time of each, which a busy machine disturbs
// least.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "kelRt.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// Arguments: bytes, elements a line, offset of both buffers from a 64-byte boundary.
template <uint32_t dir, bool in_place>
void hw32(benchmark::State& state) {
    const auto bytes = static_cast<size_t>(state.range(0));
    const auto line = static_cast<uint32_t>(state.range(1));
    const auto offset = static_cast<size_t>(state.range(2));
    std::vector<uint8_t> source(bytes + 128, 1), target(bytes + 128, 2);
    const auto aligned = [&](std::vector<uint8_t>& v) {
        return v.data() + (64 - reinterpret_cast<uintptr_t>(v.data()) % 64) + offset;
    };
    uint8_t* const src = aligned(source);
    uint8_t* const dst = in_place ? src : aligned(target);
    const auto size = static_cast<uint32_t>(bytes / 4);
    const size_t turns = std::max<size_t>(1, (64 << 10) / bytes);  // of each kind at a time
    const auto copy = [&] { std::memcpy(aligned(target), src, bytes); };

    double copying = 1e9, converting = 1e9;
    for (auto _ : state) {
        const auto start = Clock::now();
        for (size_t i = 0; i < turns; ++i) {
            copy();
            benchmark::ClobberMemory();
        }
        const auto middle = Clock::now();
        for (size_t i = 0; i < turns; ++i) {
            kelRt_hw32FmtConvParam(dst, src, size, dir, line, nullptr);
            benchmark::ClobberMemory();
        }
        const auto end = Clock::now();
        copying = std::min(copying, seconds(start, middle));
        converting = std::min(converting, seconds(middle, end));
        state.SetIterationTime(seconds(middle, end) / static_cast<double>(turns));
    }
    state.counters["bytes/s"] =
        benchmark::Counter(static_cast<double>(bytes * turns) / converting, benchmark::Counter::kDefaults,
                           benchmark::Counter::kIs1024);
    state.counters["of_memcpy"] = copying / converting;
}

void sizes_and_lines(benchmark::internal::Benchmark* b) {
    b->ArgNames({"bytes", "line", "offset"})->UseManualTime();
    for (const int64_t bytes : {4 << 10, 256 << 10, 32 << 20}) {
        for (const int64_t line : {8, 16, 24, 32, 40, 64, 256, 1024})
            b->Args({bytes, line, 0});
        for (const int64_t line : {1, 3, 7, 9, 17, 33, 100, 1000})  // no multiple of 8
            b->Args({bytes, line, 0});
        for (const int64_t line : {8, 64})  // unaligned buffers
            b->Args({bytes, line, 5});
    }
}

BENCHMARK(hw32<0, false>)->Name("hw32_to_linear")->Apply(sizes_and_lines);
BENCHMARK(hw32<1, false>)->Name("linear_to_hw32")->Apply(sizes_and_lines);

void in_place(benchmark::internal::Benchmark* b) {
    b->ArgNames({"bytes", "line", "offset"})->UseManualTime();
    for (const int64_t line : {8, 64, 1024, 65536, 8 << 20})
        b->Args({line > 65536 ? 32 << 20 : 256 << 10, line, 0});
}

BENCHMARK(hw32<0, true>)->Name("hw32_to_linear/in_place")->Apply(in_place);
BENCHMARK(hw32<1, true>)->Name("linear_to_hw32/in_place")->Apply(in_place);

}  // namespace
