// "cpu_im2col": 2 input, 3 output, 4 to 11 the geometry. Input first, as its arguments come; the kernel dumps
// the geometry, so the adapter dumps nothing.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_im2col(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor input = call.copyFrom(2);
    const Tensor output = call.allocate(3);
    if (call.failed())
        return call.status();

    call.executed(kelRt_im2col(input.as<uint8_t>(), output.as<uint8_t>(), call.value(4), call.value(5),
                               call.value(6), call.value(7), call.value(8), call.value(9), call.value(10),
                               call.value(11)));
    call.copyTo(output);
    call.deallocate(input);
    return call.status();
}

}  // namespace kelrt
