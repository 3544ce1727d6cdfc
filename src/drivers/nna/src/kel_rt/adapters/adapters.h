// The handlers that the operator table points at, a file each. A handler gets a verified context, turns its
// memory ids into pointers, runs the operator's kernel and publishes the outputs.
#pragma once

#include "kelRt.h"

namespace kelrt {

uint32_t run_copyFormatConv(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_embedding(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_ewopAdd(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_featurenorm(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_hw32FmtConv(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_hw32FmtConvParam(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_im2col(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_instanceNorm(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_lstmStates(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_lstmStatesNorm(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_matmul(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_oneHot(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_softMax(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_split(KelRtInstance* instance, const KelRtContext* context);
uint32_t run_sram(KelRtInstance* instance, const KelRtContext* context);

}  // namespace kelrt
