// Built for this processor (-march=native), in vectors as wide as it has.
#include "physical_limits.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <cstring>
#include <memory>
#include <utility>

namespace bench {
namespace {

#ifdef __AVX512F__
constexpr size_t kWidth = 64;
#elif defined(__AVX__)
constexpr size_t kWidth = 32;
#else
constexpr size_t kWidth = 16;
#endif
#if defined(__aarch64__)
#define IN_VECTOR(value) "+w"(value)
#else
#define IN_VECTOR(value) "+x"(value)
#endif
typedef float Vector __attribute__((vector_size(kWidth)));
typedef float Unaligned __attribute__((vector_size(kWidth), aligned(4), may_alias));
constexpr size_t kLanes = kWidth / sizeof(float);

// A call of work repeats its operation so often: chains of successive calls overlap, so each is a long one.
constexpr size_t kSteps = 4096;

// Many vectors in flight, each in a register: f(v) for all of them, kSteps times.
template <size_t... I, class F>
[[gnu::always_inline]] inline void in_registers(std::index_sequence<I...>, F f) {
    Vector v[] = {Vector{} + 1.0f + static_cast<float>(I)...};
    for (size_t step = 0; step < kSteps; ++step)
        (f(v[I], I), ...);
}
constexpr size_t kInFlight = 12;

// In turns: two units of each a cycle, and three or four cycles until a result can be used.
void multiply_and_add() {
    Vector one = Vector{} + 1.0f, tiny = Vector{} + 0x1p-30f;
    asm volatile("" : IN_VECTOR(one), IN_VECTOR(tiny));  // a product by a known one would be left out
    in_registers(std::make_index_sequence<kInFlight>(), [=](Vector& v, size_t i) {
        if (i % 2)
            v *= one;
        else
            v += tiny;
        asm volatile("" : IN_VECTOR(v));
    });
}

void divide() {
    const Vector divisor = Vector{} + 1.1f;
    in_registers(std::make_index_sequence<kInFlight>(), [=](Vector& v, size_t) {
        Vector quotient = v / divisor;
        asm volatile("" : IN_VECTOR(quotient));
    });
}

template <class Float>
void add_in_order() {
    Float sum = 1, addend = Float(0.5);
    for (size_t step = 0; step < kSteps; ++step) {
        sum += addend;
        asm volatile("" : IN_VECTOR(sum));
    }
}

void read(const float* from, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        Vector v = *reinterpret_cast<const Unaligned*>(from + i * kLanes);
        asm volatile("" : IN_VECTOR(v));
    }
}

// Past the caches, vectors that vector(i) makes.
template <class Make>
void stream(float* to, size_t count, Make vector) {
    for (size_t i = 0; i < count; ++i) {
        const Vector v = vector(i);
#ifdef __AVX512F__
        _mm512_stream_ps(to + i * kLanes, v);
#elif defined(__AVX__)
        _mm256_stream_ps(to + i * kLanes, v);
#elif defined(__x86_64__)
        _mm_stream_ps(to + i * kLanes, v);
#else
        *reinterpret_cast<Unaligned*>(to + i * kLanes) = v;
#endif
    }
#if defined(__x86_64__)
    _mm_sfence();
#endif
}

struct Buffer {
    explicit Buffer(size_t bytes)
        : memory(static_cast<float*>(std::aligned_alloc(64, (bytes + 127) / 64 * 64))) {
        std::memset(memory, 0, bytes + 64);
    }
    Buffer(const Buffer&) = delete;
    ~Buffer() { std::free(memory); }
    float* memory;
};

constexpr size_t kWorthStreaming = 128 << 10;

}  // namespace

std::vector<Work> rate_works() {
    return {repeat(multiply_and_add), repeat(divide), repeat(add_in_order<float>),
            repeat(add_in_order<double>)};
}

Rates rates_from(const double* seconds) {
    constexpr double steps = kSteps;
    return {seconds[0] / (steps * kInFlight * kLanes), seconds[1] / (steps * kInFlight * kLanes),
            seconds[2] / steps, seconds[3] / steps};
}

std::vector<Work> moves(const Pass& pass) {
    if (pass.read + pass.written == 0)
        return {};
    if (pass.written == 0) {
        const auto bytes = static_cast<size_t>(pass.read);
        return {repeat([from = std::make_shared<Buffer>(bytes), bytes] {
            read(from->memory, (bytes + kWidth - 1) / kWidth);
        })};
    }
    if (pass.read == 0) {
        const auto bytes = static_cast<size_t>(pass.written);
        const auto to = std::make_shared<Buffer>(bytes);
        std::vector<Work> ways = {repeat([=] { std::memset(to->memory, 0, bytes); })};
        if (bytes >= kWorthStreaming)
            ways.push_back(repeat(
                [=] { stream(to->memory, (bytes + kWidth - 1) / kWidth, [](size_t) { return Vector{}; }); }));
        return ways;
    }
    const auto bytes = static_cast<size_t>((pass.read + pass.written) / 2);
    const auto from = std::make_shared<Buffer>(bytes), to = std::make_shared<Buffer>(bytes);
    std::vector<Work> ways = {repeat([=] { std::memcpy(to->memory, from->memory, bytes); })};
    if (bytes >= kWorthStreaming)
        ways.push_back(repeat([=] {
            stream(to->memory, (bytes + kWidth - 1) / kWidth, [&](size_t i) {
                return Vector(*reinterpret_cast<const Unaligned*>(from->memory + i * kLanes));
            });
        }));
    return ways;
}

Limit limit_of(const std::vector<Pass>& passes, const std::vector<double>& moving, const Rates& rates) {
    double total = 0;
    Limit longest = {0, "none"};
    for (size_t i = 0; i < passes.size(); ++i) {
        const Pass& p = passes[i];
        const Limit parts[] = {{moving[i], p.written == 0 ? "reading"
                                           : p.read == 0  ? "filling"
                                                          : "copying"},
                               {p.flops * rates.flop, "arithmetic"},
                               {p.divisions * rates.division, "division"},
                               {p.chain * rates.chain, "ordered sum"},
                               {p.double_chain * rates.double_chain, "ordered sum"}};
        Limit most = parts[0];
        for (const Limit& part : parts)
            if (part.seconds > most.seconds)
                most = part;
        total += most.seconds;
        if (most.seconds > longest.seconds)
            longest = most;
    }
    return {total, longest.kind};
}

}  // namespace bench
