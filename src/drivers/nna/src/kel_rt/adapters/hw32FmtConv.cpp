// "cpu_hw32_fmt_conv" and "cpu_hw32_fmt_conv_param": 2 output, 3 input, 4 element count, 5 direction, and for
// the second 6 the elements a line.
#include "adapters.h"
#include "operator_call.h"

// The output shows with its offset added, the input without: the line's own way.
#define KEL_HW32_DUMP KEL_TENSOR_SHORT " " KEL_TENSOR_SHORT " 0x%08X 0x%08X"
#define KEL_HW32_DUMP_ARGS(out, in, size, dir) \
    (out).as<void>(), (out).memid, KEL_TENSOR_SHORT_ARGS(in), size, dir

namespace kelrt {

uint32_t run_hw32FmtConv(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor out = call.allocate(2);
    const Tensor in = call.copyFrom(3);
    const uint32_t size = call.value(4), dir = call.value(5);
    if (call.failed())
        return call.status();

    KEL_LOG_DEBUG(KEL_HW32_DUMP, KEL_HW32_DUMP_ARGS(out, in, size, dir));
    uint32_t out_bytes = 0;
    call.executed(kelRt_hw32FmtConv(out.as<uint8_t>(), in.as<uint8_t>(), size, dir, &out_bytes));
    call.copyTo(out);
    call.deallocate(in);
    return call.status();
}

uint32_t run_hw32FmtConvParam(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Tensor out = call.allocate(2);
    const Tensor in = call.copyFrom(3);
    const uint32_t size = call.value(4), dir = call.value(5), line = call.value(6);
    if (call.failed())
        return call.status();

    KEL_LOG_DEBUG(KEL_HW32_DUMP " 0x%08X", KEL_HW32_DUMP_ARGS(out, in, size, dir), line);
    uint32_t out_bytes = 0;
    call.executed(kelRt_hw32FmtConvParam(out.as<uint8_t>(), in.as<uint8_t>(), size, dir, line, &out_bytes));
    call.copyTo(out);
    call.deallocate(in);
    return call.status();
}

}  // namespace kelrt
