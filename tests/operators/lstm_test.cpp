// The LSTM state updates: every combination of flags, against a double-precision reference and, bit by bit,
// against the array kernels called one after another; refusals; profiling lines; the layer normalisation and
// the dump that come with them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "formats/guarded.h"
#include "support/probe.h"
#include "support/rig.h"

namespace {

using guarded::Wall;
using rig::mem;
using rig::val;
using Floats = std::vector<float>;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

struct Flags {
    bool cifg, activation, gate_norm, per_gate, cell_norm, in_place;

    explicit Flags(unsigned bits)
        : cifg(bits & 1),
          activation(bits & 2),
          gate_norm(bits & 4),
          per_gate(bits & 8),
          cell_norm(bits & 16),
          in_place(bits & 32) {}
    // Bytes that are read of each gate parameter vector.
    size_t parameter_bytes(size_t n) const { return gate_norm ? (per_gate ? 7 : cifg ? 13 : 16) * n : 0; }
};
constexpr unsigned kAllFlags = 64;

std::ostream& operator<<(std::ostream& out, const Flags& f) {
    return out << (f.cifg ? "cifg " : "") << (f.activation ? "activation " : "")
               << (f.gate_norm ? "gateNorm " : "") << (f.per_gate ? "perGateNorm " : "")
               << (f.cell_norm ? "cellNorm " : "") << (f.in_place ? "cellNormInPlace " : "");
}

// `count` floats from byte `offset` of a parameter vector.
Floats floats_at(const Bytes& bytes, size_t offset, size_t count) {
    Floats values(count);
    std::memcpy(values.data(), bytes.data() + offset, 4 * count);
    return values;
}

struct State {
    Floats output, cell_state, gates;
    bool operator==(const State&) const = default;
};

struct Problem {
    Flags flags;
    uint32_t n;
    State before;
    Bytes gate_gamma, gate_beta;  // exactly as many as are read
    Floats cell_gamma, cell_beta;
    float epsilon = 1e-3f;

    Problem(const Flags& f, uint32_t units, uint32_t seed) : flags(f), n(units) {
        std::mt19937 random(seed);
        const auto floats = [&](size_t count, float low, float high) {
            Floats values(count);
            for (float& value : values)
                value = std::uniform_real_distribution<float>(low, high)(random);
            return values;
        };
        before = {Floats(n, std::numeric_limits<float>::quiet_NaN()), floats(n, -2, 2), floats(4 * n, -3, 3)};
        cell_gamma = floats(n, 0.5f, 2);
        cell_beta = floats(n, -1, 1);
        // Bytes of which any four in a row are a float of middling size, so that vectors that start at any
        // byte are sensible and no two are alike.
        const auto bytes = [&](const Bytes& choices) {
            Bytes vector(flags.parameter_bytes(n));
            for (uint8_t& byte : vector)
                byte = choices[random() % choices.size()];
            return vector;
        };
        gate_gamma = bytes({0x3E, 0x3F, 0x3D, 0xBE});
        gate_beta = bytes({0x3E, 0x3D, 0xBD, 0xBF});
    }

    uint32_t run(State& state) const {
        // Exactly as large as they need be, next to pages that nobody may touch.
        guarded::Bytes out(4 * n, Wall::After), cell(4 * n, Wall::After), gate(16 * n, Wall::After);
        guarded::Bytes gamma(gate_gamma, Wall::After), beta(gate_beta, Wall::After);
        const auto fill = [](guarded::Bytes& to, const Floats& from) {
            std::memcpy(to.data(), from.data(), 4 * from.size());
        };
        fill(out, before.output), fill(cell, before.cell_state), fill(gate, before.gates);
        const auto floats = [](guarded::Bytes& bytes) { return reinterpret_cast<float*>(bytes.data()); };
        const auto flag = [](bool on) { return on ? INT32_MIN : 0; };  // any value but 0 is on
        const uint32_t status = kelRt_lstmStatesCifgActivationNorm(
            floats(out), floats(cell), floats(gate), n, flag(flags.cifg), flag(flags.activation), epsilon,
            flags.gate_norm ? floats(gamma) : nullptr, flags.gate_norm ? floats(beta) : nullptr,
            flags.cell_norm ? cell_gamma.data() : nullptr, flags.cell_norm ? cell_beta.data() : nullptr,
            flag(flags.gate_norm), flag(flags.per_gate), flag(flags.cell_norm), flag(flags.in_place));
        state = {floats_at(out.copy(), 0, n), floats_at(cell.copy(), 0, n), floats_at(gate.copy(), 0, 4 * n)};
        return status;
    }
};

// The steps as exported array kernels, on aligned copies of everything.
void layer_norm(float* dst, const float* src, uint32_t n, const Floats& gamma, const Floats& beta,
                float epsilon) {
    float sum = 0, variance = 0;
    kelRt_sumf(src, &sum, n);
    const float mean = sum / static_cast<float>(n);
    kelRt_variancef(src, mean, &variance, n);
    kelRt_normf(src, gamma.data(), beta.data(), mean, std::sqrt(variance + epsilon), dst, n);
}

State composed(const Problem& p) {
    State s = p.before;
    const uint32_t n = p.n;
    float *i = s.gates.data(), *f = i + n, *o = f + n, *g = o + n, *c = s.cell_state.data(),
          *h = s.output.data();
    if (p.flags.gate_norm) {
        // First block of a run of normalised ones, and how many there are.
        const auto normalise = [&](uint32_t first, uint32_t blocks) {
            layer_norm(i + first * n, i + first * n, blocks * n,
                       floats_at(p.gate_gamma, first * n, blocks * n),
                       floats_at(p.gate_beta, first * n, blocks * n), p.epsilon);
        };
        const uint32_t first = p.flags.cifg ? 1 : 0;
        if (p.flags.per_gate)
            for (uint32_t block = first; block < 4; ++block)
                normalise(block, 1);
        else
            normalise(first, 4 - first);
    }
    if (p.flags.activation) {
        if (!p.flags.cifg)
            kelRt_sigmoidf(i, i, n);
        kelRt_sigmoidf(f, f, n);
        kelRt_sigmoidf(o, o, n);
        kelRt_tanhf(g, g, n);
    }
    if (p.flags.cifg)
        kelRt_complementf(f, i, n);
    kelRt_dotproductf(i, f, g, c, c, n);
    Floats x = s.cell_state;
    if (p.flags.cell_norm)
        layer_norm(x.data(), c, n, p.cell_gamma, p.cell_beta, p.epsilon);
    kelRt_tanhf(x.data(), h, n);
    kelRt_mulf(o, h, h, n);
    if (p.flags.cell_norm && p.flags.in_place)
        s.cell_state = x;
    return s;
}

// The same in double precision, from the formulas.
using Doubles = std::vector<double>;

double sigmoid(double x) {
    return 1 / (1 + std::exp(-x));
}

void normalise(double* x, size_t n, const Floats& gamma, const Floats& beta, double epsilon) {
    double mean = 0, variance = 0;
    for (size_t k = 0; k < n; ++k)
        mean += x[k] / static_cast<double>(n);
    for (size_t k = 0; k < n; ++k)
        variance += (x[k] - mean) * (x[k] - mean) / static_cast<double>(n);
    for (size_t k = 0; k < n; ++k)
        x[k] = beta[k] + gamma[k] * (x[k] - mean) / std::sqrt(variance + epsilon);
}

struct Truth {
    Doubles output, cell_state;
};

Truth truth(const Problem& p) {
    const size_t n = p.n;
    Doubles gates(p.before.gates.begin(), p.before.gates.end());
    if (p.flags.gate_norm) {
        const size_t first = p.flags.cifg ? 1 : 0, step = p.flags.per_gate ? 1 : 4 - first;
        for (size_t block = first; block < 4; block += step)
            normalise(&gates[block * n], step * n, floats_at(p.gate_gamma, block * n, step * n),
                      floats_at(p.gate_beta, block * n, step * n), p.epsilon);
    }
    Truth t{Doubles(n), Doubles(n)};
    for (size_t k = 0; k < n; ++k) {
        const auto gate = [&](size_t block) {
            const double x = gates[block * n + k];
            return !p.flags.activation ? x : block == 3 ? std::tanh(x) : sigmoid(x);
        };
        const double f = gate(1), i = p.flags.cifg ? 1 - f : gate(0);
        t.cell_state[k] = i * gate(3) + f * p.before.cell_state[k];
        t.output[k] = gate(2);
    }
    Doubles x = t.cell_state;
    if (p.flags.cell_norm)
        normalise(x.data(), n, p.cell_gamma, p.cell_beta, p.epsilon);
    for (size_t k = 0; k < n; ++k)
        t.output[k] *= std::tanh(x[k]);
    if (p.flags.cell_norm && p.flags.in_place)
        t.cell_state = x;
    return t;
}

void expect_near(const Floats& actual, const Doubles& expected) {
    for (size_t k = 0; k < expected.size(); ++k)
        ASSERT_NEAR(actual[k], expected[k], 2e-5 * std::max(1.0, std::fabs(expected[k]))) << k;
}

class Lstm : public testing::TestWithParam<uint32_t> {};

TEST_P(Lstm, EveryFlagCombination) {
    const uint32_t n = GetParam();
    for (unsigned bits = 0; bits < kAllFlags; ++bits) {
        const Flags flags(bits);
        const Problem p(flags, n, 64 * n + bits);
        SCOPED_TRACE(testing::Message() << "n " << n << ", flags " << bits << ": " << flags);
        probe::Probe probe;
        State after;
        const uint32_t status = p.run(after);
        if (flags.gate_norm && !flags.activation) {
            EXPECT_EQ(status, NNA_STATUS_UNSUPPORTED);
            EXPECT_EQ(probe.messages(), Lines{"Gate Normalization without CPU activation not supported"});
            for (float value : after.output)
                EXPECT_TRUE(std::isnan(value));
            EXPECT_EQ(after.cell_state, p.before.cell_state);
            EXPECT_EQ(after.gates, p.before.gates);
            continue;
        }
        ASSERT_EQ(status, NNA_STATUS_OK);
        EXPECT_EQ(probe.text(), "");
        EXPECT_TRUE(after == composed(p));
        // With one unit, or the same value throughout, a deviation of 0 multiplies rounding by 1 / sqrt(eps);
        // the bits are checked above.
        const Truth expected = truth(p);
        expect_near(after.cell_state, expected.cell_state);
        expect_near(after.output, expected.output);
        if (HasFatalFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(Units, Lstm, testing::Values(1, 2, 3, 4, 5, 6, 7, 8, 9, 1003));

const struct {
    uint32_t id;
    uint32_t (*kernel)(float*, float*, float*, uint32_t);
    unsigned flags;
} kFamily[] = {
    {1, kelRt_lstmStates, 0},
    {8, kelRt_lstmStatesActivation, 2},
    {13, kelRt_lstmStatesCifg, 1},
    {14, kelRt_lstmStatesActivationCifg, 3},
};

// The family and the fifth kernel with the same flags: one result, by direct call and by context.
TEST(LstmFamily, EqualsTheFlagsOfTheNormalisedKernel) {
    for (const auto& member : kFamily) {
        for (uint32_t n : {1u, 3u, 4u, 5u, 130u}) {
            SCOPED_TRACE(testing::Message() << "operator " << member.id << ", n " << n);
            const Problem p(Flags(member.flags), n, n);
            const State expected = composed(p);
            State s = p.before;
            ASSERT_EQ(member.kernel(s.output.data(), s.cell_state.data(), s.gates.data(), n), NNA_STATUS_OK);
            EXPECT_TRUE(s == expected);

            const uint32_t offset = n % 4 + 1;
            rig::Rig rig;
            const uint32_t out = rig.memory(4 * n + offset),
                           cell = rig.memory_of(p.before.cell_state, offset),
                           gates = rig.memory_of(p.before.gates, offset);
            ASSERT_EQ(rig.run(member.id, {mem(out, offset), mem(cell, offset), mem(gates, offset), val(n)}),
                      NNA_STATUS_OK);
            EXPECT_EQ(rig.device<float>(out, n, offset), expected.output);
            EXPECT_EQ(rig.device<float>(cell, n, offset), expected.cell_state);
            EXPECT_EQ(rig.device<float>(gates, 4 * n, offset), p.before.gates) << "scratch is not published";
        }
    }
}

TEST(LstmFamily, UsesGateValuesUnclampedAndIgnoresTheInputGateUnderCifg) {
    Floats gates = {-2, 5, 3, 7}, cell = {0.5f}, out = {9};
    kelRt_lstmStates(out.data(), cell.data(), gates.data(), 1);
    EXPECT_EQ(cell[0], -2 * 7 + 5 * 0.5f);
    EXPECT_NEAR(out[0], 3 * std::tanh(-11.5), 1e-6);
    for (float ignored : {std::numeric_limits<float>::quiet_NaN(), 1e30f}) {
        for (bool activation : {false, true}) {
            Problem p(Flags(activation ? 3 : 1), 6, 1), q = p;
            std::fill_n(q.before.gates.begin(), 6, ignored);
            State a, b;
            ASSERT_EQ(p.run(a), NNA_STATUS_OK);
            ASSERT_EQ(q.run(b), NNA_STATUS_OK);
            EXPECT_TRUE(a == b);
        }
    }
}

TEST(LstmNorm, RunsFromAContextWithEveryVectorAtItsOwnOffset) {
    const uint32_t n = 5;
    for (unsigned bits : {2u | 4 | 8 | 16, 3u | 4 | 16 | 32}) {
        const Problem p(Flags(bits), n, bits);
        const State expected = composed(p);
        rig::Rig rig;
        const uint32_t out = rig.memory(4 * n + 1), cell = rig.memory_of(p.before.cell_state, 2),
                       gates = rig.memory_of(p.before.gates, 3), gate_gamma = rig.memory_of(p.gate_gamma, 4),
                       gate_beta = rig.memory_of(p.gate_beta, 5), cell_gamma = rig.memory_of(p.cell_gamma, 6),
                       cell_beta = rig.memory_of(p.cell_beta, 7);
        const auto flag = [&](unsigned bit) { return val(bits & bit); };
        ASSERT_EQ(rig.run(15, {mem(out, 1), mem(cell, 2), mem(gates, 3), val(n), flag(1), flag(2),
                               rig::flt(p.epsilon), mem(gate_gamma, 4), mem(gate_beta, 5), mem(cell_gamma, 6),
                               mem(cell_beta, 7), flag(4), flag(8), flag(16), flag(32)}),
                  NNA_STATUS_OK);
        EXPECT_EQ(rig.device<float>(out, n, 1), expected.output);
        EXPECT_EQ(rig.device<float>(cell, n, 2), expected.cell_state);
        EXPECT_EQ(rig.device<float>(gates, 4 * n, 3), p.before.gates);
    }
}

TEST(LstmNorm, NeedsNoTensorForParametersThatAreOff) {
    const Problem p(Flags(0), 4, 1);
    rig::Rig rig;
    const uint32_t out = rig.memory(16), cell = rig.memory_of(p.before.cell_state),
                   gates = rig.memory_of(p.before.gates);
    const KelRtContextArg none = mem(KEL_RT_NO_MEMORY_ID);
    EXPECT_EQ(rig.run(15, {mem(out), mem(cell), mem(gates), val(4), val(0), val(0), rig::flt(0), none, none,
                           none, none, val(0), val(0), val(0), val(0)}),
              NNA_STATUS_OK);
    EXPECT_EQ(rig.device<float>(out, 4), composed(p).output);
}

TEST(LstmNorm, KeepsTheCellStateUnnormalisedUnlessInPlace) {
    State plain, kept, in_place;
    ASSERT_EQ(Problem(Flags(2), 6, 1).run(plain), NNA_STATUS_OK);
    ASSERT_EQ(Problem(Flags(2 | 16), 6, 1).run(kept), NNA_STATUS_OK);
    ASSERT_EQ(Problem(Flags(2 | 16 | 32), 6, 1).run(in_place), NNA_STATUS_OK);
    EXPECT_EQ(kept.cell_state, plain.cell_state);
    EXPECT_NE(in_place.cell_state, plain.cell_state);
    EXPECT_EQ(kept.output, in_place.output);
    EXPECT_NE(kept.output, plain.output);
}

// Refusals, earliest check first: status, and neither a log line nor a profiling question nor a write.
TEST(LstmChecks, ComeInOrderAndTouchNothing) {
    Floats output = {-7}, cell = {-7}, gates = {1, 2, 3, 4}, p(8, 1.0f);
    probe::Probe probe;
    const auto norm = [&](float* out, float* c, float* g, uint32_t n, const float* gg, const float* gb,
                          const float* cg, const float* cb, int gate_norm, int cell_norm) {
        return kelRt_lstmStatesCifgActivationNorm(out, c, g, n, 0, 0, 1, gg, gb, cg, cb, gate_norm, 0,
                                                  cell_norm, 0);
    };
    float *o = output.data(), *c = cell.data(), *g = gates.data(), *v = p.data();
    for (const auto& member : kFamily) {
        EXPECT_EQ(member.kernel(nullptr, c, g, 0), NNA_STATUS_NULL_POINTER);
        EXPECT_EQ(member.kernel(o, nullptr, g, 0), NNA_STATUS_NULL_POINTER);
        EXPECT_EQ(member.kernel(o, c, nullptr, 0), NNA_STATUS_NULL_POINTER);
        EXPECT_EQ(member.kernel(o, c, g, 0), NNA_STATUS_INVALID_ARGUMENT);
    }
    EXPECT_EQ(norm(nullptr, c, g, 0, v, v, v, v, 1, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(norm(o, nullptr, g, 0, v, v, v, v, 1, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(norm(o, c, nullptr, 0, v, v, v, v, 1, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(norm(o, c, g, 0, nullptr, v, v, v, 1, 1), NNA_STATUS_INVALID_ARGUMENT);
    // Without CPU activation, which is unsupported, but found out later.
    EXPECT_EQ(norm(o, c, g, 1, nullptr, v, v, v, 1, 0), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(norm(o, c, g, 1, v, nullptr, v, v, 1, 0), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(norm(o, c, g, 1, v, v, nullptr, v, 1, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(norm(o, c, g, 1, v, v, v, nullptr, 1, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.text(), "");
    EXPECT_TRUE(probe.profile_questions.empty());
    EXPECT_EQ(output, Floats{-7});
    EXPECT_EQ(cell, Floats{-7});
    EXPECT_EQ(gates, (Floats{1, 2, 3, 4}));
    rig::Rig rig;
    const uint32_t x = rig.memory_of(Floats{1, 2, 3, 4});
    EXPECT_EQ(rig.run(8, {mem(x), mem(x), mem(x), val(0)}), NNA_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(probe.messages(), (Lines{"Error executing operator 1064", "Error 1064 kelrt op 1"}));
}

// Each end asks the platform, takes the time, asks again; a no ends it.
TEST(LstmProfiling, MarksBothEndsAndAsksTwice) {
    Floats gates(4), cell(1), out(1);
    const auto family = [&] { kelRt_lstmStates(out.data(), cell.data(), gates.data(), 1); };
    const auto norm = [&](int gate_norm) {
        kelRt_lstmStatesCifgActivationNorm(out.data(), cell.data(), gates.data(), 1, 0, 0, 1, gates.data(),
                                           gates.data(), nullptr, nullptr, gate_norm, 0, 0, 0);
    };
    const auto line = [](const char* sign, const char* name) {
        return std::string("[7.000005]  NNA_PROFILE  |  <lstmstates> NNA/ApiLayer ") + sign +
               ", attr:" + name + "\n";
    };
    const std::string helper = "kelRt_lstmStatesHelper", normalised = "kelRt_lstmStatesCifgActivationNorm";
    const struct {
        std::vector<int> answers;
        size_t questions;
        bool begins, ends;
    } cases[] = {
        {{1, 1, 1, 1}, 4, true, true},  {{1, 0, 1, 1}, 4, false, true}, {{0, 1, 1}, 3, false, true},
        {{1, 1, 1, 0}, 4, true, false}, {{1, 1, 0}, 3, true, false},    {{0, 0}, 2, false, false},
    };
    for (const auto& c : cases) {
        for (const std::string& name : {helper, normalised}) {
            probe::Probe probe;
            probe.time = {{7, 5}};
            g_log_lvl = 4;  // no matter
            probe.profile_answers = c.answers;
            name == helper ? family() : norm(0);
            EXPECT_EQ(probe.text(),
                      (c.begins ? line("+", name.c_str()) : "") + (c.ends ? line("-", name.c_str()) : ""));
            EXPECT_EQ(probe.profile_questions, std::vector<uint32_t>(c.questions, 1));
        }
    }
    probe::Probe probe;
    probe.time = {{7, 5}};
    probe.profile_answers = {1, 1, 1, 1};
    norm(1);
    const std::string text = probe.text(), begin = line("+", normalised.c_str()),
                      end = line("-", normalised.c_str());
    ASSERT_GT(text.size(), begin.size() + end.size());
    EXPECT_EQ(text.substr(0, begin.size()), begin);
    EXPECT_EQ(text.substr(text.size() - end.size()), end) << "the error return has an end too";
    EXPECT_NE(text.find("Gate Normalization without CPU activation not supported\n" + end),
              std::string::npos);
}

TEST(LstmLayerNorm, LogsItsDeviationFirstAndGivesBetaForEqualElements) {
    const Floats gamma = {3, 4, 5, 6, 7}, beta = {0.5f, -1, 2, 0, 8};
    Floats x(5, 2.0f);
    probe::Probe probe;
    g_log_lvl = 0;
    EXPECT_EQ(kelRt_lstmLayerNorm(x.data(), x.data(), 5, gamma.data(), beta.data(), 0.25f), NNA_STATUS_OK);
    EXPECT_EQ(x, beta);
    EXPECT_EQ(probe.messages(), (Lines{"sd=0.500, ", "mean=2.000, "}));
    x = Floats(5, 2.0f);
    EXPECT_EQ(kelRt_lstmLayerNorm(x.data(), x.data(), 5, gamma.data(), beta.data(), 0), NNA_STATUS_OK);
    for (float value : x)
        EXPECT_TRUE(std::isnan(value));
}

// How often the kernel normalises, by the records that each normalisation leaves: once a gate that it
// normalises, and once for the cell.
TEST(LstmLayerNorm, RunsOnceForEachBlockThatIsNormalised) {
    for (int flags = 0; flags < 8; ++flags) {
        const int cifg = flags & 1, per_gate = flags >> 1 & 1, cell = flags >> 2 & 1;
        SCOPED_TRACE(flags);
        Floats output(4), cell_state(4), gates(16, 0.5f), parameters(20, 1.0f);
        float* const p = parameters.data();
        probe::Probe probe;
        g_log_lvl = 0;
        EXPECT_EQ(kelRt_lstmStatesCifgActivationNorm(output.data(), cell_state.data(), gates.data(), 4, cifg,
                                                     1, 0.1f, p, p, p, p, 1, per_gate, cell, 0),
                  NNA_STATUS_OK);
        const std::vector<std::string> messages = probe.messages();
        const size_t times = static_cast<size_t>((per_gate ? 4 - cifg : 1) + cell);
        ASSERT_EQ(messages.size(), 2 * times);
        for (size_t i = 0; i < messages.size(); ++i)
            EXPECT_EQ(messages[i].rfind(i % 2 ? "mean=" : "sd=", 0), 0u) << messages[i];
    }
}

TEST(Print, WritesWholeElementsOnOneLine) {
    char bytes[13];
    const Floats values = {1.5f, -0.0004f, 1e6f};
    std::memcpy(bytes + 1, values.data(), 12);
    const auto* data = reinterpret_cast<const float*>(bytes + 1);
    probe::Probe probe;
    probe.time = {{7, 5}};
    const auto print = [&](int32_t level, int32_t size) {
        g_log_lvl = level;
        probe.clear();
        kelRt_print(data, size, "c");
        return probe.text();
    };
    const std::string label = print(0, 0);
    const std::string prefix_end = "  | ";
    ASSERT_EQ(probe.messages(), (Lines{"c:", ""}));
    for (int32_t size : {3, -1, -4, INT32_MIN})
        EXPECT_EQ(print(0, size), label);
    EXPECT_EQ(print(1, 12), "");

    const std::string three = print(0, 15);
    EXPECT_EQ(std::count(three.begin(), three.end(), '\n'), 2) << three;
    size_t at = three.find('\n') + 1;
    for (const char* element : {"1.500, ", "-0.000, ", "1000000.000, ", "\n"}) {
        EXPECT_EQ(three.compare(at, 28, "[7.000005]  NNA_LOG_DEBUG  s"), 0) << "each has a prefix";
        at = three.find(prefix_end, at) + prefix_end.size();
        EXPECT_EQ(three.compare(at, std::strlen(element), element), 0) << three.substr(at);
        at += std::strlen(element);
    }
    EXPECT_EQ(at, three.size());

    // The level counts anew for each: raised while the second element is written, it ends everything.
    int records = 0;
    probe.at_gettimeofday = [&] { g_log_lvl = ++records == 3 ? 1 : g_log_lvl; };
    const std::string cut = print(0, 12);
    EXPECT_NE(cut.find("-0.000, "), std::string::npos);
    EXPECT_EQ(cut.find("1000000"), std::string::npos);
    EXPECT_EQ(std::count(cut.begin(), cut.end(), '\n'), 1);
}

}  // namespace
