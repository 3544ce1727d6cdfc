// The entry point's checks: each one's status and messages, and, since every case is wrong in all the later
// ways too, their order.
#include <gtest/gtest.h>

#include <cstddef>

#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::mem;
using rig::val;
using Lines = std::vector<std::string>;

// The layout that drivers are compiled against, in 32-bit words; checked where words are 32 bits wide.
TEST(Records, HaveTheLayoutOfTheBinaryInterface) {
    EXPECT_EQ(sizeof(KelRtContextArg), 12u);
    EXPECT_EQ(offsetof(KelRtContextArg, offset), 4u);
    EXPECT_EQ(offsetof(KelRtContextArg, value), 8u);
    if (sizeof(void*) != 4)
        GTEST_SKIP() << "pointer-sized words widen on this target";
    EXPECT_EQ(offsetof(KelRtContext, args), 0u);
    EXPECT_EQ(offsetof(KelRtContext, num_args), 12u);
    EXPECT_EQ(offsetof(KelRtContext, target), 20u);
    EXPECT_EQ(sizeof(KelRtContext), 24u);
    EXPECT_EQ(offsetof(KelRtInstance, device), 0u);
    EXPECT_EQ(offsetof(KelRtInstance, cpu_buffers), 20u);
    EXPECT_EQ(offsetof(KelRtInstance, cpu_buffer_lookup), 32u);
    EXPECT_EQ(offsetof(KelRtInstance, out_shift), 52u);
    EXPECT_EQ(sizeof(KelRtInstance), 56u);
    EXPECT_EQ(sizeof(CpuBufferEntry), 8u);
    EXPECT_EQ(sizeof(KelRtMatrix), 12u);
}

struct Fault {
    const char* what;
    void (*spoil)(rig::Context&);
    uint32_t status;
    Lines lines;
    bool closed;  // whether the closing error line follows
};

// From the last check to the first: spoiling 0..k leaves check k, the earliest one wrong, to answer.
const Fault kFaults[] = {
    {"the kernel refuses",
     [](rig::Context& c) { c.args[2].value = KEL_RT_NO_MEMORY_ID; },
     NNA_STATUS_NULL_POINTER,
     {},
     true},
    {"type of the last argument",
     [](rig::Context& c) { c.args[5].type = 3; },
     NNA_STATUS_TYPE_MISMATCH,
     {"Context Argument[5] Type Mismatch expected init_to_val actual init_to_flt"},
     true},
    {"unknown type, reported as a mismatch",
     [](rig::Context& c) { c.args[3].type = 9; },
     NNA_STATUS_TYPE_MISMATCH,
     {"Unknown Context Argument[3] Type 9"},
     true},
    {"count",
     [](rig::Context& c) { c.args[0].value = 0x10004; },
     NNA_STATUS_INVALID_ARGUMENT,
     {"Number of Context args do not match", "Expected 4 Actual 65540"},
     true},
    {"operator id",
     [](rig::Context& c) { c.args[1].value = 0xABCDEF13; },
     NNA_STATUS_INVALID_ARGUMENT,
     {"KEL RT Unknown operator 19"},
     true},
    {"type of argument 1",
     [](rig::Context& c) { c.args[1].type = 7; },
     NNA_STATUS_INVALID_ARGUMENT,
     {"Unknown Context Argument[1] Type 7"},
     false},
    {"type of argument 0",
     [](rig::Context& c) { c.args[0].type = 2; },
     NNA_STATUS_TYPE_MISMATCH,
     {"Context Argument[0] Type Mismatch expected init_to_val actual init_to_mem_idx"},
     false},
    {"num_args",
     [](rig::Context& c) { c.record.num_args = 2; },
     NNA_STATUS_INVALID_ARGUMENT,
     {"Insufficient arguments for CPU 2"},
     false},
    {"num_args, signed",
     [](rig::Context& c) { c.record.num_args = -5; },
     NNA_STATUS_INVALID_ARGUMENT,
     {"Insufficient arguments for CPU -5"},
     false},
    {"target",
     [](rig::Context& c) { c.record.target = 0; },
     NNA_STATUS_INVALID_ARGUMENT,
     {"Unsupported target 0"},
     false},
    {"target, another",
     [](rig::Context& c) { c.record.target = 2; },
     NNA_STATUS_INVALID_ARGUMENT,
     {"Unsupported target 2"},
     false},
};

TEST(EntryPoint, ChecksInOrder) {
    rig::Rig rig;
    const uint32_t x = rig.memory_of(std::vector<float>{1, 2});
    const uint32_t out = rig.memory(8);
    rig::Context context(4, {mem(out), mem(x), mem(x), val(2)});
    probe::Probe probe;
    ASSERT_EQ(kelRt_executeContext(&rig.instance, &context.record), NNA_STATUS_OK);
    EXPECT_TRUE(probe.text().empty());

    for (const Fault& fault : kFaults) {
        SCOPED_TRACE(fault.what);
        fault.spoil(context);
        const auto args = context.args;
        probe.clear();
        nna_sim_clear_calls(rig.sim);
        EXPECT_EQ(kelRt_executeContext(&rig.instance, &context.record), fault.status);
        if (fault.lines.empty())
            continue;  // the first row only prepares: what its kernel logs is the kernel's test
        Lines expected = fault.lines;
        if (fault.closed)
            expected.push_back("Error " + std::to_string(fault.status) + " kelrt op 1");
        EXPECT_EQ(probe.messages(), expected);
        EXPECT_EQ(probe.android.size(), expected.size());
        EXPECT_TRUE(rig.calls().empty()) << "a refused context reaches no memory";
        for (size_t i = 0; i < args.size(); ++i)
            EXPECT_EQ(context.args[i].value, args[i].value) << "the context is only read";
    }
    probe.clear();
    EXPECT_EQ(kelRt_executeContext(&rig.instance, nullptr), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages(), Lines{"Unexpected NULL context"});
}

TEST(EntryPoint, ReadsOnlyLowBytesOfTypesAndIdAndOnlyTheRowsCount) {
    rig::Rig rig;
    const uint32_t x = rig.memory_of(std::vector<float>{1, 2});
    const uint32_t out = rig.memory(8);
    rig::Context context(0xFFFFFF04, {mem(out), mem(x), mem(x), val(2)});
    for (KelRtContextArg& arg : context.args)
        arg.type |= 0x55AA5500;
    context.record.num_args = 3;  // more than 2 is enough, whatever the row's total
    EXPECT_EQ(kelRt_executeContext(&rig.instance, &context.record), NNA_STATUS_OK);
    EXPECT_EQ(rig.device<float>(out, 2), (std::vector<float>{2, 4}));
}

struct Row {
    const char* name;
    const char* types;
};
const Row kRows[KEL_RT_NUM_OPS] = {
    {"cpu_onnx_inst_norm", "1122133"},
    {"cpu_lstm_states", "112221"},
    {"cpu_copy_fmt_conv", "11211121111"},
    {"cpu_onnx_onehot", "1122133"},
    {"cpu_ewop_add", "112221"},
    {"cpu_softmax", "11221"},
    {"cpu_hw32_fmt_conv", "112211"},
    {"cpu_embedding", "112221"},
    {"cpu_lstm_states_cpu_activation", "112221"},
    {"cpu_im2col", "112211111111"},
    {"cpu_matmul", "11222111111"},
    {"cpu_featurenorm", "11212212"},
    {"cpu_split", "11221"},
    {"cpu_lstm_states_cifg", "112221"},
    {"cpu_lstm_states_cpu_activation_cifg", "112221"},
    {"cpu_lstm_states_norm_cifg_cpuactv", "11222111322221111"},
    {"cpu_hw32_fmt_conv_param", "1122111"},
    {"nna_sram_get", "1111112"},
    {"nna_sram_set", "1111112"},
};

// Operator arguments of the row's types, without tensors; the one at `wrong` has another type.
std::vector<KelRtContextArg> arguments_of(const Row& row, size_t wrong) {
    const std::string types = row.types;
    std::vector<KelRtContextArg> args;
    for (size_t i = 2; i < types.size(); ++i) {
        const auto type = static_cast<uint32_t>(types[i] - '0');
        args.push_back(
            {i == wrong ? (type == 1 ? 3u : type - 1) : type, 0, type == 2 ? KEL_RT_NO_MEMORY_ID : 0});
    }
    return args;
}

// Held against the entry point's behaviour, so that neither names nor types nor counts can drift: a context
// of the expected types reaches its handler, which the DEBUG line with the name announces, and any other type
// code does not.
TEST(OperatorTable, HasEveryRowAsPublished) {
    probe::Probe probe;
    g_log_lvl = 0;
    for (uint32_t id = 0; id < KEL_RT_NUM_OPS; ++id) {
        const Row& row = kRows[id];
        const std::string types = row.types;
        SCOPED_TRACE(row.name);
        for (size_t wrong = 2; wrong <= types.size(); ++wrong) {
            rig::Rig rig;
            probe.clear();
            const uint32_t status = rig.run(id, arguments_of(row, wrong));
            const std::string announced = std::string("KEL RT executing operator ") + row.name;
            if (wrong < types.size()) {
                EXPECT_EQ(status, NNA_STATUS_TYPE_MISMATCH);
                EXPECT_EQ(probe.messages().at(0).rfind("Context Argument[" + std::to_string(wrong) + "]", 0),
                          0u);
            } else {
                EXPECT_EQ(probe.messages().at(0), announced);
            }
        }
    }
}

}  // namespace
