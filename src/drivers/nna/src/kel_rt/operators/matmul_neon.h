// Whether 32-bit Arm's NEON unit may multiply two matrices. It flushes subnormals and rounds to nearest,
// while sums keep them and follow the caller's mode. But nothing is flushed where no operand is subnormal and
// every product that is not zero is at least 2^-103: rounded to 24 bits it is a multiple of 2^-126, and so is
// every sum of such, which then is zero or normal. Sums overflow alike, and infinities make the same NaN; but
// a NaN among the operands would become another one.
#pragma once

#include "matmul_tiles.h"

#if defined(KELRT_NEON_SUMS)

namespace kelrt {
namespace {

inline bool rounds_to_nearest() {
    uint32_t mode;
    asm volatile("vmrs %0, fpscr" : "=r"(mode));
    return (mode >> 22 & 3) == 0;
}

// The extremes of a matrix in magnitude: bits without the sign.
struct Magnitudes {
    const uint32x4_t one = vdupq_n_u32(1);
    uint32x4_t least_less_one = vdupq_n_u32(UINT32_MAX);  // which makes zero the greatest
    uint32x4_t greatest = vdupq_n_u32(0);

    template <int vectors>
    void look_at(const f32* from) {
        uint32x4_t bits[vectors];
        each<vectors>(
            [&](auto v) { bits[v] = vreinterpretq_u32_f32(load_elements<float32x4_t>(from + 4 * v)); });
        each<vectors>([&](auto v) { bits[v] = vshlq_n_u32(bits[v], 1); });
        each<vectors>([&](auto v) { greatest = vmaxq_u32(greatest, bits[v]); });
        each<vectors>([&](auto v) { bits[v] = vsubq_u32(bits[v], one); });
        each<vectors>([&](auto v) { least_less_one = vminq_u32(least_less_one, bits[v]); });
    }

    // The least biased exponent but those of zeros, 255 if all are; 0 also if something is NaN.
    uint32_t least_exponent() const {
        const uint32x4_t least = vqaddq_u32(least_less_one, one);
        uint32_t exponent = 255;
        for (int lane = 0; lane < 4; ++lane)
            exponent = std::min(exponent, greatest[lane] > 0xFF000000u ? 0 : least[lane] >> 24);
        return exponent;
    }
};

// Of rows of at least four elements, or a matrix of at least four without gaps between the rows.
inline uint32_t least_exponent(Matrix m, size_t rows, size_t cols) {
    if (m.stride == cols) {
        cols *= rows;
        rows = 1;
    }
    Magnitudes magnitudes;
    for (size_t i = 0; i < rows; ++i) {
        size_t j = 0;
        for (; j + 16 <= cols; j += 16)
            magnitudes.look_at<4>(m.from(i, j).data);
        for (; j + 4 <= cols; j += 4)
            magnitudes.look_at<1>(m.from(i, j).data);
        magnitudes.look_at<1>(m.from(i, cols - 4).data);  // the rest, behind some that were seen
    }
    return magnitudes.least_exponent();
}

// On a Cortex-A9 the scan of two matrices 8 high and 8 wide costs 0.3 cycles a multiply-add and saves 1.1.
inline bool neon_multiplies_exactly(Matrix a, Matrix b, size_t rows, size_t inner, size_t cols) {
    if (rows < 4 || inner < 1 || cols < 4 || !rounds_to_nearest())
        return false;
    const uint32_t of_a = least_exponent(a, rows, inner), of_b = least_exponent(b, inner, cols);
    return of_a >= 1 && of_b >= 1 && of_a + of_b >= 2 * 127 - 103;
}

}  // namespace
}  // namespace kelrt

#endif
