// One-hot: a vector of one value, with another at the index.
#include "element.h"
#include "float_index.h"
#include "instruction_sets.h"

namespace kelrt::KELRT_SET {

uint32_t kelRt_oneHot(float* out, const float* index, uint32_t d, uint32_t on_value, uint32_t off_value,
                      uint32_t* out_bytes) {
    if (!out || !index)
        return NNA_STATUS_NULL_POINTER;
    const f32* position = index;
    const uint32_t k = kelrt::float_index(position[0]);
    if (k >= d)
        return NNA_STATUS_FAILED;

    u32* elements = reinterpret_cast<u32*>(out);  // bit patterns, so that no NaN changes on its way
    for (uint32_t i = 0; i < d; ++i)
        elements[i] = off_value;
    elements[k] = on_value;
    if (out_bytes)
        *out_bytes = d * 4;
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
