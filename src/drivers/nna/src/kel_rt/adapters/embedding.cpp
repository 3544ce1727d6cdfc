// "cpu_embedding": 2 output row, 3 index tensor, 4 table, 5 row length in elements.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_embedding(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor out = call.allocate(2);
    const Tensor index = call.copyFrom(3);
    const Tensor table = call.copyFrom(4);
    const uint32_t w = call.value(5);
    if (call.failed())
        return call.status();

    KEL_LOG_DEBUG(KEL_TENSOR_SHORT " " KEL_TENSOR_SHORT " " KEL_TENSOR_SHORT " 0x%08X",
                  KEL_TENSOR_SHORT_ARGS(out), KEL_TENSOR_SHORT_ARGS(index), KEL_TENSOR_SHORT_ARGS(table), w);
    uint32_t out_bytes = 0;
    call.executed(kelRt_embedding(out.as<float>(), index.as<float>(), table.as<float>(), w, &out_bytes));
    call.copyTo(out);
    call.deallocate(index);
    call.deallocate(table);
    return call.status();
}

}  // namespace kelrt
