// Every operator through every failing platform call: status, call order, hand-back order, log, and nothing
// published that should not be. One walk; an operator joins it with a row.
//
// A row's script says what the adapter does, with the argument numbers of its tensors:
//   resolving   A allocate, F copyFrom      in order
//   finishing   T copyTo, D deallocate      in order
// From it follow the platform calls (A: pointer; F: size, sync 1, pointer; T: size, sync 0; D: pointer) and,
// for a failure at each of them, everything else.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::flt;
using rig::mem;
using rig::val;

struct Step {
    char what;
    int arg;
};

struct Row {
    uint32_t id;
    std::vector<KelRtContextArg>
        args;  // memory arguments name the memories of memory_floats, which start out as 1
    std::vector<Step> resolving, finishing;
    std::vector<uint32_t> memory_floats;
};

const std::vector<KelRtContextArg> kLstmArgs = {mem(0), mem(1), mem(2), val(4)};
const std::vector<Step> kLstmResolving = {{'F', 2}, {'F', 3}, {'F', 4}};
const std::vector<Step> kLstmFinishing = {{'T', 2}, {'T', 3}, {'D', 4}};

const Row kRows[] = {
    // cpu_onnx_inst_norm
    {0, {mem(0), mem(1), val(4), flt(2), flt(1)}, {{'A', 2}, {'F', 3}}, {{'T', 2}, {'D', 3}}, {4, 4}},
    // cpu_onnx_onehot
    {3, {mem(0), mem(1), val(4), flt(2), flt(3)}, {{'A', 2}, {'F', 3}}, {{'T', 2}, {'D', 3}}, {4, 1}},
    // cpu_ewop_add
    {4,
     {mem(0), mem(1), mem(2), val(4)},
     {{'A', 2}, {'F', 3}, {'F', 4}},
     {{'T', 2}, {'D', 3}, {'D', 4}},
     {4, 4, 4}},
    // cpu_copy_fmt_conv
    {2,
     {mem(0), val(8), val(7), val(0), mem(1), val(UINT32_MAX), val(0), val(0), val(16)},
     {{'A', 2}, {'F', 6}},
     {{'T', 2}, {'D', 6}},
     {4, 16}},
    // cpu_hw32_fmt_conv
    {6, {mem(0), mem(1), val(8), val(0)}, {{'A', 2}, {'F', 3}}, {{'T', 2}, {'D', 3}}, {8, 8}},
    // cpu_hw32_fmt_conv_param
    {16, {mem(0), mem(1), val(8), val(1), val(4)}, {{'A', 2}, {'F', 3}}, {{'T', 2}, {'D', 3}}, {8, 8}},
    // cpu_softmax
    {5, {mem(0), mem(1), val(4)}, {{'A', 2}, {'F', 3}}, {{'T', 2}, {'D', 3}}, {4, 4}},
    // cpu_embedding
    {7,
     {mem(0), mem(1), mem(2), val(2)},
     {{'A', 2}, {'F', 3}, {'F', 4}},
     {{'T', 2}, {'D', 3}, {'D', 4}},
     {2, 1, 4}},
    // cpu_im2col: input first
    {9,
     {mem(0), mem(1), val(4), val(4), val(1), val(2), val(2), val(1), val(1), val(1)},
     {{'F', 2}, {'A', 3}},
     {{'T', 3}, {'D', 2}},
     {4, 18}},
    // cpu_matmul
    {10,
     {mem(0), mem(1), mem(2), val(2), val(3), val(3), val(4), val(0), val(0)},
     {{'F', 2}, {'F', 3}, {'A', 4}},
     {{'T', 4}, {'D', 2}, {'D', 3}},
     {6, 12, 8}},
    // cpu_featurenorm: hands the inputs back before it publishes
    {11,
     {mem(0), val(8), mem(1), mem(2), val(4), mem(3)},
     {{'F', 2}, {'F', 4}, {'F', 5}, {'A', 7}},
     {{'D', 2}, {'D', 4}, {'D', 5}, {'T', 7}},
     {8, 4, 4, 8}},
    // the LSTM family: fetches its outputs too, and publishes both states
    {1, kLstmArgs, kLstmResolving, kLstmFinishing, {4, 4, 16}},
    {8, kLstmArgs, kLstmResolving, kLstmFinishing, {4, 4, 16}},
    {13, kLstmArgs, kLstmResolving, kLstmFinishing, {4, 4, 16}},
    {14, kLstmArgs, kLstmResolving, kLstmFinishing, {4, 4, 16}},
    // cpu_lstm_states_norm_cifg_cpuactv: fetches its parameters whatever the flags say
    {15,
     {mem(0), mem(1), mem(2), val(4), val(0), val(1), flt(1e-3f), mem(3), mem(4), mem(5), mem(6), val(1),
      val(0), val(0), val(0)},
     {{'F', 2}, {'F', 3}, {'F', 4}, {'F', 9}, {'F', 10}, {'F', 11}, {'F', 12}},
     {{'T', 2}, {'T', 3}, {'D', 4}, {'D', 9}, {'D', 10}, {'D', 11}, {'D', 12}},
     {4, 4, 16, 16, 16, 4, 4}},
    // cpu_split: input first, and handed back before the output is published
    {12, {mem(0), mem(1), val(16)}, {{'F', 2}, {'A', 3}}, {{'D', 2}, {'T', 3}}, {4, 4}},
};

constexpr uint32_t kFailure = 4242;

// One platform call, as the script expects it and as the simulator recorded it.
std::string call_text(NnaSimFunction function, uint32_t memid, uint32_t direction) {
    constexpr const char* kNames[] = {"ptr", "size", "sync", "sram"};
    std::string text = kNames[function];
    text += ' ' + std::to_string(memid);
    if (function == NNA_SIM_MEMORY_SYNC)
        text += " dir " + std::to_string(direction);
    return text;
}

// The script, played against a platform whose k-th call fails (k = 0: none does), `late` if it does its work
// first.
struct Expectation {
    uint32_t status = NNA_STATUS_OK;
    std::vector<std::string> calls, messages;
    std::vector<uint32_t> published;  // memory ids

    Expectation(const Row& row, size_t k, bool late) : fail_at_(k) {
        std::vector<uint32_t> held;
        for (const Step& step : row.resolving) {
            const uint32_t memid = id_of(row, step);
            const bool coherent = step.what == 'A' || sync(memid, 1);
            const bool resolved = coherent && pointer(memid);
            // A failing platform that leaves a pointer gets it back.
            if (resolved || (coherent && late))
                held.push_back(memid);
            if (!resolved) {
                unwind(held);
                return;
            }
        }
        for (const Step& step : row.finishing) {
            const uint32_t memid = id_of(row, step);
            if (step.what == 'D') {
                const uint32_t before = status;
                pointer(memid);
                status = before;  // what hand-back says is ignored
            } else if (sync(memid, 0)) {
                published.push_back(memid);
            } else {
                if (late && calls.back().starts_with("sync"))
                    published.push_back(memid);
                unwind(held);
                return;
            }
        }
    }

  private:
    static uint32_t id_of(const Row& row, const Step& step) {
        return row.args[static_cast<size_t>(step.arg - 2)].value;
    }

    bool call(NnaSimFunction function, uint32_t memid, uint32_t direction = 0) {
        calls.push_back(call_text(function, memid, direction));
        return calls.size() != fail_at_;
    }
    bool pointer(uint32_t memid) {
        if (call(NNA_SIM_MEMORY_PTR, memid))
            return true;
        status = kFailure;
        return false;
    }
    bool sync(uint32_t memid, uint32_t direction) {
        const std::string code = std::to_string(kFailure);
        if (!call(NNA_SIM_MEMORY_SIZE, memid))
            messages.push_back("tivNnaMemorySize failed, err = " + code);
        else if (!call(NNA_SIM_MEMORY_SYNC, memid, direction))
            messages.push_back("tivNnaMemorySyncCache failed. Err = " + code);
        else
            return true;
        status = NNA_STATUS_MEMORY_SYNC_FAILED;
        return false;
    }
    void unwind(const std::vector<uint32_t>& held) {
        for (size_t i = held.size(); i-- > 0;)
            call(NNA_SIM_MEMORY_PTR, held[i]);
        messages.push_back("Error " + std::to_string(status) + " kelrt op 1");
    }

    size_t fail_at_;
};

// The SRAM operators' rows of platform calls are their kernel's, and fail in tests of their own.
TEST(WalkTable, HasEveryOperatorThatMovesNoSram) {
    std::vector<uint32_t> ids, all;
    for (const Row& row : kRows)
        ids.push_back(row.id);
    std::sort(ids.begin(), ids.end());
    for (uint32_t id = 0; id < 17; ++id)
        all.push_back(id);
    EXPECT_EQ(ids, all);
}

class Walk : public testing::TestWithParam<Row> {};

TEST_P(Walk, EveryFailingCall) {
    const Row& row = GetParam();
    const size_t total_calls = Expectation(row, 0, false).calls.size();
    for (size_t turn = 0; turn < 2 * (total_calls + 1); ++turn) {
        const size_t k = turn / 2;
        const bool late = turn % 2;
        SCOPED_TRACE("operator " + std::to_string(row.id) + ", failing call " + std::to_string(k) +
                     (late ? ", late" : ""));
        rig::Rig rig;
        for (const uint32_t floats : row.memory_floats)
            rig.memory_of(std::vector<float>(floats, 1.0f));
        std::vector<std::vector<float>> before;
        for (uint32_t memid = 0; memid < row.memory_floats.size(); ++memid) {
            // An output's view starts as something else than its device image, so that publication shows.
            before.push_back(rig.device<float>(memid, row.memory_floats[memid]));
        }
        if (k > 0)
            (late ? nna_sim_fail_call_late : nna_sim_fail_call)(rig.sim, static_cast<uint32_t>(k), kFailure);

        probe::Probe probe;
        const uint32_t status = rig.run(row.id, row.args);

        const Expectation expected(row, k, late);
        EXPECT_EQ(status, expected.status);
        EXPECT_EQ(probe.messages(), expected.messages);
        std::vector<std::string> calls;
        for (const NnaSimCall& call : rig.calls())
            calls.push_back(call_text(call.function, call.memid, call.direction));
        EXPECT_EQ(calls, expected.calls);
        for (uint32_t memid = 0; memid < row.memory_floats.size(); ++memid) {
            const bool published =
                std::count(expected.published.begin(), expected.published.end(), memid) > 0;
            const auto device = rig.device<float>(memid, row.memory_floats[memid]);
            const auto* view = reinterpret_cast<const float*>(nna_sim_cpu_view(rig.sim, memid));
            EXPECT_EQ(device, published ? std::vector<float>(view, view + device.size()) : before[memid])
                << "memory " << memid;
        }
    }
}

std::string row_name(const testing::TestParamInfo<Row>& info) {
    return "op" + std::to_string(info.param.id);
}

INSTANTIATE_TEST_SUITE_P(Operators, Walk, testing::ValuesIn(kRows), row_name);

}  // namespace
