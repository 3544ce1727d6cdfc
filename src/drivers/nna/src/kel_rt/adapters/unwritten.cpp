// The handler of operators that are not written yet.
#include "adapters.h"
#include "log.h"
#include "op_table.h"

namespace kelrt {

uint32_t unwritten(KelRtInstance*, const KelRtContext* context) {
    KEL_LOG_ERR("Operator %s is not available", kOpTable[static_cast<uint8_t>(context->args[1].value)].name);
    return NNA_STATUS_UNSUPPORTED;
}

}  // namespace kelrt
