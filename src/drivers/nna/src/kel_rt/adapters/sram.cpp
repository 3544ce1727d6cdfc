// "nna_sram_get" and "nna_sram_set": 2 SRAM address, 3 row size, 4 SRAM stride, 5 rows, 6 the tensor. Nothing
// is copied from or to here: SRAM transfers do no cache maintenance, in either direction, and the tensor's
// byte offset is not looked at. Unlike the others it hands nothing back when its tensor cannot be resolved,
// even if the platform left a pointer.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_sram(KelRtInstance* instance, const KelRtContext* context) {
    constexpr uint8_t kGet = 17, kSet = 18;
    OperatorCall call(instance, context);
    const Tensor tensor = call.allocate(6);
    if (call.failed())
        return call.abandon();

    const uint8_t id = call.operator_id();
    if (id != kGet && id != kSet) {
        KEL_LOG_ERR("Operator verification failed %d", id);
        call.fail(NNA_STATUS_FAILED);
        return call.status();
    }
    const auto move_rows = id == kSet ? kel_rtNnaSramSet : kel_rtNnaSramGet;
    call.executed(
        move_rows(instance, call.value(2), call.value(3), call.value(4), call.value(5), tensor.base));
    call.deallocate(tensor);
    return call.status();
}

}  // namespace kelrt
