// The operator table: what every operator is called, which arguments it takes, who handles it.
#pragma once

#include <cstdint>

#include "kelRt.h"

namespace kelrt {

using KelRtOpHandler = uint32_t (*)(KelRtInstance* instance, const KelRtContext* context);

struct KelRtOpEntry {
    const char* name;
    uint32_t total_args;   // arguments 0 and 1 included
    uint32_t op_args;      // total_args - 2, what argument 0 must say
    const uint8_t* types;  // expected type codes, one an argument, arguments 0 and 1 included
    KelRtOpHandler handler;
};

// Indexed by operator id.
extern const KelRtOpEntry kOpTable[KEL_RT_NUM_OPS];

}  // namespace kelrt
