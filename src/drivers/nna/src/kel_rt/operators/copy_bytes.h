// The copy of split and embedding: memcpy, but for what it is slow at.
#pragma once

#include "wide.h"

namespace kelrt {
namespace {

constexpr size_t kShortCopy =
    256;  // below, the call of memcpy costs as much as the copy: 64 bytes 3.4 ns -> 2.4

#if defined(__SSE2__)
inline void copy_past_caches(uint8_t* dst, const uint8_t* src, size_t n) {
    const size_t head = -reinterpret_cast<uintptr_t>(dst) % 64, body = (n - head) / 64 * 64;
    std::memcpy(dst, src, head);
    for (size_t at = head; at < head + body; at += 64) {
        Bytes<16> line[4];
        for (size_t k = 0; k < 4; ++k)
            line[k] = load_bytes<16>(src + at + 16 * k);
        for (size_t k = 0; k < 4; ++k)
            stream_bytes(dst + at + 16 * k, line[k]);
    }
    _mm_sfence();
    std::memcpy(dst + head + body, src + head + body, n - head - body);
}
#endif

inline void copy_bytes(void* to, const void* from, size_t n) {
    auto* const dst = static_cast<uint8_t*>(to);
    const auto* const src = static_cast<const uint8_t*>(from);
    if (n <= kShortCopy)
        return for_wide_blocks(
            n, [=]<size_t size>(size_t at) { store_bytes<size>(dst + at, load_bytes<size>(src + at)); });
#if defined(__SSE2__)
    if (n >= kStreamed)
        return copy_past_caches(dst, src, n);
#endif
    std::memcpy(dst, src, n);
}

}  // namespace
}  // namespace kelrt
