// Matrix multiply beside the textbook loop that goes down one column at a time, and in-place transposition
// beside a memcpy of the matrix. `of_textbook` and `of_memcpy` are speeds as multiples of those.
//   matmul/512x512x512      rows x inner x columns
//   transpose/1024x4096     rows x columns, as stored
//   transpose_by_cycles/... the way it goes when there is no memory for a copy
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "beside.h"
#include "kelRt.h"
#include "operators/transpose.h"

namespace {

void textbook(const float* a, const float* b, float* c, size_t rows, size_t inner, size_t cols) {
    for (size_t i = 0; i < rows; ++i) {
        for (size_t j = 0; j < cols; ++j) {
            float sum = 0;
            for (size_t k = 0; k < inner; ++k)
                sum += a[i * inner + k] * b[k * cols + j];
            c[i * cols + j] = sum;
        }
    }
}

void matmul(benchmark::State& state, int32_t rows, int32_t inner, int32_t cols) {
    const auto m = static_cast<size_t>(rows), k = static_cast<size_t>(inner), n = static_cast<size_t>(cols);
    std::vector<float> a(m * k, 1.5f), b(k * n, 0.5f), c(m * n);
    const double seconds = run_beside(
        state, "of_textbook",
        [&] { kelRt_matmul(a.data(), b.data(), c.data(), rows, inner, inner, cols, 0, 0); },
        [&] { textbook(a.data(), b.data(), c.data(), m, k, n); });
    state.counters["best_GFLOP/s"] = 2e-9 * static_cast<double>(m * k * n) / seconds;
}

void transpose_beside(benchmark::State& state, int32_t rows, int32_t cols, bool by_cycles) {
    const auto r = static_cast<uint32_t>(rows), c = static_cast<uint32_t>(cols);
    std::vector<float> matrix(size_t{r} * c, 1.0f), other(matrix);
    const double seconds = run_beside(
        state, "of_memcpy",
        [&] {
            if (by_cycles)
                kelrt::transpose_by_cycles(matrix.data(), r, c);
            else
                transpose(matrix.data(), cols, rows);
        },
        [&] { std::memcpy(other.data(), matrix.data(), matrix.size() * sizeof(float)); });
    state.counters["ns/element"] = 1e9 * seconds / static_cast<double>(matrix.size());
}

const bool kRegistered = [] {
    const int32_t products[][3] = {
        {1, 32, 128}, {32, 32, 32}, {128, 128, 128}, {512, 512, 512}, {1, 1024, 1024}};
    for (const auto& [m, k, n] : products) {
        const std::string shape = std::to_string(m) + "x" + std::to_string(k) + "x" + std::to_string(n);
        benchmark::RegisterBenchmark(("matmul/" + shape).c_str(), matmul, m, k, n)->UseManualTime();
    }
    const int32_t matrices[][2] = {{64, 1000}, {1024, 1024}, {1024, 4096}, {4096, 1023}, {3, 1333333}};
    for (const auto& [rows, cols] : matrices) {
        const std::string shape = std::to_string(rows) + "x" + std::to_string(cols);
        benchmark::RegisterBenchmark(("transpose/" + shape).c_str(), transpose_beside, rows, cols, false)
            ->UseManualTime();
        if (rows != cols)
            benchmark::RegisterBenchmark(("transpose_by_cycles/" + shape).c_str(), transpose_beside, rows,
                                         cols, true)
                ->UseManualTime();
    }
    return true;
}();

}  // namespace
