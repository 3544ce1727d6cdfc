// What jobs of every origin have in common.
#include "job.h"

#include <cctype>
#include <cstdio>

#include "bad_input.h"

namespace tool {

std::string name_of(const Context& context, size_t index) {
    const std::string name = "context " + std::to_string(index);
    return context.label.empty() ? name : name + " (" + readable(context.label) + ")";
}

const Operator* operator_of(const Context& context) {
    const bool is_read = !context.null && context.target == KEL_RT_TARGET_CPU && context.num_args > 2;
    return is_read ? accepted(context.args) : nullptr;
}

std::string file_name_of(const std::string& memory) {
    constexpr size_t kLongest = 150, kKept = 120;
    std::string name;
    char number[24];
    uint64_t hash = 0xCBF29CE484222325;
    for (size_t i = 0; i < memory.size(); ++i) {
        const auto c = static_cast<unsigned char>(memory[i]);
        hash = (hash ^ c) * 0x100000001B3;
        const bool plain = std::isalnum(c) || c == '_' || ((c == '.' || c == '-' || c == ' ') && i > 0);
        std::snprintf(number, sizeof number, "%%%02X", c);
        name += plain ? std::string(1, memory[i]) : number;
    }
    if (name.size() > kLongest) {
        std::snprintf(number, sizeof number, "%%%%%016llX", static_cast<unsigned long long>(hash));
        name = name.substr(0, kKept) + number;
    }
    return name.empty() ? "%" : name;
}

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
    values.reserve(kFirstArgument + arguments.size());
    for (const KelRtContextArg& argument : arguments)
        values.push_back(argument.value);
    return values;
}

}  // namespace tool
