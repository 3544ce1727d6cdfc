// In-place transposition without any memory.
#include "element.h"
#include "transpose.h"

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

}  // namespace kelrt
