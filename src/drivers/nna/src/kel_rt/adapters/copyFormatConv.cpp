// "cpu_copy_fmt_conv": 2 output, 3 to 5 its format (total bits, fractional bits, scale or 0 for an automatic
// one), 6 input, 7 to 9 its format, 10 element count. The automatic shift goes to the instance.
#include "adapters.h"
#include "operator_call.h"

namespace kelrt {
namespace {

// A fixed-point format; -1 total bits are float.
struct Format {
    uint32_t tot_bits, frac_bits, scale;

    uint32_t element_bytes() const { return tot_bits == UINT32_MAX ? 4 : tot_bits / 8; }
};

}  // namespace

uint32_t run_copyFormatConv(KelRtInstance* instance, const KelRtContext* context) {
    OperatorCall call(instance, context);
    const Format to = {call.value(3), call.value(4), call.value(5)};
    const Format from = {call.value(7), call.value(8), call.value(9)};
    const uint32_t count = call.value(10);
    const uint32_t expected_bytes = count * to.element_bytes();

    const Tensor out = call.allocate(2);
    if (call.failed())
        return call.status();
    KEL_LOG_DEBUG("output: memid=%d, ofs=%x, ele_sz=%d, bytes=%d", out.memid, out.offset, to.element_bytes(),
                  expected_bytes);
    KEL_LOG_DEBUG("input: memid=%d, ofs=%x, ele_sz=%d, bytes=%d", call.value(6), call.offset(6),
                  from.element_bytes(), count * from.element_bytes());

    const Tensor in = call.copyFrom(6);
    if (call.failed())
        return call.status();
    KEL_LOG_DEBUG(KEL_TENSOR_SHORT " 0x%08X 0x%08X 0x%08X " KEL_TENSOR_SHORT " 0x%08X 0x%08X 0x%08X 0x%08X",
                  KEL_TENSOR_SHORT_ARGS(out), to.tot_bits, to.frac_bits, to.scale, KEL_TENSOR_SHORT_ARGS(in),
                  from.tot_bits, from.frac_bits, from.scale, count);

    uint32_t out_bytes = 0;
    call.executed(kelRt_copyFormatConv(out.as<uint8_t>(), to.tot_bits, to.frac_bits, to.scale,
                                       in.as<uint8_t>(), from.tot_bits, from.frac_bits, from.scale, count,
                                       &instance->out_shift, &out_bytes));
    // No arguments that the kernel accepts come to this; it guards against kernel and adapter drifting apart.
    if (!call.failed() && out_bytes != expected_bytes)
        KEL_LOG_WARN("output buffer size mismatch, alloc out_bytes=%d, computed outBufSize=%d",
                     expected_bytes, out_bytes);
    call.copyTo(out);
    call.deallocate(in);
    return call.status();
}

}  // namespace kelrt
