// Array kernels: reductions. The order of accumulation decides the result and is fixed: four lane
// accumulators over the whole blocks, these in lane order, then the tail in ascending order. Only the vector
// part flushes.
#include "instruction_sets.h"
#include "math/lane_extremes.h"
#include "math/lane_sums.h"
#include "math/vector_part.h"

namespace kelrt::KELRT_SET {

uint32_t kelRt_sumf(const float* in, float* out, uint32_t n) {
    f32* total = out;
    *total = sums_of<1>({in}, n)[0];
    return NNA_STATUS_OK;
}

uint32_t kelRt_variancef(const float* in, float mean, float* out, uint32_t n) {
    f32* total = out;
    *total = variances_of<1>({in}, {mean}, n)[0];
    return NNA_STATUS_OK;
}

uint32_t kelRt_minMaxf(const float* in, float* min_out, float* max_out, uint32_t n) {
    const f32* x = in;
    f32 *least = min_out, *most = max_out;
    const uint32_t whole = n - n % 4;
    const float first = x[0];
    *least = *most = first;

    // The first block is taken as it stands, even where n is below four: deliberately, it then
    // reaches beyond n.
    float low[4] = {x[0], x[1], x[2], x[3]};
    float high[4] = {x[0], x[1], x[2], x[3]};
    if (whole >= 8)
        extremes_of_columns(in, whole, low, high);

    float running = first;
    for (const float lane : high)
        running = lane > running ? lane : running;
    *most = running;
    running = first;
    for (const float lane : low)
        running = lane < running ? lane : running;
    *least = running;

    for (size_t i = whole; i < n; ++i) {
        if (x[i] > *most)
            *most = x[i];
        if (x[i] < *least)
            *least = x[i];
    }
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
