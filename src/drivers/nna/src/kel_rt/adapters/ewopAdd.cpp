// "cpu_ewop_add": 2 output, 3 input A, 4 input B, 5 element count. The plainest adapter, and the model of the
// others.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_ewopAdd(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor out = call.allocate(2);
    const Tensor a = call.copyFrom(3);
    const Tensor b = call.copyFrom(4);
    const uint32_t n = call.value(5);
    if (call.failed())
        return call.status();

    KEL_LOG_DEBUG(KEL_TENSOR " " KEL_TENSOR " " KEL_TENSOR " 0x%08X", KEL_TENSOR_ARGS(out),
                  KEL_TENSOR_ARGS(a), KEL_TENSOR_ARGS(b), n);
    uint32_t out_bytes = 0;
    call.executed(kelRt_ewopAdd(out.as<float>(), a.as<float>(), b.as<float>(), n, &out_bytes));
    call.copyTo(out);
    call.deallocate(a);
    call.deallocate(b);
    return call.status();
}

}  // namespace kelrt
