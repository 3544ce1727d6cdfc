// The handlers that the operator table points at, a file each. A handler gets a verified context, turns its
// memory ids into pointers, runs the operator's kernel and publishes the outputs.
#pragma once

#include "kelRt.h"

namespace kelrt {

uint32_t run_copyFormatConv(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_ewopAdd(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_featurenorm(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_hw32FmtConv(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_hw32FmtConvParam(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_matmul(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_split(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_sram(KelRtInstance* instance, const KelRtContext* context);

// Stands in for operators that are not written yet.
uint32_t unwritten(KelRtInstance* instance, const KelRtContext* context);

}  // namespace kelrt
