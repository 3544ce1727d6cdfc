// The work that `./dev bench --arm` counts instructions of, a row of its table each:
//   kelrt_arm_work                    lists the rows, with what their unit is
//   kelrt_arm_work NAME UNITS         does that many units of one
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kelRt.h"
#include "kelRt_platform.h"

namespace {

constexpr uint32_t kMost = 1 << 14;  // units

// Ordinary numbers everywhere, so that no shortcut and no detour is taken.
struct Buffers {
    std::vector<float> a, b, c, d, out;
    std::vector<int8_t> i8 = std::vector<int8_t>(4 * kMost, 3);
    std::vector<int16_t> i16 = std::vector<int16_t>(kMost, 300);
    std::vector<int32_t> i32 = std::vector<int32_t>(kMost, 70000);

    Buffers() {
        for (std::vector<float>* v : {&a, &b, &c, &d, &out})
            for (uint32_t i = 0; i < 4 * kMost; ++i)
                v->push_back(static_cast<float>(i * 37 % 101) / 32.0f - 1.5f);
    }
};

// The product of `rows` rows and `columns` columns, in n multiply-adds.
void matmul(Buffers& x, uint32_t n, int32_t rows, int32_t columns) {
    const int32_t inner = static_cast<int32_t>(n) / rows / columns;
    kelRt_matmul(x.a.data(), x.b.data(), x.out.data(), rows, inner, inner, columns, 0, 0);
}

// "cpu_ewop_add" of four floats in CPU buffers, n times.
void dispatch(Buffers& x, uint32_t n) {
    CpuBufferEntry table[] = {{x.out.data(), 16}, {x.a.data(), 16}, {x.b.data(), 16}};
    KelRtInstance instance = {};
    instance.cpu_buffers = instance.cpu_buffer_lookup = table;
    const KelRtContextArg args[] = {{KEL_RT_ARG_VAL, 0, 4}, {KEL_RT_ARG_VAL, 0, 4}, {KEL_RT_ARG_MEM, 0, 0},
                                    {KEL_RT_ARG_MEM, 0, 1}, {KEL_RT_ARG_MEM, 0, 2}, {KEL_RT_ARG_VAL, 0, 4}};
    KelRtContext context = {};
    context.args = args;
    context.num_args = 6;
    context.target = KEL_RT_TARGET_CPU;
    for (uint32_t i = 0; i < n; ++i)
        if (kelRt_executeContext(&instance, &context) != NNA_STATUS_OK)
            std::abort();
}

struct Row {
    const char *name, *unit;
    void (*run)(Buffers& x, uint32_t n);
};

#define ON_BUFFERS(...) [](Buffers& x, uint32_t n) { __VA_ARGS__; }
#define A x.a.data()
#define B x.b.data()
#define C x.c.data()
#define D x.d.data()
#define OUT x.out.data()

const Row kRows[] = {
    {"kelRt_expf", "element", ON_BUFFERS(kelRt_expf(A, OUT, n))},
    {"kelRt_sigmoidf", "element", ON_BUFFERS(kelRt_sigmoidf(A, OUT, n))},
    {"kelRt_tanhf", "element", ON_BUFFERS(kelRt_tanhf(A, OUT, n))},
    {"kelRt_sumf", "element", ON_BUFFERS(kelRt_sumf(A, OUT, n))},
    {"kelRt_variancef", "element", ON_BUFFERS(kelRt_variancef(A, 0.1f, OUT, n))},
    {"kelRt_minMaxf", "element", ON_BUFFERS(kelRt_minMaxf(A, OUT, OUT + 1, n))},
    {"kelRt_normf", "element", ON_BUFFERS(kelRt_normf(A, B, C, 0.1f, 1.7f, OUT, n))},
    {"kelRt_scalef", "element", ON_BUFFERS(kelRt_scalef(A, OUT, 0.7f, n))},
    {"kelRt_mulf", "element", ON_BUFFERS(kelRt_mulf(A, B, OUT, n))},
    {"kelRt_addf", "element", ON_BUFFERS(kelRt_addf(A, B, OUT, n))},
    {"kelRt_complementf", "element", ON_BUFFERS(kelRt_complementf(A, OUT, n))},
    {"kelRt_dotproductf", "element", ON_BUFFERS(kelRt_dotproductf(A, B, C, D, OUT, n))},
    {"batchMulf", "element", ON_BUFFERS(batchMulf(A, B, OUT, n))},
    {"batchDotproductf", "element", ON_BUFFERS(batchDotproductf(A, B, C, D, OUT, n))},
    {"kelRt_scaleI8toF", "element", ON_BUFFERS(kelRt_scaleI8toF(x.i8.data(), OUT, 0.7f, n))},
    {"kelRt_scaleI16toF", "element", ON_BUFFERS(kelRt_scaleI16toF(x.i16.data(), OUT, 0.7f, n))},
    {"kelRt_scaleI32toF", "element", ON_BUFFERS(kelRt_scaleI32toF(x.i32.data(), OUT, 0.7f, n))},
    {"kelRt_scaleFtoI8", "element", ON_BUFFERS(kelRt_scaleFtoI8(A, x.i8.data(), 50.0f, n))},
    {"softmax", "element", ON_BUFFERS(kelRt_softMax(OUT, A, n, nullptr))},
    {"LSTM states", "unit", ON_BUFFERS(kelRt_lstmStates(OUT, B, A, n))},
    {"LSTM states with activations", "unit", ON_BUFFERS(kelRt_lstmStatesActivation(OUT, B, A, n))},
    {"LSTM states with activations and norm", "unit",
     ON_BUFFERS(kelRt_lstmStatesCifgActivationNorm(OUT, B, A, n, 0, 1, 1e-5f, C, D, C, D, 1, 1, 1, 1))},
    {"layer norm", "element", ON_BUFFERS(kelRt_lstmLayerNorm(OUT, A, n, B, C, 1e-5f))},
    {"instance norm", "element", ON_BUFFERS(kelRt_instanceNorm(OUT, A, n, 0.7f, 0.3f, nullptr))},
    {"feature norm", "element", ON_BUFFERS(kelRt_featurenorm(A, n, B, C, 64, OUT))},
    {"add", "element", ON_BUFFERS(kelRt_ewopAdd(OUT, A, B, n, nullptr))},
    {"matmul, 16 columns", "multiply-add", ON_BUFFERS(matmul(x, n, 8, 16))},
    {"matmul, 8 columns", "multiply-add", ON_BUFFERS(matmul(x, n, 8, 8))},
    {"matmul, 4 columns", "multiply-add", ON_BUFFERS(matmul(x, n, 8, 4))},
    {"matmul, 1 column", "multiply-add", ON_BUFFERS(matmul(x, n, 8, 1))},
    {"matmul, 1 row", "multiply-add", ON_BUFFERS(matmul(x, n, 1, 64))},
    {"transposition, 32 columns", "element", ON_BUFFERS(transpose(A, 32, static_cast<int32_t>(n / 32)))},
    {"hw32 to linear, lines of 64", "element",
     ON_BUFFERS(kelRt_hw32FmtConvParam(reinterpret_cast<uint8_t*>(OUT), reinterpret_cast<uint8_t*>(A), n, 0,
                                       64, nullptr))},
    {"linear to hw32, lines of 64", "element",
     ON_BUFFERS(kelRt_hw32FmtConvParam(reinterpret_cast<uint8_t*>(OUT), reinterpret_cast<uint8_t*>(A), n, 1,
                                       64, nullptr))},
    {"dispatch of an add of 4 floats", "call", dispatch},
};

}  // namespace

int main(int argc, char** argv) {
    if (argc == 1) {
        for (const Row& row : kRows)
            std::printf("%s\t%s\n", row.name, row.unit);
        return 0;
    }
    static Buffers buffers;
    for (const Row& row : kRows) {
        if (argc == 3 && std::strcmp(argv[1], row.name) == 0) {
            const auto n = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
            if (n < 1 || n > kMost)
                break;
            g_log_lvl = 3;
            row.run(buffers, n);
            return 0;
        }
    }
    std::fprintf(stderr, "usage: kelrt_arm_work [NAME UNITS], of a listed name, up to %u units\n", kMost);
    return 1;
}
