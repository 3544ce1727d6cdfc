// What adapters and kernels write at DEBUG: formats, pointers before their offsets are added, and where
// between the platform calls the records come.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <functional>

#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::flt;
using rig::mem;
using rig::val;
using Lines = std::vector<std::string>;

__attribute__((format(printf, 1, 2))) std::string text(const char* format, ...) {
    char buffer[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

// Memories 0 to 6 of every case.
constexpr uint32_t kMemories = 7, kBytes = 512;

struct Case {
    uint32_t id;
    const char* name;
    std::vector<KelRtContextArg> args;
    std::function<Lines(void* const*)> lines;  // given the memories' pointers
};

Lines lstm_lines(void* const* p) {
    return {text("0x%p(ID=0x00)(offset=0X1) 0x%p(ID=0x01)(offset=0) 0x%p(ID=0x02)(offset=0X10) 0x00000002",
                 p[0], p[1], p[2])};
}

const std::vector<KelRtContextArg> kLstmArgs = {mem(0, 1), mem(1), mem(2, 16), val(2)};
const std::vector<KelRtContextArg> kNormArgs = {mem(0, 1), mem(1),      mem(2, 16), val(2), val(0),
                                                val(0xAB), flt(0.125f), mem(3, 3),  mem(4), mem(5, 5),
                                                mem(6),    val(0),      val(2),     val(0), val(0xC)};

Lines norm_lines(void* const* p) {
    return {text("0x%p(ID=0x00)(offset=0X1) 0x%p(ID=0x01)(offset=0) 0x%p(ID=0x02)(offset=0X10) 0x00000002 "
                 "0x00000000 0x000000AB args[9]=3 args[10]=4 args[11]=5 args[12]=6",
                 p[0], p[1], p[2]),
            "0x00000000 0x00000002 0x00000000 0x0000000C",
            text("0.125000 0x%p(ID=0x03)(offset=0X3) 0x%p(ID=0x04)(offset=0) 0x%p(ID=0x05)(offset=0X5) "
                 "0x%p(ID=0x06)(offset=0)",
                 p[3], p[4], p[5], p[6])};
}

const Case kCases[] = {
    {0,
     "cpu_onnx_inst_norm",
     {mem(1, 7), mem(2), val(3), flt(0.5f), flt(-2)},
     [](void* const* p) {
         return Lines{text("0x%p(ID=0x01)(offset=0X7) 0x%p(ID=0x02)(offset=0) 0x00000003 0.500000 -2.000000",
                           p[1], p[2])};
     }},
    {1, "cpu_lstm_states", kLstmArgs, lstm_lines},
    {3,
     "cpu_onnx_onehot",
     {mem(1), mem(2, 12), val(10), flt(1e6f), flt(-0.25f)},
     [](void* const* p) {
         return Lines{
             text("0x%p(ID=0x01)(offset=0) 0x%p(ID=0x02)(offset=0XC) 0x0000000A 1000000.000000 -0.250000",
                  p[1], p[2])};
     }},
    {5,
     "cpu_softmax",
     {mem(1, 8), mem(2, 4), val(11)},
     [](void* const* p) { return Lines{text("0x%p(ID=0x01) 0x%p(ID=0x02) 0x0000000B", p[1], p[2])}; }},
    {7,
     "cpu_embedding",
     {mem(1, 8), mem(2, 4), mem(3, 4), val(3)},
     [](void* const* p) {
         return Lines{text("0x%p(ID=0x01) 0x%p(ID=0x02) 0x%p(ID=0x03) 0x00000003", p[1], p[2], p[3])};
     }},
    {8, "cpu_lstm_states_cpu_activation", kLstmArgs, lstm_lines},
    {13, "cpu_lstm_states_cifg", kLstmArgs, lstm_lines},
    {14, "cpu_lstm_states_cpu_activation_cifg", kLstmArgs, lstm_lines},
    {15, "cpu_lstm_states_norm_cifg_cpuactv", kNormArgs, norm_lines},
};

TEST(Dump, ShowsWhatEveryAdapterResolved) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.name);
        rig::Rig rig;
        void* pointers[kMemories];
        for (uint32_t memid = 0; memid < kMemories; ++memid) {
            rig.memory(kBytes);
            pointers[memid] = nna_sim_cpu_view(rig.sim, memid);
        }
        probe::Probe probe;
        g_log_lvl = 0;
        ASSERT_EQ(rig.run(c.id, c.args), NNA_STATUS_OK);
        Lines expected = c.lines(pointers);
        expected.insert(expected.begin(), std::string("KEL RT executing operator ") + c.name);
        EXPECT_EQ(probe.messages(), expected);
        for (const probe::Record& record : probe.records())
            EXPECT_EQ(record.level, "NNA_LOG_DEBUG");
        EXPECT_TRUE(probe.android.empty());
    }
}

// The state's dump comes before the parameters are fetched: their first platform call fails and it is there.
TEST(Dump, TheNormalisedLstmDumpsBetweenItsTwoPhases) {
    for (uint32_t failing : {9u, 10u}) {  // the last call of the first phase, the first of the second
        rig::Rig rig;
        void* pointers[kMemories];
        for (uint32_t memid = 0; memid < kMemories; ++memid) {
            rig.memory(kBytes);
            pointers[memid] = nna_sim_cpu_view(rig.sim, memid);
        }
        nna_sim_fail_call(rig.sim, failing, 4242);
        probe::Probe probe;
        g_log_lvl = 0;
        const Lines after = failing == 9
                                ? Lines{"Error 4242 kelrt op 1"}
                                : Lines{norm_lines(pointers)[0], "tivNnaMemorySize failed, err = 4242",
                                        "Error 1070 kelrt op 1"};
        Lines expected = {"KEL RT executing operator cpu_lstm_states_norm_cifg_cpuactv"};
        expected.insert(expected.end(), after.begin(), after.end());
        rig.run(15, kNormArgs);
        EXPECT_EQ(probe.messages(), expected);
    }
}

// Two records without line ends, so that the next record follows on the same physical line.
TEST(Dump, Im2colLeavesItsLineOpen) {
    rig::Rig rig;
    const uint32_t in = rig.memory(64), out = rig.memory(512);
    probe::Probe probe;
    probe.time = {{7, 5}};
    g_log_lvl = 0;
    ASSERT_EQ(
        rig.run(9, {mem(in), mem(out), val(4), val(5), val(3), val(2), val(3), val(77), val(1), val(2)}),
        NNA_STATUS_OK);
    const std::string all = probe.text(), dump = all.substr(all.find('\n') + 1);
    const auto prefix = [&](size_t at) {
        const size_t bar = dump.find("  | ", at);
        const std::string found = dump.substr(at, bar + 4 - at);
        EXPECT_EQ(found.rfind(
                      "[7.000005]  NNA_LOG_DEBUG  src/drivers/nna/src/kel_rt/operators/kelRt_im2col.cpp ", 0),
                  0u)
            << found;
        return found;
    };
    const std::string first = prefix(0);
    const std::string body =
        "Input rows = 4 Input cols = 5 Input Channels = 3                     Kernel height = 2 "
        "Kernel Width = 3 Filters = 77 Row stride = 1                     Col Stride = 2";
    const std::string second = prefix(first.size() + body.size());
    EXPECT_EQ(dump, first + body + second + "Output height = 3 Output width = 2 Pad = 6");
}

}  // namespace
