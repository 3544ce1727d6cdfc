// The catalogue's footprints are the bytes that are touched: operands of random valid contexts end, at either
// end, where nobody may read or write, and what is not said to be written stays as it was.
#include <gtest/gtest.h>

#include "job.h"
#include "kelRt.h"
#include "nna_sim.h"
#include "support/contexts.h"
#include "support/guarded.h"

namespace {

using contexts::Random;
using tool::Range;

// One operand: exactly the bytes from the first to the last that the footprint has.
struct Operand {
    Range extent, written;
    std::unique_ptr<guarded::Bytes> bytes;
    std::vector<uint8_t> before;
};

class Footprints {
  public:
    Footprints(const tool::Operator& op, uint32_t seed, guarded::Wall wall)
        : op_(op), random_(seed), values_(contexts::values(op, random_)), operands_(values_.size()) {
        instance_.device = sim_.get();
        instance_.cpu_buffers = instance_.cpu_buffer_lookup = table_;
        nna_sim_set_sram(sim_.get(), 4096, 4096);
        nna_sim_set_sram_direction(sim_.get(),
                                   tool::id_of(op) == 18 ? NNA_SIM_MEMORY_TO_SRAM : NNA_SIM_SRAM_TO_MEMORY);
        for (uint32_t i = tool::kFirstArgument; i < values_.size(); ++i) {
            if (op.at(i).is_memory())
                add(i, wall);
        }
    }

    uint32_t run() {
        std::vector<KelRtContextArg> arguments;
        for (uint32_t i = tool::kFirstArgument; i < values_.size(); ++i)
            arguments.push_back({op_.at(i).type, 0, op_.at(i).is_memory() ? i : values_[i]});
        const tool::Context context = tool::make_context("", tool::id_of(op_), arguments);
        const KelRtContext record = {context.args.data(), {}, context.num_args, 0, KEL_RT_TARGET_CPU};
        return kelRt_executeContext(&instance_, &record);
    }

    // "" or the operand that holds a byte which should be as it was.
    std::string changed() {
        for (uint32_t i = tool::kFirstArgument; i < values_.size(); ++i) {
            Operand& operand = operands_[i];
            if (!operand.bytes)
                continue;
            const std::vector<uint8_t> after = operand.bytes->copy();
            for (size_t k = 0; k < after.size(); ++k) {
                const uint64_t byte = operand.extent.begin + k;
                const bool may = byte >= operand.written.begin && byte < operand.written.end;
                if (!may && after[k] != operand.before[k])
                    return std::string(op_.at(i).name) + " at byte " + std::to_string(byte);
            }
            if (!operand.bytes->intact())
                return std::string(op_.at(i).name) + " beyond its end";
        }
        return "";
    }

  private:
    static constexpr uint32_t kIndex = 3;  // of every look-up, and a depth has to reach it

    struct Destroy {
        void operator()(NnaSim* sim) const { nna_sim_destroy(sim); }
    };

    // Every memory is a CPU buffer, whose id is the argument's position: what the operator gets is then the
    // very address of the bytes, or one before them where the footprint does not begin with its operand.
    void add(uint32_t i, guarded::Wall wall) {
        const tool::Argument& argument = op_.at(i);
        Operand& operand = operands_[i];
        operand.written = argument.written_range(values_);
        const Range read = argument.read_range(values_);
        operand.extent = read.length() == 0              ? operand.written
                         : operand.written.length() == 0 ? read
                                                         : Range{std::min(read.begin, operand.written.begin),
                                                                 std::max(read.end, operand.written.end)};
        for (const tool::Lookup& lookup : op_.lookups) {
            if (lookup.table == i)
                operand.extent = lookup.row(kIndex, values_);
        }
        operand.before = contexts::operand(static_cast<size_t>(operand.extent.length()), kIndex, random_);
        operand.bytes = std::make_unique<guarded::Bytes>(operand.before, wall);
        table_[i] = {reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(operand.bytes->data()) -
                                             static_cast<uintptr_t>(operand.extent.begin)),
                     static_cast<uint32_t>(operand.extent.end)};
    }

    const tool::Operator& op_;
    Random random_;
    const std::vector<uint32_t> values_;
    std::vector<Operand> operands_;
    std::unique_ptr<NnaSim, Destroy> sim_{nna_sim_create()};
    CpuBufferEntry table_[tool::kFirstArgument + 15]{};
    KelRtInstance instance_{};
};

class FootprintsOf : public testing::TestWithParam<uint32_t> {};

TEST_P(FootprintsOf, AreAllThatIsTouched) {
    const tool::Operator& op = tool::kOperators[GetParam()];
    uint32_t succeeded = 0;
    constexpr uint32_t kContexts = 150;
    for (uint32_t seed = 1; seed <= kContexts; ++seed) {
        for (const guarded::Wall wall : {guarded::Wall::Before, guarded::Wall::After}) {
            SCOPED_TRACE(std::string(op.name) + " seed " + std::to_string(seed));
            Footprints footprints(op, seed, wall);
            succeeded += footprints.run() == NNA_STATUS_OK;
            ASSERT_EQ(footprints.changed(), "");
        }
    }
    // One-hot's index is outside the least depths.
    EXPECT_GE(succeeded, op.name == std::string_view("cpu_onnx_onehot") ? kContexts : 2 * kContexts);
}

INSTANTIATE_TEST_SUITE_P(Operators, FootprintsOf, testing::Range(0u, uint32_t{KEL_RT_NUM_OPS}),
                         [](const auto& row) { return tool::kOperators[row.param].name; });

}  // namespace
