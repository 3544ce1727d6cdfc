// Embedding: copies the row of a table that an index names.
#include "copy_bytes.h"
#include "element.h"
#include "float_index.h"
#include "kelRt.h"

using kelrt::f32;

uint32_t kelRt_embedding(float* out, const float* index, const float* table, uint32_t w,
                         uint32_t* out_bytes) {
    if (!out || !index || !table || w == 0)
        return NNA_STATUS_NULL_POINTER;
    const f32* position = index;
    // The index is not held against the table, whose size nobody knows here; offset and size wrap at 32 bits.
    const uint32_t row_offset = w * kelrt::float_index(position[0]) * 4;
    const uint32_t row_bytes = w * 4;
    kelrt::copy_bytes(out, reinterpret_cast<const uint8_t*>(table) + row_offset, row_bytes);
    if (out_bytes)
        *out_bytes = row_bytes;
    return NNA_STATUS_OK;
}
