// Operands that an operator leaves changed although they are no result of it: transposed matrices, gates.
// Accelerator memory keeps them as they were, unless something else in the same memory is published. And rows
// of SRAM that caches keep from view.
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
            if (const Operator* const op = known_operator(job.contexts[i], job))
                look_at(i, *op, job.contexts[i].args);
        }
    }
    std::vector<std::string> sentences;

  private:
    using Args = std::vector<KelRtContextArg>;

    // In the order of the adapters: operands are fetched, the kernel runs, results are published.
    void look_at(size_t index, const Operator& op, const Args& args) {
        std::vector<uint32_t> values;
        for (const KelRtContextArg& arg : args)
            values.push_back(arg.value);
        const auto each_memory = [&](auto action) {
            for (size_t i = 0; i < op.arguments.size(); ++i) {
                const uint32_t id = args[i + 2].value;
                if (op.arguments[i].is_memory() && id != KEL_RT_NO_MEMORY_ID)
                    action(op.arguments[i], id);
            }
        };
        const std::string where = name_of(job_.contexts[index], index) + ": ";

        if (moves_sram(id_of(op))) {
            look_at_rows(where, op, args.back());
            return;
        }
        if (op.name == std::string_view("cpu_matmul"))
            look_at_operands(where, op, args, values);
        // Unlike the others, the LSTM operators fetch what they only write too.
        each_memory([&](const Argument& argument, uint32_t id) {
            if (op.fetches_outputs || argument.use != Use::Output)
                changed_[id].clear();
        });
        each_memory([&](const Argument& argument, uint32_t id) {
            if (is_left_changed(argument, values) && !job_.memories[id].on_cpu)
                changed_[id].push_back({index, &argument});
        });
        each_memory([&](const Argument& argument, uint32_t id) {
            if (!argument.is_published())
                return;
            for (const Changed& operand : changed_[id])
                sentences.push_back(where + "publishing " + argument.name + " publishes all of memory " +
                                    job_.memories[id].name + ", operand " + operand.argument->name + " as " +
                                    name_of(job_.contexts[operand.context], operand.context) +
                                    " left it included");
            changed_[id].clear();
        });
    }

    static bool is_left_changed(const Argument& argument, Values values) {
        return argument.use == Use::Input && argument.written_range(values).end > 0;
    }

    // Transposing one of two operands that share bytes changes the other.
    void look_at_operands(const std::string& where, const Operator& op, const Args& args, Values values) {
        const KelRtContextArg &a = args[2], &b = args[3];
        const bool transposed = is_left_changed(op.at(2), values) || is_left_changed(op.at(3), values);
        if (transposed && a.value == b.value && a.value != KEL_RT_NO_MEMORY_ID &&
            a.offset < b.offset + op.at(3).read_range(values).end &&
            b.offset < a.offset + op.at(2).read_range(values).end)
            sentences.push_back(where + "a and b overlap in memory " + job_.memories[a.value].name +
                                ", so that both are read as the transposition leaves them");
    }

    // Of accelerator memory the SRAM operators see the CPU's view alone.
    void look_at_rows(const std::string& where, const Operator& op, const KelRtContextArg& memory) {
        if (memory.value == KEL_RT_NO_MEMORY_ID || job_.memories[memory.value].on_cpu)
            return;
        const std::string name = job_.memories[memory.value].name;
        sentences.push_back(where + op.name + " maintains no cache, so " +
                            (op.arguments.back().is_published() ? "memory " + name + " does not show the rows"
                                                                : "the rows are not those of memory " + name +
                                                                      " but what a stale view holds") +
                            "; a cpu memory would");
    }

    struct Changed {
        size_t context;
        const Argument* argument;
    };

    const Job& job_;
    std::vector<std::vector<Changed>> changed_;  // by memory id: not yet fetched anew or published
};

}  // namespace

std::vector<std::string> warnings_of(const Job& job) {
    return Warnings(job).sentences;
}

}  // namespace tool
