// Element-wise add: out[i] = a[i] + b[i].
#include "instruction_sets.h"
#include "log.h"
#include "scalars.h"

namespace kelrt::KELRT_SET {

uint32_t kelRt_ewopAdd(float* out, const float* a, const float* b, uint32_t n, uint32_t* out_bytes) {
    if (!out || !a || !b) {
        KEL_LOG_ERR("Bad Address Input 0 %p Input 1 %p Output %p", static_cast<const void*>(a),
                    static_cast<const void*>(b), static_cast<const void*>(out));
        return NNA_STATUS_NULL_POINTER;
    }
    for_elements(
        n, [](auto x, auto y) { return x + y; }, out, a, b);
    if (out_bytes)
        *out_bytes = n * 4;
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
