// Bytes in the widest registers of the instruction set, for operators that move or fill, and those whose
// arithmetic is the language's own. Everything has internal linkage (see instruction_sets.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

namespace kelrt {
namespace {

#if defined(__AVX512F__)
constexpr size_t kWide = 64;
#elif defined(__AVX2__)
constexpr size_t kWide = 32;
#else
constexpr size_t kWide = 16;
#endif

// `size` bytes at any address. (Dereferenced, not copied: g++ makes four words of a memcpy into NEON's
// registers.)
template <size_t size>
struct WideTypes {
    typedef uint8_t Bytes __attribute__((vector_size(size)));
    typedef uint8_t Anywhere __attribute__((vector_size(size), aligned(1), may_alias));
};
template <size_t size>
using Bytes = typename WideTypes<size>::Bytes;

template <size_t size>
inline Bytes<size> load_bytes(const uint8_t* from) {
    return *reinterpret_cast<const typename WideTypes<size>::Anywhere*>(from);
}
template <size_t size>
inline void store_bytes(uint8_t* to, Bytes<size> bytes) {
    *reinterpret_cast<typename WideTypes<size>::Anywhere*>(to) = bytes;
}

// Calls block<size>(at) for blocks that cover n bytes, a multiple of `unit`, as wide ones as fit; the last
// ends with them and overlaps the one before.
template <size_t unit = 1, size_t size = kWide, class Block>
inline void for_wide_blocks(size_t n, Block block) {
    if (n >= size) {
        for (size_t at = 0; at < n - size; at += size)
            block.template operator()<size>(at);
        block.template operator()<size>(n - size);
    } else if constexpr (size > unit) {
        for_wide_blocks<unit, size / 2>(n, block);
    }
}

// Outputs of this size and more fit no cache beside their inputs: stored past the caches they are not read
// first (32 MB copied in two thirds of the time). Smaller ones would only be driven out of them.
constexpr size_t kStreamed = 16 << 20;

#if defined(__SSE2__)
inline void stream_bytes(uint8_t* to, Bytes<16> bytes) {
    _mm_stream_si128(reinterpret_cast<__m128i*>(to), reinterpret_cast<__m128i>(bytes));
}
#if defined(__AVX2__)
inline void stream_bytes(uint8_t* to, Bytes<32> bytes) {
    _mm256_stream_si256(reinterpret_cast<__m256i*>(to), reinterpret_cast<__m256i>(bytes));
}
#endif
#if defined(__AVX512F__)
inline void stream_bytes(uint8_t* to, Bytes<64> bytes) {
    _mm512_stream_si512(reinterpret_cast<__m512i*>(to), reinterpret_cast<__m512i>(bytes));
}
#endif
#endif

}  // namespace
}  // namespace kelrt
