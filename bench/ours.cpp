#include "ours.h"

#include <cstdlib>
#include <memory>

#include "kelRt.h"
#include "nna_sim.h"

namespace bench {
namespace {

// A driver with three CPU buffers, and the context that adds two of them into the third: what a call costs
// beside the work itself.
class Driver {
  public:
    explicit Driver(const Problem& p)
        : sim_(nna_sim_create()),
          buffers_{{p.out, bytes(p)}, {p.a, bytes(p)}, {p.b, bytes(p)}},
          args_{{KEL_RT_ARG_VAL, 0, 4}, {KEL_RT_ARG_VAL, 0, 4}, {KEL_RT_ARG_MEM, 0, 0},
                {KEL_RT_ARG_MEM, 0, 1}, {KEL_RT_ARG_MEM, 0, 2}, {KEL_RT_ARG_VAL, 0, bytes(p) / 4}} {
        instance_.device = sim_;
        instance_.cpu_buffers = instance_.cpu_buffer_lookup = buffers_;
        context_.args = args_;
        context_.num_args = 6;
        context_.target = KEL_RT_TARGET_CPU;
    }
    Driver(const Driver&) = delete;
    ~Driver() { nna_sim_destroy(sim_); }

    void run() {
        if (kelRt_executeContext(&instance_, &context_) != NNA_STATUS_OK)
            std::abort();
    }

  private:
    static uint32_t bytes(const Problem& p) { return static_cast<uint32_t>(p.shape.n) * 4; }

    NnaSim* sim_;
    CpuBufferEntry buffers_[3];
    KelRtContextArg args_[6];
    KelRtInstance instance_ = {};
    KelRtContext context_ = {};
};

}  // namespace

Work ours(const Problem& p) {
    const auto n = static_cast<uint32_t>(p.shape.n);
    const auto rows = static_cast<uint32_t>(p.shape.rows), cols = static_cast<uint32_t>(p.shape.cols);
    const auto *a = p.a, *b = p.b, *c = p.c, *d = p.d;
    float* const out = p.out;
    const auto* bytes_in = static_cast<const uint8_t*>(p.integers);
    auto* bytes_out = reinterpret_cast<uint8_t*>(p.bytes);
    switch (p.op) {
        case Op::dispatch:
            return repeat([driver = std::make_shared<Driver>(p)] { driver->run(); });
        case Op::operator_add:
            return repeat([=] { kelRt_ewopAdd(out, a, b, n, nullptr); });
        case Op::add:
            return repeat([=] { kelRt_addf(a, b, out, n); });
        case Op::sub:
            return repeat([=] { kelRt_subf(a, b, out, n); });
        case Op::mul:
            return repeat([=] { kelRt_mulf(a, b, out, n); });
        case Op::scale:
            return repeat([=] { kelRt_scalef(a, out, kScale, n); });
        case Op::complement:
            return repeat([=] { kelRt_complementf(a, out, n); });
        case Op::dot_product:
            return repeat([=] { kelRt_dotproductf(a, b, c, d, out, n); });
        case Op::exp:
            return repeat([=] { kelRt_expf(a, out, n); });
        case Op::sigmoid:
            return repeat([=] { kelRt_sigmoidf(a, out, n); });
        case Op::tanh:
            return repeat([=] { kelRt_tanhf(a, out, n); });
        case Op::softmax:
            return repeat([=] { kelRt_softMax(out, a, n, nullptr); });
        case Op::sum:
            return repeat([=] { kelRt_sumf(a, out, n); });
        case Op::variance:
            return repeat([=] { kelRt_variancef(a, kMean, out, n); });
        case Op::layer_norm:
            return repeat([=] { kelRt_lstmLayerNorm(out, a, n, b, c, kEpsilon); });
        case Op::instance_norm:
            return repeat([=] { kelRt_instanceNorm(out, a, n, kScale, kBias, nullptr); });
        case Op::feature_norm:
            return repeat([=] { kelRt_featurenorm(a, n, b, c, kFrame, out); });
        case Op::min_max:
            return repeat([=] { kelRt_minMaxf(a, out, out + 1, n); });
        case Op::i8_to_float:
            return repeat(
                [=, in = static_cast<const int8_t*>(p.integers)] { kelRt_scaleI8toF(in, out, kScale, n); });
        case Op::i16_to_float:
            return repeat(
                [=, in = static_cast<const int16_t*>(p.integers)] { kelRt_scaleI16toF(in, out, kScale, n); });
        case Op::i32_to_float:
            return repeat(
                [=, in = static_cast<const int32_t*>(p.integers)] { kelRt_scaleI32toF(in, out, kScale, n); });
        case Op::float_to_i8:
            return repeat([=, to = p.bytes] { kelRt_scaleFtoI8(a, to, kToBytes, n); });
        case Op::copy_format:
            return repeat([=] {
                kelRt_copyFormatConv(bytes_out, 8, kToFraction, 1, bytes_in, 16, kFromFraction, 1, n, nullptr,
                                     nullptr);
            });
        case Op::lstm:
            return repeat([=, gates = p.a] { kelRt_lstmStates(out, out + n, gates, n); });
        case Op::lstm_activation:
            return repeat([=, gates = p.a] { kelRt_lstmStatesActivation(out, out + n, gates, n); });
        case Op::lstm_norm:
            return repeat([=, gates = p.a] {
                kelRt_lstmStatesCifgActivationNorm(out, out + n, gates, n, 0, 1, kEpsilon, b, c, b + 4 * n,
                                                   c + 4 * n, 1, 1, 1, 0);
            });
        case Op::matmul:
            return repeat([=, s = p.shape, a = p.a, b = p.b] {
                const auto inner = static_cast<int32_t>(s.inner), m = static_cast<int32_t>(s.rows),
                           w = static_cast<int32_t>(s.cols);
                const bool ta = s.transposed_a, tb = s.transposed_b;
                kelRt_matmul(a, b, out, ta ? inner : m, ta ? m : inner, tb ? w : inner, tb ? inner : w, ta,
                             tb);
            });
        case Op::transpose:
            return repeat([=] { transpose(out, static_cast<int32_t>(cols), static_cast<int32_t>(rows)); });
        case Op::hw32_to_linear:
        case Op::linear_to_hw32:
            return repeat([=, dir = p.op == Op::linear_to_hw32] {
                kelRt_hw32FmtConvParam(bytes_out, bytes_in, rows * cols, dir, cols, nullptr);
            });
        case Op::im2col:
            return repeat([=, channels = static_cast<uint32_t>(p.shape.channels),
                           kernel = static_cast<uint32_t>(p.shape.kernel)] {
                kelRt_im2col(bytes_in, bytes_out, rows, cols, channels, kernel, kernel, 1, 1, 1);
            });
        case Op::split:
            return repeat([=] { kelRt_split(a, out, n * 4); });
        case Op::embedding:
            return repeat([=] { kelRt_embedding(out, a, b, n, nullptr); });
        case Op::one_hot:
            return repeat([=] { kelRt_oneHot(out, a, n, 0x3F800000, 0, nullptr); });
    }
    std::abort();
}

}  // namespace bench
