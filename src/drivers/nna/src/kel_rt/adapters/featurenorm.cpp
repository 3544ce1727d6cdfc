// "cpu_featurenorm": 2 input, 3 total, 4 mean, 5 var, 6 feature length, 7 output. Unlike the others it
// resolves its output last and hands the inputs back before it publishes; a failing publication hands them
// back a second time.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {

uint32_t run_featurenorm(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor input = call.copyFrom(2);
    const Tensor mean = call.copyFrom(4);
    const Tensor var = call.copyFrom(5);
    const Tensor output = call.allocate(7);
    if (call.failed())
        return call.status();

    call.executed(kelRt_featurenorm(input.as<float>(), call.value(3), mean.as<float>(), var.as<float>(),
                                    call.value(6), output.as<float>()));
    call.deallocate(input);
    call.deallocate(mean);
    call.deallocate(var);
    call.copyTo(output);
    return call.status();
}

}  // namespace kelrt
