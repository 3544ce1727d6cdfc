// Feature normalisation: subtract a per-feature mean from every frame and divide by a per-feature divisor.
#include "element.h"
#include "instruction_sets.h"
#include "log.h"

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

    const f32 *m = mean, *v = var;
    for (uint32_t frame = 0; frame < frames; ++frame) {
        const f32* x = input + static_cast<size_t>(frame) * featureLen;
        f32* y = output + static_cast<size_t>(frame) * featureLen;
        for (uint32_t k = 0; k < featureLen; ++k)
            y[k] = (x[k] - m[k]) / v[k];
    }
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
