// What jobs of every origin have in common.
#include "job.h"

namespace tool {

bool Job::add_memory(Memory memory) {
    bytes += memory.initial.bytes.size();
    memory_ids.emplace(memory.name, static_cast<uint32_t>(memories.size()));
    memories.push_back(std::move(memory));
    return bytes <= kMaxBytes;
}

bool Job::add_sram(Sram added) {
    bytes += added.initial.bytes.size();
    sram = std::move(added);
    return bytes <= kMaxBytes;
}

std::optional<uint32_t> Job::find_memory(const std::string& name) const {
    const auto id = memory_ids.find(name);
    return id == memory_ids.end() ? std::nullopt : std::optional(id->second);
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

std::vector<uint32_t> values_of(std::span<const KelRtContextArg> arguments) {
    std::vector<uint32_t> values(kFirstArgument);
    for (const KelRtContextArg& argument : arguments)
        values.push_back(argument.value);
    return values;
}

}  // namespace tool
