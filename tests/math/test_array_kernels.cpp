// The array and batch kernels: block and tail formulas over every small size at an odd address between guard
// bytes, the order of reductions, deliberate overruns, and the caller's floating-point mode.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

#include "kelRt.h"
#include "math/reference.h"

namespace {

using ref::bits;
using ref::from_bits;

// An array at an odd address, with bytes on both sides that must stay as they are.
template <class T>
class Array {
  public:
    explicit Array(size_t n) : n_(n), bytes_(n * sizeof(T) + 2 * kGuard, 0xA5) {
        if (reinterpret_cast<uintptr_t>(bytes_.data()) % 2)
            --shift_;
    }
    explicit Array(const std::vector<T>& values) : Array(values.size()) {
        if (n_ > 0)
            std::memcpy(start(), values.data(), n_ * sizeof(T));
    }
    operator T*() { return reinterpret_cast<T*>(start()); }
    std::vector<T> values() {
        std::vector<T> v(n_);
        if (n_ > 0)
            std::memcpy(v.data(), start(), n_ * sizeof(T));
        return v;
    }
    bool intact() {
        const auto kept = [](uint8_t byte) { return byte == 0xA5; };
        uint8_t* const end = start() + n_ * sizeof(T);
        return std::all_of(bytes_.data(), start(), kept) &&
               std::all_of(end, bytes_.data() + bytes_.size(), kept);
    }

  private:
    static constexpr size_t kGuard = 65;
    uint8_t* start() { return bytes_.data() + shift_; }
    size_t n_, shift_ = kGuard;
    std::vector<uint8_t> bytes_;
};

using Floats = std::vector<float>;

// Blocks must give the reference's bits; in the tail, which NaN comes out is open.
void expect_same(const Floats& found, const std::function<float(size_t)>& block,
                 const std::function<float(size_t)>& tail, size_t width, const std::string& what) {
    const size_t whole = found.size() / width * width;
    for (size_t i = 0; i < found.size(); ++i) {
        const float expected = i < whole ? block(i) : tail(i);
        if (i >= whole && std::isnan(expected) && std::isnan(found[i]))
            continue;
        ASSERT_EQ(bits(found[i]), bits(expected)) << what << ", element " << i << " of " << found.size();
    }
}

struct Elementwise {
    const char* name;
    int inputs;
    void (*run)(float* const* in, float* out, uint32_t n);
    float (*block)(const float* x);
    float (*tail)(const float* x);
};

constexpr float kScale = 0x1.fffffcp-1f, kMean = 0.37f, kDivisor = -1.9f;

const Elementwise kElementwise[] = {
    {"tanhf", 1, [](float* const* x, float* y, uint32_t n) { EXPECT_EQ(kelRt_tanhf(x[0], y, n), 1001u); },
     [](const float* x) { return ref::tanh(x[0]); }, [](const float* x) { return std::tanh(x[0]); }},
    {"expf", 1, [](float* const* x, float* y, uint32_t n) { EXPECT_EQ(kelRt_expf(x[0], y, n), 1001u); },
     [](const float* x) { return ref::exp(x[0]); }, [](const float* x) { return std::exp(x[0]); }},
    {"sigmoidf", 1,
     [](float* const* x, float* y, uint32_t n) { EXPECT_EQ(kelRt_sigmoidf(x[0], y, n), 1001u); },
     [](const float* x) { return ref::sigmoid(x[0]); },
     [](const float* x) { return 1.0f / (std::exp(-x[0]) + 1.0f); }},
    {"scalef", 1,
     [](float* const* x, float* y, uint32_t n) { EXPECT_EQ(kelRt_scalef(x[0], y, kScale, n), 1001u); },
     [](const float* x) { return ref::mul(x[0], kScale); }, [](const float* x) { return x[0] * kScale; }},
    {"mulf", 2, [](float* const* x, float* y, uint32_t n) { EXPECT_EQ(kelRt_mulf(x[0], x[1], y, n), 1001u); },
     [](const float* x) { return ref::mul(x[0], x[1]); }, [](const float* x) { return x[0] * x[1]; }},
    {"addf", 2, [](float* const* x, float* y, uint32_t n) { EXPECT_EQ(kelRt_addf(x[0], x[1], y, n), 1001u); },
     [](const float* x) { return ref::add(x[0], x[1]); }, [](const float* x) { return x[0] + x[1]; }},
    {"subf", 2, [](float* const* x, float* y, uint32_t n) { EXPECT_EQ(kelRt_subf(x[0], x[1], y, n), 1001u); },
     [](const float* x) { return ref::sub(x[0], x[1]); }, [](const float* x) { return x[0] - x[1]; }},
    {"complementf", 1,
     [](float* const* x, float* y, uint32_t n) { EXPECT_EQ(kelRt_complementf(x[0], y, n), 1001u); },
     [](const float* x) { return ref::sub(1, x[0]); }, [](const float* x) { return 1.0f - x[0]; }},
    {"dotproductf", 4,
     [](float* const* x, float* y, uint32_t n) {
         EXPECT_EQ(kelRt_dotproductf(x[0], x[1], x[2], x[3], y, n), 1001u);
     },
     [](const float* x) { return ref::mla(ref::mul(x[0], x[2]), x[1], x[3]); },
     [](const float* x) { return x[0] * x[2] + x[1] * x[3]; }},
    {"normf", 3,
     [](float* const* x, float* y, uint32_t n) {
         EXPECT_EQ(kelRt_normf(x[0], x[1], x[2], kMean, kDivisor, y, n), 1001u);
     },
     [](const float* x) { return ref::mla(x[2], x[1], ref::div(ref::sub(x[0], kMean), kDivisor)); },
     [](const float* x) { return x[2] + ((x[0] - kMean) / kDivisor) * x[1]; }},
};

TEST(ArrayKernels, BlocksTailsAndGuards) {
    for (const Elementwise& kernel : kElementwise)
        for (uint32_t n = 0; n <= 40; ++n)
            for (const bool in_place : {false, true}) {
                std::vector<Floats> x;
                std::vector<Array<float>> arrays;
                for (uint32_t k = 0; k < 4; ++k) {
                    x.push_back(ref::inputs(n, 100 * n + k));
                    arrays.emplace_back(x.back());
                }
                Array<float> separate(Floats(n, NAN));
                Array<float>& out = in_place ? arrays[0] : separate;
                float* const in[4] = {arrays[0], arrays[1], arrays[2], arrays[3]};
                kernel.run(in, out, n);

                const auto formula = [&](auto f) {
                    return [&x, f](size_t i) {
                        const float row[4] = {x[0][i], x[1][i], x[2][i], x[3][i]};
                        return f(row);
                    };
                };
                expect_same(out.values(), formula(kernel.block), formula(kernel.tail), 4, kernel.name);
                for (Array<float>& array : arrays)
                    EXPECT_TRUE(array.intact()) << kernel.name << " " << n;
                EXPECT_TRUE(separate.intact()) << kernel.name << " " << n;
            }
}

// The two rounding rules that part only here: a product below 2^-126 that would round up to it.
TEST(ArrayKernels, TinyBeforeRounding) {
    const Floats a(5, from_bits(0x00800001)), b(5, from_bits(0x3F7FFFFE));
    Floats y(5);
    kelRt_mulf(a.data(), b.data(), y.data(), 5);
    EXPECT_EQ(bits(y[0]), 0u);
    EXPECT_EQ(bits(y[4]), 0x00800000u);  // the tail is ordinary arithmetic
}

// The missing clamp tells a block from the C library.
TEST(ArrayKernels, FifthElementIsTheTail) {
    const Floats x(5, 100.0f);
    Floats y(5);
    kelRt_expf(x.data(), y.data(), 5);
    EXPECT_EQ(bits(y[0]) & 0x7F800000u, 0x7F800000u);
    EXPECT_TRUE(std::isnan(y[3]));
    EXPECT_TRUE(std::isinf(y[4]));
    const Floats z(5, -100.0f);
    kelRt_sigmoidf(z.data(), y.data(), 5);
    EXPECT_EQ(bits(y[0]), 0x7FC00000u);
    EXPECT_EQ(y[4], 1.0f / (std::exp(100.0f) + 1.0f));
}

template <class Int>
void check_scaling(uint32_t (*kernel)(const Int*, float*, float, uint32_t), size_t width) {
    for (const float scale : {0.37f, from_bits(0x00000100), 1e38f})
        for (uint32_t n = 0; n <= 40; ++n) {
            std::vector<Int> x(n);
            const Floats random = ref::inputs(n, n);
            for (size_t i = 0; i < n; ++i)
                x[i] = i % 9 == 0 ? std::numeric_limits<Int>::min() : static_cast<Int>(bits(random[i]) >> 3);
            Array<Int> in(x);
            Array<float> out(Floats(n, NAN));
            EXPECT_EQ(kernel(in, out, scale, n), 1001u);
            expect_same(
                out.values(), [&](size_t i) { return ref::mul(static_cast<float>(x[i]), scale); },
                [&](size_t i) { return static_cast<float>(x[i]) * scale; }, width, "scaling");
            EXPECT_TRUE(out.intact());
        }
}

TEST(ArrayKernels, IntegersToFloat) {
    check_scaling<int8_t>(kelRt_scaleI8toF, 8);
    check_scaling<int16_t>(kelRt_scaleI16toF, 8);
    check_scaling<int32_t>(kelRt_scaleI32toF, 4);
}

TEST(ArrayKernels, FloatToInt8) {
    const Floats values = {127.9f, -128.5f,   -0.9f,   NAN,        2.7f,  -2.7f,
                           1e30f,  -INFINITY, -128.0f, 126.99999f, 1e-40f};
    const std::vector<int8_t> expected = {127, -128, 0, 0, 2, -2, 127, -128, -128, 126, 0};
    for (uint32_t n = 0; n <= 40; ++n)
        for (size_t first = 0; first < values.size(); ++first) {
            Floats x(n);
            for (size_t i = 0; i < n; ++i)
                x[i] = values[(first + i) % values.size()] * 0.5f;
            Array<float> in(x);
            Array<int8_t> out(std::vector<int8_t>(n, 99));
            EXPECT_EQ(kelRt_scaleFtoI8(in, out, 2.0f, n), 1001u);
            const std::vector<int8_t> found = out.values();
            for (size_t i = 0; i < n; ++i)
                ASSERT_EQ(found[i], expected[(first + i) % values.size()]) << "element " << i << " of " << n;
            EXPECT_TRUE(out.intact());
        }
}

// ---- reductions

float reference_sum(const Floats& x, float mean, bool squares) {
    float lanes[4] = {};
    const size_t whole = x.size() / 4 * 4;
    for (size_t i = 0; i < whole; ++i) {
        const float d = squares ? ref::sub(x[i], mean) : x[i];
        lanes[i % 4] = squares ? ref::mla(lanes[i % 4], d, d) : ref::add(lanes[i % 4], d);
    }
    float total = 0.0f;
    for (const float lane : lanes)
        total += lane;
    for (size_t i = whole; i < x.size(); ++i) {
        const float d = x[i] - mean;
        total = squares ? static_cast<float>(static_cast<double>(total) +
                                             static_cast<double>(d) * static_cast<double>(d))
                        : total + x[i];
    }
    return squares ? total / static_cast<float>(x.size()) : total;
}

// Magnitudes that swallow each other: every other order gives another sum.
Floats order_dependent(size_t n, uint32_t seed) {
    Floats x = ref::inputs(n, seed);
    for (size_t i = 0; i < n; ++i)
        x[i] = static_cast<float>(static_cast<int32_t>(bits(x[i]) * 2654435761u) >> 8) *
               std::ldexp(1.0f, static_cast<int>(i * 7 % 24));
    return x;
}

TEST(Reductions, OrderOfAccumulation) {
    int told_apart = 0;
    for (uint32_t n = 0; n <= 40; ++n)
        for (uint32_t seed = 0; seed < 4; ++seed) {
            const Floats x = order_dependent(n, seed);
            Array<float> in(x), sum(1), variance(1);
            EXPECT_EQ(kelRt_sumf(in, sum, n), 1001u);
            EXPECT_EQ(kelRt_variancef(in, 0.3f, variance, n), 1001u);
            ASSERT_EQ(bits(sum.values()[0]), bits(reference_sum(x, 0, false))) << n;
            if (n > 0) {
                ASSERT_EQ(bits(variance.values()[0]), bits(reference_sum(x, 0.3f, true))) << n;
            }
            EXPECT_TRUE(in.intact() && sum.intact() && variance.intact());
            float sequential = 0;
            for (const float value : x)
                sequential += value;
            told_apart += bits(sequential) != bits(sum.values()[0]);
        }
    EXPECT_GT(told_apart, 60);  // or the inputs prove nothing
}

TEST(Reductions, SmallCounts) {
    float y = 7;
    kelRt_sumf(&y, &y, 0);
    EXPECT_EQ(bits(y), 0u);
    kelRt_variancef(&y, 0, &y, 0);
    EXPECT_TRUE(std::isnan(y));
    // Three elements are all tail: in double, 1 + 2^-24 + 2^-24 rounds to 1 each time, while squares of 4097
    // are too long for a float before the addition.
    const Floats x = {4097.0f, 1.0f, 4097.0f};
    kelRt_variancef(x.data(), 0, &y, 3);
    EXPECT_EQ(bits(y), bits(reference_sum(x, 0, true)));
    // Blocks flush, adding up the lanes does not.
    const Floats tiny = {0x1p-140f, 0x1p-126f, -0x1.8p-126f, 0};
    kelRt_sumf(tiny.data(), &y, 4);
    EXPECT_EQ(y, -0x1p-127f);
}

void expect_min_max(const Floats& x, uint32_t n, float least, float most, const char* why) {
    Array<float> in(x), low(1), high(1);
    EXPECT_EQ(kelRt_minMaxf(in, low, high, n), 1001u);
    EXPECT_EQ(bits(low.values()[0]), bits(least)) << why;
    EXPECT_EQ(bits(high.values()[0]), bits(most)) << why;
    EXPECT_TRUE(in.intact() && low.intact() && high.intact());
}

TEST(Reductions, MinMax) {
    const float inf = INFINITY, tiny = 0x1p-140f;
    expect_min_max({1, 2, 9, -7}, 2, -7, 9, "four elements take part, whatever n");
    expect_min_max({1, 2, 9, -7}, 0, -7, 9, "even when it is zero");
    expect_min_max({1, NAN, 3, 2, 0, 9, -1, 2}, 8, -1, 3, "a NaN takes its column out");
    expect_min_max({1, 9, 3, 2, 0, NAN, -1, 2}, 8, -1, 3, "wherever it is");
    expect_min_max({1, NAN, 3, 2, 9, -5}, 6, -5, 9, "but only of the blocks");
    expect_min_max({1, 2, 3, 2, NAN, 9}, 6, 1, 9, "a NaN in the tail is passed over");
    expect_min_max({-1, -2, -3, -4, inf, -inf, 0}, 7, -inf, inf, "infinities");
    expect_min_max({tiny, tiny, tiny, tiny}, 4, tiny, tiny, "one block is taken as it is");
    expect_min_max({1, 1, 1, 1, tiny, 1, 1, 1}, 8, 0, 1, "further blocks flush");
    expect_min_max({1, 1, 1, 1, tiny}, 5, tiny, 1, "the tail does not");
    expect_min_max({NAN, 2, 3, 4, 5}, 5, NAN, NAN, "nothing replaces a leading NaN");
    for (uint32_t n = 4; n <= 40; ++n) {
        Floats x = order_dependent(n, n);
        expect_min_max(x, n, *std::min_element(x.begin(), x.end()), *std::max_element(x.begin(), x.end()),
                       "ordinary numbers");
    }
}

// ---- batch kernels

TEST(BatchKernels, WholeBlocksAndNothingElse) {
    const struct {
        const char* name;
        void (*run)(float* const* x, float* y, uint32_t n);
        float (*block)(const float* x);
    } kernels[] = {
        {"batchMulf", [](float* const* x, float* y, uint32_t n) { batchMulf(x[0], x[1], y, n); },
         kElementwise[4].block},
        {"batchAddf", [](float* const* x, float* y, uint32_t n) { batchAddf(x[0], x[1], y, n); },
         kElementwise[5].block},
        {"batchSubf", [](float* const* x, float* y, uint32_t n) { batchSubf(x[0], x[1], y, n); },
         kElementwise[6].block},
        {"batchComplementf", [](float* const* x, float* y, uint32_t n) { batchComplementf(x[0], y, n); },
         kElementwise[7].block},
        {"batchDotproductf",
         [](float* const* x, float* y, uint32_t n) { batchDotproductf(x[0], x[1], x[2], x[3], y, n); },
         kElementwise[8].block},
    };
    for (const auto& kernel : kernels)
        for (uint32_t n = 0; n <= 40; ++n) {
            const uint32_t written = (n + 3) / 4 * 4;  // six elements write eight
            std::vector<Floats> x;
            std::vector<Array<float>> arrays;
            for (uint32_t k = 0; k < 4; ++k) {
                x.push_back(ref::inputs(written, 50 * n + k));
                arrays.emplace_back(x.back());
            }
            Array<float> out(Floats(written, NAN));
            float* const in[4] = {arrays[0], arrays[1], arrays[2], arrays[3]};
            kernel.run(in, out, n);
            const auto block = [&](size_t i) {
                const float row[4] = {x[0][i], x[1][i], x[2][i], x[3][i]};
                return kernel.block(row);
            };
            expect_same(out.values(), block, block, 4, kernel.name);
            EXPECT_TRUE(out.intact()) << kernel.name << " " << n;
        }
}

// A division by nothing much, by everything and by no number, which the vector part flushes and makes the
// default NaN.
TEST(ArrayKernels, NormfByEveryKindOfDivisor) {
    const Floats special = {0.0f, -0.0f, 1e-40f, -1e-40f, 0x1p-126f, 1.0f, -3e38f, INFINITY, -INFINITY, NAN};
    for (const float divisor : special)
        for (const float mean : special)
            for (const float value : special) {
                const float x[4] = {value, value, value, value}, gamma[4] = {1, 1, 1, 1}, beta[4] = {};
                float y[4];
                EXPECT_EQ(kelRt_normf(x, gamma, beta, mean, divisor, y, 4), 1001u);
                const float expected = ref::mla(0.0f, 1.0f, ref::div(ref::sub(value, mean), divisor));
                for (const float found : y)
                    ASSERT_EQ(std::bit_cast<uint32_t>(found), std::bit_cast<uint32_t>(expected))
                        << value << " - " << mean << " by " << divisor;
            }
}

// ---- the caller's mode

#if defined(__SSE2__)
using Mode = unsigned;
Mode mode() {
    return _mm_getcsr();
}
void set_mode(Mode word) {
    _mm_setcsr(word);
}
// Toward zero, up, flushing, and every exception trapping.
constexpr Mode kModes[] = {0x1F80 | 0x6000, 0x1F80 | 0x4000, 0x1F80 | 0x8040, 0};
constexpr Mode kModeBits = 0xFFC0;  // without the flags that any arithmetic raises
#elif defined(__arm__) || defined(__aarch64__)
#if defined(__arm__)
#define READ_MODE "vmrs %0, fpscr"
#define WRITE_MODE "vmsr fpscr, %0"
#else
#define READ_MODE "mrs %0, fpcr"
#define WRITE_MODE "msr fpcr, %0"
#endif
using Mode = uintptr_t;
Mode mode() {
    Mode word;
    asm volatile(READ_MODE : "=r"(word) : : "memory");
    return word;
}
void set_mode(Mode word) {
    asm volatile(WRITE_MODE : : "r"(word) : "memory");
}
// Toward zero, up, down, flushing.
constexpr Mode kModes[] = {0xC00000, 0x400000, 0x800000, 0x1000000};
constexpr Mode kModeBits = 0x3C00000;  // without the flags that NEON itself raises
#endif

#if defined(__SSE2__) || defined(__arm__) || defined(__aarch64__)
// Whatever mode the caller computes in, vector parts give the same bits, raise no trap and leave the mode
// alone.
TEST(CallersMode, NeitherSeenNorChanged) {
    const Floats x = ref::inputs(4096, 3);
    const auto everything = [&] {
        Floats results;
        for (const Elementwise& kernel : kElementwise) {
            Floats copies[4] = {x, Floats(x.rbegin(), x.rend()), x, x}, y(x.size());
            float* const in[4] = {copies[0].data(), copies[1].data(), copies[2].data(), copies[3].data()};
            kernel.run(in, y.data(), static_cast<uint32_t>(y.size()));
            results.insert(results.end(), y.begin(), y.end());
        }
        Floats sines(x.size());
        for (size_t i = 0; i < x.size(); i += 4) {
            kelRt_float32x4_t v;
            std::memcpy(&v, &x[i], sizeof v);
            v = vsinq_f32(v);
            std::memcpy(&sines[i], &v, sizeof v);
        }
        results.insert(results.end(), sines.begin(), sines.end());
        return results;
    };
    const Floats expected = everything();
    const Mode before = mode();
    for (const Mode callers : kModes) {
        set_mode(callers);
        const Floats found = everything();
        const Mode after = mode();
        set_mode(before);
        EXPECT_EQ(after & kModeBits, callers);
        EXPECT_EQ(std::memcmp(found.data(), expected.data(), expected.size() * sizeof(float)), 0)
            << std::hex << callers;
    }
}
#endif

}  // namespace
