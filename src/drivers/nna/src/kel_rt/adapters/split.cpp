// "cpu_split": 2 input, 3 output, 4 byte count. Two deliberate irregularities, which drivers' call traces
// show: the input is resolved before the output, and handed back before the output is published, so that a
// failing publication hands it back a second time.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_split(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor input = call.copyFrom(2);
    const Tensor output = call.allocate(3);
    const uint32_t nbytes = call.value(4);
    if (call.failed())
        return call.status();

    KEL_LOG_DEBUG(KEL_TENSOR_SHORT " " KEL_TENSOR_SHORT " 0x%08X", KEL_TENSOR_SHORT_ARGS(input),
                  KEL_TENSOR_SHORT_ARGS(output), nbytes);
    const uint32_t status = kelRt_split(input.as<void>(), output.as<void>(), nbytes);
    if (status != NNA_STATUS_OK) {
        KEL_LOG_ERR("Error executing operator %ds", status);  // the stray s is the line's own
        call.fail(status);
    }
    call.deallocate(input);
    call.copyTo(output);
    return call.status();
}

}  // namespace kelrt
