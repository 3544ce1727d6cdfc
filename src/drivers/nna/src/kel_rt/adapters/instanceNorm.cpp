// "cpu_onnx_inst_norm": 2 output, 3 input, 4 element count, 5 scale, 6 bias.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_instanceNorm(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor output = call.allocate(2);
    const Tensor input = call.copyFrom(3);
    const uint32_t n = call.value(4);
    const float scale = call.float_value(5), bias = call.float_value(6);
    if (call.failed())
        return call.status();

    KEL_LOG_DEBUG(KEL_TENSOR " " KEL_TENSOR " 0x%08X %f %f", KEL_TENSOR_ARGS(output), KEL_TENSOR_ARGS(input),
                  n, static_cast<double>(scale), static_cast<double>(bias));
    uint32_t out_bytes = 0;
    call.executed(kelRt_instanceNorm(output.as<float>(), input.as<float>(), n, scale, bias, &out_bytes));
    call.copyTo(output);
    call.deallocate(input);
    return call.status();
}

}  // namespace kelrt
