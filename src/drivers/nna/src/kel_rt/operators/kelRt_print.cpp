// A debugging aid that dumps a vector to the log. Nothing in the library calls it.
#include "element.h"
#include "kelRt.h"
#include "log.h"

using kelrt::f32;

void kelRt_print(const float* data, int32_t sizeBytes, const char* label) {
    if (!kelrt::log_admits(kelrt::LogLevel::Debug))
        return;
    KEL_LOG_DEBUG("%s:", label);
    // One physical line, with a record's prefix before each value. The level counts anew for each.
    const f32* values = data;
    for (int32_t i = 0; i < sizeBytes / 4; ++i)
        KEL_LOG_DEBUG_OPEN_LINE("%0.3f, ", static_cast<double>(values[i]));
    KEL_LOG_DEBUG("");
}
