// A job: memories, the contexts that are run on them in order, and which memories are wanted afterwards. It
// is read from a JSON file, or put together from the shell's words (shell.h), and is complete and checked
// before anything runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "kelRt.h"
#include "npy.h"
#include "operators.h"

namespace tool {

struct Memory {
    std::string name;
    bool on_cpu = false;  // a CPU buffer rather than accelerator memory
    npy::Array initial;
    bool written = false;  // by a context so far: its initial bytes are not what the next one finds
    bool is_given = true;  // its initial bytes are somebody's, not just zeros
    // Of a recorded memory, whose bytes are not here: how many it has, and whether the platform knew.
    uint64_t elsewhere = 0;
    uint32_t size_status = NNA_STATUS_OK;

    uint64_t size() const { return initial.bytes.size() + elsewhere; }
};

struct Sram {
    uint32_t base = 0;
    npy::Array initial;
};

struct Context {
    std::string title;     // the operator's name, or what stands for it
    std::string label;     // the user's own name for it, if any
    bool by_name = false;  // its arguments are given by name
    bool null = false;     // replays a call without a context
    std::vector<KelRtContextArg> args;
    int32_t num_args = 0;
    uint32_t target = KEL_RT_TARGET_CPU;
    const Operator* op = nullptr;  // whose arguments have been checked; null: unchecked

    // The operator's own arguments.
    std::span<const KelRtContextArg> own() const { return std::span(args).subspan(kFirstArgument); }
};

// "context 3", or "context 3 (label)".
std::string name_of(const Context& context, size_t index);

// The operator that the library runs for a context; null if it refuses the records.
const Operator* operator_of(const Context& context);

struct Job {
    std::string file;              // empty: from the shell
    std::vector<Memory> memories;  // indexed by memory id
    std::unordered_map<std::string, uint32_t> memory_ids;
    uint64_t bytes = 0;  // of all memories and the SRAM
    std::optional<Sram> sram;
    std::vector<Context> contexts;
    std::vector<uint32_t> outputs;  // memory ids
    bool sram_is_output = false;
    bool is_recorded = false;  // put together from records, which have no SRAM

    // Both say whether everything fits into the simulated accelerator.
    [[nodiscard]] bool add_memory(Memory memory);
    [[nodiscard]] bool add_sram(Sram added);
    std::optional<uint32_t> find_memory(const std::string& name) const;
};

// What the SRAM of a job is called among the outputs; no memory of a job that has one may have that name.
inline constexpr const char* kSramName = "sram";

// The name of a memory's file, without ".npy": letters, digits, '_', '-', '.' and ' ' stand for themselves,
// but not '.' and '-' at the beginning; other bytes are written %XX, and the end of a long name is a number
// made of all of it.
std::string file_name_of(const std::string& memory);

// Bytes of all memories together; the simulated accelerator's capacity.
inline constexpr uint64_t kMaxBytes = uint64_t{512} << 20;
inline constexpr const char* kTooMuch = "the memories take more than 512 MiB together";

// The largest memory id that a context may name; the driver's buffer table reaches so far.
inline constexpr uint32_t kMaxMemoryId = 0xFFFFF;

// A context of an operator and its arguments.
Context make_context(std::string title, uint32_t operator_id, const std::vector<KelRtContextArg>& arguments);

// The values of an operator's own arguments, as the catalogue counts them.
std::vector<uint32_t> values_of(std::span<const KelRtContextArg> arguments);

// Reads a job file; paths in it are relative to it. `unchecked` admits contexts that the library refuses.
Job read_job(const std::string& file, bool unchecked);

}  // namespace tool
