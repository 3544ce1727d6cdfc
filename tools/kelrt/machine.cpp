// Memories on the simulated accelerator and in the driver's buffer table, and the calls.
#include "machine.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "endings.h"

namespace tool {
namespace {

uint32_t size_of(const npy::Array& array) {
    return static_cast<uint32_t>(array.bytes.size());
}

// Of calls that only the heap's end can make fail.
void require(uint32_t status) {
    if (status != NNA_STATUS_OK)
        end_out_of_memory();
}

// A table row for every memory id that a context names, as the library knows no bounds of it.
size_t table_size(const Job& job) {
    size_t size = job.memories.size();
    for (const Context& context : job.contexts) {
        for (const KelRtContextArg& arg : context.args) {
            if ((arg.type & 0xFF) == KEL_RT_ARG_MEM && arg.value <= kMaxMemoryId)
                size = std::max(size, size_t{arg.value} + 1);
        }
    }
    return size;
}

}  // namespace

Machine::Machine(const Job& job)
    : job_(job), sim_(nna_sim_create()), cpu_buffers_(table_size(job), CpuBufferEntry{nullptr, 0}) {
    instance_.device = sim_.get();
    instance_.cpu_buffers = cpu_buffers_.data();
    instance_.cpu_buffer_lookup = cpu_buffers_.data();
    for (uint32_t id = 0; id < job.memories.size(); ++id) {
        const Memory& memory = job.memories[id];
        // Ids are common to both kinds, so a CPU buffer has an empty accelerator memory behind it.
        nna_sim_add_memory(sim_.get(), memory.on_cpu ? 0 : size_of(memory.initial));
        if (memory.on_cpu)
            require(tivNnaCpuMemAlloc(&instance_, id, size_of(memory.initial)));
    }
}

Machine::~Machine() {
    for (uint32_t id = 0; id < job_.memories.size(); ++id) {
        if (job_.memories[id].on_cpu)
            tivNnaCpuMemDealloc(&instance_, id);
    }
}

void Machine::reset() {
    for (uint32_t id = 0; id < job_.memories.size(); ++id) {
        const npy::Array& initial = job_.memories[id].initial;
        if (job_.memories[id].on_cpu) {
            require(tivNnaCpuMemWrite(&instance_, id, 0, initial.bytes.data(), size_of(initial)));
        } else {
            require(nna_sim_device_write(sim_.get(), id, 0, initial.bytes.data(), size_of(initial)));
            std::fill_n(nna_sim_cpu_view(sim_.get(), id), initial.bytes.size(), uint8_t{NNA_SIM_STALE_BYTE});
        }
    }
    if (job_.sram) {
        nna_sim_set_sram(sim_.get(), job_.sram->base, size_of(job_.sram->initial));
        if (!job_.sram->initial.bytes.empty())
            std::memcpy(nna_sim_sram(sim_.get()), job_.sram->initial.bytes.data(),
                        job_.sram->initial.bytes.size());
    }
}

void Machine::show_memories() {
    for (uint32_t id = 0; id < job_.memories.size(); ++id) {
        const npy::Array& initial = job_.memories[id].initial;
        if (!job_.memories[id].on_cpu)
            std::copy(initial.bytes.begin(), initial.bytes.end(), view(id));
    }
}

Machine::Result Machine::execute(const Context& context) {
    // The library reads as many records as the operator has, whatever num_args says.
    args_ = context.args;
    args_.resize(std::max<size_t>(args_.size(), 32));
    // Both SRAM operators make the same platform call; which way it moves is the platform's business.
    const bool to_sram = (args_[1].value & 0xFF) == op::kSramSet;
    nna_sim_set_sram_direction(sim_.get(), to_sram ? NNA_SIM_MEMORY_TO_SRAM : NNA_SIM_SRAM_TO_MEMORY);

    KelRtContext record{};
    record.args = args_.data();
    record.num_args = context.num_args;
    record.target = context.target;

    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const uint32_t status = kelRt_executeContext(&instance_, context.null ? nullptr : &record);
    const double microseconds = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    nna_sim_clear_calls(sim_.get());
    nna_sim_fail_call(sim_.get(), 0, 0);  // takes back those that nobody came to
    return {status, microseconds, instance_.out_shift};
}

npy::Array Machine::read(uint32_t memory_id) {
    npy::Array array = job_.memories[memory_id].initial;
    read_bytes(memory_id, 0, array.bytes.data(), size_of(array));
    return array;
}

float Machine::read_float(const KelRtContextArg& argument) {
    float value;
    read_bytes(argument.value, argument.offset, &value, sizeof value);
    return value;
}

void Machine::read_bytes(uint32_t memory_id, uint32_t offset, void* to, uint32_t size) {
    require(job_.memories[memory_id].on_cpu ? tivNnaCpuMemRead(&instance_, memory_id, offset, to, size)
                                            : nna_sim_device_read(sim_.get(), memory_id, offset, to, size));
}

npy::Array Machine::read_sram() {
    npy::Array array = job_.sram->initial;
    if (!array.bytes.empty())
        std::memcpy(array.bytes.data(), nna_sim_sram(sim_.get()), array.bytes.size());
    return array;
}

}  // namespace tool
