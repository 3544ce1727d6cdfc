// Array kernels: reductions. The order of accumulation decides the result and is fixed: four lane
// accumulators over the whole blocks, these in lane order, then the tail in ascending order. Only the vector
// part flushes.
#include "element.h"
#include "instruction_sets.h"
#include "math/lane_extremes.h"
#include "math/lane_sums.h"
#include "math/vector_part.h"

namespace kelrt::KELRT_SET {

// Calls add() and ends the sums, in the mode that they need.
template <class Add>
static void add_up(LaneSums& sums, bool in_any_mode, Add add) {
    const auto part = [&sums, add] {
        add();
        sums.finish();
    };
    if (in_any_mode)
        part();
    else
        vector_part(part);
}

uint32_t kelRt_sumf(const float* in, float* out, uint32_t n) {
    const f32* x = in;
    f32* total = out;
    const uint32_t whole = n - n % 4;
    *total = 0.0f;
    LaneSums sums;
    if (whole > 0)
        add_up(sums, sums_stay_normal(in, 0.0f, whole, kLeastTerm),
               [=, &sums] { sums.add_blocks(in, whole); });
    *total = sums.total();
    for (size_t i = whole; i < n; ++i)
        *total += x[i];
    return NNA_STATUS_OK;
}

uint32_t kelRt_variancef(const float* in, float mean, float* out, uint32_t n) {
    const f32* x = in;
    f32* total = out;
    const uint32_t whole = n - n % 4;
    *total = 0.0f;
    LaneSums sums;
    if (whole > 0)
        add_up(sums, sums_stay_normal(in, mean, whole, kLeastRoot),
               [=, &sums] { sums.add_squares(in, mean, whole); });
    *total = sums.total();
    for (size_t i = whole; i < n; ++i) {
        const float d = x[i] - mean;
        // Double precision here and not in the blocks is deliberate.
        *total =
            static_cast<float>(static_cast<double>(*total) + static_cast<double>(d) * static_cast<double>(d));
    }
    *total /= static_cast<float>(n);
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
