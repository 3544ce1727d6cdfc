// oneDNN's primitives, created once and executed on one thread.
#include <omp.h>
#include <dnnl.hpp>

#include "peers.h"

namespace bench {
namespace {

using dnnl::memory;
using Tag = memory::format_tag;
using Type = memory::data_type;
using Dims = memory::dims;

struct Cpu {
    dnnl::engine engine{dnnl::engine::kind::cpu, 0};
    dnnl::stream stream{engine};
};
Cpu& cpu() {
    static Cpu one;
    return one;
}

memory::desc vector(memory::dim n, Type type = Type::f32) {
    return {Dims{n}, type, Tag::a};
}

memory over(const memory::desc& desc, const void* data) {
    return {desc, cpu().engine, const_cast<void*>(data)};
}

Work execute(const dnnl::primitive& primitive, std::unordered_map<int, memory> arguments) {
    struct Call {
        dnnl::primitive primitive;
        std::unordered_map<int, memory> arguments;
    };
    const auto call = std::make_shared<Call>(Call{primitive, std::move(arguments)});
    return repeat([call] { call->primitive.execute(cpu().stream, call->arguments); });
}

Work eltwise(const Problem& p, dnnl::algorithm algorithm, float alpha = 0, float beta = 0) {
    const memory::desc desc = vector(static_cast<memory::dim>(p.shape.n));
    const dnnl::eltwise_forward::desc what(dnnl::prop_kind::forward_inference, algorithm, desc, alpha, beta);
    return execute(dnnl::eltwise_forward({what, cpu().engine}),
                   {{DNNL_ARG_SRC, over(desc, p.a)}, {DNNL_ARG_DST, over(desc, p.out)}});
}

Work binary(const Problem& p, dnnl::algorithm algorithm) {
    const memory::desc desc = vector(static_cast<memory::dim>(p.shape.n));
    return execute(dnnl::binary({{algorithm, desc, desc, desc}, cpu().engine}),
                   {{DNNL_ARG_SRC_0, over(desc, p.a)},
                    {DNNL_ARG_SRC_1, over(desc, p.b)},
                    {DNNL_ARG_DST, over(desc, p.out)}});
}

Work softmax(const Problem& p) {
    const memory::desc desc({1, static_cast<memory::dim>(p.shape.n)}, Type::f32, Tag::ab);
    return execute(dnnl::softmax_forward({{dnnl::prop_kind::forward_inference, desc, 1}, cpu().engine}),
                   {{DNNL_ARG_SRC, over(desc, p.a)}, {DNNL_ARG_DST, over(desc, p.out)}});
}

Work reduction(const Problem& p, dnnl::algorithm algorithm, float* to) {
    const memory::desc from = vector(static_cast<memory::dim>(p.shape.n)), one = vector(1);
    return execute(dnnl::reduction({{algorithm, from, one, 0.0f, 0.0f}, cpu().engine}),
                   {{DNNL_ARG_SRC, over(from, p.a)}, {DNNL_ARG_DST, over(one, to)}});
}

Work layer_norm(const Problem& p) {
    const auto n = static_cast<memory::dim>(p.shape.n);
    const memory::desc desc({1, n}, Type::f32, Tag::ab);
    using dnnl::normalization_flags;
    const dnnl::layer_normalization_forward::desc what(
        dnnl::prop_kind::forward_inference, desc, kEpsilon,
        normalization_flags::use_scale | normalization_flags::use_shift);
    return execute(dnnl::layer_normalization_forward({what, cpu().engine}),
                   {{DNNL_ARG_SRC, over(desc, p.a)},
                    {DNNL_ARG_DST, over(desc, p.out)},
                    {DNNL_ARG_SCALE, over(vector(n), p.b)},
                    {DNNL_ARG_SHIFT, over(vector(n), p.c)}});
}

Work convert(const memory::desc& from, const void* source, const memory::desc& to, void* target,
             float scale) {
    dnnl::primitive_attr attributes;
    attributes.set_output_scales(0, {scale});
    return execute(dnnl::reorder({cpu().engine, from, cpu().engine, to, attributes}),
                   {{DNNL_ARG_FROM, over(from, source)}, {DNNL_ARG_TO, over(to, target)}});
}

// The planes of every line are the last dimension but one, or the last.
Work hw32(const Problem& p, bool to_linear) {
    const Dims dims = {static_cast<memory::dim>(p.shape.rows), 4, static_cast<memory::dim>(p.shape.cols)};
    const memory::desc planes(dims, Type::u8, Tag::abc), linear(dims, Type::u8, Tag::acb);
    return to_linear ? convert(planes, p.integers, linear, p.bytes, 1)
                     : convert(linear, p.integers, planes, p.bytes, 1);
}

Work matmul(const Problem& p) {
    const auto m = static_cast<memory::dim>(p.shape.rows), k = static_cast<memory::dim>(p.shape.inner),
               n = static_cast<memory::dim>(p.shape.cols);
    const bool ta = p.shape.transposed_a, tb = p.shape.transposed_b;
    return repeat([=, a = p.a, b = p.b, out = p.out] {
        dnnl::sgemm(ta ? 'T' : 'N', tb ? 'T' : 'N', m, n, k, 1, a, ta ? m : k, b, tb ? k : n, 0, out, n);
    });
}

// Into another place and back.
Work transpose(const Problem& p) {
    const Dims dims = {static_cast<memory::dim>(p.shape.rows), static_cast<memory::dim>(p.shape.cols)};
    const memory::desc as_stored(dims, Type::f32, Tag::ab), turned(dims, Type::f32, Tag::ba);
    const auto copy = std::make_shared<std::vector<float>>(p.shape.rows * p.shape.cols);
    const Work there = convert(as_stored, p.out, turned, copy->data(), 1);
    return repeat([=, out = p.out] {
        there(1);
        std::copy(copy->begin(), copy->end(), out);
    });
}

}  // namespace

Work onednn(const Problem& p) {
    omp_set_num_threads(1);
    const auto n = static_cast<memory::dim>(p.shape.n);
    using dnnl::algorithm;
    switch (p.op) {
        case Op::dispatch:
        case Op::operator_add:
        case Op::add:
            return binary(p, algorithm::binary_add);
        case Op::sub:
            return binary(p, algorithm::binary_sub);
        case Op::mul:
            return binary(p, algorithm::binary_mul);
        case Op::scale:
            return eltwise(p, algorithm::eltwise_linear, kScale);
        case Op::complement:
            return eltwise(p, algorithm::eltwise_linear, -1, 1);
        case Op::exp:
            return eltwise(p, algorithm::eltwise_exp);
        case Op::sigmoid:
            return eltwise(p, algorithm::eltwise_logistic);
        case Op::tanh:
            return eltwise(p, algorithm::eltwise_tanh);
        case Op::softmax:
            return softmax(p);
        case Op::sum:
            return reduction(p, algorithm::reduction_sum, p.out);
        case Op::min_max:
            return repeat([least = reduction(p, algorithm::reduction_min, p.out),
                           largest = reduction(p, algorithm::reduction_max, p.out + 1)] {
                least(1);
                largest(1);
            });
        case Op::layer_norm:
            return layer_norm(p);
        case Op::i8_to_float:
            return convert(vector(n, Type::s8), p.integers, vector(n), p.out, kScale);
        case Op::i32_to_float:
            return convert(vector(n, Type::s32), p.integers, vector(n), p.out, kScale);
        case Op::float_to_i8:
            return convert(vector(n), p.a, vector(n, Type::s8), p.bytes, kToBytes);
        case Op::matmul:
            return matmul(p);
        case Op::transpose:
            return transpose(p);
        case Op::hw32_to_linear:
            return hw32(p, true);
        case Op::linear_to_hw32:
            return hw32(p, false);
        case Op::split:
            return convert(vector(n), p.a, vector(n), p.out, 1);
        default:
            return {};
    }
}

}  // namespace bench
