// libxsmm: products of small matrices by code made for their size, and transpositions. Its matrices are
// stored by columns, so a product is asked for with the operands exchanged.
#include <libxsmm.h>

#include <cstring>

#include "peers.h"

namespace bench {
namespace {

constexpr size_t kLargest = 128;  // beyond, the library hands over to a BLAS

// Operands that are stored transposed are turned first; the kernels take them as they should be.
Work matmul(const Problem& p) {
    const Shape& s = p.shape;
    if (s.rows > kLargest || s.inner > kLargest || s.cols > kLargest)
        return {};
    const auto m = static_cast<int>(s.rows), k = static_cast<int>(s.inner), n = static_cast<int>(s.cols);
    const float one = 1, zero = 0;
    const int flags = LIBXSMM_GEMM_FLAG_NONE;
    const auto multiply = libxsmm_smmdispatch(n, m, k, &n, &k, &n, &one, &zero, &flags, nullptr);
    if (!multiply)
        return {};
    struct Turned {
        std::vector<float> a, b;
    };
    const auto turned = std::make_shared<Turned>(
        Turned{std::vector<float>(s.rows * s.inner), std::vector<float>(s.inner * s.cols)});
    return repeat([=, a = p.a, b = p.b, out = p.out, ta = s.transposed_a, tb = s.transposed_b] {
        if (ta)
            libxsmm_otrans(turned->a.data(), a, sizeof(float), m, k, m, k);
        if (tb)
            libxsmm_otrans(turned->b.data(), b, sizeof(float), k, n, k, n);
        multiply(tb ? turned->b.data() : b, ta ? turned->a.data() : a, out);
    });
}

Work transpose(const Problem& p) {
    const auto rows = static_cast<int>(p.shape.rows), cols = static_cast<int>(p.shape.cols);
    float* const out = p.out;
    if (rows == cols)
        return repeat([=] { libxsmm_itrans(out, sizeof(float), cols, rows, cols); });
    return repeat([=, copy = std::make_shared<std::vector<float>>(p.shape.rows * p.shape.cols)] {
        libxsmm_otrans(copy->data(), out, sizeof(float), cols, rows, cols, rows);
        std::memcpy(out, copy->data(), copy->size() * sizeof(float));
    });
}

Work hw32(const Problem& p, bool to_linear) {
    const auto lines = p.shape.rows, length = p.shape.cols;
    const int four = 4, line = static_cast<int>(length);
    return repeat([=, in = static_cast<const uint8_t*>(p.integers), out = p.bytes] {
        for (size_t at = 0; at < lines * length * 4; at += length * 4)
            if (to_linear)
                libxsmm_otrans(out + at, in + at, 1, line, four, line, four);
            else
                libxsmm_otrans(out + at, in + at, 1, four, line, four, line);
    });
}

}  // namespace

Work libxsmm(const Problem& p) {
    static const bool ready = (libxsmm_init(), true);
    if (!ready)
        return {};
    switch (p.op) {
        case Op::matmul:
            return matmul(p);
        case Op::transpose:
            return transpose(p);
        case Op::hw32_to_linear:
            return hw32(p, true);
        case Op::linear_to_hw32:
            return hw32(p, false);
        case Op::split:
            return repeat([=, a = p.a, out = p.out, n = static_cast<int>(p.shape.n)] {
                libxsmm_matcopy(out, a, sizeof(float), n, 1, n, n);
            });
        default:
            return {};
    }
}

}  // namespace bench
