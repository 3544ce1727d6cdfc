// XNNPACK's operators, set up once and run without a pool of threads.
#include <xnnpack.h>

#include <cmath>
#include <cstdlib>

#include "peers.h"

namespace bench {
namespace {

using Operator = std::shared_ptr<xnn_operator>;

void check(xnn_status status) {
    if (status != xnn_status_success)
        std::abort();
}

// create(&op), then set_up(op).
template <class Create, class SetUp>
Work run(Create create, SetUp set_up) {
    static const xnn_status ready = xnn_initialize(nullptr);
    check(ready);
    xnn_operator_t op = nullptr;
    check(create(&op));
    const Operator owned(op, xnn_delete_operator);
    check(set_up(op));
    return repeat([owned] { xnn_run_operator(owned.get(), nullptr); });
}

// An operation on two vectors, either of which may be one number.
template <class Create, class SetUp>
Work binary(Create create, SetUp set_up, const Problem& p, const float* a, size_t a_count, const float* b,
            size_t b_count) {
    return run(
        [=](xnn_operator_t* op) { return create(-INFINITY, INFINITY, 0, op); },
        [=, &p](xnn_operator_t op) { return set_up(op, 1, &a_count, 1, &b_count, a, b, p.out, nullptr); });
}

// An operation on one vector.
template <class Create, class SetUp, class From, class To>
Work unary(Create create, SetUp set_up, size_t n, const From* from, To* to) {
    return run([=](xnn_operator_t* op) { return create(n, n, n, 0, op); },
               [=](xnn_operator_t op) { return set_up(op, 1, from, to, nullptr); });
}

}  // namespace

Work xnnpack(const Problem& p) {
    const size_t n = p.shape.n;
    static const float scale = kScale, one = 1;
    switch (p.op) {
        case Op::dispatch:
        case Op::operator_add:
        case Op::add:
            return binary(xnn_create_add_nd_f32, xnn_setup_add_nd_f32, p, p.a, n, p.b, n);
        case Op::sub:
            return binary(xnn_create_subtract_nd_f32, xnn_setup_subtract_nd_f32, p, p.a, n, p.b, n);
        case Op::mul:
            return binary(xnn_create_multiply_nd_f32, xnn_setup_multiply_nd_f32, p, p.a, n, p.b, n);
        case Op::scale:
            return binary(xnn_create_multiply_nd_f32, xnn_setup_multiply_nd_f32, p, p.a, n, &scale, 1);
        case Op::complement:
            return binary(xnn_create_subtract_nd_f32, xnn_setup_subtract_nd_f32, p, &one, 1, p.a, n);
        case Op::sigmoid:
            return unary(xnn_create_sigmoid_nc_f32, xnn_setup_sigmoid_nc_f32, n, p.a, p.out);
        case Op::softmax:
            return unary(xnn_create_softmax_nc_f32, xnn_setup_softmax_nc_f32, n, p.a, p.out);
        case Op::split:
            return unary(xnn_create_copy_nc_x32, xnn_setup_copy_nc_x32, n, p.a, p.out);
        case Op::i8_to_float:
            return run(
                [=](xnn_operator_t* op) { return xnn_create_convert_nc_qs8_f32(n, n, n, kScale, 0, 0, op); },
                [&](xnn_operator_t op) {
                    return xnn_setup_convert_nc_qs8_f32(op, 1, static_cast<const int8_t*>(p.integers), p.out,
                                                        nullptr);
                });
        case Op::float_to_i8:
            return run(
                [=](xnn_operator_t* op) {
                    return xnn_create_convert_nc_f32_qs8(n, n, n, 1 / kToBytes, 0, -128, 127, 0, op);
                },
                [&](xnn_operator_t op) {
                    return xnn_setup_convert_nc_f32_qs8(op, 1, p.a, p.bytes, nullptr);
                });
        default:
            return {};
    }
}

}  // namespace bench
