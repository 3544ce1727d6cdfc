// The steps of hw32_lines.h in 64-byte registers, with AVX-512 VBMI: its permutations move any byte of a
// register, or of two, anywhere, so that every step is one of them a register.
#pragma once

#include "hw32_steps_avx2.h"

namespace kelrt {
namespace {

inline __m512i load_64(const uint8_t* from) {
    return _mm512_loadu_si512(from);
}
inline void store_64(uint8_t* to, __m512i bytes) {
    _mm512_storeu_si512(to, bytes);
}
inline __m512i join(__m256i low, __m256i high) {
    return _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
}

// Which bytes become those from byte `first` on of several lines. A permutation looks at the lower bits of
// each.
struct Order64 {
    alignas(64) uint8_t source[64] = {};
    __m512i vector() const { return _mm512_load_si512(source); }
};
template <class Direction>
constexpr Order64 order_of(size_t L, size_t first = 0) {
    Order64 order;
    for (size_t i = 0; i < 64; ++i)
        order.source[i] = static_cast<uint8_t>(source_in_lines<Direction>(first + i, L));
    return order;
}

// Lines of up to 16 elements, as many at once as 64 bytes hold. What a whole register writes beyond them, the
// next one mends.
template <class Direction>
constexpr auto kOrdersByLength = [] {
    std::array<Order64, 17> orders = {};
    for (size_t L = 1; L < orders.size(); ++L)
        orders[L] = order_of<Direction>(L);
    return orders;
}();

template <class Direction>
size_t lines_in_registers(uint8_t* dst, const uint8_t* src, size_t L, size_t lines) {
    if (L > 16)
        return 0;
    const __m512i order = kOrdersByLength<Direction>[L].vector();
    const size_t bytes = 4 * L * lines, group = 16 / L * 4 * L;
    size_t at = 0;
    for (; at + 64 <= bytes; at += group)
        store_64(dst + at, _mm512_permutexvar_epi8(order, load_64(src + at)));
    if (at < bytes) {
        const auto rest = static_cast<__mmask16>((1u << (bytes - at) / 4) - 1);
        const __m512i last = _mm512_maskz_loadu_epi32(rest, src + at);
        _mm512_mask_storeu_epi32(dst + at, rest, _mm512_permutexvar_epi8(order, last));
    }
    return lines;
}

struct ToLinearBy64 : ToLinearBy32 {
    static constexpr auto groups = lines_in_registers<LinearFromHw32>;

    static void step_32(uint8_t* linear, const uint8_t* planes, size_t L) {
        const __m512i p01 = join(load_32(planes), load_32(planes + L));
        const __m512i p23 = join(load_32(planes + 2 * L), load_32(planes + 3 * L));
        static constexpr Order64 kFirst = order_of<LinearFromHw32>(32),
                                 kLast = order_of<LinearFromHw32>(32, 64);
        store_64(linear, _mm512_permutex2var_epi8(p01, kFirst.vector(), p23));
        store_64(linear + 64, _mm512_permutex2var_epi8(p01, kLast.vector(), p23));
    }

    static void step_16(uint8_t* linear, const uint8_t* planes, size_t L) {
        static constexpr Order64 kOrder = order_of<LinearFromHw32>(16);
        const __m512i bytes = join(join(load_16(planes), load_16(planes + L)),
                                   join(load_16(planes + 2 * L), load_16(planes + 3 * L)));
        store_64(linear, _mm512_permutexvar_epi8(kOrder.vector(), bytes));
    }
};

struct ToHw32By64 : ToHw32By32 {
    static constexpr auto groups = lines_in_registers<Hw32FromLinear>;

    static void step_32(uint8_t* planes, const uint8_t* linear, size_t L) {
        const __m512i first = load_64(linear), last = load_64(linear + 64);
        static constexpr Order64 k01 = order_of<Hw32FromLinear>(32), k23 = order_of<Hw32FromLinear>(32, 64);
        const __m512i p01 = _mm512_permutex2var_epi8(first, k01.vector(), last);
        const __m512i p23 = _mm512_permutex2var_epi8(first, k23.vector(), last);
        store_32(planes, _mm512_castsi512_si256(p01));
        store_32(planes + L, _mm512_extracti64x4_epi64(p01, 1));
        store_32(planes + 2 * L, _mm512_castsi512_si256(p23));
        store_32(planes + 3 * L, _mm512_extracti64x4_epi64(p23, 1));
    }

    static void step_16(uint8_t* planes, const uint8_t* linear, size_t L) {
        static constexpr Order64 kOrder = order_of<Hw32FromLinear>(16);
        const __m512i bytes = _mm512_permutexvar_epi8(kOrder.vector(), load_64(linear));
        store_16(planes, _mm512_castsi512_si128(bytes));
        store_16(planes + L, _mm512_extracti32x4_epi32(bytes, 1));
        store_16(planes + 2 * L, _mm512_extracti32x4_epi32(bytes, 2));
        store_16(planes + 3 * L, _mm512_extracti32x4_epi32(bytes, 3));
    }
};

}  // namespace
}  // namespace kelrt
