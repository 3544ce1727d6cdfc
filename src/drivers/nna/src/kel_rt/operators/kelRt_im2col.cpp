// im2col: gathers the receptive field under every output position into a patch of bytes, so that a
// convolution becomes a matrix multiplication. Each patch is padded with zeros to a multiple of 8 bytes.
//
// A row of a receptive field is one run of kernelWidth * channels contiguous bytes, often a short one. Where
// both sides have room behind it, a run is moved in whole 16-byte blocks: the excess lands where the next
// run, the padding or the next patch is written right after. The patches at the very end go byte by byte, and
// so does everything when input and output overlap, where the order of the bytes would show.
#include <algorithm>
#include <cstring>

#include "im2col_geometry.h"
#include "instruction_sets.h"
#include "log.h"

#if defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace kelrt::KELRT_SET {

namespace {

constexpr uint32_t kBlock = 16;

void move_block(uint8_t* dst, const uint8_t* src) {
#if defined(__ARM_NEON)
    vst1q_u8(dst, vld1q_u8(src));  // g++ makes four words of the memcpy
#else
    std::memcpy(dst, src, kBlock);
#endif
}

struct Patch {
    uint32_t rows, row_bytes;  // of the receptive field
    uint32_t input_row_bytes;
    uint32_t bytes, pad;
};

// Patches side by side, with receptive fields `step` bytes apart. Each is written with up to kBlock bytes
// behind it, each of its rows read with up to kBlock - 1. The number of blocks in a row is a constant where
// it is small, else 0.
template <uint32_t kBlocksInRow>
void copy_by_blocks(const Patch patch, uint8_t* output, const uint8_t* input, uint32_t step, uint32_t count) {
    const uint32_t blocks = kBlocksInRow ? kBlocksInRow : (patch.row_bytes + kBlock - 1) / kBlock;
    for (; count > 0; --count, output += patch.bytes + patch.pad, input += step) {
        for (size_t ky = 0; ky < patch.rows; ++ky)
            for (uint32_t i = 0; i < blocks; ++i)
                move_block(output + ky * patch.row_bytes + i * kBlock,
                           input + ky * patch.input_row_bytes + i * kBlock);
        std::memset(output + patch.bytes, 0, kBlock);  // padding
    }
}

using CopyByBlocks = void (*)(Patch, uint8_t*, const uint8_t*, uint32_t, uint32_t);

CopyByBlocks copy_for(uint32_t row_bytes) {
    switch ((row_bytes + kBlock - 1) / kBlock) {
        case 1:
            return copy_by_blocks<1>;
        case 2:
            return copy_by_blocks<2>;
        case 3:
            return copy_by_blocks<3>;
        case 4:
            return copy_by_blocks<4>;
        default:
            return copy_by_blocks<0>;
    }
}

void copy_by_bytes(const Patch& patch, uint8_t* dst, const uint8_t* input, uint32_t start) {
    for (uint32_t ky = 0; ky < patch.rows; ++ky, start += patch.input_row_bytes)
        for (uint32_t i = 0; i < patch.row_bytes; ++i)
            *dst++ = input[start + i];
    std::memset(dst, 0, patch.pad);
}

// The bytes that blocks may touch, of those that patches take or make: none when 31 bits do not hold them.
uint32_t room_of(uint64_t bytes) {
    return bytes > INT32_MAX ? 0 : static_cast<uint32_t>(bytes);
}

bool overlap(const uint8_t* a, uint32_t a_bytes, const uint8_t* b, uint32_t b_bytes) {
    const auto x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
    return x < y ? y - x < a_bytes : x - y < b_bytes;
}

// How many of `count` reaches, the first one and then `step` apart, end within `room`.
uint32_t within(uint64_t first, uint32_t step, uint32_t room, uint32_t count) {
    if (first > room)
        return 0;
    return step == 0 ? count : std::min(count, (room - static_cast<uint32_t>(first)) / step + 1);
}

}  // namespace

uint32_t kelRt_im2col(const uint8_t* input, uint8_t* output, uint32_t rows, uint32_t cols, uint32_t channels,
                      uint32_t kernelHeight, uint32_t kernelWidth, uint32_t filters, uint32_t rowStride,
                      uint32_t colStride) {
    if (!input || !output) {
        KEL_LOG_ERR("Bad Address Input %p Output %p", static_cast<const void*>(input),
                    static_cast<const void*>(output));
        return NNA_STATUS_NULL_POINTER;
    }
    const uint32_t patch_bytes = kernelHeight * channels * kernelWidth;
    // The division is signed: lengths from 2^31 - 7 on would pad by more than 7.
    const uint32_t padded = static_cast<uint32_t>(static_cast<int32_t>(patch_bytes + 7) / 8) * 8;
    const Patch patch = {kernelHeight, kernelWidth * channels, cols * channels, patch_bytes,
                         padded - patch_bytes};
    const kelrt::Im2colGeometry geometry = {rows,        cols,      channels, kernelHeight,
                                            kernelWidth, rowStride, colStride};
    const uint32_t out_height = geometry.out_height(), out_width = geometry.out_width();
    // Both records, their blanks and missing line ends included, are what log readers match.
    KEL_LOG_DEBUG_OPEN_LINE(
        "Input rows = %d Input cols = %d Input Channels = %d                     Kernel height = %d "
        "Kernel Width = %d Filters = %d Row stride = %d                     Col Stride = %d",
        rows, cols, channels, kernelHeight, kernelWidth, filters, rowStride, colStride);
    KEL_LOG_DEBUG_OPEN_LINE("Output height = %d Output width = %d Pad = %d", out_height, out_width,
                            patch.pad);
    if (patch.rows == 0 || patch.row_bytes == 0 || out_width == 0)
        return NNA_STATUS_OK;

    // No more of the input than the patches need: a map may end with its last receptive field.
    uint32_t in_room = room_of(geometry.input_bytes()), out_room = room_of(geometry.output_bytes());
    if (overlap(input, in_room, output, out_room))
        in_room = out_room = 0;
    // Where, from its start, the blocks of a patch end.
    const uint64_t in_reach = uint64_t{patch.rows - 1} * patch.input_row_bytes + patch.row_bytes + kBlock - 1;
    const uint64_t out_reach = uint64_t{patch_bytes} + kBlock;

    const CopyByBlocks copy = copy_for(patch.row_bytes);
    const uint32_t step = colStride * channels;

    size_t written = 0;
    for (uint32_t oy = 0; oy < out_height; ++oy) {
        const uint32_t start = oy * rowStride * cols * channels;
        const uint32_t roomy = std::min(within(start + in_reach, step, in_room, out_width),
                                        within(written + out_reach, padded, out_room, out_width));
        copy(patch, output + written, input + start, step, roomy);
        for (uint32_t ox = roomy; ox < out_width; ++ox)
            copy_by_bytes(patch, output + written + size_t{ox} * padded, input, start + ox * step);
        written += size_t{out_width} * padded;
    }
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
