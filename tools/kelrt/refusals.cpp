// In the order in which the library asks.
#include "refusals.h"

#include <algorithm>

namespace tool {
namespace {

std::string number(uint32_t value) {
    return std::to_string(static_cast<int32_t>(value));
}

const char* name_of_type(uint32_t type) {
    constexpr const char* kNames[] = {"init_none", "init_to_val", "init_to_mem_idx", "init_to_flt"};
    return type < 4 ? kNames[type] : "";
}

// Records that the context does not have are none; so the tool runs it.
uint32_t type_at(const Context& context, size_t i) {
    return i < context.args.size() ? context.args[i].type & 0xFF : uint32_t{KEL_RT_ARG_NONE};
}

std::optional<Refusal> refused_type(const Context& context, size_t i, uint32_t expected) {
    const uint32_t actual = type_at(context, i);
    const std::string place = "Context Argument[" + std::to_string(i) + "] Type ";
    if (actual == expected)
        return std::nullopt;
    if (actual > KEL_RT_ARG_FLT)
        return Refusal{NNA_STATUS_INVALID_ARGUMENT, "Unknown " + place + number(actual)};
    return Refusal{NNA_STATUS_TYPE_MISMATCH,
                   place + "Mismatch expected " + name_of_type(expected) + " actual " + name_of_type(actual)};
}

// One operator's arguments, by position in the context.
class Kernel {
  public:
    Kernel(const Operator& op, std::span<const KelRtContextArg> given, const Index& index)
        : op_(op), given_(given), index_(index), v_(values_of(given)) {}

    std::optional<Refusal> refusal() const {
        switch (id_of(op_)) {
            case op::kSramGet:
            case op::kSramSet:
                return std::nullopt;  // rows go to any address
            case op::kLstmNormalised:
                return normalised_lstm();
        }
        if (const auto null = null_among(kFirstArgument, SIZE_MAX))
            return null;
        switch (id_of(op_)) {
            case op::kLstm:
            case op::kLstmActivated:
            case op::kLstmCifg:
            case op::kLstmActivatedCifg:
                return v_[5] == 0 ? refuse(NNA_STATUS_INVALID_ARGUMENT, 5) : std::nullopt;
            case op::kCopyFormat:
                return copy();
            case op::kOneHot:
                return one_hot();
            case op::kEmbedding:
                return v_[5] == 0 ? refuse(NNA_STATUS_NULL_POINTER, 5) : std::nullopt;
        }
        return std::nullopt;
    }

  private:
    // Without a message of the kernel's own the adapter's line is the first.
    std::optional<Refusal> refuse(uint32_t status, size_t position, std::string message = "") const {
        if (message.empty())
            message = "Error executing operator " + std::to_string(status);
        return Refusal{status, std::move(message), position ? op_.at(position).name : ""};
    }

    // With an offset the pointer is not null, and wrong in another way.
    bool is_null(size_t position) const {
        const KelRtContextArg& arg = given_[position - kFirstArgument];
        return op_.at(position).is_memory() && arg.value == KEL_RT_NO_MEMORY_ID && arg.offset == 0;
    }

    std::optional<Refusal> null_among(size_t from, size_t to) const {
        // Format conversion, one-hot, embedding and the LSTM operators say nothing themselves.
        const uint32_t id = id_of(op_);
        const bool silent =
            id == op::kCopyFormat || id == op::kOneHot || id == op::kEmbedding || op_.fetches_outputs;
        for (size_t i = from; i < std::min(to, v_.size()); ++i) {
            if (is_null(i))
                return refuse(NNA_STATUS_NULL_POINTER, i, silent ? "" : "Bad Address");
        }
        return std::nullopt;
    }

    std::optional<Refusal> normalised_lstm() const {
        if (const auto null = null_among(2, 5))
            return null;
        if (v_[5] == 0)
            return refuse(NNA_STATUS_INVALID_ARGUMENT, 5);
        const auto gates = v_[13] ? null_among(9, 11) : std::nullopt,
                   cells = v_[15] ? null_among(11, 13) : std::nullopt;
        if (gates || cells)
            return gates ? gates : cells;
        if (v_[13] && !v_[7])
            return refuse(NNA_STATUS_UNSUPPORTED, 13,
                          "Gate Normalization without CPU activation not supported");
        return std::nullopt;
    }

    std::optional<Refusal> copy() const {
        const uint32_t out_total = v_[3], out_fraction = v_[4], in_total = v_[7], in_fraction = v_[8];
        const auto bad = [this](size_t position, const std::string& message) {
            return refuse(NNA_STATUS_INVALID_ARGUMENT, position, message);
        };
        if (v_[10] == 0)
            return bad(10, "Unexpected Size 0");
        const std::string formats = "Input Total : " + number(in_total) + " Frac : " + number(in_fraction);
        if (out_total != kFloatBits && out_total != 8)
            return bad(3, formats);
        if (out_total < out_fraction)
            return bad(4, formats);
        if (in_total != kFloatBits && in_total != 8 && in_total != 16 && in_total != 32)
            return bad(7, formats);
        if (in_total < in_fraction)
            return bad(8, formats);
        if (in_total != kFloatBits && v_[9] == 0)
            return bad(9, "Input Scale Factor 0");
        return std::nullopt;
    }

    std::optional<Refusal> one_hot() const {
        const auto index = v_[4] == 0 ? std::optional(0.0f) : index_(given_[3 - kFirstArgument]);
        if (!index || row_of(*index) < v_[4])
            return std::nullopt;
        return refuse(NNA_STATUS_FAILED, 3);
    }

    const Operator& op_;
    std::span<const KelRtContextArg> given_;
    const Index& index_;
    const std::vector<uint32_t> v_;
};

}  // namespace

std::optional<Refusal> refused_at_entry(const Context& context) {
    if (context.null)
        return Refusal{NNA_STATUS_NULL_POINTER, "Unexpected NULL context"};
    if (context.target != KEL_RT_TARGET_CPU)
        return Refusal{NNA_STATUS_INVALID_ARGUMENT, "Unsupported target " + number(context.target)};
    if (context.num_args <= 2)
        return Refusal{NNA_STATUS_INVALID_ARGUMENT,
                       "Insufficient arguments for CPU " + std::to_string(context.num_args)};
    for (const size_t i : {size_t{0}, size_t{1}}) {
        if (const auto refusal = refused_type(context, i, KEL_RT_ARG_VAL))
            return refusal;
    }
    const uint32_t id = context.args[1].value & 0xFF;
    if (id >= KEL_RT_NUM_OPS)
        return Refusal{NNA_STATUS_INVALID_ARGUMENT, "KEL RT Unknown operator " + number(id)};
    const Operator& op = kOperators[id];
    if (context.args[0].value != op.arguments.size())
        return Refusal{NNA_STATUS_INVALID_ARGUMENT, "Expected " + std::to_string(op.arguments.size()) +
                                                        " Actual " + number(context.args[0].value)};
    for (size_t i = 0; i < op.arguments.size(); ++i) {
        auto refusal = refused_type(context, i + kFirstArgument, op.arguments[i].type);
        if (!refusal)
            continue;
        refusal->status = NNA_STATUS_TYPE_MISMATCH;  // whatever the check itself has said
        refusal->argument = op.arguments[i].name;
        return refusal;
    }
    return std::nullopt;
}

std::optional<Refusal> refused_by_kernel(const Operator& op, std::span<const KelRtContextArg> arguments,
                                         const Index& index) {
    return Kernel(op, arguments, index).refusal();
}

}  // namespace tool
