// The caller's floating-point mode: what vector parts neither see nor change, and scalar arithmetic follows.
#pragma once

#include <cstdint>
#include <functional>

namespace mode {

#if defined(__SSE2__)
using Word = uint32_t;
inline Word get() {
    Word word;
    asm volatile("stmxcsr %0" : "=m"(word) : : "memory");
    return word;
}
// What traps is written into the older unit's control word too, as the C library does.
inline void set(Word word) {
    uint16_t control;
    asm volatile("fnstcw %0" : "=m"(control));
    control = static_cast<uint16_t>((control & ~0x3F) | (word >> 7 & 0x3F));
    asm volatile("fldcw %0\n\tldmxcsr %1" : : "m"(control), "m"(word) : "memory");
}
// The usual one, toward zero, up, flushing subnormals, or only results or operands that are; and every
// exception trapping, for vector parts only.
constexpr Word kScalar[] = {0x1F80, 0x7F80, 0x5F80, 0x9FC0, 0x9F80, 0x1FC0}, kTraps = 0;
constexpr Word kBits = 0xFFC0;
#elif defined(__arm__)
using Word = uint32_t;
inline Word get() {
    Word word;
    asm volatile("vmrs %0, fpscr" : "=r"(word) : : "memory");
    return word;
}
inline void set(Word word) {
    asm volatile("vmsr fpscr, %0" : : "r"(word) : "memory");
}
constexpr Word kScalar[] = {0, 0xC00000, 0x400000, 0x1000000}, kTraps = 0x800000;  // no traps: down
constexpr Word kBits = 0x3C00000;
#elif defined(__aarch64__)
using Word = uint64_t;
inline Word get() {
    Word word;
    asm volatile("mrs %0, fpcr" : "=r"(word) : : "memory");
    return word;
}
inline void set(Word word) {
    asm volatile("msr fpcr, %0" : : "r"(word) : "memory");
}
constexpr Word kScalar[] = {0, 0xC00000, 0x400000, 0x1000000}, kTraps = 0x800000;
constexpr Word kBits = 0x3C00000;
#else  // one mode only
using Word = uint32_t;
inline Word get() {
    return 0;
}
inline void set(Word) {}
constexpr Word kScalar[] = {0}, kTraps = 0;
constexpr Word kBits = 0;
#endif

// Calls f() in that mode; says whether f left it as it was. Nothing of f is known here, so that no arithmetic
// can move out of it or in.
[[gnu::noinline]] inline bool kept_in(Word word, const std::function<void()>& f) {
    const Word before = get();
    set(word);
    f();
    const Word after = get();
    set(before);
    return ((after ^ word) & kBits) == 0;  // not the flags that arithmetic raises
}

}  // namespace mode
