// The catalogue's footprints, laid over the job's memories.
#include "check.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>

namespace tool {
namespace {

const char* with_article(uint32_t type) {
    return type == KEL_RT_ARG_VAL ? "an integer" : type == KEL_RT_ARG_MEM ? "a memory" : "a float";
}

bool fits(Element wanted, npy::Type actual) {
    if (wanted == Element::Any || actual == npy::Type::u1)
        return true;
    return actual == (wanted == Element::Float ? npy::Type::f4 : npy::Type::i1);
}

// The operands of one context.
class Operands {
  public:
    Operands(const Operator& op, std::span<const KelRtContextArg> given, const Job& job)
        : op_(op), given_(given), job_(job), values_(values_of(given)) {}

    // Each says "" or what is wrong.

    std::string check_memory(size_t i) const {
        const Argument& argument = op_.arguments[i];
        const uint64_t extent =
            std::max(argument.read_range(values_).end, argument.written_range(values_).end);
        if (given_[i].value == KEL_RT_NO_MEMORY_ID) {
            if (given_[i].offset != 0)
                return who(i) + " is no memory and has an offset all the same";
            // Kernels refuse a null pointer; rows of SRAM would be moved to address 0.
            if (moves_sram(id_of(op_)) && extent > 0)
                return who(i) + " must be a memory";
            return "";
        }
        const Memory& memory = job_.memories[given_[i].value];
        const uint64_t size = memory.size();
        if (!fits(argument.element, memory.initial.type))
            return who(i) + " holds " + (argument.element == Element::Float ? "f4" : "i1 or u1") +
                   " and memory " + memory.name + " is " + npy::name_of(memory.initial.type);
        if (offset(i) > size)
            return "offset " + std::to_string(offset(i)) + " is outside memory " + memory.name + " of " +
                   std::to_string(size) + " bytes";
        if (extent > size - offset(i))
            return who(i) + " needs " + std::to_string(extent) + " bytes from offset " +
                   std::to_string(offset(i)) + " and memory " + memory.name + " has " + std::to_string(size);
        return "";
    }

    // What one writes the other must not touch, unless the operator is made for it.
    std::string check_overlap(size_t i, size_t j) const {
        if (given_[i].value != given_[j].value || given_[i].value == KEL_RT_NO_MEMORY_ID)
            return "";
        const Argument &a = op_.arguments[i], &b = op_.arguments[j];
        const Range a_writes = placed(i, a.written_range(values_)),
                    b_writes = placed(j, b.written_range(values_));
        const Range clash =
            std::max({common(a_writes, placed(j, b.read_range(values_))),
                      common(b_writes, placed(i, a.read_range(values_))), common(a_writes, b_writes)},
                     [](Range x, Range y) { return x.length() < y.length(); });
        const auto may = [&](Overlap::Kind kind) {
            return op_.may_overlap(i + kFirstArgument, j + kFirstArgument, kind, values_);
        };
        const bool as_same = may(Overlap::AsSame);
        if (clash.length() == 0 || may(Overlap::Anyhow) || (as_same && offset(i) == offset(j)))
            return "";
        return std::string(b.name) + " and " + a.name + both_touch(clash, i) +
               (as_same ? "; they may begin at the same byte, or lie apart" : "; they must lie apart");
    }

    // The row that is looked up is what is read, and `j` must not be written over it. Row 0 is the
    // footprint's.
    std::string check_row(const Lookup& lookup, float index, size_t j) const {
        const size_t table = lookup.table - kFirstArgument;
        if (row_of(index) == 0 || !op_.arguments[j].is_memory() || given_[j].value != given_[table].value)
            return "";
        const Range clash = common(placed(j, op_.arguments[j].written_range(values_)),
                                   placed(table, lookup.row(index, values_)));
        if (clash.length() == 0)
            return "";
        return "row " + std::to_string(row_of(index)) + " of " + op_.arguments[table].name + " and " +
               op_.arguments[j].name + both_touch(clash, table) + "; they must lie apart";
    }

    // Each row is a call of its own, rows of nothing too; of those a job could ask for 2^32.
    std::string check_rows() const {
        const uint32_t rows = values_[5], memory = values_[6];
        const uint64_t size = memory == KEL_RT_NO_MEMORY_ID ? 0 : job_.memories[memory].size();
        if (rows <= size || values_[3] != 0)
            return "";
        return std::to_string(rows) + " rows of no bytes are more than the memory has bytes";
    }

  private:
    std::string both_touch(Range clash, size_t i) const {
        return std::string(" of ") + op_.name + " both touch bytes " + std::to_string(clash.begin) + " to " +
               std::to_string(clash.end - 1) + " of memory " + job_.memories[given_[i].value].name;
    }

    std::string who(size_t i) const { return std::string(op_.arguments[i].name) + " of " + op_.name; }

    uint32_t offset(size_t i) const { return start_of(op_, given_[i].offset); }

    // Bytes of the memory rather than of the operand.
    Range placed(size_t i, Range range) const {
        return range.length() == 0 ? Range{} : Range{range.begin + offset(i), range.end + offset(i)};
    }

    static Range common(Range a, Range b) {
        const Range both = {std::max(a.begin, b.begin), std::min(a.end, b.end)};
        return both.length() == 0 ? Range{} : both;
    }

    const Operator& op_;
    std::span<const KelRtContextArg> given_;
    const Job& job_;
    std::vector<uint32_t> values_;
};

}  // namespace

namespace {

// Passes complaints on, and knows whether there were any.
class Verdict {
  public:
    explicit Verdict(const Complain& complain) : complain_(complain) {}

    void add(size_t argument, const std::string& wrong) {
        if (wrong.empty())
            return;
        good_ = false;
        complain_(argument, wrong);
    }
    bool good() const { return good_; }

  private:
    const Complain& complain_;
    bool good_ = true;
};

}  // namespace

void note_writes(const Operator& op, std::span<const KelRtContextArg> arguments, Job& job) {
    const std::vector<uint32_t> values = values_of(arguments);
    for (size_t i = 0; i < arguments.size(); ++i) {
        const bool is_memory = op.arguments[i].is_memory() && arguments[i].value != KEL_RT_NO_MEMORY_ID;
        if (is_memory && op.arguments[i].written_range(values).length() > 0)
            job.memories[arguments[i].value].written = true;
    }
}

bool check_types(const Operator& op, std::span<const KelRtContextArg> arguments, const Complain& complain) {
    Verdict verdict(complain);
    for (size_t i = 0; i < arguments.size(); ++i) {
        const Argument& argument = op.arguments[i];
        if (arguments[i].type != argument.type)
            verdict.add(i, std::string(argument.name) + " of " + op.name + " is " +
                               with_article(argument.type) + " and " + with_article(arguments[i].type) +
                               " is given");
    }
    return verdict.good();
}

bool check_extents(const Operator& op, std::span<const KelRtContextArg> arguments, const Job& job,
                   const Complain& complain) {
    Verdict verdict(complain);
    const Operands operands(op, arguments, job);
    if (moves_sram(id_of(op)))
        verdict.add(3, operands.check_rows());
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (op.arguments[i].is_memory())
            verdict.add(i, operands.check_memory(i));
    }
    return verdict.good();
}

bool check_overlaps(const Operator& op, std::span<const KelRtContextArg> arguments, const Job& job,
                    const Complain& complain) {
    Verdict verdict(complain);
    const Operands operands(op, arguments, job);
    for (size_t j = 0; j < arguments.size(); ++j) {
        for (size_t i = 0; i < j; ++i) {
            if (op.arguments[i].is_memory() && op.arguments[j].is_memory())
                verdict.add(j, operands.check_overlap(i, j));
        }
    }
    return verdict.good();
}

void check_arguments(const Operator& op, std::span<const KelRtContextArg> arguments, Job& job,
                     const Complain& complain) {
    if (!check_types(op, arguments, complain) || !check_extents(op, arguments, job, complain))
        return;
    check_overlaps(op, arguments, job, complain);
    check_lookups(op, arguments, job, complain, [&](const KelRtContextArg& argument) -> std::optional<float> {
        const Memory& memory = job.memories[argument.value];
        float index;
        std::memcpy(&index, memory.initial.bytes.data() + argument.offset, sizeof index);
        return memory.written ? std::nullopt : std::optional(index);
    });
    note_writes(op, arguments, job);
}

void check_lookups(const Operator& op, std::span<const KelRtContextArg> arguments, const Job& job,
                   const Complain& complain, const Index& index) {
    const Operands operands(op, arguments, job);
    for (const Lookup& lookup : op.lookups) {
        const size_t i = lookup.index - kFirstArgument, t = lookup.table - kFirstArgument;
        const KelRtContextArg& table = arguments[t];
        const uint64_t row_bytes = lookup.row_bytes(values_of(arguments));
        // The library itself refuses what is not there.
        if (arguments[i].value == KEL_RT_NO_MEMORY_ID || table.value == KEL_RT_NO_MEMORY_ID || row_bytes == 0)
            continue;
        const Memory& memory = job.memories[table.value];
        const uint64_t rows = (memory.size() - table.offset) / row_bytes;
        const std::optional<float> at = index(arguments[i]);
        if (!at)
            continue;
        if (row_of(*at) < rows) {
            for (size_t j = 0; j < arguments.size(); ++j) {
                if (const std::string wrong = operands.check_row(lookup, *at, j); !wrong.empty())
                    complain(t, wrong);
            }
            continue;
        }
        char number[32];
        std::snprintf(number, sizeof number, "%.9g", static_cast<double>(*at));
        complain(i, std::string(op.arguments[i].name) + " of " + op.name + " is " + number + " and memory " +
                        memory.name + " has " + std::to_string(rows) + (rows == 1 ? " row" : " rows"));
    }
}

}  // namespace tool
