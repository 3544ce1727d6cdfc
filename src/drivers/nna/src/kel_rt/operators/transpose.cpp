// In-place transposition: through a scratch copy where the heap has room for one, by cycles where it has not.
#include "transpose.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "element.h"
#include "matrix_lanes.h"

namespace kelrt::KELRT_SET {
namespace {

// Elements are moved by squares, transposed in registers. Wider ones would not come faster from the cache.
constexpr int kSquare = std::min(kWidest, 8);

template <int n>
[[gnu::always_inline]] inline void move_square(f32* to, size_t to_stride, const f32* from, size_t stride) {
    FloatVector<n> columns[n / 4][4];
    each<n / 4>([&](auto q) {
        each<4>([&](auto i) { columns[q][i] = load_row<n>(from + i * stride + 4 * q, stride); });
        turn(columns[q]);
    });
    each<n>([&](auto i) { store_elements(to + i * to_stride, columns[i / 4][i % 4]); });
}

// Copies rows x cols elements of `from` into cols x rows of `to`. Squares at the far edges overlap others.
template <int n = kSquare>
[[gnu::always_inline]] inline void transpose_into(f32* to, size_t to_stride, const f32* from, size_t stride,
                                                  size_t rows, size_t cols) {
    if constexpr (n < 4) {
        for (size_t row = 0; row < rows; ++row)
            for (size_t col = 0; col < cols; ++col)
                to[col * to_stride + row] = from[row * stride + col];
    } else if (rows < n || cols < n) {
        transpose_into<n / 2>(to, to_stride, from, stride, rows, cols);
    } else {
        for (size_t row = 0; row < rows; row += n) {
            row = std::min(row, rows - n);
            for (size_t col = 0; col < cols; col += n) {
                col = std::min(col, cols - n);
                move_square<n>(to + col * to_stride + row, to_stride, from + row * stride + col, stride);
            }
        }
    }
}

// Calls of memcpy for rows as short as these would take longer than the rest (64 x 64).
[[gnu::always_inline]] inline void copy_row(f32* to, const f32* from, size_t count) {
    constexpr size_t n = kSquare;
    if (count < n) {
        for (size_t i = 0; i < count; ++i)
            to[i] = from[i];
    } else {
        for (size_t i = 0; i < count; i += n) {
            i = std::min(i, count - n);
            store_elements(to + i, load_elements<FloatVector<kSquare>>(from + i));
        }
    }
}

// Columns whose every cache line is filled while it is near: 1024 x 4096 takes 0.6 of the time that 16 need.
constexpr size_t kBand = 64;

// Beyond this a device is better off slow than out of memory.
constexpr size_t kMostCopied = 64u << 20;

// Runs 8 (1024 x 4096) to 170 (3 x 1333333) times as fast as the cycles, for once more the memory. False when
// there is none.
bool transpose_through_copy(f32* data, uint32_t rows, uint32_t cols) {
    const size_t bytes = static_cast<size_t>(rows) * cols * sizeof(float);
    auto* const copy = bytes <= kMostCopied ? static_cast<float*>(std::malloc(bytes)) : nullptr;
    if (!copy)
        return false;
    for (size_t left = 0; left < cols; left += kBand)
        transpose_into(copy + left * rows, rows, data + left, cols, rows,
                       std::min<size_t>(kBand, cols - left));
    std::memcpy(data, copy, bytes);
    std::free(copy);
    return true;
}

// Side of the blocks that change places across the diagonal. One of the two goes through a copy on the stack,
// so that whole cache lines are read, then whole ones written: 64 x 64 and 1024 x 1024 take 0.7 of the time
// of swapped squares.
constexpr size_t kBlock = 32;

template <typename Count>
void swap_blocks(f32* data, size_t n, size_t top, size_t left, Count height, Count width) {
    alignas(64) float block[kBlock * kBlock];
    f32 *const upper = data + top * n + left, *const lower = data + left * n + top;
    transpose_into(block, kBlock, upper, n, height, width);
    if (left != top)
        transpose_into(upper, n, lower, n, width, height);
    for (size_t row = 0; row < width; ++row)
        copy_row(lower + row * n, block + row * kBlock, height);
}

void transpose_by_blocks(f32* data, size_t n) {
    constexpr std::integral_constant<size_t, kBlock> whole;  // a known size: 64 x 64 takes 0.6 of the time
    for (size_t top = 0; top < n; top += kBlock) {
        for (size_t left = top; left < n; left += kBlock) {
            const size_t height = std::min(kBlock, n - top), width = std::min(kBlock, n - left);
            if (height == kBlock && width == kBlock)
                swap_blocks(data, n, top, left, whole, whole);
            else
                swap_blocks(data, n, top, left, height, width);
        }
    }
}

}  // namespace

void transpose_in_place(float* data, int32_t rows, int32_t cols) {
    // A product of two negative dimensions is positive and yet names no element. One that overflows 31 bits
    // names more elements than a 32-bit machine can hold.
    const int64_t total = static_cast<int64_t>(rows) * cols;
    if (rows < 1 || cols < 1 || total > INT32_MAX)
        return;
    if (rows == 1 || cols == 1)
        return;  // the same memory image
    const auto height = static_cast<uint32_t>(rows), width = static_cast<uint32_t>(cols);
    if (height == width)
        transpose_by_blocks(data, height);
    else if (!transpose_through_copy(data, height, width))
        transpose_by_cycles(data, height, width);
}

}  // namespace kelrt::KELRT_SET
