// im2col: gathers the receptive field under every output position into a patch of bytes, so that a
// convolution becomes a matrix multiplication. Each patch is padded with zeros to a multiple of 8 bytes.
//
// A row of a receptive field is one run of kernelWidth * channels contiguous bytes. Long runs are copied one
// by one. Short ones are put together in registers: loaded so that its bytes come to lie where the block of
// the patch wants them, each run gives its part, and the block is stored once. Everything goes byte by byte
// when input and output overlap, where the order of the bytes would show.
#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "im2col_geometry.h"
#include "instruction_sets.h"
#include "log.h"
#include "wide.h"

namespace kelrt::KELRT_SET {

namespace {

struct Patch {
    uint32_t rows, row_bytes;  // of the receptive field
    uint32_t input_row_bytes;
    uint32_t bytes, pad;

    size_t padded() const { return size_t{bytes} + pad; }
};

void copy_by_bytes(const Patch& patch, uint8_t* dst, const uint8_t* input, uint32_t start) {
    for (uint32_t ky = 0; ky < patch.rows; ++ky, start += patch.input_row_bytes)
        for (uint32_t i = 0; i < patch.row_bytes; ++i)
            *dst++ = input[start + i];
    std::memset(dst, 0, patch.pad);
}

// In both classes below, copy() makes `count` patches side by side from receptive fields `step` bytes apart.

class LongRows {
  public:
    explicit LongRows(const Patch& patch) : patch_(patch) {}

    static constexpr size_t kLeast = 2 * kWide;

    void copy(uint8_t* output, const uint8_t* input, size_t step, size_t count) const {
        const Patch patch = patch_;  // a store of bytes might change members
        for (; count > 0; --count, output += patch.padded(), input += step) {
            for (size_t ky = 0; ky < patch.rows; ++ky)
                copy_row(output + ky * patch.row_bytes, input + ky * patch.input_row_bytes, patch.row_bytes);
            std::memset(output + patch.bytes, 0, patch.pad);
        }
    }

  private:
    static void copy_row(uint8_t* to, const uint8_t* from, size_t n) {
        for_wide_blocks(
            n, [=]<size_t size>(size_t at) { store_bytes<size>(to + at, load_bytes<size>(from + at)); });
    }

    Patch patch_;
};

// 0xFF from byte `at` on.
template <size_t size>
Bytes<size> ones_from(size_t at) {
    static constexpr auto kTable = [] {
        struct {
            uint8_t bytes[2 * size] = {};
        } table;
        for (size_t i = size; i < 2 * size; ++i)
            table.bytes[i] = 0xFF;
        return table;
    }();
    return load_bytes<size>(kTable.bytes + size - at);
}

// All blocks of a patch lie within it, the last one on top of the one before. What loads touch beyond the
// rows lies between the first and the last row, but for `pad` bytes.
template <size_t size>
class ShortRows {
  public:
    static bool serves(const Patch& patch) {
        const size_t rows = std::min<size_t>(patch.rows, (size + patch.row_bytes - 2) / patch.row_bytes + 1);
        return size <= patch.padded() && patch.padded() <= kMostBlocks * size && rows <= kMostRows;
    }

    explicit ShortRows(const Patch& patch)
        : padded_(patch.padded()), row_step_(patch.input_row_bytes - patch.row_bytes) {
        const size_t length = patch.row_bytes;
        for (size_t at = 0; at < padded_; at += size) {
            at = std::min(at, padded_ - size);
            const size_t end = std::min<size_t>(at + size, patch.bytes), first = at / length,
                         last = (end - 1) / length;
            Block& block = blocks_[count_++];
            block.at = at;
            block.from = at + first * row_step_;
            block.store = kStores[last - first];
            for (size_t row = first; row <= last; ++row)
                block.masks[row - first] = ones_from<size>(std::max(at, row * length) - at) &
                                           ~ones_from<size>(std::min(end, (row + 1) * length) - at);
        }
    }

    // Block by block of so many patches that the first cache holds them, as a block's masks then stay in
    // registers.
    void copy(uint8_t* output, const uint8_t* input, size_t step, size_t count) const {
        const size_t at_once = std::max<size_t>(8, 8192 / padded_);
        for (; count > 0;
             count -= std::min(count, at_once), output += at_once * padded_, input += at_once * step)
            for (size_t i = 0; i < count_; ++i)
                (this->*blocks_[i].store)(blocks_[i], output, input, step, std::min(count, at_once));
    }

  private:
    static constexpr size_t kMostRows = 8, kMostBlocks = 32;

    // A block that takes its bytes from some rows. Rows continue each other in a patch: there, the one is
    // row_step_ behind the other.
    struct Block {
        size_t at, from;
        void (ShortRows::*store)(const Block&, uint8_t*, const uint8_t*, size_t, size_t) const;
        Bytes<size> masks[kMostRows];
    };

    template <size_t rows>
    void store(const Block& block, uint8_t* output, const uint8_t* input, size_t step, size_t count) const {
        Bytes<size> masks[rows];
        for (size_t r = 0; r < rows; ++r)
            masks[r] = block.masks[r];
        output += block.at, input += block.from;
        const size_t padded = padded_, row_step = row_step_;  // a store of bytes might change members
        for (; count > 0; --count, output += padded, input += step) {
            Bytes<size> bytes = load_bytes<size>(input) & masks[0];
            for (size_t r = 1; r < rows; ++r)
                bytes |= load_bytes<size>(input + r * row_step) & masks[r];
            store_bytes<size>(output, bytes);
        }
    }
    static constexpr auto kStores = []<size_t... i>(std::index_sequence<i...>) {
        return std::array{&ShortRows::store<i + 1>...};
    }
    (std::make_index_sequence<kMostRows>());

    size_t padded_, row_step_, count_ = 0;
    Block blocks_[kMostBlocks];
};

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

// Calls f with what copies such patches best.
template <size_t size = kWide, class Function>
void with_copier(const Patch& patch, Function f) {
    if (patch.row_bytes < LongRows::kLeast && patch.input_row_bytes >= patch.row_bytes) {
        if (ShortRows<size>::serves(patch))
            return f(ShortRows<size>(patch));
        if constexpr (size > 8)
            return with_copier<size / 2>(patch, f);
    }
    f(LongRows(patch));
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
    const auto copy_with = [&](const auto& copier) {
        // Where, from its start, what a patch may be copied from ends. The last ones go byte by byte.
        const uint64_t in_reach =
            uint64_t{patch.rows - 1} * patch.input_row_bytes + patch.row_bytes + patch.pad;
        const uint32_t step = colStride * channels;
        size_t written = 0;
        for (uint32_t oy = 0; oy < out_height; ++oy) {
            const uint32_t start = oy * rowStride * cols * channels;
            const uint32_t roomy = std::min(within(start + in_reach, step, in_room, out_width),
                                            within(written + padded, padded, out_room, out_width));
            copier.copy(output + written, input + start, step, roomy);
            for (uint32_t ox = roomy; ox < out_width; ++ox)
                copy_by_bytes(patch, output + written + size_t{ox} * padded, input, start + ox * step);
            written += size_t{out_width} * padded;
        }
    };
    with_copier(patch, copy_with);
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
