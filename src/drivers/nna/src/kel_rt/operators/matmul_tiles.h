// The inner loop of matrix multiplication: tiles of the result, whose sums stay in registers while products
// are added. One text for every width of vector and every height.
#pragma once

#include <iterator>

#include "matrix_lanes.h"
#include "scalars.h"

namespace kelrt {
namespace {

struct Matrix {
    const f32* data;
    size_t stride;

    Matrix from(size_t row, size_t col) const { return {data + row * stride + col, stride}; }
};

// A sum keeps subnormals and follows the caller's rounding mode, as scalar arithmetic does. On most
// processors a vector does so too; on 32-bit Arm it has to be several scalars; elsewhere it is one float.
#if defined(__SSE2__) || defined(__aarch64__)
#define KELRT_VECTOR_SUMS
template <int n>
using SumVector = FloatVector<n>;
constexpr int kLanes = kWidest;
#elif defined(KELRT_SCALARS)
template <int n>
using SumVector = Scalars<n>;
constexpr int kLanes = kScalars;

template <int n>
struct Anywhere<Scalars<n>> {
    static Scalars<n> load(const void* p) { return Scalars<n>::load(p); }
    static void store(void* p, Scalars<n> v) { v.store(p); }
};
#else
template <int n>
using SumVector = float;
constexpr int kLanes = 1;
#endif

// kCount elements of a row of a, each of which whole vectors are multiplied by.
template <typename V>
struct Factors {
    static constexpr int kCount = 1;
    float factor;

    static Factors load(const f32* from) { return {*from}; }
    static Factors of(float value) { return {value}; }
    template <int>
    V add_product(V sum, V across) const {
        return sum + factor * across;
    }
};

#if defined(KELRT_SCALARS)
// As scalars: 1.4 modelled cycles of a Cortex-A9 a multiply-add; one by one, 1.8.
template <>
struct Factors<float> {
    static constexpr int kCount = 2;
    Scalars<kCount> factors;

    static Factors load(const f32* from) { return {Scalars<kCount>::load(from)}; }
    static Factors of(float value) { return {value}; }
    template <int i>
    float add_product(float sum, float across) const {
        return sum + factors.v[i] * across;
    }
};

// In the NEON unit, for which see matmul_neon.h: 0.3 cycles. Its multiply-accumulate rounds twice, and takes
// one factor out of a register.
#define KELRT_NEON_SUMS
template <>
struct Factors<float32x4_t> {
    static constexpr int kCount = 4;
    float32x4_t factors;

    static Factors load(const f32* from) { return {load_elements<float32x4_t>(from)}; }
    static Factors of(float value) { return {vdupq_n_f32(value)}; }
    template <int i>
    float32x4_t add_product(float32x4_t sum, float32x4_t across) const {
        const float32x2_t half = i < 2 ? vget_low_f32(factors) : vget_high_f32(factors);
        return vmlaq_lane_f32(sum, across, half, i % 2);
    }
};
#endif

// c[i][j] += the sum over k of a[i][k] * b[k][j], for `rows` rows and `vectors` vectors V of columns. The
// first time c is not read.
template <int rows, int vectors, typename V>
[[gnu::flatten]] void add_products(f32* c, size_t c_stride, Matrix a, Matrix b, size_t depth, bool first) {
    constexpr size_t lanes = kLanesOf<V>, count = Factors<V>::kCount;
    V sums[rows][vectors];
    each<rows>([&](auto i) {
        each<vectors>(
            [&](auto v) { sums[i][v] = first ? V{} : load_elements<V>(c + i * c_stride + v * lanes); });
    });
    const auto add = [&](const Factors<V>(&factors)[rows], auto k, const f32* row) {
        V across[vectors];
        each<vectors>([&](auto v) { across[v] = load_elements<V>(row + v * lanes); });
        each<rows>([&](auto i) {
            each<vectors>(
                [&](auto v) { sums[i][v] = factors[i].template add_product<k>(sums[i][v], across[v]); });
        });
    };
    size_t k = 0;
    for (; k + count <= depth; k += count) {
        Factors<V> factors[rows];
        each<rows>([&](auto i) { factors[i] = Factors<V>::load(a.from(i, k).data); });
        each<count>([&](auto n) { add(factors, n, b.from(k + n, 0).data); });
    }
    if constexpr (count > 1) {
        for (; k < depth; ++k) {
            Factors<V> factors[rows];
            each<rows>([&](auto i) { factors[i] = Factors<V>::of(*a.from(i, k).data); });
            add(factors, std::integral_constant<int, 0>(), b.from(k, 0).data);
        }
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
using TileVector = SumVector<kLanes>;
#elif defined(KELRT_VECTOR_SUMS)
constexpr int kRows = 6, kVectors = 2;
using TileVector = SumVector<kLanes>;
#else
constexpr int kRows = 4, kVectors = 4;
using TileVector = float;
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

// Of all widths, the narrowest first.
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
    kTilesOf<kVectors, TileVector>,
};
#if defined(KELRT_NEON_SUMS)
constexpr Tiles kNeonTiles[] = {kTilesOf<1, float32x4_t>, kTilesOf<2, float32x4_t>};
#endif

template <size_t n>
constexpr const Tiles& widest(const Tiles (&tiles)[n]) {
    return tiles[n - 1];
}

// The narrowest that cover `columns`, or else the widest, of those that fit into a row of `most`.
template <size_t n>
const Tiles& tiles_for(const Tiles (&all)[n], size_t columns, size_t most) {
    const Tiles* tiles = all;
    while (tiles->width < columns && tiles != &widest(all) && tiles[1].width <= most)
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
