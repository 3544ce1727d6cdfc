// What jobs of every origin have in common: building a context and checking it against the catalogue.
#include "job.h"

#include <cstdio>

namespace tool {
namespace {

bool fits(Element wanted, npy::Type actual) {
    if (wanted == Element::Any || actual == npy::Type::u1)
        return true;
    return actual == (wanted == Element::Float ? npy::Type::f4 : npy::Type::i1);
}

// "" or what is wrong with an argument that names a memory.
std::string check_memory(const Operator& op, const Argument& argument, const KelRtContextArg& given,
                         double extent, const Job& job) {
    const std::string who = std::string(argument.name) + " of " + op.name;
    if (given.value == KEL_RT_NO_MEMORY_ID) {
        if (given.offset != 0)
            return who + " is no memory and has an offset all the same";
        // Kernels refuse a null pointer; rows of SRAM would be moved to address 0.
        if (moves_sram(id_of(op)) && extent > 0)
            return who + " must be a memory";
        return "";
    }
    const Memory& memory = job.memories[given.value];
    const size_t size = memory.initial.bytes.size();
    if (!fits(argument.element, memory.initial.type))
        return who + " holds " + (argument.element == Element::Float ? "f4" : "i1 or u1") + " and memory " +
               memory.name + " is " + npy::name_of(memory.initial.type);
    // The SRAM operators ignore their memory's offset.
    const uint32_t offset = moves_sram(id_of(op)) ? 0 : given.offset;
    if (offset > size)
        return "offset " + std::to_string(offset) + " is outside memory " + memory.name + " of " +
               std::to_string(size) + " bytes";
    if (offset + extent > static_cast<double>(size)) {
        char needed[32];
        std::snprintf(needed, sizeof needed, "%.0f", extent);
        return who + " needs " + needed + " bytes from offset " + std::to_string(offset) + " and memory " +
               memory.name + " has " + std::to_string(size);
    }
    return "";
}

const char* with_article(uint32_t type) {
    return type == KEL_RT_ARG_VAL ? "an integer" : type == KEL_RT_ARG_MEM ? "a memory" : "a float";
}

}  // namespace

std::optional<uint32_t> Job::find_memory(const std::string& name) const {
    for (uint32_t id = 0; id < memories.size(); ++id) {
        if (memories[id].name == name)
            return id;
    }
    return std::nullopt;
}

Context make_context(std::string title, uint32_t operator_id, const std::vector<KelRtContextArg>& arguments) {
    Context context;
    context.title = std::move(title);
    context.args = {{KEL_RT_ARG_VAL, 0, static_cast<uint32_t>(arguments.size())},
                    {KEL_RT_ARG_VAL, 0, operator_id}};
    context.args.insert(context.args.end(), arguments.begin(), arguments.end());
    context.num_args = static_cast<int32_t>(context.args.size());
    return context;
}

void check_arguments(const Operator& op, const std::vector<KelRtContextArg>& arguments, const Job& job,
                     const Complain& complain) {
    std::vector<uint32_t> values(2);
    for (size_t i = 0; i < arguments.size(); ++i) {
        const Argument& argument = op.arguments[i];
        if (arguments[i].type != argument.type)
            complain(i, std::string(argument.name) + " of " + op.name + " is " + with_article(argument.type) +
                            " and " + with_article(arguments[i].type) + " is given");
        values.push_back(arguments[i].value);
    }
    // Extents depend on integers that may come later.
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (!op.arguments[i].is_memory())
            continue;
        const double extent = op.arguments[i].extent(values);
        const std::string wrong = check_memory(op, op.arguments[i], arguments[i], extent, job);
        if (!wrong.empty())
            complain(i, wrong);
    }
}

std::string check_capacity(const Job& job) {
    uint64_t bytes = job.sram ? job.sram->initial.bytes.size() : 0;
    for (const Memory& memory : job.memories)
        bytes += memory.initial.bytes.size();
    return bytes <= kMaxBytes ? "" : "the memories take more than 512 MiB together";
}

}  // namespace tool
