// The same seeded contexts through the entry point give the same bytes on every machine: a digest an
// operator, taken from the NEON build on 32-bit Arm. Sizes keep out the C library's expf and tanhf, which
// remain in the scalar tails and have a test of their own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "kelRt_platform.h"
#include "support/rig.h"

namespace {

using rig::mem;
using rig::val;
using Args = std::vector<KelRtContextArg>;
using Floats = std::vector<float>;
using Bytes = std::vector<uint8_t>;

// One context's memories and arguments, all from one seed.
class Draw {
  public:
    explicit Draw(uint32_t seed) : random_(seed) {}

    rig::Rig rig;

    uint32_t below(uint32_t end) { return static_cast<uint32_t>(random_() % end); }
    uint32_t from(uint32_t low, uint32_t high) { return low + below(high - low + 1); }
    // In [-size, size], by exact steps and one rounding.
    float number(float size) { return static_cast<float>(static_cast<int32_t>(random_())) * 0x1p-31f * size; }

    Floats numbers(size_t n, float size) {
        Floats values(n);
        for (float& value : values)
            value = below(16) == 0 ? number(1e-39f) : number(size);  // and some subnormals
        return values;
    }
    // With NaNs, infinities and numbers at the limits thrown in; for vector arithmetic only, where the
    // pattern of a NaN that comes out is settled.
    Floats wild(size_t n, float size) {
        constexpr uint32_t kSpecial[] = {0x00000000, 0x80000000, 0x7F800000, 0xFF800000,
                                         0x7FC12345, 0xFFA00001, 0x00800000, 0x7F7FFFFF,
                                         0xFF7FFFFF, 0x42B17218, 0x3F7FFFFE, 0x00800001};
        Floats values = numbers(n, size);
        for (float& value : values)
            if (below(24) == 0)
                std::memcpy(&value, &kSpecial[below(12)], 4);
        return values;
    }
    Bytes bytes(size_t n) {
        Bytes values(n);
        for (uint8_t& value : values)
            value = static_cast<uint8_t>(random_());
        return values;
    }

    template <typename T>
    KelRtContextArg in(const std::vector<T>& values) {
        const uint32_t offset = below(8);
        return mem(rig.memory_of(values, offset), offset);
    }
    KelRtContextArg out(size_t size) {
        const uint32_t offset = below(8);
        return mem(rig.memory(size + offset), offset);
    }

  private:
    std::mt19937 random_;
};

Args instance_norm(Draw& d) {
    const uint32_t n = d.from(1, 200);
    return {d.out(4 * n), d.in(d.numbers(n, 50)), val(n), rig::flt(d.number(2)), rig::flt(d.number(2))};
}

Args lstm(Draw& d) {
    const uint32_t n = 4 * d.from(1, 20);
    return {d.out(4 * n), d.in(d.wild(n, 2)), d.in(d.wild(4 * n, 4)), val(n)};
}

Args lstm_norm(Draw& d) {
    const uint32_t n = 4 * d.from(1, 20);
    const auto parameters = [&](size_t floats) { return d.in(d.numbers(floats, 2)); };
    const auto flag = [&] { return val(d.below(2)); };
    // With CPU activation more often than not: without, gate normalisation is refused.
    return {d.out(4 * n),
            d.in(d.numbers(n, 2)),
            d.in(d.numbers(4 * n, 4)),
            val(n),
            flag(),
            val(d.below(4)),
            rig::flt(1e-3f),
            parameters(4 * n),
            parameters(4 * n),
            parameters(n),
            parameters(n),
            flag(),
            flag(),
            flag(),
            flag()};
}

Args copy_format(Draw& d) {
    constexpr uint32_t kFloat = UINT32_MAX, kInputs[] = {8, 16, 32, kFloat}, kOutputs[] = {8, kFloat};
    const uint32_t n = d.from(1, 100), in = kInputs[d.below(4)], out = kOutputs[d.below(2)];
    const uint32_t most = in == 32 ? 20 : 7;
    // Room for the range of an automatic scale, which is read as n floats whatever they are.
    const auto input =
        in == kFloat ? d.in(d.numbers(std::max(n, 4u), 20)) : d.in(d.bytes(4 * std::max(n, 4u)));
    return {d.out(4 * n), val(out), val(out == kFloat ? 0 : d.below(8)),   val(d.below(3)),
            input,        val(in),  val(in == kFloat ? 0 : d.below(most)), val(d.from(1, 3)),
            val(n)};
}

Args one_hot(Draw& d) {
    const uint32_t depth = d.from(1, 40);
    return {d.out(4 * depth), d.in(Floats{d.number(1.1f) * static_cast<float>(depth)}), val(depth),
            rig::flt(d.number(3)), rig::flt(d.number(3))};
}

Args ewop_add(Draw& d) {
    const uint32_t n = d.from(0, 100);
    return {d.out(4 * n), d.in(d.numbers(n, 1e3f)), d.in(d.numbers(n, 1)), val(n)};
}

Args softmax(Draw& d) {
    const uint32_t n = 4 * d.from(1, 50);
    return {d.out(4 * n), d.in(d.below(4) == 0 ? d.wild(n, 60) : d.numbers(n, 20)), val(n)};
}

Args hw32(Draw& d) {
    const uint32_t n = d.from(0, 300);
    return {d.out(4 * n), d.in(d.bytes(4 * n)), val(n), val(d.below(2))};
}

Args hw32_param(Draw& d) {
    Args args = hw32(d);
    args.push_back(val(d.from(0, 70)));
    return args;
}

Args embedding(Draw& d) {
    const uint32_t rows = d.from(1, 20), w = d.from(1, 30);
    return {d.out(4 * w), d.in(Floats{static_cast<float>(d.below(rows)) + 0.75f}),
            d.in(d.numbers(rows * w, 5)), val(w)};
}

Args im2col(Draw& d) {
    const uint32_t kh = d.from(1, 4), kw = d.from(1, 4), rows = kh + d.below(6), cols = kw + d.below(6),
                   channels = d.from(1, 20);
    const uint32_t patch = (kh * kw * channels + 7) / 8 * 8;
    return {d.in(d.bytes(rows * cols * channels)),
            d.out(36 * patch),
            val(rows),
            val(cols),
            val(channels),
            val(kh),
            val(kw),
            val(1),
            val(d.from(1, 3)),
            val(d.from(1, 3))};
}

Args matmul(Draw& d) {
    const uint32_t m = d.from(1, 12), k = d.from(1, 40), n = d.from(1, 12), ta = d.below(2), tb = d.below(2);
    return {d.in(d.numbers(m * k, 3)),
            d.in(d.numbers(k * n, 3)),
            d.out(4 * m * n),
            val(ta ? k : m),
            val(ta ? m : k),
            val(tb ? n : k),
            val(tb ? k : n),
            val(ta),
            val(tb)};
}

Args featurenorm(Draw& d) {
    const uint32_t length = d.from(1, 20), total = d.from(1, 200);
    Floats var = d.numbers(length, 3);
    for (float& v : var)
        v += 4;
    return {d.in(d.numbers(total, 9)), val(total), d.in(d.numbers(length, 9)), d.in(var), val(length),
            d.out(4 * total)};
}

Args split(Draw& d) {
    const uint32_t n = d.from(0, 500);
    return {d.in(d.bytes(n)), d.out(n), val(n)};
}

Args sram(Draw& d) {
    const uint32_t rows = d.from(0, 10), row = d.from(1, 20), stride = row + d.below(9);
    nna_sim_set_sram(d.rig.sim, 0x1000, 512);
    nna_sim_set_sram_direction(d.rig.sim, d.below(2) ? NNA_SIM_MEMORY_TO_SRAM : NNA_SIM_SRAM_TO_MEMORY);
    const Bytes content = d.bytes(512);
    std::memcpy(nna_sim_sram(d.rig.sim), content.data(), 512);
    const uint32_t memory = d.rig.memory(rows * row);
    const Bytes view = d.bytes(rows * row);
    std::copy(view.begin(), view.end(), nna_sim_cpu_view(d.rig.sim, memory));
    return {val(0x1000 + d.below(100)), val(row), val(stride), val(rows), mem(memory)};
}

class Digest {
  public:
    void add(const void* data, size_t size) {
        const auto* bytes = static_cast<const uint8_t*>(data);
        for (size_t i = 0; i < size; ++i)
            value_ = (value_ ^ bytes[i]) * 0x100000001B3;
    }
    uint64_t value() const { return value_; }

  private:
    uint64_t value_ = 0xCBF29CE484222325;
};

const struct {
    uint32_t id;
    Args (*draw)(Draw&);
    uint64_t digest;
} kOperators[KEL_RT_NUM_OPS] = {
    {0, instance_norm, 0xf25b824c61baf413}, {1, lstm, 0xcca522fbd837ec9e},
    {2, copy_format, 0x7dab39b35b17a87e},   {3, one_hot, 0x8bfc69b26ff84117},
    {4, ewop_add, 0x2a61148710ca7967},      {5, softmax, 0x60fbe382718bc0d3},
    {6, hw32, 0xf64121fa209db55e},          {7, embedding, 0xfae4f88155bb20e8},
    {8, lstm, 0x2690f541f02a0069},          {9, im2col, 0xe1f1fdc70bbb275d},
    {10, matmul, 0x18301d41d3204069},       {11, featurenorm, 0x6190b652d2ec1ee3},
    {12, split, 0x5373048626d94992},        {13, lstm, 0xd989728fd221df78},
    {14, lstm, 0xb0c345048b28a5cb},         {15, lstm_norm, 0x61b818f7684c4263},
    {16, hw32_param, 0xd3bd48f67a1797e2},   {17, sram, 0xbce8002668779312},
    {18, sram, 0x3e2d187c859b3a59},
};

TEST(OperatorDigests, AreTheNeonBuilds) {
    constexpr uint32_t kContexts = 150;
    const int32_t level = g_log_lvl;
    g_log_lvl = 4;  // refusals are part of it; their log is not
    for (const auto& op : kOperators) {
        Digest digest;
        uint32_t succeeded = 0;
        for (uint32_t seed = 0; seed < kContexts; ++seed) {
            Draw draw(KEL_RT_NUM_OPS * seed + op.id);
            const uint32_t status = draw.rig.run(op.id, op.draw(draw));
            succeeded += status == NNA_STATUS_OK;
            digest.add(&status, sizeof status);
            digest.add(&draw.rig.instance.out_shift, 1);
            uint32_t size = 0;
            for (uint32_t memid = 0; tivNnaMemorySize(draw.rig.sim, memid, &size) == NNA_STATUS_OK; ++memid) {
                const Bytes image = draw.rig.device<uint8_t>(memid, size);
                digest.add(image.data(), size);
                if (op.id >= 17)  // SRAM moves stay on the CPU's side
                    digest.add(nna_sim_cpu_view(draw.rig.sim, memid), size);
            }
            if (op.id >= 17)
                digest.add(nna_sim_sram(draw.rig.sim), 512);
        }
        EXPECT_EQ(digest.value(), op.digest) << "operator " << op.id << ": 0x" << std::hex << digest.value();
        EXPECT_GT(succeeded, kContexts / 2) << "operator " << op.id;
    }
    g_log_lvl = level;
}

// Three units or values are nothing but tails: ordinary arithmetic with this machine's own C library, whose
// last bit other machines' do not share.
const struct {
    uint32_t id;
    bool activation, cifg;
} kLstmTails[] = {{1, false, false}, {8, true, false}, {13, false, true}, {14, true, true}};

TEST(OperatorTails, AreOrdinaryArithmeticWithThisMachinesCLibrary) {
    for (const auto& op : kLstmTails) {
        Draw draw(op.id);
        const Floats cell = draw.numbers(3, 2), gates = draw.numbers(12, 4);
        const Args args{draw.out(12), draw.in(cell), draw.in(gates), val(3)};
        ASSERT_EQ(draw.rig.run(op.id, args), NNA_STATUS_OK);
        Floats hidden, state;
        for (size_t k = 0; k < 3; ++k) {
            const auto sigmoid = [&](float x) { return op.activation ? 1 / (std::exp(-x) + 1) : x; };
            const float forget = sigmoid(gates[3 + k]), input = op.cifg ? 1 - forget : sigmoid(gates[k]),
                        candidate = op.activation ? std::tanh(gates[9 + k]) : gates[9 + k];
            state.push_back(input * candidate + forget * cell[k]);
            hidden.push_back(sigmoid(gates[6 + k]) * std::tanh(state[k]));
        }
        EXPECT_EQ(draw.rig.device<float>(args[0].value, 3, args[0].offset), hidden) << "operator " << op.id;
        EXPECT_EQ(draw.rig.device<float>(args[1].value, 3, args[1].offset), state) << "operator " << op.id;
    }

    Draw draw(5);
    const Floats x = draw.numbers(3, 4);
    const Args args{draw.out(12), draw.in(x), val(3)};
    ASSERT_EQ(draw.rig.run(5, args), NNA_STATUS_OK);
    const float e[] = {std::exp(x[0]), std::exp(x[1]), std::exp(x[2])}, scale = 1 / (e[0] + e[1] + e[2]);
    EXPECT_EQ(draw.rig.device<float>(args[0].value, 3, args[0].offset),
              (Floats{e[0] * scale, e[1] * scale, e[2] * scale}));
}

}  // namespace
