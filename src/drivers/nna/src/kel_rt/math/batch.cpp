// The batch kernels: whole blocks of four and nothing else. Other counts are rounded up, deliberately without
// a tail: callers pass multiples of four or padded buffers.
#include "instruction_sets.h"
#include "math/blocks.h"

namespace kelrt::KELRT_SET {

// The last blocks of a count that rounds up to 2^32 go by themselves.
template <class When, class Function, class... In>
static void for_blocks_rounded_up(uint32_t n, When when, Function f, float* out, const In*... in) {
    const uint32_t whole = n - n % 4;
    for_blocks(whole, when, f, out, in...);
    if (n > whole)
        for_blocks(4, when, f, out + whole, in + whole...);
}

void batchMulf(const float* a, const float* b, float* out, uint32_t n) {
    for_blocks_rounded_up(
        n, Watching{}, [](auto x, auto y) { return mul(x, y); }, out, a, b);
}

void batchAddf(const float* a, const float* b, float* out, uint32_t n) {
    for_blocks_rounded_up(
        n, Watching{}, [](auto x, auto y) { return add(x, y); }, out, a, b);
}

void batchSubf(const float* a, const float* b, float* out, uint32_t n) {
    for_blocks_rounded_up(
        n, Watching{}, [](auto x, auto y) { return sub(x, y); }, out, a, b);
}

void batchComplementf(const float* in, float* out, uint32_t n) {
    const auto complement = [](auto x) { return sub(decltype(x)::splat(1.0f), x); };
    for_blocks_rounded_up(n, Numbers{}, complement, out, in);
}

void batchDotproductf(const float* a, const float* b, const float* c, const float* d, float* out,
                      uint32_t n) {
    const auto dot = [](auto p, auto q, auto r, auto s) { return mul_add(mul(p, r), q, s); };
    for_blocks_rounded_up(n, Watching{}, dot, out, a, b, c, d);
}

}  // namespace kelrt::KELRT_SET
