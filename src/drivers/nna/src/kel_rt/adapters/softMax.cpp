// "cpu_softmax": 2 output, 3 input, 4 element count.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_softMax(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor out = call.allocate(2);
    const Tensor in = call.copyFrom(3);
    const uint32_t n = call.value(4);
    if (call.failed())
        return call.status();

    KEL_LOG_DEBUG(KEL_TENSOR_SHORT " " KEL_TENSOR_SHORT " 0x%08X", KEL_TENSOR_SHORT_ARGS(out),
                  KEL_TENSOR_SHORT_ARGS(in), n);
    uint32_t out_bytes = 0;
    call.executed(kelRt_softMax(out.as<float>(), in.as<float>(), n, &out_bytes));
    call.copyTo(out);
    call.deallocate(in);
    return call.status();
}

}  // namespace kelrt
