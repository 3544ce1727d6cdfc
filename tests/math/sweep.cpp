// Digests of every maths function over the 2^32 patterns of a float, and of the lane operations over pairs of
// operands, so that builds for different processors can be compared without storing results. The file of
// golden digests beside this program was written by the NEON build.
//
//   kelrt_sweep --check FILE     recompute what the file holds at this stride; fail on any difference
//   kelrt_sweep --print NAME     input and result bits of one function, to find where a difference is
//   kelrt_sweep                  write digests: name, stride, sixteen slices of the patterns, the special
//   ones
//
// Options: --stride N, --pairs N (per operation), --only NAME,NAME..., --time.
#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "kelRt.h"
#include "math/lanes.h"
#include "math/tables.h"
#include "math/vector_part.h"

namespace {

constexpr uint32_t kBlock = 4096;
using Words = std::vector<uint32_t>;

float as_float(uint32_t bits) {
    return std::bit_cast<float>(bits);
}

// ---- functions of one float

template <class Vector, auto primitive, class... More>
void each(const float* x, float* y, const More&... more) {
    for (uint32_t i = 0; i < kBlock; i += sizeof(Vector) / sizeof(float)) {
        Vector v;
        std::memcpy(&v, x + i, sizeof v);
        v = primitive(v, more...);
        std::memcpy(y + i, &v, sizeof v);
    }
}
template <auto primitive, class... More>
void each4(const float* x, float* y, const More&... more) {
    each<kelRt_float32x4_t, primitive>(x, y, more...);
}
template <auto primitive>
constexpr auto each2 = each<kelRt_float32x2_t, primitive>;
template <auto kernel>
void whole(const float* x, float* y) {
    kernel(x, y, kBlock);
}

const Table kExp(kExpCoefficients), kLog(kLogCoefficients);
// One product, added to zero: where a result may be tiny, its rounding shows.
const Table kProduct(Coefficients{0, 0, 0, 0, 0.99999988f, 0, 0, 0});
const std::vector<float> kZeros(kBlock, 0.0f), kThirds(kBlock, 1.0f / 3), kNearlyOne(kBlock, 0.99999988f);

// Eight elements to one or two. Their last steps are scalar, where which NaN comes out is open.
template <class Reduction>
void reductions(const float* x, float* y, Reduction reduce) {
    for (uint32_t i = 0; i < kBlock; i += 8) {
        y[i / 4] = y[i / 4 + 1] = 0;
        reduce(x + i, y + i / 4);
    }
    for (uint32_t i = 0; i < kBlock; ++i)
        y[i] = i >= kBlock / 4 ? 0 : y[i] != y[i] ? as_float(0x7FC00000u) : y[i];
}

void to_int8(const float* x, float* y, float scale) {
    int8_t bytes[kBlock];
    kelRt_scaleFtoI8(x, bytes, scale, kBlock);
    std::copy_n(bytes, kBlock, y);
}
// The low bits of each pattern.
template <class Int, auto kernel>
void from_int(const float* x, float* y, float scale) {
    std::vector<Int> ints(kBlock);
    for (uint32_t i = 0; i < kBlock; ++i)
        ints[i] = static_cast<Int>(std::bit_cast<uint32_t>(x[i]));
    kernel(ints.data(), y, scale, kBlock);
}

struct Function {
    const char* name;
    void (*run)(const float* x, float* y);  // kBlock elements
};
// clang-format off
const Function kFunctions[] = {
    {"vfloorq_f32", each4<vfloorq_f32>},
    {"vroundq_rte_f32", each4<vroundq_rte_f32>},
    {"vinvsqrt_f32", each2<vinvsqrt_f32>},
    {"vinvsqrtq_f32", each4<vinvsqrtq_f32>},
    {"vinv_f32", each2<vinv_f32>},
    {"vinvq_f32", each4<vinvq_f32>},
    {"vtaylor_polyq_f32", [](auto x, auto y) { each4<vtaylor_polyq_f32>(x, y, kExp.v); }},
    {"vtaylor_polyq_f32/product", [](auto x, auto y) { each4<vtaylor_polyq_f32>(x, y, kProduct.v); }},
    {"vexpq_f32", [](auto x, auto y) { each4<vexpq_f32>(x, y, kExp.v); }},
    {"vlogq_f32", [](auto x, auto y) { each4<vlogq_f32>(x, y, kLog.v); }},
    {"vtanhq_f32", [](auto x, auto y) { each4<vtanhq_f32>(x, y, kExp.v); }},
    {"vpowq_f32/2.5", [](auto x, auto y) { each4<vpowq_f32>(x, y, splat(2.5f), kLog.v, kExp.v); }},
    {"vpowq_f32/-0.3", [](auto x, auto y) { each4<vpowq_f32>(x, y, splat(-0.3f), kLog.v, kExp.v); }},
    {"vsinq_f32", each4<vsinq_f32>},
    {"vsin_f32", each2<vsin_f32>},
    {"kelRt_tanhf", whole<kelRt_tanhf>},
    {"kelRt_expf", whole<kelRt_expf>},
    {"kelRt_sigmoidf", whole<kelRt_sigmoidf>},
    {"kelRt_scalef", [](auto x, auto y) { kelRt_scalef(x, y, 0.99999988f, kBlock); }},
    {"kelRt_mulf", [](auto x, auto y) { kelRt_mulf(x, kThirds.data(), y, kBlock); }},
    {"kelRt_addf", [](auto x, auto y) { kelRt_addf(x, kThirds.data(), y, kBlock); }},
    {"kelRt_subf", [](auto x, auto y) { kelRt_subf(kThirds.data(), x, y, kBlock); }},
    {"kelRt_complementf", whole<kelRt_complementf>},
    {"kelRt_dotproductf", [](auto x, auto y) {
         kelRt_dotproductf(x, kNearlyOne.data(), kNearlyOne.data(), x, y, kBlock); }},
    {"kelRt_normf", [](auto x, auto y) {
         kelRt_normf(x, kThirds.data(), kZeros.data(), 0.0f, 0.7f, y, kBlock); }},
    {"kelRt_normf/mean", [](auto x, auto y) {
         kelRt_normf(x, kThirds.data(), kThirds.data(), 1.5f, -3.0f, y, kBlock); }},
    {"kelRt_scaleI32toF", [](auto x, auto y) { from_int<int32_t, kelRt_scaleI32toF>(x, y, 0.7f); }},
    {"kelRt_scaleI16toF", [](auto x, auto y) { from_int<int16_t, kelRt_scaleI16toF>(x, y, 0.7f); }},
    {"kelRt_scaleI8toF", [](auto x, auto y) { from_int<int8_t, kelRt_scaleI8toF>(x, y, 0x1.234p-126f); }},
    {"batchMulf", [](auto x, auto y) { batchMulf(x, kThirds.data(), y, kBlock); }},
    {"batchAddf", [](auto x, auto y) { batchAddf(x, kThirds.data(), y, kBlock); }},
    {"batchSubf", [](auto x, auto y) { batchSubf(kThirds.data(), x, y, kBlock); }},
    {"batchComplementf", whole<batchComplementf>},
    {"batchDotproductf", [](auto x, auto y) {
         batchDotproductf(x, kNearlyOne.data(), kNearlyOne.data(), x, y, kBlock); }},
    {"kelRt_scaleFtoI8", [](auto x, auto y) { to_int8(x, y, 0.37f); }},
    {"kelRt_scaleFtoI8/1", [](auto x, auto y) { to_int8(x, y, 1.0f); }},
    {"kelRt_scaleFtoI8/128", [](auto x, auto y) { to_int8(x, y, 128.0f); }},
    {"kelRt_scaleFtoI8/85", [](auto x, auto y) { to_int8(x, y, 256.0f / 3); }},
    {"kelRt_scaleFtoI8/tiny", [](auto x, auto y) { to_int8(x, y, 0x1p-32f); }},
    {"kelRt_sumf", [](auto x, auto y) {
         reductions(x, y, [](auto in, auto out) { kelRt_sumf(in, out, 8); }); }},
    {"kelRt_variancef", [](auto x, auto y) {
         reductions(x, y, [](auto in, auto out) { kelRt_variancef(in, 0.1f, out, 8); }); }},
    {"kelRt_minMaxf", [](auto x, auto y) {
         reductions(x, y, [](auto in, auto out) { kelRt_minMaxf(in, out, out + 1, 8); }); }},
};
// clang-format on

// The neighbourhoods of every power of two, and of the places where a function changes its mind.
Words special_patterns() {
    Words patterns;
    const auto around = [&](uint32_t centre, uint32_t reach) {
        for (uint32_t i = 0; i < 2 * reach; ++i) {
            patterns.push_back(centre - reach + i);
            patterns.push_back((centre - reach + i) ^ 0x80000000u);
        }
    };
    for (uint32_t exponent = 0; exponent < 256; ++exponent)
        around(exponent << 23, 16);
    for (const float x :
         {88.72284f, 88.02969f, 87.33655f, 86.64339f, 10.0f, 0.5f, 1.5f, 2.5f, 1.5707964f, 3.1415927f,
          0.6931472f, 346.57f, 127.0f, 2147483648.0f, 16777216.0f, 0.70710678f, 0x1p-63f, 0x1p-42f})
        around(std::bit_cast<uint32_t>(x), 64);
    while (patterns.size() % kBlock)
        patterns.push_back(0x7F800001u);
    return patterns;
}

// ---- pairs of operands

namespace lanes = kelrt::lanes;
using lanes::Floats;
using lanes::Ints;

struct Operands {
    const uint32_t *a, *b, *c;
};

struct Operation {
    const char* name;
    void (*run)(Operands x, uint32_t* y);
};

Floats shown(Floats a) {
    return a;
}
Ints shown(Ints a) {
    return a;
}
Ints shown(lanes::Mask mask) {
    return keep(mask, Ints::splat(1));
}

template <class Load, class Op>
void on_blocks(Operands x, uint32_t* y, Load load, Op op) {
    kelrt::vector_part<true>([=] {
        for (size_t i = 0; i < kBlock; i += 4)
            store(y + i, shown(op(load(x.a + i), load(x.b + i), load(x.c + i))));
    });
}
// The operations are lambdas without captures, so that their types say all.
template <class Op>
Operation floats(const char* name, Op) {
    return {name, [](Operands x, uint32_t* y) { on_blocks(x, y, Floats::load, Op{}); }};
}
template <class Op>
Operation ints(const char* name, Op) {
    return {name, [](Operands x, uint32_t* y) { on_blocks(x, y, Ints::load, Op{}); }};
}

const Operation kOperations[] = {
    floats("add", [](auto a, auto b, auto) { return add(a, b); }),
    floats("sub", [](auto a, auto b, auto) { return sub(a, b); }),
    floats("mul", [](auto a, auto b, auto) { return mul(a, b); }),
    floats("mul_add", [](auto a, auto b, auto c) { return mul_add(c, a, b); }),
    floats("div", [](auto a, auto b, auto) { return div(a, b); }),
    floats("min", [](auto a, auto b, auto) { return min(a, b); }),
    floats("max", [](auto a, auto b, auto) { return max(a, b); }),
    floats("recip_step", [](auto a, auto b, auto) { return recip_step(a, b); }),
    floats("rsqrt_step", [](auto a, auto b, auto) { return rsqrt_step(a, b); }),
    floats("greater", [](auto a, auto b, auto) { return greater(a, b); }),
    floats("greater_equal", [](auto a, auto b, auto) { return greater_equal(a, b); }),
    floats("equal", [](auto a, auto b, auto) { return equal(a, b); }),
    ints("add_sat", [](auto a, auto b, auto) { return add_sat(a, b); }),
    ints("shl_sat", [](auto a, auto, auto) { return lanes::shl_sat<23>(a); }),
    ints("shift_rounding", [](auto a, auto b, auto) { return shift_rounding(a, b); }),
    {"rounding_divide_by_pow2_a",
     [](Operands x, uint32_t* y) {
         for (uint32_t i = 0; i < kBlock; i += 4) {
             kelRt_int32x4_t v, e;
             std::memcpy(&v, x.a + i, sizeof v);
             std::memcpy(&e, x.b + i, sizeof e);
             v = rounding_divide_by_pow2_a(v, e);
             std::memcpy(y + i, &v, sizeof v);
         }
     }},
};

struct Random {
    uint64_t state;
    uint32_t operator()() {  // splitmix64
        uint64_t z = state += 0x9E3779B97F4A7C15u;
        z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9u;
        z = (z ^ z >> 27) * 0x94D049BB133111EBu;
        return static_cast<uint32_t>(z >> 32);
    }
};

// Operands that meet: anything, special values, sums that cancel, products and quotients next to 2^-126,
// small integers.
void draw(Random& random, uint32_t& a, uint32_t& b, uint32_t& c) {
    static const uint32_t special[] = {0x00000000, 0x00000001, 0x007FFFFF, 0x00800000, 0x00800001, 0x3F7FFFFE,
                                       0x3F7FFFFF, 0x3F800000, 0x3F800001, 0x40000000, 0x40400000, 0x4B800000,
                                       0x4EFFFFFF, 0x4F000000, 0x7E800000, 0x7F000000, 0x7F7FFFFF, 0x7F800000,
                                       0x7F800001, 0x7FC00000, 0x7FFFFFFF};
    // One draw a statement: the order decides the operands and must not be the compiler's.
    const auto pick = [&] {
        const uint32_t value = special[random() % std::size(special)];
        return value | (random() & 0x80000000u);
    };
    const uint32_t nearby = random() % 9 - 4;
    a = random(), b = random(), c = random();
    switch (random() % 8) {
        case 0:
            break;
        case 1:
            a = pick(), b = pick(), c = pick();
            break;
        case 2:
            (random() % 2 ? a : b) = pick();
            break;
        case 3:  // sums of neighbours
            b = (a ^ 0x80000000u) + nearby;
            break;
        case 4: {  // products next to 2^-126, added to little or nothing
            const uint32_t exponent =
                random() % 120 + 4;  // of a, and 2 - exponent or so of b, before the bias
            a = (a & 0x807FFFFFu) | exponent << 23;
            const double quotient = 0x1p-126 / static_cast<double>(as_float(a & 0x7FFFFFFFu));
            b = (std::bit_cast<uint32_t>(static_cast<float>(quotient)) + nearby) | (b & 0x80000000u);
            c = random() % 2 ? c & 0x80000000u : (c & 0x807FFFFFu) | (random() % 24 + 1) << 23;
            break;
        }
        case 5: {  // quotients next to 2^-126
            b = (b & 0x807FFFFFu) | (random() % 100 + 130) << 23;
            const double product = 0x1p-126 * static_cast<double>(as_float(b));
            a = std::bit_cast<uint32_t>(static_cast<float>(product)) + nearby;
            break;
        }
        case 6:  // sums and differences around 2^-126
            a = (a & 0x807FFFFFu) | (random() % 4) << 23;
            b = (b & 0x807FFFFFu) | (random() % 4) << 23;
            break;
        case 7:  // integers about the size of a word
            b = random() % 130 - 65;
            a = a >> (random() % 32);
            a = random() % 2 ? a : ~a;
            break;
    }
}

// ---- digests

struct Digest {
    uint64_t h = 0x6A09E667F3BCC908u;
    void take(const uint32_t* words, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            h = (h ^ words[i]) * 0x9E3779B97F4A7C15u;
            h ^= h >> 32;
        }
    }
};

void apply(const Function& f, const uint32_t* x, uint32_t* y) {
    float in[kBlock], out[kBlock];
    std::memcpy(in, x, sizeof in);
    f.run(in, out);
    std::memcpy(y, out, sizeof out);
}

void print(const Function& f, uint64_t stride) {
    Words x(kBlock), y(kBlock);
    for (uint64_t pattern = 0; pattern < UINT64_C(1) << 32;) {
        for (uint32_t& word : x) {
            word = static_cast<uint32_t>(pattern);
            pattern += stride;
        }
        apply(f, x.data(), y.data());
        for (uint32_t k = 0; k < kBlock; ++k)
            std::printf("%08x %08x\n", x[k], y[k]);
    }
}

std::vector<uint64_t> digests(const Function& f, uint64_t stride) {
    std::vector<uint64_t> result;
    Words x(kBlock), y(kBlock);
    for (uint64_t slice = 0; slice < 16; ++slice) {
        Digest digest;
        const uint64_t end = (slice + 1) << 28;
        for (uint64_t pattern = slice << 28; pattern < end;) {
            for (uint32_t& word : x) {
                word = static_cast<uint32_t>(pattern);
                pattern = pattern < end ? pattern + stride : pattern;
            }
            apply(f, x.data(), y.data());
            digest.take(y.data(), kBlock);
        }
        result.push_back(digest.h);
    }
    const Words special = special_patterns();
    Digest digest;
    for (size_t i = 0; i < special.size(); i += kBlock) {
        apply(f, special.data() + i, y.data());
        digest.take(y.data(), kBlock);
    }
    result.push_back(digest.h);
    return result;
}

std::vector<uint64_t> digests(const Operation& op, uint64_t pairs) {
    std::vector<uint64_t> result;
    Words a(kBlock), b(kBlock), c(kBlock), y(kBlock);
    for (uint64_t slice = 0; slice < 16; ++slice) {
        Random random{slice << 32};
        Digest digest;
        for (uint64_t done = 0; done < pairs / 16; done += kBlock) {
            for (uint32_t i = 0; i < kBlock; ++i)
                draw(random, a[i], b[i], c[i]);
            op.run({a.data(), b.data(), c.data()}, y.data());
            digest.take(y.data(), kBlock);
        }
        result.push_back(digest.h);
    }
    return result;
}

std::string hex(const std::vector<uint64_t>& values) {
    std::string text;
    for (const uint64_t value : values) {
        char word[20];
        std::snprintf(word, sizeof word, " %016llx", static_cast<unsigned long long>(value));
        text += word;
    }
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    std::map<std::string, std::string> options = {{"--stride", "8191"}, {"--pairs", "524288"},
                                                  {"--check", ""},      {"--only", ""},
                                                  {"--print", ""},      {"--time", ""}};
    for (int i = 1; i < argc; ++i) {
        const auto option = options.find(argv[i]);
        if (option == options.end() || (option->first != "--time" && i + 1 == argc)) {
            std::fprintf(stderr, "kelrt_sweep: what is %s?\n", argv[i]);
            return 2;
        }
        option->second = option->first == "--time" ? "yes" : argv[++i];
    }
    const uint64_t stride = std::strtoull(options["--stride"].c_str(), nullptr, 0),
                   pairs = std::strtoull(options["--pairs"].c_str(), nullptr, 0);
    if (stride == 0 || stride > UINT64_C(1) << 32) {
        std::fprintf(stderr, "kelrt_sweep: the stride is a number from 1 to 2^32\n");
        return 2;
    }
    const std::string only = std::string(",").append(options["--only"]).append(",");
    const bool checking = !options["--check"].empty();

    std::map<std::string, std::string> golden;  // "name stride" or "name pairs" to the rest of the line
    std::ifstream file(options["--check"]);
    for (std::string line; std::getline(file, line);) {
        const size_t end = line.find(' ', line.find(' ') + 1);
        if (end != std::string::npos)
            golden[line.substr(0, end)] = line.substr(end);
    }

    int differences = 0, compared = 0;
    const auto report = [&](const auto& item, uint64_t size) {
        if (only != ",," && only.find(std::string(",").append(item.name).append(",")) == std::string::npos)
            return;
        const auto start = std::chrono::steady_clock::now();
        const std::string found = hex(digests(item, size));
        const std::string key = std::string(item.name) + " " + std::to_string(size);
        ++compared;
        if (!checking) {
            std::printf("%s%s\n", key.c_str(), found.c_str());
        } else if (golden[key] != found) {
            ++differences;
            std::printf("DIFFERS %s\n  expected%s\n  found   %s\n", key.c_str(), golden[key].c_str(),
                        found.c_str());
        }
        if (!options["--time"].empty())
            std::fprintf(stderr, "%s: %.1f s\n", key.c_str(),
                         std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        std::fflush(stdout);
    };
    for (const Function& f : kFunctions) {
        if (options["--print"].empty())
            report(f, stride);
        else if (options["--print"] == f.name)
            print(f, stride);
    }
    for (const Operation& op : kOperations)
        if (options["--print"].empty())
            report(op, pairs);
    if (checking)
        std::printf("%d of %d digests differ\n", differences, compared);
    return differences || (checking && compared == 0);
}
