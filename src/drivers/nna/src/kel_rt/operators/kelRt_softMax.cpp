// Softmax: exponentials divided by their sum.
#include "element.h"
#include "instruction_sets.h"
#include "log.h"
#include "math/algorithms.h"
#include "math/blocks.h"
#include "math/lane_sums.h"

namespace kelrt::KELRT_SET {

// kelRt_expf and kelRt_sumf in one pass: the ordered sum waits for each addition, and meanwhile the next
// exponentials are made.
static float exp_and_sum(float* out, const float* in, uint32_t n) {
    LaneSums sums;
    const uint32_t tail = for_blocks_then(
        n, kOrdinaryExp, [](auto x) { return exp(x, kExpTable); },
        [out, &sums](size_t from, size_t count) { sums.add_blocks(out + from, count); }, out, in);
    sums.finish();
    float sum = sums.total();
    kelRt_expf(in + tail, out + tail, n - tail);
    const f32* y = out;
    for (size_t i = tail; i < n; ++i)
        sum += y[i];
    return sum;
}

uint32_t kelRt_softMax(float* out, const float* in, uint32_t n, uint32_t* out_bytes) {
    if (!out || !in) {
        KEL_LOG_ERR("Bad Address Input %p Output %p", static_cast<const void*>(in),
                    static_cast<const void*>(out));
        return NNA_STATUS_NULL_POINTER;
    }
    // The largest input is deliberately not subtracted first: the network keeps its inputs in range.
    const float sum = exp_and_sum(out, in, n);
    kelRt_scalef(out, out, 1.0f / sum, n);  // of no elements the sum is 0; nothing is scaled then
    if (out_bytes)
        *out_bytes = n * 4;
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
