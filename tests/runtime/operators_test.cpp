// Every operator as a context: each test walks all rows: arguments reach the kernel, from accelerator memory
// and from CPU buffers; DEBUG dumps; null tensors; wrong types and counts. What happens when the platform
// fails is faults_test's.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <sstream>

#include "support/probe.h"
#include "support/rows.h"

namespace {

using namespace rows;
using rig::mem;
using rig::val;

// The kernel called directly, on memories as the adapter would find them.
struct Direct {
    std::vector<Bytes> memories;
    std::vector<uint8_t*> pointers;
    uint32_t out_bytes = 99;
    uint8_t out_shift = 77;

    explicit Direct(const Operator& op) : memories(contents(op)) {
        for (const Step& step : steps(op))
            if (step.what == 'A')
                std::fill(memories[step.tensor].begin(), memories[step.tensor].end(), NNA_SIM_STALE_BYTE);
        for (uint32_t i = 0; i < op.bytes.size(); ++i)
            pointers.push_back(memories[i].data() + offset_of(i));
    }
};

__attribute__((format(printf, 1, 2))) std::string text(const char* format, ...) {
    char buffer[128];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

// A dump's or refusal's lines, of memories that begin at `base`.
Lines expand(const char* lines, const std::vector<uint8_t*>& base) {
    Lines expanded;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line); expanded.push_back(line)) {
        for (size_t at = 0; (at = line.find_first_of("@#+*", at)) != std::string::npos; ++at) {
            const auto i = static_cast<uint32_t>(line[at + 1] - '0');
            const char kind = line[at];
            void* const advanced = base[i] ? base[i] + offset_of(i) : nullptr;
            std::string tensor = kind == '@'   ? text("0x%p(ID=0x%02X)(offset=%#X)",
                                                      static_cast<void*>(base[i]), i, offset_of(i))
                                 : kind == '#' ? text("0x%p(ID=0x%02X)", static_cast<void*>(base[i]), i)
                                 : kind == '+' ? text("0x%p(ID=0x%02X)", advanced, i)
                                               : text("%p", advanced);
            line.replace(at, 2, tensor);
            at += tensor.size();
        }
    }
    return expanded;
}

TEST(Rows, AreThereForEveryOperator) {
    std::vector<size_t> rows(KEL_RT_NUM_OPS);
    for (const Operator& op : kOperators)
        ++rows[op.id];
    for (size_t id = 0; id < KEL_RT_NUM_OPS; ++id)
        EXPECT_GT(rows[id], 0u) << "operator " << id << " has no row in support/rows.cpp";
}

class Operators : public testing::TestWithParam<Operator> {};

TEST_P(Operators, GiveWhatTheKernelGivesFromEitherKindOfMemory) {
    const Operator& op = GetParam();
    Direct direct(op);
    ASSERT_EQ(op.kernel(direct.pointers.data(), &direct.out_bytes, &direct.out_shift), NNA_STATUS_OK);
    EXPECT_EQ(direct.out_bytes, op.out_bytes ? op.out_bytes : 99);

    Bench bench(op);
    bench.instance.out_shift = 77;
    ASSERT_EQ(bench.run(op.id, op.args), NNA_STATUS_OK);
    EXPECT_EQ(bench.instance.out_shift, direct.out_shift);
    for (uint32_t memid = 0; memid < op.bytes.size(); ++memid)
        EXPECT_EQ(bench.view(memid), direct.memories[memid]) << "memory " << memid;

    Bench buffers(op);
    const Direct before(op);
    for (uint32_t memid = 0; memid < op.bytes.size(); ++memid) {
        const auto size = static_cast<uint32_t>(before.memories[memid].size());
        tivNnaCpuMemAlloc(&buffers.instance, memid, size);
        tivNnaCpuMemWrite(&buffers.instance, memid, 0, before.memories[memid].data(), size);
    }
    nna_sim_clear_calls(buffers.sim);
    ASSERT_EQ(buffers.run(op.id, op.args), NNA_STATUS_OK);
    EXPECT_EQ(buffers.called(), (op.moves_sram() ? Lines(3, "sram 0") : Lines{}));
    for (uint32_t memid = 0; memid < op.bytes.size(); ++memid)
        EXPECT_EQ(std::memcmp(buffers.table[memid].ptr, direct.memories[memid].data(),
                              direct.memories[memid].size()),
                  0)
            << "buffer " << memid;
}

std::vector<uint8_t*> views(const Bench& bench, const Operator& op, uint32_t null = UINT32_MAX) {
    std::vector<uint8_t*> views;
    for (uint32_t i = 0; i < op.bytes.size(); ++i)
        views.push_back(i == null ? nullptr : nna_sim_cpu_view(bench.sim, i));
    return views;
}

TEST_P(Operators, DumpWhatTheyResolvedAtDebug) {
    const Operator& op = GetParam();
    if (!op.dump)
        return;
    Bench bench(op);
    probe::Probe probe;
    g_log_lvl = 0;
    ASSERT_EQ(bench.run(op.id, op.args), NNA_STATUS_OK);
    Lines expected = expand(op.dump, views(bench, op)), found = probe.messages();
    expected.insert(expected.begin(), "KEL RT executing operator " + std::string(op.name));
    if (op.id == 15)
        found.resize(expected.size());  // the layer normalisation has records of its own
    EXPECT_EQ(found, expected);
    for (const probe::Record& record : probe.records())
        EXPECT_EQ(record.level, "NNA_LOG_DEBUG");
    EXPECT_TRUE(probe.android.empty());
}

// A dump comes as soon as its tensors are resolved: formats after the output, the LSTM's state before its
// parameters.
TEST(Dumps, ComeBetweenThePlatformCalls) {
    const struct {
        size_t row;
        uint32_t failing_call;
        size_t lines;
    } cases[] = {{2, 1, 0}, {2, 2, 2}, {4, 7, 0}, {15, 9, 0}, {15, 10, 1}};
    for (const auto& c : cases) {
        const Operator& op = kOperators[c.row];
        Bench bench(op);
        nna_sim_fail_call(bench.sim, c.failing_call, 4242);
        probe::Probe probe;
        g_log_lvl = 0;
        bench.run(op.id, op.args);
        Lines dump = expand(op.dump, views(bench, op));
        dump.resize(c.lines);
        const Lines found = probe.messages();
        ASSERT_GT(found.size(), c.lines + 1);
        EXPECT_EQ(Lines(found.begin() + 1, found.begin() + 1 + static_cast<ptrdiff_t>(c.lines)), dump);
        EXPECT_NE(found[c.lines + 1].find("4242"), std::string::npos) << found[c.lines + 1];
    }
}

TEST_P(Operators, RefuseEachNullTensor) {
    const Operator& op = GetParam();
    for (uint32_t null = 0; null < std::min<size_t>(op.refused, op.bytes.size()); ++null) {
        SCOPED_TRACE(null);
        // The kernel by itself: nothing written, nothing reported.
        Direct direct(op);
        const Direct before(op);
        direct.pointers[null] = nullptr;
        probe::Probe probe;
        EXPECT_EQ(op.kernel(direct.pointers.data(), &direct.out_bytes, &direct.out_shift),
                  NNA_STATUS_NULL_POINTER);
        EXPECT_EQ(direct.memories, before.memories);
        EXPECT_EQ(direct.out_bytes, 99u);
        std::vector<uint8_t*> base;
        for (Bytes& memory : direct.memories)
            base.push_back(memory.data());
        base[null] = nullptr;
        EXPECT_EQ(probe.messages(), expand(op.refusal, base));

        // By a context: everything is handed back and nothing published.
        Bench bench(op);
        std::vector<KelRtContextArg> args = op.args;
        for (KelRtContextArg& arg : args)
            if (arg.type == KEL_RT_ARG_MEM && arg.value == null)
                arg = mem(KEL_RT_NO_MEMORY_ID);
        probe.clear();
        EXPECT_EQ(bench.run(op.id, args), NNA_STATUS_NULL_POINTER);
        const Expectation expected(op, {}, {NNA_STATUS_NULL_POINTER, null});
        EXPECT_EQ(bench.called(), expected.calls);
        Lines messages = expand(op.refusal, views(bench, op, null));
        messages.push_back(op.id == 12 ? "Error executing operator 1056s" : "Error executing operator 1056");
        messages.insert(messages.end(), expected.messages.begin(), expected.messages.end());
        EXPECT_EQ(probe.messages(), messages);
    }
    if (op.out_bytes) {
        Direct direct(op);
        EXPECT_EQ(op.kernel(direct.pointers.data(), nullptr, &direct.out_shift), NNA_STATUS_OK);
    }
}

TEST_P(Operators, TakeArgumentsOfTheirTypesAndCountOnly) {
    const Operator& op = GetParam();
    constexpr const char* kTypes[] = {"init_none", "init_to_val", "init_to_mem_idx", "init_to_flt"};
    const auto count = static_cast<uint32_t>(op.args.size());
    Bench bench(op);
    probe::Probe probe;
    for (uint32_t i = 0; i <= count; ++i) {
        rig::Context context(op.id, op.args);
        std::string line;
        if (i == count) {
            context.args[0].value = count + 1;
            line = "Number of Context args do not match";
        } else {
            uint32_t& type = context.args[i + 2].type;
            line = text("Context Argument[%u] Type Mismatch expected %s actual ", i + 2, kTypes[type]);
            type = type == KEL_RT_ARG_VAL ? uint32_t{KEL_RT_ARG_FLT} : type - 1;
            line += kTypes[type];
        }
        probe.clear();
        EXPECT_EQ(kelRt_executeContext(&bench.instance, &context.record),
                  uint32_t{i == count ? NNA_STATUS_INVALID_ARGUMENT : NNA_STATUS_TYPE_MISMATCH});
        EXPECT_EQ(probe.messages().at(0), line);
        if (i == count) {
            EXPECT_EQ(probe.messages().at(1), text("Expected %u Actual %u", count, count + 1));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Of, Operators, testing::ValuesIn(kOperators),
                         [](const auto& row) { return std::to_string(row.index) + "_" + row.param.name; });

// Two records without line ends, so that the next record follows on the same physical line.
TEST(Im2colDump, LeavesItsLineOpen) {
    Bench bench(kOperators[9]);
    probe::Probe probe;
    probe.time = {{7, 5}};
    g_log_lvl = 0;
    ASSERT_EQ(bench.run(9, kOperators[9].args), NNA_STATUS_OK);
    std::string dump = probe.text();
    dump.erase(0, dump.find('\n') + 1);
    for (size_t at; (at = dump.find("[7.000005]  NNA_LOG_DEBUG  src/")) != std::string::npos;)
        dump.replace(at, dump.find("  | ", at) + 4 - at, "<>");
    EXPECT_EQ(dump,
              "<>Input rows = 5 Input cols = 7 Input Channels = 2                     Kernel height = 3 "
              "Kernel Width = 4 Filters = 99 Row stride = 1                     Col Stride = 3"
              "<>Output height = 3 Output width = 2 Pad = 0");
}

}  // namespace
