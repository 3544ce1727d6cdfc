// The inner loop of matrix multiplication: tiles of the result, whose sums stay in registers while products
// are added. One text for every width of vector and every height.
#pragma once

#include <iterator>

#include "matrix_lanes.h"

namespace kelrt {
namespace {

struct Matrix {
    const f32* data;
    size_t stride;

    Matrix from(size_t row, size_t col) const { return {data + row * stride + col, stride}; }
};

// A sum keeps subnormals and follows the caller's rounding mode, as scalar arithmetic does. On these
// processors a vector does so too; elsewhere a vector is one float.
#if defined(__SSE2__) || defined(__aarch64__)
#define KELRT_VECTOR_SUMS
template <int n>
using SumVector = FloatVector<n>;
constexpr int kLanes = kWidest;
#else
template <int n>
using SumVector = float;
constexpr int kLanes = 1;
#endif

// c[i][j] += the sum over k of a[i][k] * b[k][j], for `rows` rows and `vectors` vectors V of columns. The
// first time c is not read.
template <int rows, int vectors, typename V>
[[gnu::flatten]] void add_products(f32* c, size_t c_stride, Matrix a, Matrix b, size_t depth, bool first) {
    constexpr size_t lanes = kLanesOf<V>;
    V sums[rows][vectors];
    each<rows>([&](auto i) {
        each<vectors>(
            [&](auto v) { sums[i][v] = first ? V{} : load_elements<V>(c + i * c_stride + v * lanes); });
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
    decltype(&add_products<1, 1, float>) add;
};

// The tiles of one width, the highest first.
struct Tiles {
    size_t width;
    Tile tile[4];
};

// Two vectors of sums in each row, and four vectors more, fill the registers. Single floats: a square needs
// the fewest loads.
#if defined(__AVX512F__) || defined(__aarch64__)
constexpr int kRows = 12, kVectors = 2;
#elif defined(KELRT_VECTOR_SUMS)
constexpr int kRows = 6, kVectors = 2;
#else
constexpr int kRows = 4, kVectors = 4;
#endif

// Of one vector eight rows keep the adders busy (8 x 8 x 8: 0.9 of the time).
template <int vectors, typename V>
constexpr int kRowsOf = vectors == 1 && kLanesOf<V> > 1 ? 8 : kRows;

template <int vectors, typename V>
constexpr Tiles kTilesOf = {vectors* kLanesOf<V>,
                            {{kRowsOf<vectors, V>, add_products<kRowsOf<vectors, V>, vectors, V>},
                             {4, add_products<4, vectors, V>},
                             {2, add_products<2, vectors, V>},
                             {1, add_products<1, vectors, V>}}};

constexpr Tiles kTiles[] = {
    kTilesOf<1, float>,
#if defined(KELRT_VECTOR_SUMS)
    kTilesOf<1, SumVector<4>>,
#endif
#if defined(__AVX2__)
    kTilesOf<1, SumVector<8>>,
#endif
#if defined(__AVX512F__)
    kTilesOf<1, SumVector<16>>,
#endif
    kTilesOf<kVectors, SumVector<kLanes>>,
};
constexpr const Tiles& kWidestTiles = kTiles[std::size(kTiles) - 1];

// The narrowest tiles that cover `columns`, or else the widest, of those that fit into a row of `most`.
inline const Tiles& tiles_for(size_t columns, size_t most) {
    const Tiles* tiles = kTiles;
    while (tiles->width < columns && tiles != &kWidestTiles && tiles[1].width <= most)
        ++tiles;
    return *tiles;
}

// All rows of a result as wide as the tiles.
inline void add_panel(const Tiles& tiles, f32* c, size_t c_stride, Matrix a, Matrix b, size_t rows,
                      size_t depth, bool first) {
    size_t i = 0;
    for (const auto& [height, add] : tiles.tile)
        for (; rows - i >= height; i += height)
            add(c + i * c_stride, c_stride, a.from(i, 0), b, depth, first);
}

}  // namespace
}  // namespace kelrt
