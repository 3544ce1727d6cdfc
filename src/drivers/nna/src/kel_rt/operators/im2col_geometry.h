// The geometry of an im2col: how many patches, and how many bytes they take and make. The kernel never
// touches more, and the command line asks a job's memories for as much: one formula for both.
#pragma once

#include <cstdint>

namespace kelrt {
namespace {

struct Im2colGeometry {
    uint32_t rows, cols, channels, kernel_height, kernel_width, row_stride, col_stride;

    // 32 bits that wrap decide how often a kernel fits: not at all where it is one larger than the input, at
    // stride 1, and some 2^32 times where it is larger still.
    uint32_t out_height() const { return positions(rows, kernel_height, row_stride); }
    uint32_t out_width() const { return positions(cols, kernel_width, col_stride); }

    // From the start of the input to the last byte that a patch takes.
    uint64_t input_bytes() const {
        if (is_empty())
            return 0;
        // Products of two 32-bit numbers, and a third on top, hold in 64 bits.
        const uint64_t last_row = uint64_t{out_height() - 1} * row_stride + kernel_height - 1;
        const uint64_t last_col = uint64_t{out_width() - 1} * col_stride + kernel_width - 1;
        return product(sum(product(last_row, cols), last_col + 1), channels);
    }

    // All patches, each with its padding.
    uint64_t output_bytes() const {
        if (is_empty())
            return 0;
        const uint64_t patch = product(uint64_t{kernel_height} * kernel_width, channels);
        return product(uint64_t{out_height()} * out_width(), sum(patch, 7) / 8 * 8);
    }

  private:
    bool is_empty() const {
        return channels == 0 || kernel_height == 0 || kernel_width == 0 || out_height() == 0 ||
               out_width() == 0;
    }

    // A stride of 0 divides nothing.
    static uint32_t positions(uint32_t size, uint32_t kernel, uint32_t stride) {
        return (stride == 0 ? 0 : (size - kernel) / stride) + 1;
    }

    // Held at the largest number instead of wrapping.
    static uint64_t product(uint64_t a, uint64_t b) {
        uint64_t result = 0;
        return __builtin_mul_overflow(a, b, &result) ? UINT64_MAX : result;
    }
    static uint64_t sum(uint64_t a, uint64_t b) {
        uint64_t result = 0;
        return __builtin_add_overflow(a, b, &result) ? UINT64_MAX : result;
    }
};

}  // namespace
}  // namespace kelrt
