// One-hot: a vector of one value, with another at the index.
#include "element.h"
#include "float_index.h"
#include "instruction_sets.h"
#include "wide.h"

namespace kelrt::KELRT_SET {
namespace {

constexpr size_t kShortFill =
    256;  // bytes; beyond, memset has ways that are faster than stores, if it can be used

#if defined(__SSE2__)
// Whole lines past the caches, between two that are not: 32 MB in half of the time.
void fill_past_caches(uint8_t* out, Bytes<16> words, size_t bytes) {
    constexpr size_t kLine = 64;
    for (size_t at = 0; at < kLine; at += 16) {
        store_bytes<16>(out + at, words);
        store_bytes<16>(out + bytes - kLine + at, words);
    }
    const size_t first = -reinterpret_cast<uintptr_t>(out) % kLine;
    for (size_t at = first; at < first + (bytes - first) / kLine * kLine; at += 16)
        stream_bytes(out + at, words);
    _mm_sfence();
}
#endif

void fill_words(uint8_t* out, uint32_t word, size_t bytes) {
#if defined(__SSE2__)
    typedef uint32_t Four __attribute__((vector_size(16)));
    if (bytes >= kStreamed && reinterpret_cast<uintptr_t>(out) % sizeof word == 0)
        return fill_past_caches(out, reinterpret_cast<Bytes<16>>(Four{} + word), bytes);
#endif
    if (bytes > kShortFill && word == (word & 0xFF) * 0x01010101u) {
        std::memset(out, static_cast<int>(word & 0xFF), bytes);
        return;
    }
    for_wide_blocks<4>(bytes, [=]<size_t size>(size_t at) {
        typedef uint32_t Words __attribute__((vector_size(size)));
        store_bytes<size>(out + at, reinterpret_cast<Bytes<size>>(Words{} + word));
    });
}

}  // namespace

uint32_t kelRt_oneHot(float* out, const float* index, uint32_t d, uint32_t on_value, uint32_t off_value,
                      uint32_t* out_bytes) {
    if (!out || !index)
        return NNA_STATUS_NULL_POINTER;
    const f32* position = index;
    const uint32_t k = kelrt::float_index(position[0]);
    if (k >= d)
        return NNA_STATUS_FAILED;

    u32* elements = reinterpret_cast<u32*>(out);  // bit patterns, so that no NaN changes on its way
    fill_words(reinterpret_cast<uint8_t*>(out), off_value, size_t{d} * 4);
    elements[k] = on_value;
    if (out_bytes)
        *out_bytes = d * 4;
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
