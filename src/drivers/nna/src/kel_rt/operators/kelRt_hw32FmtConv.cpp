// hw32 layout to linear layout and back: the conversion kernel of both operators, and the exported line
// converters. All of them run the same two shuffles.
#include "hw32_shuffle.h"
#include "instruction_sets.h"
#include "log.h"

namespace kelrt::KELRT_SET {

uint32_t kelRt_hw32FmtConvParam(uint8_t* output, const uint8_t* input, uint32_t size, uint32_t dir,
                                uint32_t nna_out_line_sz, uint32_t* out_bytes) {
    if (!output || !input) {
        KEL_LOG_ERR("Bad Address Input %p Output %p", static_cast<const void*>(input),
                    static_cast<const void*>(output));
        return NNA_STATUS_NULL_POINTER;
    }
    // Counts the elements that no whole line covers as well, although they are not converted.
    if (out_bytes)
        *out_bytes = size * 4;
    // A size below one line gives no lines: nothing is converted, and that is no error.
    const uint32_t num_store_chunks = nna_out_line_sz ? size / nna_out_line_sz : 0;
    KEL_LOG_DEBUG("kelRt_hw32FmtConvParam size=%u, num_store_chunks=%u, dir=%u, nna_out_line_sz=%u", size,
                  num_store_chunks, dir, nna_out_line_sz);
    if (dir == 0)
        hw32_to_linear(output, input, nna_out_line_sz, num_store_chunks);
    else
        convert_lin_hw(output, input, nna_out_line_sz, num_store_chunks);
    return NNA_STATUS_OK;
}

uint32_t kelRt_hw32FmtConv(uint8_t* output, const uint8_t* input, uint32_t size, uint32_t dir,
                           uint32_t* out_bytes) {
    constexpr uint32_t kDefaultLine = 8;
    return kelRt_hw32FmtConvParam(output, input, size, dir, kDefaultLine, out_bytes);
}

void convert_hw_lin(uint8_t* dst, const uint8_t* src, uint32_t L) {
    hw32_to_linear(dst, src, L, 1);
}

// One to eight independent lines. A line whose L is no multiple of 8 is converted exactly, without the
// overrun that the multiple-of-8 rule allows.

void convert_hw_lin_neon_1(uint8_t* dst, const uint8_t* src, uint32_t L) {
    hw32_to_linear(dst, src, L, 1);
}

void convert_hw_lin_neon_2(uint8_t* dst0, const uint8_t* src0, uint8_t* dst1, const uint8_t* src1,
                           uint32_t L) {
    hw32_to_linear(dst0, src0, L, 1);
    hw32_to_linear(dst1, src1, L, 1);
}

void convert_hw_lin_neon_4(uint8_t* dst0, const uint8_t* src0, uint8_t* dst1, const uint8_t* src1,
                           uint8_t* dst2, const uint8_t* src2, uint8_t* dst3, const uint8_t* src3,
                           uint32_t L) {
    convert_hw_lin_neon_2(dst0, src0, dst1, src1, L);
    convert_hw_lin_neon_2(dst2, src2, dst3, src3, L);
}

void convert_hw_lin_neon_8(uint8_t* dst0, const uint8_t* src0, uint8_t* dst1, const uint8_t* src1,
                           uint8_t* dst2, const uint8_t* src2, uint8_t* dst3, const uint8_t* src3,
                           uint8_t* dst4, const uint8_t* src4, uint8_t* dst5, const uint8_t* src5,
                           uint8_t* dst6, const uint8_t* src6, uint8_t* dst7, const uint8_t* src7,
                           uint32_t L) {
    convert_hw_lin_neon_4(dst0, src0, dst1, src1, dst2, src2, dst3, src3, L);
    convert_hw_lin_neon_4(dst4, src4, dst5, src5, dst6, src6, dst7, src7, L);
}

}  // namespace kelrt::KELRT_SET
