// Element-wise add: out[i] = a[i] + b[i].
#include "element.h"
#include "instruction_sets.h"
#include "log.h"

namespace kelrt::KELRT_SET {

uint32_t kelRt_ewopAdd(float* out, const float* a, const float* b, uint32_t n, uint32_t* out_bytes) {
    if (!out || !a || !b) {
        KEL_LOG_ERR("Bad Address Input 0 %p Input 1 %p Output %p", static_cast<const void*>(a),
                    static_cast<const void*>(b), static_cast<const void*>(out));
        return NNA_STATUS_NULL_POINTER;
    }
    const f32 *x = a, *y = b;
    f32* z = out;
    for (uint32_t i = 0; i < n; ++i)
        z[i] = x[i] + y[i];
    if (out_bytes)
        *out_bytes = n * 4;
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
