// The batch kernels: whole blocks of four and nothing else. A count that is not a multiple of four is rounded
// up.
#include "kelRt.h"
#include "math/vector_part.h"

namespace {

using kelrt::lanes::Floats;

// Deliberately no tail: callers pass multiples of four or padded buffers.
template <class Step>
void for_blocks_rounded_up(uint32_t n, Step step) {
    if (n == 0)
        return;
    kelrt::vector_part([=] {
        for (uint64_t done = 0; done < n; done += 4)
            step(static_cast<size_t>(done));
    });
}

}  // namespace

void batchMulf(const float* a, const float* b, float* out, uint32_t n) {
    for_blocks_rounded_up(n,
                          [=](size_t i) { store(out + i, mul(Floats::load(a + i), Floats::load(b + i))); });
}

void batchAddf(const float* a, const float* b, float* out, uint32_t n) {
    for_blocks_rounded_up(n,
                          [=](size_t i) { store(out + i, add(Floats::load(a + i), Floats::load(b + i))); });
}

void batchSubf(const float* a, const float* b, float* out, uint32_t n) {
    for_blocks_rounded_up(n,
                          [=](size_t i) { store(out + i, sub(Floats::load(a + i), Floats::load(b + i))); });
}

void batchComplementf(const float* in, float* out, uint32_t n) {
    for_blocks_rounded_up(n,
                          [=](size_t i) { store(out + i, sub(Floats::splat(1.0f), Floats::load(in + i))); });
}

void batchDotproductf(const float* a, const float* b, const float* c, const float* d, float* out,
                      uint32_t n) {
    for_blocks_rounded_up(n, [=](size_t i) {
        const Floats first = mul(Floats::load(a + i), Floats::load(c + i));
        store(out + i, mul_add(first, Floats::load(b + i), Floats::load(d + i)));
    });
}
