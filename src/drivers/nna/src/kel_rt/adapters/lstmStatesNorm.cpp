// "cpu_lstm_states_norm_cifg_cpuactv": 2 output, 3 cell state, 4 gates, 5 number of units, 6 CIFG, 7 CPU
// activation, 8 epsilon, 9 and 10 gamma and beta of the gates, 11 and 12 of the cell state, 13 to 16 the
// normalisation flags. Fetches in two phases, the state and then the parameters, with a dump in between.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_lstmStatesNorm(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor output = call.copyFrom(2);
    const Tensor cell_state = call.copyFrom(3);
    const Tensor gates = call.copyFrom(4);
    if (call.failed())
        return call.status();
    KEL_LOG_DEBUG(KEL_TENSOR " " KEL_TENSOR " " KEL_TENSOR
                             " 0x%08X 0x%08X 0x%08X args[9]=%d args[10]=%d args[11]=%d args[12]=%d",
                  KEL_TENSOR_ARGS(output), KEL_TENSOR_ARGS(cell_state), KEL_TENSOR_ARGS(gates), call.value(5),
                  call.value(6), call.value(7), call.value(9), call.value(10), call.value(11),
                  call.value(12));

    // Whatever the flags say.
    const Tensor gate_gamma = call.copyFrom(9);
    const Tensor gate_beta = call.copyFrom(10);
    const Tensor cell_gamma = call.copyFrom(11);
    const Tensor cell_beta = call.copyFrom(12);
    if (call.failed())
        return call.status();
    const float epsilon = call.float_value(8);
    KEL_LOG_DEBUG("0x%08X 0x%08X 0x%08X 0x%08X", call.value(13), call.value(14), call.value(15),
                  call.value(16));
    KEL_LOG_DEBUG("%f " KEL_TENSOR " " KEL_TENSOR " " KEL_TENSOR " " KEL_TENSOR, static_cast<double>(epsilon),
                  KEL_TENSOR_ARGS(gate_gamma), KEL_TENSOR_ARGS(gate_beta), KEL_TENSOR_ARGS(cell_gamma),
                  KEL_TENSOR_ARGS(cell_beta));

    call.executed(kelRt_lstmStatesCifgActivationNorm(
        output.as<float>(), cell_state.as<float>(), gates.as<float>(), call.value(5), call.signed_value(6),
        call.signed_value(7), epsilon, gate_gamma.as<float>(), gate_beta.as<float>(), cell_gamma.as<float>(),
        cell_beta.as<float>(), call.signed_value(13), call.signed_value(14), call.signed_value(15),
        call.signed_value(16)));
    call.copyTo(output);
    call.copyTo(cell_state);
    call.deallocate(gates);
    call.deallocate(gate_gamma);
    call.deallocate(gate_beta);
    call.deallocate(cell_gamma);
    call.deallocate(cell_beta);
    return call.status();
}

}  // namespace kelrt
