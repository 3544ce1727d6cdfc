// A job: memories, the contexts that are run on them in order, and which memories are wanted afterwards. It
// is read from a JSON file, or put together from the shell's words (shell.h), and is complete and checked
// before anything runs.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelRt.h"
#include "npy.h"
#include "operators.h"

namespace tool {

struct Memory {
    std::string name;
    bool on_cpu = false;  // a CPU buffer rather than accelerator memory
    npy::Array initial;
};

struct Sram {
    uint32_t base = 0;
    npy::Array initial;
};

struct Context {
    std::string title;  // the operator's name, or what stands for it
    bool null = false;  // replays a call without a context
    std::vector<KelRtContextArg> args;
    int32_t num_args = 0;
    uint32_t target = KEL_RT_TARGET_CPU;
};

struct Job {
    std::vector<Memory> memories;  // indexed by memory id
    std::optional<Sram> sram;
    std::vector<Context> contexts;
    std::vector<uint32_t> outputs;  // memory ids
    bool sram_is_output = false;

    std::optional<uint32_t> find_memory(const std::string& name) const;
};

// What "sram" is called among the outputs; no memory may have that name.
inline constexpr const char* kSramName = "sram";

// Bytes of all memories together; the simulated accelerator's capacity.
inline constexpr uint64_t kMaxBytes = uint64_t{512} << 20;

// The largest memory id that a context may name; the driver's buffer table reaches so far.
inline constexpr uint32_t kMaxMemoryId = 0xFFFFF;

// A context of an operator and its arguments.
Context make_context(std::string title, uint32_t operator_id, const std::vector<KelRtContextArg>& arguments);

// Says what is wrong with an argument, given its position among the operator's own.
using Complain = std::function<void(size_t argument, const std::string& what)>;

// Checks arguments whose number is right against the catalogue: types, element types, extents.
void check_arguments(const Operator& op, const std::vector<KelRtContextArg>& arguments, const Job& job,
                     const Complain& complain);

// Checks that the memories together fit into the simulated accelerator; "" or what is wrong.
std::string check_capacity(const Job& job);

// Reads a job file; paths in it are relative to it. `unchecked` admits contexts that the library refuses.
Job read_job(const std::string& file, bool unchecked);

}  // namespace tool
