// "cpu_matmul": 2 A, 3 B, 4 C, 5 to 8 the stored shapes, 9 and 10 the transposition flags.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_matmul(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor a = call.copyFrom(2);
    const Tensor b = call.copyFrom(3);
    const Tensor c = call.allocate(4);
    if (call.failed())
        return call.status();

    call.executed(kelRt_matmul(a.as<float>(), b.as<float>(), c.as<float>(), call.signed_value(5),
                               call.signed_value(6), call.signed_value(7), call.signed_value(8),
                               call.signed_value(9), call.signed_value(10)));
    // A and B, transposed in the CPU's view, are not published themselves. Should C lie in the same memory
    // they go along, as publishing carries the whole of it.
    call.copyTo(c);
    call.deallocate(a);
    call.deallocate(b);
    return call.status();
}

}  // namespace kelrt
