// What a failure leaves behind: every operator, every platform call it makes, several ways and statuses,
// first thing and amid other contexts; and every allocation. Status, log and calls are those that the
// operator's script implies; nothing is published, nothing is kept, and the contexts that follow give what
// they give without it.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <functional>

#include "support/heap.h"
#include "support/mode.h"
#include "support/probe.h"
#include "support/rows.h"

namespace {

using namespace rows;

// Statuses next to success, the library's own, and a stranger's.
constexpr Fault kFaults[] = {
    {0, Fault::Early, 0},
    {0, Fault::Early, NNA_STATUS_FAILED},
    {0, Fault::Early, NNA_STATUS_OK + 1},
    {0, Fault::Early, NNA_STATUS_OK | 0x10000},
    {0, Fault::Early, NNA_STATUS_NULL_POINTER},
    {0, Fault::Early, NNA_STATUS_MEMORY_SYNC_FAILED},
    {0, Fault::Early, UINT32_MAX},
    {0, Fault::Late, 0},
    {0, Fault::Late, 4242},
    {0, Fault::FromThenOn, 4242},
};

// What contexts work on.
struct State {
    std::vector<Bytes> images, views, buffers;
    Bytes sram;
    uint8_t out_shift;

    bool operator==(const State&) const = default;
};

// An operator's context and what surrounds it: its tensors are memories 0, 1, ..., a neighbour's follow.
class Scene {
  public:
    enum Start { Fresh, Amid, AmidBuffers };

    Scene(const Operator& op, const Operator& neighbour, Start start)
        : op_(op), neighbour_(neighbour), context_(op.id, op.args), buffered_(op.bytes.size()) {
        bench_.add(op);
        first_ = bench_.add(neighbour);
        bench_.instance.out_shift = 77;
        for (uintptr_t& word : bench_.instance.driver2)
            word = 0xDEAD;
        // With buffers every other tensor is in one.
        for (uint32_t i = 1; start == AmidBuffers && i < op.bytes.size(); i += 2) {
            buffered_[i] = tivNnaCpuMemAlloc(&bench_.instance, i, bench_.size(i)) == NNA_STATUS_OK;
            tivNnaCpuMemWrite(&bench_.instance, i, 0, bench_.image(i).data(), bench_.size(i));
        }
        if (start != Fresh) {
            go_on();
            bring(contents(op, 2));  // other than before, so that this context's results are
            for (int i = 0; i < 64; ++i)
                nna_sim_sram(bench_.sim)[i] ^= 0x55;
        }
        args_ = context_.args;
        instance_ = bench_.instance;
        table_ = bench_.table;
        nna_sim_clear_calls(bench_.sim);
    }

    uint32_t run() { return kelRt_executeContext(&bench_.instance, &context_.record); }

    // Contexts beside the one under test.
    void go_on() {
        EXPECT_EQ(bench_.run(neighbour_.id, neighbour_.args_at(first_)), NNA_STATUS_OK);
        EXPECT_EQ(run(), NNA_STATUS_OK);
    }

    void fail(const Fault& fault) {
        const auto set = fault.when == Fault::Late ? nna_sim_fail_call_late : nna_sim_fail_call;
        const uint32_t count = fault.when == Fault::FromThenOn ? 99 : 1;
        for (uint32_t i = 0; i < count; ++i)
            set(bench_.sim, fault.call + i, fault.status);
    }
    void recover() { nna_sim_fail_call(bench_.sim, 0, 0); }

    // The driver brings the operator's tensors.
    void bring(const std::vector<Bytes>& tensors) {
        for (uint32_t i = 0; i < op_.bytes.size(); ++i) {
            if (buffered_[i])
                tivNnaCpuMemWrite(&bench_.instance, i, 0, tensors[i].data(), bench_.size(i));
            else
                nna_sim_device_write(bench_.sim, i, 0, tensors[i].data(), bench_.size(i));
        }
    }
    void bring_again(const State& state) {
        std::vector<Bytes> tensors = state.images;
        for (uint32_t i = 0; i < op_.bytes.size(); ++i)
            if (buffered_[i])
                tensors[i] = state.buffers[i];
        bring(tensors);
    }

    State state() const {
        State state;
        for (uint32_t memid = 0; memid < first_ + neighbour_.bytes.size(); ++memid) {
            state.images.push_back(bench_.image(memid));
            state.views.push_back(bench_.view(memid));
            const auto* const bytes = static_cast<const uint8_t*>(bench_.table[memid].ptr);
            state.buffers.emplace_back(bytes, bytes + bench_.table[memid].size);
        }
        state.sram.assign(nna_sim_sram(bench_.sim), nna_sim_sram(bench_.sim) + 64);
        state.out_shift = bench_.instance.out_shift;
        return state;
    }

    // The driver's records, of which contexts write the shift alone.
    void expect_records_kept() const {
        EXPECT_EQ(std::memcmp(&bench_.instance, &instance_, offsetof(KelRtInstance, out_shift)), 0);
        EXPECT_EQ(std::memcmp(context_.args.data(), args_.data(), args_.size() * sizeof args_[0]), 0);
        for (size_t i = 0; i < table_.size(); ++i) {
            EXPECT_EQ(bench_.table[i].ptr, table_[i].ptr) << i;
            EXPECT_EQ(bench_.table[i].size, table_[i].size) << i;
        }
    }

    Expectation expectation(const Fault& fault = {}) const { return Expectation(op_, fault, {}, buffered_); }
    Lines called() const { return bench_.called(); }
    bool buffered(uint32_t tensor) const { return buffered_[tensor]; }

  private:
    const Operator &op_, &neighbour_;
    rig::Context context_;
    std::vector<bool> buffered_;
    Bench bench_;
    uint32_t first_ = 0;  // of the neighbour's memories
    std::vector<KelRtContextArg> args_;
    KelRtInstance instance_;
    std::vector<CpuBufferEntry> table_;
};

// What a context leaves, made of what there was before and of what a good one leaves.
State left_behind(const Operator& op, const Scene& scene, const Expectation& expected, const State& before,
                  const State& good) {
    State left = expected.computed ? good : before;
    for (uint32_t i = 0; i < op.bytes.size(); ++i) {
        left.images[i] = (expected.published[i] ? good : before).images[i];
        if (!expected.computed && expected.synced[i])
            left.views[i] = before.images[i];
        // SRAM rows that did not move leave their place as it is.
        Bytes& place = (scene.buffered(i) ? left.buffers : left.views)[i];
        const Bytes& was = (scene.buffered(i) ? before.buffers : before.views)[i];
        for (size_t at = 0; at < expected.moved.size() * kSramRow; ++at)
            if (!expected.moved[at / kSramRow])
                place[at] = was[at];
    }
    return left;
}

const Operator& neighbour_of(size_t row) {
    return kOperators[(row + 1) % kOperators.size()];
}

class Faults : public testing::TestWithParam<std::tuple<size_t, Scene::Start>> {
  protected:
    const size_t row = std::get<0>(GetParam());
    const Scene::Start start = std::get<1>(GetParam());
    const Operator& op = kOperators[row];

    void SetUp() override {
        Scene scene(op, neighbour_of(row), start);
        before = scene.state();
        ASSERT_EQ(scene.run(), NNA_STATUS_OK);
        good = scene.state();
        ASSERT_NE(good, before) << "a context that shows whether it ran";
        scene.go_on();
        later = scene.state();
    }

    void expect_no_trace_of(const Fault& fault) {
        SCOPED_TRACE(testing::Message() << "failing call " << fault.call << ", when " << fault.when
                                        << ", status " << fault.status);
        Scene scene(op, neighbour_of(row), start);
        const Expectation expected = scene.expectation(fault);
        probe.clear();
        scene.fail(fault);
        EXPECT_EQ(scene.run(), expected.status);
        scene.recover();
        EXPECT_EQ(scene.called(), expected.calls);
        EXPECT_EQ(probe.messages(), expected.messages);
        EXPECT_TRUE(scene.state() == left_behind(op, scene, expected, before, good));
        scene.expect_records_kept();

        // Once more: as if nothing had happened. A failing hand-back fails no context.
        if (expected.status != NNA_STATUS_OK || op.moves_sram()) {
            scene.bring_again(before);
            EXPECT_EQ(scene.run(), NNA_STATUS_OK);
        }
        EXPECT_TRUE(scene.state() == good);
        scene.go_on();
        EXPECT_TRUE(scene.state() == later);
        scene.expect_records_kept();
    }

    State before, good, later;
    probe::Probe probe;
};

TEST_P(Faults, LeaveNoTrace) {
    const int32_t limit = g_log_file_max_size;
    const mode::Word mode = mode::get();
    const size_t blocks = heap::blocks();
    const size_t calls = Scene(op, neighbour_of(row), start).expectation().calls.size();
    int runs = 0;
    for (Fault fault : kFaults) {
        for (fault.call = 1; fault.call <= calls && !HasFailure(); ++fault.call, ++runs)
            expect_no_trace_of(fault);
    }
    EXPECT_EQ(heap::blocks(), blocks);
    EXPECT_EQ(g_log_lvl, 3) << "the probe's";
    EXPECT_EQ(g_log_file_max_size, limit);
    EXPECT_EQ(mode::get() & mode::kBits, mode & mode::kBits);
    RecordProperty("faults", runs);
}

std::string name_of(const testing::TestParamInfo<Faults::ParamType>& info) {
    constexpr const char* kStarts[] = {"Fresh", "Amid", "AmidBuffers"};
    const auto [row, start] = info.param;
    return std::to_string(row) + "_" + kOperators[row].name + "_" + kStarts[start];
}
INSTANTIATE_TEST_SUITE_P(Of, Faults,
                         testing::Combine(testing::Range<size_t>(0, kOperators.size()),
                                          testing::Values(Scene::Fresh, Scene::Amid, Scene::AmidBuffers)),
                         name_of);

// Those whose contexts take memory, and how much of it fails them; the rest does without.
TEST(Heap, FailsWhereItMayAndNowhereElse) {
    for (size_t row = 0; row < kOperators.size(); ++row) {
        const Operator& op = kOperators[row];
        SCOPED_TRACE(op.name);
        Scene reference(op, neighbour_of(row), Scene::Fresh);
        const State before = reference.state();
        const size_t first = heap::allocations(), blocks = heap::blocks();
        ASSERT_EQ(reference.run(), NNA_STATUS_OK);
        const size_t allocations = heap::allocations() - first;
        const State good = reference.state();
        EXPECT_EQ(allocations, op.id == 2 && op.args[1].value == 8 ? 1u
                               : op.id == 10                       ? 2u
                                                                   : 0u)
            << "a block of floats, from which 8 bits are made; two transpositions";
        for (size_t n = 1; n <= allocations; ++n) {
            Scene scene(op, neighbour_of(row), Scene::Fresh);
            probe::Probe probe;
            heap::fail_allocation(static_cast<int>(n));
            const uint32_t status = scene.run();
            // A transposition does without, for the same result. A conversion cannot.
            const uint32_t refusal = op.id == 2 ? NNA_STATUS_OUT_OF_MEMORY : NNA_STATUS_OK;
            const Expectation expected(op, {}, {refusal});
            EXPECT_EQ(status, expected.status);
            EXPECT_EQ(scene.called(), expected.calls);
            Lines messages = expected.messages;
            if (op.id == 2)
                messages.insert(messages.begin(), {"Malloc Failed", "Error executing operator 1042"});
            EXPECT_EQ(probe.messages(), messages);
            EXPECT_TRUE(scene.state() == left_behind(op, scene, expected, before, good));
            if (status != NNA_STATUS_OK) {
                EXPECT_EQ(scene.run(), NNA_STATUS_OK);
                EXPECT_TRUE(scene.state() == good);
            }
        }
        EXPECT_EQ(heap::blocks(), blocks);
    }
}

// The functions that take memory outside contexts: what they report, without memory and with.
TEST(Heap, FailsFunctionsByThemselves) {
    rig::Rig rig;
    const struct {
        const char* name;
        std::function<std::string()> run;
        std::string failed, good;
    } cases[] = {
        {"tivNnaCpuMemAlloc",
         [&] {
             const uint32_t status = tivNnaCpuMemAlloc(&rig.instance, 3, 16);
             const bool filled = rig.table[3].ptr;
             const uint32_t size = rig.table[3].size;
             tivNnaCpuMemDealloc(&rig.instance, 3);
             return std::to_string(status) + (filled ? " filled " : " empty ") + std::to_string(size);
         },
         "1042 empty 0", "1001 filled 16"},
        {"init_simple_timer",
         [] {
             simple_timer* const timer = init_simple_timer();
             const bool made = timer;
             deinit_simple_timer(timer);
             return std::string(made ? "made" : "null");
         },
         "null", "made"},
        {"transpose",
         [] {
             float data[] = {1, 2, 3, 4, 5, 6};
             transpose(data, 3, 2);
             std::string text;
             for (const float value : data)
                 text += std::to_string(static_cast<int>(value));
             return text;
         },
         "142536", "142536"},
        {"kelRt_copyFormatConv",
         [] {
             uint8_t thirds[] = {9, 9, 9, 9};
             uint32_t out_bytes = 0;
             const uint32_t status =
                 kelRt_copyFormatConv(thirds, 8, 0, 3, thirds, 8, 0, 1, 4, nullptr, &out_bytes);
             return std::to_string(status) + " " + std::to_string(out_bytes) + " " +
                    std::to_string(thirds[3]);
         },
         "1042 16 9", "1001 4 3"},
    };
    const size_t blocks = heap::blocks();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        probe::Probe probe;
        heap::fail_allocation(1);
        EXPECT_EQ(c.run(), c.failed);
        const size_t first = heap::allocations();
        EXPECT_EQ(c.run(), c.good);
        EXPECT_EQ(heap::allocations() - first, 1u) << "that one was all";
    }
    EXPECT_EQ(heap::blocks(), blocks);
}

}  // namespace
