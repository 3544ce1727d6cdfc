// In-place transposition: through a scratch copy where the heap has room for one, by cycles where it has not.
#include "transpose.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "element.h"

namespace kelrt {
namespace {

// Side of the tiles that a transposition goes by, so that both matrices are touched whole cache lines at a
// time.
constexpr uint32_t kTile = 16;

// Copies rows x cols of `from` into cols x rows of `to`, tile by tile.
void transpose_into(f32* to, const f32* from, uint32_t rows, uint32_t cols) {
    for (uint32_t top = 0; top < rows; top += kTile) {
        const uint32_t bottom = std::min(rows, top + kTile);
        for (uint32_t left = 0; left < cols; left += kTile) {
            const uint32_t right = std::min(cols, left + kTile);
            for (uint32_t col = left; col < right; ++col) {
                for (uint32_t row = top; row < bottom; ++row)
                    to[col * rows + row] = from[row * cols + col];
            }
        }
    }
}

// Beyond this a device is better off slow than out of memory.
constexpr size_t kMostCopied = 64u << 20;

// Runs 8 (1024 x 4096) to 170 (3 x 1333333) times as fast as the cycles, for once more the memory. False when
// there is none.
bool transpose_through_copy(f32* data, uint32_t rows, uint32_t cols) {
    const size_t bytes = static_cast<size_t>(rows) * cols * sizeof(float);
    auto* const copy = bytes <= kMostCopied ? static_cast<float*>(std::malloc(bytes)) : nullptr;
    if (!copy)
        return false;
    transpose_into(copy, data, rows, cols);
    std::memcpy(data, copy, bytes);
    std::free(copy);
    return true;
}

// k / divisor for every 32-bit k, by the rounded-up reciprocal.
class Divider {
  public:
    explicit Divider(uint32_t divisor) : reciprocal_(UINT64_MAX / divisor + 1) {}

    // The error of the reciprocal, below 1 in 2^64, times k stays below 1 / divisor, so the quotient is
    // exact. divisor 1 wraps the reciprocal to 0 and must not come here.
    uint32_t quotient(uint32_t k) const {
        const uint64_t high = (reciprocal_ >> 32) * k;
        const uint64_t low = (reciprocal_ & UINT32_MAX) * k;
        return static_cast<uint32_t>((high + (low >> 32)) >> 32);
    }

  private:
    uint64_t reciprocal_;
};

// Swaps each tile with its mirror image across the diagonal.
void transpose_square(f32* data, uint32_t n) {
    for (uint32_t top = 0; top < n; top += kTile) {
        for (uint32_t left = top; left < n; left += kTile) {
            for (uint32_t row = top; row < std::min(n, top + kTile); ++row) {
                for (uint32_t col = std::max(left, row + 1); col < std::min(n, left + kTile); ++col) {
                    const float upper = data[row * n + col];
                    data[row * n + col] = data[col * n + row];
                    data[col * n + row] = upper;
                }
            }
        }
    }
}

}  // namespace

// Destination k takes the element at src(k) = k / rows + (k mod rows) * cols. That permutation falls into
// cycles; each is rotated once, when the starts, taken in order, come to its smallest member. Whether a start
// is the smallest is found by following its cycle until it comes to an index that is not larger.
//
// Cost: a load and a store an element, and the walks. A walk from s takes about T / s steps, T being the
// number of elements, since the permutation, a multiplication by cols modulo T - 1, scatters; together some T
// ln T. The worst case is quadratic. A step divides with one widening multiplication, as 32-bit cores divide
// slowly or not at all.
void transpose_by_cycles(float* unaligned, uint32_t rows, uint32_t cols) {
    f32* const data = unaligned;
    const Divider by_rows(rows);
    const auto src = [&](uint32_t k) {
        const uint32_t quotient = by_rows.quotient(k);
        return quotient + (k - quotient * rows) * cols;
    };
    const uint32_t total = rows * cols;
    for (uint32_t start = 1; start + 1 < total; ++start) {  // the first and the last element stay
        uint32_t walk = src(start);
        while (walk > start)
            walk = src(walk);
        if (walk < start || src(start) == start)
            continue;  // rotated already, or a fixed point

        const float saved = data[start];
        uint32_t to = start;
        for (uint32_t from = src(to); from != start; to = from, from = src(from))
            data[to] = data[from];
        data[to] = saved;
    }
}

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
        transpose_square(data, height);
    else if (!transpose_through_copy(data, height, width))
        transpose_by_cycles(data, height, width);
}

}  // namespace kelrt
