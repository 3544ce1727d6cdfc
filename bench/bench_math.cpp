// The array kernels, from a few blocks to far beyond the caches, each beside a memcpy that moves the same
// bytes, and on subnormal input, which must cost nothing.
//   kelRt_mulf/4096             4096 elements
//   kelRt_mulf/4096/memcpy      memcpy of half of what those elements read and write: the same traffic
//   kelRt_mulf/4096/subnormal   every float of the input subnormal
#include <benchmark/benchmark.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kelRt.h"

namespace {

enum class Input { ordinary, subnormal };

// Operands for n elements. Only the ones of the latest size are kept.
struct Arrays {
    uint32_t n;
    Input kind;
    std::vector<float> a, b, c, d, out;
    std::vector<int32_t> i32;
    std::vector<int16_t> i16;
    std::vector<int8_t> i8;

    Arrays(uint32_t count, Input input) : n(count), kind(input), out(n), i32(n), i16(n), i8(n) {
        uint32_t state = 1;
        const auto word = [&] { return state = state * 1664525 + 1013904223; };
        const auto value = [&] {
            const float uniform = static_cast<float>(word() >> 8) * 0x1p-21f - 4.0f;  // [-4, 4)
            return input == Input::subnormal ? std::bit_cast<float>(word() & 0x807FFFFFu) : uniform;
        };
        for (std::vector<float>* array : {&a, &b, &c, &d}) {
            array->resize(n);
            for (float& x : *array)
                x = value();
        }
        for (uint32_t i = 0; i < n; ++i) {
            i32[i] = static_cast<int32_t>(word());
            i16[i] = static_cast<int16_t>(i32[i] >> 16);
            i8[i] = static_cast<int8_t>(i32[i] >> 24);
        }
    }

    static Arrays& of(uint32_t n, Input kind) {
        static Arrays kept(0, Input::ordinary);
        if (kept.n != n || kept.kind != kind) {
            kept = Arrays(0, kind);
            kept = Arrays(n, kind);
        }
        return kept;
    }
};

struct Kernel {
    const char* name;
    unsigned bytes;  // read and written per element
    bool takes_floats;
    void (*run)(Arrays& x);
};

const Kernel kKernels[] = {
    {"kelRt_tanhf", 8, true, [](Arrays& x) { kelRt_tanhf(x.a.data(), x.out.data(), x.n); }},
    {"kelRt_expf", 8, true, [](Arrays& x) { kelRt_expf(x.a.data(), x.out.data(), x.n); }},
    {"kelRt_sigmoidf", 8, true, [](Arrays& x) { kelRt_sigmoidf(x.a.data(), x.out.data(), x.n); }},
    {"kelRt_sumf", 4, true, [](Arrays& x) { kelRt_sumf(x.a.data(), x.out.data(), x.n); }},
    {"kelRt_scalef", 8, true, [](Arrays& x) { kelRt_scalef(x.a.data(), x.out.data(), 0.7f, x.n); }},
    {"kelRt_mulf", 12, true, [](Arrays& x) { kelRt_mulf(x.a.data(), x.b.data(), x.out.data(), x.n); }},
    {"kelRt_addf", 12, true, [](Arrays& x) { kelRt_addf(x.a.data(), x.b.data(), x.out.data(), x.n); }},
    {"kelRt_subf", 12, true, [](Arrays& x) { kelRt_subf(x.a.data(), x.b.data(), x.out.data(), x.n); }},
    {"kelRt_complementf", 8, true, [](Arrays& x) { kelRt_complementf(x.a.data(), x.out.data(), x.n); }},
    {"kelRt_dotproductf", 20, true,
     [](Arrays& x) { kelRt_dotproductf(x.a.data(), x.b.data(), x.c.data(), x.d.data(), x.out.data(), x.n); }},
    {"kelRt_scaleI8toF", 5, false, [](Arrays& x) { kelRt_scaleI8toF(x.i8.data(), x.out.data(), 0.7f, x.n); }},
    {"kelRt_scaleI16toF", 6, false,
     [](Arrays& x) { kelRt_scaleI16toF(x.i16.data(), x.out.data(), 0.7f, x.n); }},
    {"kelRt_scaleI32toF", 8, false,
     [](Arrays& x) { kelRt_scaleI32toF(x.i32.data(), x.out.data(), 0.7f, x.n); }},
    {"kelRt_scaleFtoI8", 5, true, [](Arrays& x) { kelRt_scaleFtoI8(x.a.data(), x.i8.data(), 50.0f, x.n); }},
    {"kelRt_minMaxf", 4, true,
     [](Arrays& x) { kelRt_minMaxf(x.a.data(), x.out.data(), x.out.data() + 1, x.n); }},
    {"kelRt_variancef", 4, true, [](Arrays& x) { kelRt_variancef(x.a.data(), 0.1f, x.out.data(), x.n); }},
    {"kelRt_normf", 16, true,
     [](Arrays& x) { kelRt_normf(x.a.data(), x.b.data(), x.c.data(), 0.1f, 1.7f, x.out.data(), x.n); }},
};

void count_bytes(benchmark::State& state, uint64_t bytes) {
    state.SetBytesProcessed(static_cast<int64_t>(bytes) * static_cast<int64_t>(state.iterations()));
}

void time_kernel(benchmark::State& state, const Kernel& kernel, uint32_t n, Input input) {
    Arrays& x = Arrays::of(n, input);
    for (auto _ : state) {
        kernel.run(x);
        benchmark::ClobberMemory();
    }
    count_bytes(state, uint64_t{n} * kernel.bytes);
}

void time_memcpy(benchmark::State& state, uint64_t bytes) {
    const std::vector<char> from(bytes, 1);
    std::vector<char> to(bytes);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::ClobberMemory();
    }
    count_bytes(state, 2 * bytes);
}

const bool registered = [] {
    for (const Kernel& kernel : kKernels) {
        for (const uint32_t n : {16u, 256u, 4096u, 65536u, 8u << 20}) {
            const std::string name = std::string(kernel.name) + "/" + std::to_string(n);
            const auto add = [](const std::string& full_name, auto f) {
                benchmark::RegisterBenchmark(full_name.c_str(), f)->MinTime(0.05);
            };
            add(name, [&kernel, n](benchmark::State& s) { time_kernel(s, kernel, n, Input::ordinary); });
            add(name + "/memcpy",
                [&kernel, n](benchmark::State& s) { time_memcpy(s, uint64_t{n} * kernel.bytes / 2); });
            if (kernel.takes_floats)
                add(name + "/subnormal",
                    [&kernel, n](benchmark::State& s) { time_kernel(s, kernel, n, Input::subnormal); });
        }
    }
    return true;
}();

}  // namespace
