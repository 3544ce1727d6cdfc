// Operands that an operator leaves changed although they are no result of it: transposed matrices, gates.
// Accelerator memory keeps them as they were, unless something else in the same memory is published; a CPU
// buffer shows them to whoever reads it next. And rows of SRAM that caches keep from view.
#include "warnings.h"

#include <algorithm>
#include <string_view>

namespace tool {
namespace {

// The operator of a context whose memories are the job's.
const Operator* known_operator(const Context& context, const Job& job) {
    const Operator* const op = operator_of(context);
    if (!op || context.own().size() != op->arguments.size())
        return nullptr;
    for (size_t i = 0; i < op->arguments.size(); ++i) {
        const uint32_t value = context.own()[i].value;
        if (op->arguments[i].is_memory() && value >= job.memories.size() && value != KEL_RT_NO_MEMORY_ID)
            return nullptr;
    }
    return op;
}

class Warnings {
  public:
    explicit Warnings(const Job& job) : job_(job), changed_(job.memories.size()) {
        for (size_t i = 0; i < job.contexts.size(); ++i) {
            current_ = i;
            if (const Operator* const op = known_operator(job.contexts[i], job))
                look_at(*op, job.contexts[i].own());
        }
    }
    std::vector<Finding> findings;

  private:
    using Own = std::span<const KelRtContextArg>;

    // An operand that is not what it was.
    struct Changed {
        size_t context;
        const Argument* argument;
        Range bytes;  // of its memory
    };

    void add(const Argument& argument, std::string what) {
        findings.push_back({false, current_, argument.name, std::move(what)});
    }

    // In the order of the adapters: operands are fetched, the kernel runs, results are published.
    void look_at(const Operator& op, Own own) {
        const std::vector<uint32_t> values = values_of(own);
        if (moves_sram(id_of(op))) {
            look_at_rows(op, own.back());
            return;
        }
        if (op.name == std::string_view("cpu_matmul"))
            look_at_operands(op, own, values);
        const auto each_memory = [&](auto action) {
            for (size_t i = 0; i < op.arguments.size(); ++i) {
                if (op.arguments[i].is_memory() && own[i].value != KEL_RT_NO_MEMORY_ID)
                    action(op.arguments[i], own[i]);
            }
        };
        // Unlike the others, the LSTM operators fetch what they only write too.
        each_memory([&](const Argument& argument, const KelRtContextArg& at) {
            const bool is_fetched = op.fetches_outputs || argument.use != Use::Output;
            if (job_.memories[at.value].on_cpu)
                look_at_reading(argument, at, values);
            else if (is_fetched)
                changed_[at.value].clear();
        });
        each_memory([&](const Argument& argument, const KelRtContextArg& at) {
            const Range bytes = placed(at, argument.written_range(values));
            if (!is_left_changed(argument, values))
                return;
            forget(changed_[at.value], bytes);
            changed_[at.value].push_back({current_, &argument, bytes});
        });
        each_memory([&](const Argument& argument, const KelRtContextArg& at) {
            if (argument.is_published())
                look_at_publishing(argument, at, placed(at, argument.written_range(values)));
        });
    }

    static bool is_left_changed(const Argument& argument, Values values) {
        return argument.use == Use::Input && argument.written_range(values).length() > 0;
    }

    static Range placed(const KelRtContextArg& at, Range range) {
        return {range.begin + at.offset, range.end + at.offset};
    }

    // Of a CPU buffer, which keeps what an earlier context has left there.
    void look_at_reading(const Argument& argument, const KelRtContextArg& at, Values values) {
        const Range read = placed(at, argument.read_range(values));
        for (const Changed& operand : changed_[at.value]) {
            if (read.length() > 0 && read.begin < operand.bytes.end && operand.bytes.begin < read.end)
                add(argument, argument.name + (" is read from memory " + job_.memories[at.value].name) +
                                  ", where " + described(operand) + " lies as that left it");
        }
    }

    void look_at_publishing(const Argument& argument, const KelRtContextArg& at, Range written) {
        std::vector<Changed>& changed = changed_[at.value];
        if (job_.memories[at.value].on_cpu) {
            forget(changed, written);
            return;
        }
        for (const Changed& operand : changed)
            add(argument, std::string("publishing ") + argument.name + " publishes all of memory " +
                              job_.memories[at.value].name + ", " + described(operand) +
                              " as that left it included");
        changed.clear();
    }

    // What is overwritten as a whole is gone.
    static void forget(std::vector<Changed>& changed, Range written) {
        std::erase_if(changed, [&](const Changed& operand) {
            return written.begin <= operand.bytes.begin && operand.bytes.end <= written.end;
        });
    }

    std::string described(const Changed& operand) const {
        return std::string("operand ") + operand.argument->name + " of " +
               name_of(job_.contexts[operand.context], operand.context);
    }

    // Transposing one of two operands that share bytes changes the other.
    void look_at_operands(const Operator& op, Own own, Values values) {
        const KelRtContextArg &a = own[0], &b = own[1];
        const bool transposed = is_left_changed(op.at(2), values) || is_left_changed(op.at(3), values);
        if (transposed && a.value == b.value && a.value != KEL_RT_NO_MEMORY_ID &&
            a.offset < b.offset + op.at(3).read_range(values).end &&
            b.offset < a.offset + op.at(2).read_range(values).end)
            add(op.at(3), "a and b overlap in memory " + job_.memories[a.value].name +
                              ", so that both are read as the transposition leaves them");
    }

    // Of accelerator memory the SRAM operators see the CPU's view alone.
    void look_at_rows(const Operator& op, const KelRtContextArg& memory) {
        if (memory.value == KEL_RT_NO_MEMORY_ID || job_.memories[memory.value].on_cpu)
            return;
        const std::string name = job_.memories[memory.value].name;
        const Argument& argument = op.arguments.back();
        add(argument, std::string(op.name) + " maintains no cache, so " +
                          (argument.is_published() ? "memory " + name + " does not show the rows"
                                                   : "the rows are not those of memory " + name +
                                                         " but what a stale view holds") +
                          "; a cpu memory would");
    }

    const Job& job_;
    size_t current_ = 0;
    std::vector<std::vector<Changed>>
        changed_;  // by memory id: not yet fetched anew, published or overwritten
};

}  // namespace

std::vector<Finding> warnings_of(const Job& job) {
    return Warnings(job).findings;
}

}  // namespace tool
