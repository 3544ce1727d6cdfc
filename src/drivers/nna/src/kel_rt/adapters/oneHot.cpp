// "cpu_onnx_onehot": 2 output, 3 index tensor, 4 depth, 5 on value, 6 off value.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_oneHot(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor out = call.allocate(2);
    const Tensor index = call.copyFrom(3);
    const uint32_t depth = call.value(4);
    if (call.failed())
        return call.status();

    KEL_LOG_DEBUG(KEL_TENSOR " " KEL_TENSOR " 0x%08X %f %f", KEL_TENSOR_ARGS(out), KEL_TENSOR_ARGS(index),
                  depth, static_cast<double>(call.float_value(5)), static_cast<double>(call.float_value(6)));
    uint32_t out_bytes = 0;
    // The values travel as bit patterns.
    call.executed(
        kelRt_oneHot(out.as<float>(), index.as<float>(), depth, call.value(5), call.value(6), &out_bytes));
    call.copyTo(out);
    call.deallocate(index);
    return call.status();
}

}  // namespace kelrt
