// Matrix multiply with optional in-place transposition of the operands, and the matrix toolkit that shares
// both. c[i][j] is the sum over k of a[i][k] * b[k][j]: each product is rounded, then added to a
// single-precision sum in increasing k, which decides the last bit. How many sums grow side by side does not.
#include <algorithm>
#include <cstring>

#include "element.h"
#include "instruction_sets.h"
#include "log.h"
#include "matmul_neon.h"
#include "matmul_tiles.h"
#include "transpose.h"

namespace kelrt::KELRT_SET {

namespace {

// Tiles go down panels of b, and of a as many rows and columns as the nearer caches hold beside a panel.
// Between blocks of k the sums rest in c.
constexpr size_t kPanel = 16 << 10;
constexpr size_t kHeight = 256 / kRows * kRows;

// The first `cols` columns, a number of whole panels.
template <const auto& tiles>
[[gnu::noinline]] void multiply_panels(f32* c, size_t c_stride, Matrix a, Matrix b, size_t rows, size_t inner,
                                       size_t cols) {
    constexpr size_t width = widest(tiles).width, most_depth = kPanel / sizeof(float) / width;
    alignas(64) float panel[kPanel / sizeof(float)];
    // Rows of b that lie far apart drive each other out of the cache; put together, 256 x 256 x 256 takes
    // 0.86 of the time.
    const bool packs = rows >= 4 * kRows && b.stride >= 128;
    for (size_t i = 0; i < rows; i += kHeight) {
        for (size_t k = 0; k == 0 || k < inner; k += most_depth) {
            const size_t height = std::min(kHeight, rows - i), depth = std::min(most_depth, inner - k);
            for (size_t j = 0; j < cols; j += width) {
                Matrix right = b.from(k, j);
                if (packs) {
                    for (size_t row = 0; row < depth; ++row)
                        std::memcpy(panel + row * width, right.from(row, 0).data, width * sizeof(float));
                    right = {panel, width};
                }
                add_panel(widest(tiles), c + i * c_stride + j, c_stride, a.from(i, k), right, height, depth,
                          k == 0);
            }
        }
    }
}

template <const auto& tiles>
void multiply_by_tiles(f32* c, Matrix a, Matrix b, size_t rows, size_t inner, size_t cols) {
    const size_t in_panels = cols - cols % widest(tiles).width;
    if (in_panels != 0)
        multiply_panels<tiles>(c, cols, a, b, rows, inner, in_panels);
    // The columns left over, if need be together with some that are ready, which get the same sums again.
    for (size_t j = in_panels; j < cols;) {
        const Tiles& fitting = tiles_for(tiles, cols - j, cols);
        j = std::min(j, cols - fitting.width);
        add_panel(fitting, c + j, cols, a, b.from(0, j), rows, inner, true);
        j += fitting.width;
    }
}

// c += a row of `count` elements by as many rows of b. The first time c is not read.
template <size_t count>
void add_row(f32* c, const f32* a, Matrix b, size_t cols, bool first) {
    using V = SumVector<kLanes>;
    float factors[count];
    for (size_t k = 0; k < count; ++k)
        factors[k] = a[k];
    const auto add = [&]<typename T>(T zero, size_t j) {
        T sum = first ? zero : load_elements<T>(c + j);
        for (size_t k = 0; k < count; ++k)
            sum = sum + factors[k] * load_elements<T>(b.data + k * b.stride + j);
        store_elements(c + j, sum);
    };
    size_t j = 0;
    for (; j + kLanes <= cols; j += kLanes)
        add(V{}, j);
    for (; j < cols; ++j)
        add(0.0f, j);
}

// A row by a matrix, which is read along its rows, eight at a time.
void multiply_row(f32* c, const f32* a, Matrix b, size_t inner, size_t cols) {
    if (inner == 0)
        std::memset(c, 0, cols * sizeof(float));
    size_t k = 0;
    for (; k + 8 <= inner; k += 8)
        add_row<8>(c, a + k, b.from(k, 0), cols, k == 0);
    for (; k < inner; ++k)
        add_row<1>(c, a + k, b.from(k, 0), cols, k == 0);
}

#if defined(KELRT_VECTOR_SUMS)
// n * groups rows by a column: each row has a lane. Products are made along the rows, then turned.
template <int groups, int n>
[[gnu::flatten]] void multiply_rows_by_column(f32* c, Matrix a, const f32* b, size_t inner) {
    using V = SumVector<n>;
    V sums[groups];
    each<groups>([&](auto g) { sums[g] = V{}; });
    size_t k = 0;
    for (; k + 4 <= inner; k += 4) {
        const V factors = load_row<n>(b + k, 0);
        each<groups>([&](auto g) {
            V products[4];
            each<4>(
                [&](auto i) { products[i] = load_row<n>(a.from(g * n + i, k).data, a.stride) * factors; });
            turn(products);
            each<4>([&](auto i) { sums[g] += products[i]; });
        });
    }
    each<groups>([&](auto g) { store_elements(c + g * n, sums[g]); });
    for (; k < inner; ++k)
        for (size_t i = 0; i < groups * n; ++i)
            c[i] += *a.from(i, k).data * b[k];
}

// Several vectors of sums, so that one need not wait for another. But rows a multiple of 4 KiB apart get into
// each other's way in the cache, which has room for eight: then 1024 x 1024 takes 0.6 of the time with so
// few.
constexpr size_t kFewRows = 8, kManyRows = std::max(16, 2 * kLanes);

// Of at least kFewRows.
void multiply_column(f32* c, Matrix a, const f32* b, size_t rows, size_t inner) {
    constexpr int few_lanes = std::min<int>(kLanes, kFewRows);
    size_t i = 0;
    if (a.stride % 1024 != 0)
        for (; i + kManyRows <= rows; i += kManyRows)
            multiply_rows_by_column<kManyRows / kLanes, kLanes>(c + i, a.from(i, 0), b, inner);
    for (; i < rows; i += kFewRows) {
        i = std::min(i, rows - kFewRows);  // the last ones together with some that are ready
        multiply_rows_by_column<kFewRows / few_lanes, few_lanes>(c + i, a.from(i, 0), b, inner);
    }
}
#endif

void multiply_plainly(f32* c, Matrix a, Matrix b, size_t rows, size_t inner, size_t cols) {
    for (size_t i = 0; i < rows; ++i) {
        for (size_t j = 0; j < cols; ++j) {
            float sum = 0.0f;
            for (size_t k = 0; k < inner; ++k)
                sum += *a.from(i, k).data * *b.from(k, j).data;
            c[i * cols + j] = sum;
        }
    }
}

// Whether c, without gaps, meets any of the rows of m.
bool overlap(const f32* c, size_t results, Matrix m, size_t rows, size_t cols) {
    const auto start = reinterpret_cast<uintptr_t>(c), other = reinterpret_cast<uintptr_t>(m.data);
    return rows != 0 && start < other + ((rows - 1) * m.stride + cols) * sizeof(float) &&
           other < start + results * sizeof(float);
}

void multiply(f32* c, Matrix a, Matrix b, size_t rows, size_t inner, size_t cols) {
    if (rows == 0 || cols == 0)
        return;
    // A result that overlaps an operand changes what later sums read. Then the order of the results counts
    // too, and it is the plain one.
    if (overlap(c, rows * cols, a, rows, inner) || overlap(c, rows * cols, b, inner, cols))
        return multiply_plainly(c, a, b, rows, inner, cols);
    if (rows == 1)
        return multiply_row(c, a.data, b, inner, cols);
#if defined(KELRT_VECTOR_SUMS)
    if (cols == 1 && b.stride == 1 && rows >= kFewRows)
        return multiply_column(c, a, b.data, rows, inner);
#endif
#if defined(KELRT_NEON_SUMS)
    if (neon_multiplies_exactly(a, b, rows, inner, cols))
        return multiply_by_tiles<kNeonTiles>(c, a, b, rows, inner, cols);
#endif
    multiply_by_tiles<kTiles>(c, a, b, rows, inner, cols);
}

size_t count(int32_t dimension) {
    return dimension > 0 ? static_cast<size_t>(dimension) : 0;
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

    const size_t rows = count(transA ? aCols : aRows);
    const size_t inner = count(transA ? aRows : aCols);
    const size_t cols = count(transB ? bRows : bCols);
    multiply(c, {a, inner}, {b, cols}, rows, inner, cols);
    return NNA_STATUS_OK;
}

void m_multiply(const KelRtMatrix* c, const KelRtMatrix* a, const KelRtMatrix* b) {
    multiply(c->data, {a->data, a->cols}, {b->data, b->cols}, c->rows, a->cols, c->cols);
}

void transpose(float* data, int32_t newRows, int32_t newCols) {
    transpose_in_place(data, newCols, newRows);
}

}  // namespace kelrt::KELRT_SET
