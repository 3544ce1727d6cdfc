// Matrix multiply with optional in-place transposition of the operands, and the matrix toolkit that shares
// both. Everywhere c[i][j] is the sum over k of a[i][k] * b[k][j], where each product is rounded, then added to
// a single-precision sum in increasing k, which decides the last bit. How many sums run side by side is free.
#include <algorithm>
#include <utility>

#include "element.h"
#include "instruction_sets.h"
#include "log.h"
#include "matrix_lanes.h"
#include "transpose.h"

namespace kelrt::KELRT_SET {

namespace {

struct Matrix {
    const f32* data;
    size_t stride;

    Matrix from(size_t row, size_t col) const { return {data + row * stride + col, stride}; }
};

// Sums keep subnormals and follow the caller's rounding mode, as all scalar arithmetic does. So do vectors of these
// processors; elsewhere a vector is one float.
#if defined(__SSE2__) || defined(__aarch64__)
template <int n>
using Vector = FloatVector<n>;
constexpr int kLanes = kWidest;
#define KELRT_WIDE_SUMS
#else
template <int n>
using Vector = float;
constexpr int kLanes = 1;
#endif

// Products of a tile are added to rows x vectors sums, which stay in registers the while.
template <int rows, int vectors, typename V>
[[gnu::flatten]] void add_products(f32* c, size_t c_stride, Matrix a, Matrix b, size_t depth, bool first) {
    constexpr size_t lanes = kLanesOf<V>;
    V sums[rows][vectors];
    each<rows>([&](auto i) {
        each<vectors>([&](auto v) {
            sums[i][v] = first ? V{} : load_elements<V>(c + i * c_stride + v * lanes);
        });
    });
    for (size_t k = 0; k < depth; ++k) {
        V across[vectors];
        each<vectors>([&](auto v) { across[v] = load_elements<V>(b.data + k * b.stride + v * lanes); });
        each<rows>([&](auto i) {
            const float factor = a.data[i * a.stride + k];
            each<vectors>([&](auto v) { sums[i][v] += factor * across[v]; });
        });
    }
    each<rows>([&](auto i) {
        each<vectors>([&](auto v) { store_elements(c + i * c_stride + v * lanes, sums[i][v]); });
    });
}

struct Tile {
    size_t rows;
    void (*add)(f32*, size_t, Matrix, Matrix, size_t, bool);
};

// Tiles of one width.
constexpr int kHeights = 4;
struct Tiles {
    size_t width;
    Tile of_height[kHeights];
};

// Two vectors of sums for each row, and four more, fill the registers.
#if defined(__AVX512F__) || defined(__aarch64__)
constexpr int kRows = 12, kVectors = 2;
#elif defined(KELRT_WIDE_SUMS)
constexpr int kRows = 6, kVectors = 2;
#else
constexpr int kRows = 4, kVectors = 4;
#endif

template <int vectors, typename V>
constexpr Tiles kTilesOf = {vectors * kLanesOf<V>,
                            {{kRows, add_products<kRows, vectors, V>},
                             {4, add_products<4, vectors, V>},
                             {2, add_products<2, vectors, V>},
                             {1, add_products<1, vectors, V>}}};

constexpr Tiles kWide = kTilesOf<kVectors, Vector<kLanes>>;
constexpr Tiles kTiles[] = {kTilesOf<1, float>,
#if defined(KELRT_WIDE_SUMS)
                            kTilesOf<1, Vector<4>>,
#if defined(__AVX2__)
                            kTilesOf<1, Vector<8>>,
#endif
#if defined(__AVX512F__)
                            kTilesOf<1, Vector<16>>,
#endif
#endif
                            kWide};

// One column of tiles.
void add_panel(const Tiles& tiles, f32* c, size_t c_stride, Matrix a, Matrix b, size_t rows, size_t depth, bool first) {
    size_t i = 0;
    for (const Tile& tile : tiles.of_height)
        for (; rows - i >= tile.rows; i += tile.rows)
            tile.add(c + i * c_stride, c_stride, a.from(i, 0), b, depth, first);
}

constexpr size_t kPanel = 4096, kDepth = kPanel / kWide.width;
#ifndef PACK_ROWS
#define PACK_ROWS 24
#define PACK_COLS 128
#endif

void multiply_by_tiles(f32* c, Matrix a, Matrix b, size_t rows, size_t inner, size_t cols) {
    alignas(64) float panel[kPanel];
    const size_t in_panels = cols - cols % kWide.width;
    const bool packs = rows >= PACK_ROWS && b.stride >= PACK_COLS;
    for (size_t k = 0; (k == 0 || k < inner) && in_panels; k += kDepth) {
        const size_t depth = std::min(kDepth, inner - k);
        for (size_t j = 0; j < in_panels; j += kWide.width) {
            Matrix right = b.from(k, j);
            if (packs) {
                for (size_t r = 0; r < depth; ++r)
                    std::memcpy(panel + r * kWide.width, right.data + r * right.stride, kWide.width * sizeof(float));
                right = {panel, kWide.width};
            }
            add_panel(kWide, c + j, cols, a.from(0, k), right, rows, depth, k == 0);
        }
    }
    // The narrowest tile that covers the columns left, if need be together with some that are ready.
    for (size_t j = in_panels; j < cols;) {
        const Tiles* tiles = &kWide;
        for (const Tiles& candidate : kTiles) {
            if (candidate.width <= cols)
                tiles = &candidate;
            if (candidate.width >= cols - j)
                break;
        }
        j = std::min(j, cols - tiles->width);
        add_panel(*tiles, c + j, cols, a, b.from(0, j), rows, inner, true);
        j += tiles->width;
    }
}

// One row by a matrix: adds `count` products to every sum of the row, so that b is read along its rows.
template <size_t count>
void add_rows(f32* c, const f32* a, Matrix b, size_t cols, bool first) {
    using V = Vector<kLanes>;
    float factor[count];
    for (size_t k = 0; k < count; ++k)
        factor[k] = a[k];
    size_t j = 0;
    for (; j + kLanes <= cols; j += kLanes) {
        V sum = first ? V{} : load_elements<V>(c + j);
        for (size_t k = 0; k < count; ++k)
            sum += factor[k] * load_elements<V>(b.data + k * b.stride + j);
        store_elements(c + j, sum);
    }
    for (; j < cols; ++j) {
        float sum = first ? 0 : c[j];
        for (size_t k = 0; k < count; ++k)
            sum += factor[k] * b.data[k * b.stride + j];
        c[j] = sum;
    }
}

void multiply_row(f32* c, const f32* a, Matrix b, size_t inner, size_t cols) {
    constexpr size_t kAtOnce = 8;
    size_t k = 0;
    if (inner < kAtOnce)
        add_rows<0>(c, a, b, cols, true);
    for (; k + kAtOnce <= inner; k += kAtOnce)
        add_rows<kAtOnce>(c, a + k, b.from(k, 0), cols, k == 0);
    for (; k < inner; ++k)
        add_rows<1>(c, a + k, b.from(k, 0), cols, false);
}

#if defined(KELRT_WIDE_SUMS)
// A matrix by one column: a lane for each row. Products are made along the rows and turned.
template <int groups, int n>
[[gnu::flatten]] void add_along_rows(f32* c, Matrix a, const f32* b, size_t inner) {
    using V = Vector<n>;
    V sums[groups];
    each<groups>([&](auto g) { sums[g] = V{}; });
    size_t k = 0;
    for (; k + 4 <= inner; k += 4) {
        const V factors = load_row<n>(b + k, 0);
        each<groups>([&](auto g) {
            V products[4];
            each<4>([&](auto i) { products[i] = load_row<n>(a.data + (g * n + i) * a.stride + k, a.stride) * factors; });
            turn(products);
            each<4>([&](auto i) { sums[g] += products[i]; });
        });
    }
    each<groups>([&](auto g) { store_elements(c + g * n, sums[g]); });
    for (; k < inner; ++k)
        for (size_t i = 0; i < groups * n; ++i)
            c[i] += a.data[i * a.stride + k] * b[k];
}

void multiply_column(f32* c, Matrix a, const f32* b, size_t rows, size_t inner) {
    const auto by = [&]<int groups, int n>() { };
    (void)by;
    size_t i = 0;
    if (a.stride % 1024 != 0)
        for (; i + 2 * kLanes <= rows; i += 2 * kLanes)
            add_along_rows<2, kLanes>(c + i, a.from(i, 0), b, inner);
    constexpr size_t n = std::min(kLanes, 8);
    for (; i < rows; i += n) {
        i = std::min(i, rows - n);
        add_along_rows<1, n>(c + i, a.from(i, 0), b, inner);
    }
}
#endif

void multiply_plainly(f32* c, Matrix a, Matrix b, size_t rows, size_t inner, size_t cols) {
    for (size_t i = 0; i < rows; ++i) {
        for (size_t j = 0; j < cols; ++j) {
            float sum = 0.0f;
            for (size_t k = 0; k < inner; ++k)
                sum += a.data[i * a.stride + k] * b.data[k * b.stride + j];
            c[i * cols + j] = sum;
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
    const Matrix left = {a, inner}, right = {b, b_stride};
    const size_t results = static_cast<size_t>(rows) * cols;
    if (overlap(c, results, a, static_cast<size_t>(rows) * inner) ||
        overlap(c, results, b, static_cast<size_t>(inner) * b_stride))
        multiply_plainly(c, left, right, rows, inner, cols);
    else if (rows == 1)
        multiply_row(c, a, right, inner, cols);
#if defined(KELRT_WIDE_SUMS)
    else if (cols == 1 && b_stride == 1 && rows >= 8)
        multiply_column(c, left, b, rows, inner);
#endif
    else
        multiply_by_tiles(c, left, right, rows, inner, cols);
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
