// The four operators of the LSTM state update: 2 output, 3 cell state, 4 gates, 5 number of units. All three
// tensors are fetched, the output too, and two are published; the gates, scratch by then, are not, unless
// they lie in the same memory.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {
namespace {

using LstmKernel = uint32_t (*)(float*, float*, float*, uint32_t);

LstmKernel kernel_of(uint8_t operator_id) {
    switch (operator_id) {
        case 1:
            return kelRt_lstmStates;
        case 8:
            return kelRt_lstmStatesActivation;
        case 13:
            return kelRt_lstmStatesCifg;
        case 14:
            return kelRt_lstmStatesActivationCifg;
        default:
            return nullptr;
    }
}

}  // namespace

uint32_t run_lstmStates(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor output = call.copyFrom(2);
    const Tensor cell_state = call.copyFrom(3);
    const Tensor gates = call.copyFrom(4);
    const uint32_t n = call.value(5);
    if (call.failed())
        return call.status();

    KEL_LOG_DEBUG(KEL_TENSOR " " KEL_TENSOR " " KEL_TENSOR " 0x%08X", KEL_TENSOR_ARGS(output),
                  KEL_TENSOR_ARGS(cell_state), KEL_TENSOR_ARGS(gates), n);
    const LstmKernel kernel = kernel_of(call.operator_id());
    if (!kernel) {
        KEL_LOG_ERR("Operator verification failed %d", call.operator_id());
        call.fail(NNA_STATUS_FAILED);
        return call.status();
    }
    call.executed(kernel(output.as<float>(), cell_state.as<float>(), gates.as<float>(), n));
    call.copyTo(output);
    call.copyTo(cell_state);
    call.deallocate(gates);
    return call.status();
}

}  // namespace kelrt
