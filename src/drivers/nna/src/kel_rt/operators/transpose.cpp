// In-place transposition by cycles, without memory of its own.
//
// Destination k takes the element at src(k) = k / rows + (k mod rows) * cols. That permutation falls into
// cycles; each is rotated once, when the walk over the start indices meets its smallest member. Whether a
// start is the smallest is found by following its cycle until it comes to an index that is not larger.
//
// Cost: one load and store an element, plus the walks. A walk from s ends about T / s steps on, as the
// permutation (multiplication by cols modulo T - 1) scatters well, so they add up to about T ln T steps for T
// elements: 9 to 13 T for 1024 x 4096, measured by the transposition benchmark. The worst case is quadratic,
// and no shape is known that comes near it. A step divides by `rows` with one widening multiplication, since
// 32-bit cores divide slowly or not at all.
#include "transpose.h"

#include <utility>

#include "element.h"

namespace kelrt {
namespace {

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

void transpose_square(f32* data, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        for (uint32_t j = i + 1; j < n; ++j) {
            const float upper = data[i * n + j];
            data[i * n + j] = data[j * n + i];
            data[j * n + i] = upper;
        }
    }
}

void transpose_by_cycles(f32* data, uint32_t rows, uint32_t cols) {
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

}  // namespace

void transpose_in_place(float* data, int32_t rows, int32_t cols) {
    // A product of two negative dimensions is positive and yet names no element. One that overflows 31 bits
    // names more elements than a 32-bit machine can hold.
    const int64_t total = static_cast<int64_t>(rows) * cols;
    if (rows < 1 || cols < 1 || total > INT32_MAX)
        return;
    if (rows == 1 || cols == 1)
        return;  // the same memory image
    if (rows == cols)
        transpose_square(data, static_cast<uint32_t>(rows));
    else
        transpose_by_cycles(data, static_cast<uint32_t>(rows), static_cast<uint32_t>(cols));
}

}  // namespace kelrt
