// VOLK's kernels, of which it picks the best for the processor by itself. Its tanh is left out: errors of
// 8e-6, thirty times everybody else's, buy its speed.
#include <volk/volk.h>

#include "peers.h"

namespace bench {

Work volk(const Problem& p) {
    const auto n = static_cast<unsigned>(p.shape.n);
    const float *a = p.a, *b = p.b, *c = p.c, *d = p.d;
    float* const out = p.out;
    switch (p.op) {
        case Op::operator_add:
        case Op::add:
            return repeat([=] { volk_32f_x2_add_32f(out, a, b, n); });
        case Op::sub:
            return repeat([=] { volk_32f_x2_subtract_32f(out, a, b, n); });
        case Op::mul:
            return repeat([=] { volk_32f_x2_multiply_32f(out, a, b, n); });
        case Op::scale:
            return repeat([=] { volk_32f_s32f_multiply_32f(out, a, kScale, n); });
        case Op::dot_product:
            return repeat([=, product = std::make_shared<std::vector<float>>(n)] {
                volk_32f_x2_multiply_32f(product->data(), b, d, n);
                volk_32f_x2_multiply_32f(out, a, c, n);
                volk_32f_x2_add_32f(out, out, product->data(), n);
            });
        case Op::exp:
            return repeat([=] { volk_32f_exp_32f(out, a, n); });
        case Op::sum:
            return repeat([=] { volk_32f_accumulator_s32f(out, a, n); });
        case Op::min_max:
            return repeat([=] {
                uint32_t least, largest;
                volk_32f_index_min_32u(&least, const_cast<float*>(a), n);
                volk_32f_index_max_32u(&largest, const_cast<float*>(a), n);
                out[0] = a[least], out[1] = a[largest];
            });
        case Op::instance_norm:
            return repeat([=] {
                float deviation, mean;
                volk_32f_stddev_and_mean_32f_x2(&deviation, &mean, a, n);
                const float factor = kScale / deviation;
                volk_32f_s32f_multiply_32f(out, a, factor, n);
                volk_32f_s32f_add_32f(out, out, kBias - mean * factor, n);
            });
        // Their scale divides.
        case Op::i8_to_float:
            return repeat([=, in = static_cast<const int8_t*>(p.integers)] {
                volk_8i_s32f_convert_32f(out, in, 1 / kScale, n);
            });
        case Op::i16_to_float:
            return repeat([=, in = static_cast<const int16_t*>(p.integers)] {
                volk_16i_s32f_convert_32f(out, in, 1 / kScale, n);
            });
        case Op::i32_to_float:
            return repeat([=, in = static_cast<const int32_t*>(p.integers)] {
                volk_32i_s32f_convert_32f(out, in, 1 / kScale, n);
            });
        case Op::float_to_i8:
            return repeat([=, to = p.bytes] { volk_32f_s32f_convert_8i(to, a, kToBytes, n); });
        case Op::copy_format:
            return repeat([=, in = static_cast<const int16_t*>(p.integers), to = p.bytes,
                           values = std::make_shared<std::vector<float>>(n)] {
                volk_16i_s32f_convert_32f(values->data(), in, 1 / kFormatFactor, n);
                volk_32f_s32f_convert_8i(to, values->data(), 1, n);
            });
        default:
            return {};
    }
}

}  // namespace bench
