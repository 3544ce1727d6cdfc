// OpenBLAS on one thread. Without its sum: that of Debian's 0.3.21 is wrong where the processor has AVX-512
// (from 16 elements on).
#include <cblas.h>

#include <cstring>

#include "peers.h"

namespace bench {
namespace {

Work matmul(const Problem& p) {
    const Shape s = p.shape;
    const auto m = static_cast<int>(s.rows), k = static_cast<int>(s.inner), n = static_cast<int>(s.cols);
    const float *a = p.a, *b = p.b;
    float* const out = p.out;
    if (n == 1)
        return repeat([=] { cblas_sgemv(CblasRowMajor, CblasNoTrans, m, k, 1, a, k, b, 1, 0, out, 1); });
    if (m == 1)
        return repeat([=] { cblas_sgemv(CblasRowMajor, CblasTrans, k, n, 1, b, n, a, 1, 0, out, 1); });
    const auto ta = s.transposed_a ? CblasTrans : CblasNoTrans,
               tb = s.transposed_b ? CblasTrans : CblasNoTrans;
    return repeat([=] {
        cblas_sgemm(CblasRowMajor, ta, tb, m, n, k, 1, a, s.transposed_a ? m : k, b, s.transposed_b ? k : n,
                    0, out, n);
    });
}

}  // namespace

Work openblas(const Problem& p) {
    openblas_set_num_threads(1);
    const auto n = static_cast<int>(p.shape.n);
    const float *a = p.a, *b = p.b;
    float* const out = p.out;
    switch (p.op) {
        case Op::matmul:
            return matmul(p);
        case Op::transpose:
            return repeat([=, rows = p.shape.rows, cols = p.shape.cols] {
                cblas_simatcopy(CblasRowMajor, CblasTrans, static_cast<int>(rows), static_cast<int>(cols), 1,
                                out, static_cast<int>(cols), static_cast<int>(rows));
            });
        case Op::scale:
            return repeat([=] { cblas_saxpby(n, kScale, a, 1, 0, out, 1); });
        case Op::operator_add:
        case Op::add:
            return repeat([=] {
                cblas_scopy(n, a, 1, out, 1);
                cblas_saxpy(n, 1, b, 1, out, 1);
            });
        case Op::split:
            return repeat([=] { cblas_scopy(n, a, 1, out, 1); });
        case Op::embedding:
            return repeat([=] { cblas_scopy(n, b + static_cast<int>(*a) * n, 1, out, 1); });
        default:
            return {};
    }
}

}  // namespace bench
