// im2col of the shapes that matter, beside a memcpy of the bytes that it writes. `of_memcpy` is the speed as
// a fraction of that copy's, each by its fastest run.
//   im2col/3x3x64_on_56x56     kernel height x width x channels, on input rows x columns, strides 1
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "beside.h"
#include "kelRt.h"

namespace {

struct Shape {
    const char* name;
    uint32_t rows, cols, channels, kernel;
};
const Shape kShapes[] = {
    {"im2col/3x3x64_on_56x56", 56, 56, 64, 3},   {"im2col/5x5x3_on_224x224", 224, 224, 3, 5},
    {"im2col/7x7x3_on_224x224", 224, 224, 3, 7}, {"im2col/3x3x1_on_224x224", 224, 224, 1, 3},
    {"im2col/1x1x256_on_28x28", 28, 28, 256, 1},
};

void run(benchmark::State& state, const Shape& s) {
    const uint32_t out_rows = s.rows - s.kernel + 1, out_cols = s.cols - s.kernel + 1;
    const size_t bytes = size_t{out_rows} * out_cols * ((s.kernel * s.kernel * s.channels + 7) / 8 * 8);
    const std::vector<uint8_t> input(size_t{s.rows} * s.cols * s.channels, 1), same(bytes, 2);
    std::vector<uint8_t> output(bytes);
    const double gather = run_beside(
        state, "of_memcpy",
        [&] {
            kelRt_im2col(input.data(), output.data(), s.rows, s.cols, s.channels, s.kernel, s.kernel, 1, 1,
                         1);
        },
        [&] { std::memcpy(output.data(), same.data(), bytes); });
    state.SetBytesProcessed(static_cast<int64_t>(bytes) * static_cast<int64_t>(state.iterations()));
    state.counters["best_GB/s"] = static_cast<double>(bytes) / gather * 1e-9;
}

const bool kRegistered = [] {
    for (const Shape& shape : kShapes)
        benchmark::RegisterBenchmark(shape.name, run, shape)->UseManualTime();
    return true;
}();

}  // namespace
