// Feature normalisation: subtract a per-feature mean from every frame and divide by a per-feature divisor.
#include "instruction_sets.h"
#include "log.h"
#include "scalars.h"

namespace kelrt::KELRT_SET {

uint32_t kelRt_featurenorm(const float* input, uint32_t total, const float* mean, const float* var,
                           uint32_t featureLen, float* output) {
    if (!var || !mean || !input || !output) {
        KEL_LOG_ERR("Bad Address Input %p mean %p var %p Output %p", static_cast<const void*>(input),
                    static_cast<const void*>(mean), static_cast<const void*>(var),
                    static_cast<const void*>(output));
        return NNA_STATUS_NULL_POINTER;
    }
    // A frame of no values divides nothing; with a frame of at least one, featureLen <= total gives one frame
    // or more.
    if (featureLen == 0 || featureLen > total)
        return NNA_STATUS_OK;
    const uint32_t frames = total / featureLen;

    for (uint32_t frame = 0; frame < frames; ++frame) {
        const size_t start = static_cast<size_t>(frame) * featureLen;
        for_elements(
            featureLen, [](auto x, auto m, auto v) { return (x - m) / v; }, output + start, input + start,
            mean, var);
    }
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
