// The LSTM state updates: every combination of flags, bit by bit against the array kernels called one after
// another; refusals; profiling lines; the layer normalisation and the dump that come with them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "kelRt.h"
#include "support/floats.h"
#include "support/guarded.h"
#include "support/probe.h"

namespace {

using floats::bits;
using floats::Floats;
using floats::Random;
using guarded::Wall;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

struct Flags {
    bool cifg, activation, gate_norm, per_gate, cell_norm, in_place;

    explicit Flags(unsigned code)
        : cifg(code & 1),
          activation(code & 2),
          gate_norm(code & 4),
          per_gate(code & 8),
          cell_norm(code & 16),
          in_place(code & 32) {}
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
    if (count > 0)
        std::memcpy(values.data(), bytes.data() + offset, 4 * count);
    return values;
}

struct State {
    Floats output, cell_state, gates;
};

// The same bits in every element of blocks of n; which NaN comes out of a tail is open.
void expect_same(const Floats& found, const Floats& expected, uint32_t n, const char* what) {
    ASSERT_EQ(found.size(), expected.size());
    for (size_t i = 0; i < found.size(); ++i) {
        if (i % n >= n / 4 * 4 && std::isnan(found[i]) && std::isnan(expected[i]))
            continue;
        ASSERT_EQ(bits(found[i]), bits(expected[i])) << what << ", element " << i;
    }
}
void expect_same(const State& found, const State& expected, uint32_t n) {
    expect_same(found.output, expected.output, n, "output");
    expect_same(found.cell_state, expected.cell_state, n, "cell state");
    expect_same(found.gates, expected.gates, n, "gates");
}

using FamilyKernel = uint32_t (*)(float*, float*, float*, uint32_t);
// By the flags cifg and activation.
constexpr FamilyKernel kFamily[] = {kelRt_lstmStates, kelRt_lstmStatesCifg, kelRt_lstmStatesActivation,
                                    kelRt_lstmStatesActivationCifg};

// One call's arguments.
struct Problem {
    Flags flags;
    uint32_t n;
    State before;
    Bytes gate_gamma, gate_beta;  // exactly as many as are read
    Floats cell_gamma, cell_beta;
    float epsilon = 1e-3f;

    // With a special value here and there, if wanted.
    Problem(const Flags& f, uint32_t units, bool specials) : flags(f), n(units) {
        Random random(units);
        const auto floats = [&](size_t count) {
            Floats values(count);
            for (float& value : values)
                value = specials && random.below(60) == 0 ? random.wild() : random.plain();
            return values;
        };
        before = {Floats(n, std::numeric_limits<float>::quiet_NaN()), floats(n), floats(4 * n)};
        cell_gamma = floats(n);
        cell_beta = floats(n);
        // Bytes of which any four in a row are a float of middling size, so that vectors that start at any
        // byte are sensible and no two are alike.
        const auto bytes = [&](const Bytes& choices) {
            Bytes vector(flags.parameter_bytes(n));
            for (uint8_t& byte : vector)
                byte = choices[random.below(static_cast<uint32_t>(choices.size()))];
            return vector;
        };
        gate_gamma = bytes({0x3E, 0x3F, 0x3D, 0xBE});
        gate_beta = bytes({0x3E, 0x3D, 0xBD, 0xBF});
    }

    // By the normalising kernel or, without its flags, by the family's; exactly as much memory as need be.
    uint32_t run(State& state, Wall wall, FamilyKernel kernel = nullptr) const {
        const auto guarded_floats = [&](const Floats& values) {
            auto memory = std::make_unique<guarded::Bytes>(4 * values.size(), wall, n % 4);
            std::memcpy(memory->data(), values.data(), 4 * values.size());
            return memory;
        };
        const auto out = guarded_floats(before.output), cell = guarded_floats(before.cell_state),
                   gate = guarded_floats(before.gates), gamma_c = guarded_floats(cell_gamma),
                   beta_c = guarded_floats(cell_beta);
        guarded::Bytes gamma(gate_gamma, wall), beta(gate_beta, wall);
        const auto flag = [](bool on) { return on ? INT32_MIN : 0; };  // any value but 0 is on
        const auto wanted = [](bool on, guarded::Bytes& vector) { return on ? vector.floats() : nullptr; };
        const uint32_t status = kernel
                                    ? kernel(out->floats(), cell->floats(), gate->floats(), n)
                                    : kelRt_lstmStatesCifgActivationNorm(
                                          out->floats(), cell->floats(), gate->floats(), n, flag(flags.cifg),
                                          flag(flags.activation), epsilon, wanted(flags.gate_norm, gamma),
                                          wanted(flags.gate_norm, beta), wanted(flags.cell_norm, *gamma_c),
                                          wanted(flags.cell_norm, *beta_c), flag(flags.gate_norm),
                                          flag(flags.per_gate), flag(flags.cell_norm), flag(flags.in_place));
        EXPECT_TRUE(out->intact() && cell->intact() && gate->intact());
        state = {floats_at(out->copy(), 0, n), floats_at(cell->copy(), 0, n),
                 floats_at(gate->copy(), 0, 4 * n)};
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

class Lstm : public testing::TestWithParam<uint32_t> {};

TEST_P(Lstm, EveryFlagCombination) {
    const uint32_t n = GetParam();
    for (unsigned code = 0; code < 2 * kAllFlags; ++code) {
        const Flags flags(code % kAllFlags);
        const Problem p(flags, n, code >= kAllFlags);
        const Wall wall = code % 3 ? Wall::After : Wall::Before;
        SCOPED_TRACE(testing::Message() << "n " << n << ", flags " << code << ": " << flags);
        probe::Probe probe;
        g_log_lvl = flags.gate_norm && !flags.activation ? 3 : 0;
        State after;
        const uint32_t status = p.run(after, wall);
        if (flags.gate_norm && !flags.activation) {
            EXPECT_EQ(status, NNA_STATUS_UNSUPPORTED);
            EXPECT_EQ(probe.messages(), Lines{"Gate Normalization without CPU activation not supported"});
            expect_same(after, p.before, n);
            continue;
        }
        ASSERT_EQ(status, NNA_STATUS_OK);
        // Each normalisation leaves two records: one for every gate or all of them, one for the cell.
        const int times = flags.gate_norm * (flags.per_gate ? 4 - flags.cifg : 1) + flags.cell_norm;
        EXPECT_EQ(probe.records().size(), 2 * static_cast<size_t>(times));
        const State expected = composed(p);
        expect_same(after, expected, n);
        if (!flags.gate_norm && !flags.cell_norm) {
            EXPECT_EQ(p.run(after, wall, kFamily[code % 4]), NNA_STATUS_OK);
            expect_same(after, expected, n);
        }
        if (HasFatalFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(Units, Lstm,
                         testing::Values(1, 2, 3, 4, 5, 6, 7, 8, 9, 17, 64, 127, 130, 257, 600, 1003));

// Refusals, earliest check first: status, and neither a log line nor a profiling question nor a write.
TEST(LstmChecks, ComeInOrderAndTouchNothing) {
    Floats output = {-7}, cell = {-7}, gates = {1, 2, 3, 4}, p(8, 1.0f);
    probe::Probe probe;
    // Pointers by number: 0 null, 1 output, 2 cell state, 3 gates, 4 a parameter vector.
    float* const pointers[] = {nullptr, output.data(), cell.data(), gates.data(), p.data()};
    const struct {
        int out, cell, gates;
        uint32_t n;
        int gate_gamma, gate_beta, cell_gamma, cell_beta, cell_norm;
        uint32_t status;
    } cases[] = {
        {0, 2, 3, 0, 4, 4, 4, 4, 1, NNA_STATUS_NULL_POINTER},
        {1, 0, 3, 0, 4, 4, 4, 4, 1, NNA_STATUS_NULL_POINTER},
        {1, 2, 0, 0, 4, 4, 4, 4, 1, NNA_STATUS_NULL_POINTER},
        {1, 2, 3, 0, 0, 4, 4, 4, 1, NNA_STATUS_INVALID_ARGUMENT},
        // Without CPU activation, which is unsupported, but found out later.
        {1, 2, 3, 1, 0, 4, 4, 4, 0, NNA_STATUS_NULL_POINTER},
        {1, 2, 3, 1, 4, 0, 4, 4, 0, NNA_STATUS_NULL_POINTER},
        {1, 2, 3, 1, 4, 4, 0, 4, 1, NNA_STATUS_NULL_POINTER},
        {1, 2, 3, 1, 4, 4, 4, 0, 1, NNA_STATUS_NULL_POINTER},
    };
    for (const auto& c : cases) {
        float *const o = pointers[c.out], *const s = pointers[c.cell], *const g = pointers[c.gates];
        EXPECT_EQ(kelRt_lstmStatesCifgActivationNorm(o, s, g, c.n, 0, 0, 1, pointers[c.gate_gamma],
                                                     pointers[c.gate_beta], pointers[c.cell_gamma],
                                                     pointers[c.cell_beta], 1, 0, c.cell_norm, 0),
                  c.status);
        for (const FamilyKernel kernel : kFamily)
            EXPECT_TRUE(c.n > 0 || kernel(o, s, g, 0) == c.status);
    }
    EXPECT_EQ(probe.text(), "");
    EXPECT_TRUE(probe.profile_questions.empty());
    EXPECT_EQ(output, Floats{-7});
    EXPECT_EQ(cell, Floats{-7});
    EXPECT_EQ(gates, (Floats{1, 2, 3, 4}));
}

// Each end asks the platform, takes the time, asks again; a no ends it.
TEST(LstmProfiling, MarksBothEndsAndAsksTwice) {
    Floats gates(4), cell(1), out(1);
    const auto run = [&](bool norm, int gate_norm = 0) {
        if (norm)
            kelRt_lstmStatesCifgActivationNorm(out.data(), cell.data(), gates.data(), 1, 0, 0, 1,
                                               gates.data(), gates.data(), nullptr, nullptr, gate_norm, 0, 0,
                                               0);
        else
            kelRt_lstmStates(out.data(), cell.data(), gates.data(), 1);
    };
    const auto line = [](char sign, bool norm) {
        return std::string("[7.000005]  NNA_PROFILE  |  <lstmstates> NNA/ApiLayer ") + sign +
               ", attr:" + (norm ? "kelRt_lstmStatesCifgActivationNorm" : "kelRt_lstmStatesHelper") + "\n";
    };
    const struct {
        std::vector<int> answers;
        size_t questions;
        bool begins, ends;
    } cases[] = {
        {{1, 1, 1, 1}, 4, true, true},  {{1, 0, 1, 1}, 4, false, true}, {{0, 1, 1}, 3, false, true},
        {{1, 1, 1, 0}, 4, true, false}, {{1, 1, 0}, 3, true, false},    {{0, 0}, 2, false, false},
    };
    for (const auto& c : cases) {
        for (const bool norm : {false, true}) {
            probe::Probe probe;
            probe.time = {{7, 5}};
            g_log_lvl = 4;  // no matter
            probe.profile_answers = c.answers;
            std::vector<float> seen;  // of the output, whenever the time is taken
            probe.at_gettimeofday = [&] { seen.push_back(out[0]); };
            out[0] = 99;
            run(norm);
            EXPECT_EQ(probe.text(), (c.begins ? line('+', norm) : "") + (c.ends ? line('-', norm) : ""));
            EXPECT_EQ(probe.profile_questions, std::vector<uint32_t>(c.questions, 1));
            if (c.begins && c.ends) {
                EXPECT_EQ(seen, (Floats{99, 0})) << "before and after the work";
            }
        }
    }
    probe::Probe probe;
    probe.time = {{7, 5}};
    probe.profile_answers = {1, 1, 1, 1};
    run(true, 1);
    const std::string text = probe.text();
    EXPECT_TRUE(text.starts_with(line('+', true)));
    EXPECT_TRUE(text.ends_with("Gate Normalization without CPU activation not supported\n" + line('-', true)))
        << "the error return has an end too: " << text;
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
    for (const float value : x)
        EXPECT_TRUE(std::isnan(value));
}

TEST(Print, WritesWholeElementsOnOneLine) {
    char bytes[13];
    const Floats values = {1.5f, -0.0004f, 1e6f};
    std::memcpy(bytes + 1, values.data(), 12);
    const auto* const data = reinterpret_cast<const float*>(bytes + 1);
    probe::Probe probe;
    probe.time = {{7, 5}};
    // What is printed, with <> for the prefix of a record.
    const auto print = [&](int32_t level, int32_t size) {
        g_log_lvl = level;
        probe.clear();
        kelRt_print(data, size, "c");
        std::string text = probe.text();
        for (size_t at; (at = text.find("[7.000005]  NNA_LOG_DEBUG  s")) != std::string::npos;)
            text.replace(at, text.find("  | ", at) + 4 - at, "<>");
        return text;
    };
    for (const int32_t size : {0, 3, -1, -4, INT32_MIN})
        EXPECT_EQ(print(0, size), "<>c:\n<>\n");
    EXPECT_EQ(print(1, 12), "");
    EXPECT_EQ(print(0, 15), "<>c:\n<>1.500, <>-0.000, <>1000000.000, <>\n");
    // The level counts anew for each: raised while the second element is written, it ends everything.
    int records = 0;
    probe.at_gettimeofday = [&] { g_log_lvl = ++records == 3 ? 1 : g_log_lvl; };
    EXPECT_EQ(print(0, 12), "<>c:\n<>1.500, <>-0.000, ");
}

}  // namespace
