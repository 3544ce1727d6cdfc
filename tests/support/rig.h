// A driver in miniature for tests: a simulated accelerator, an instance, memories, contexts.
#pragma once

#include <bit>
#include <cstdint>
#include <vector>

#include "kelRt.h"
#include "nna_sim.h"

namespace rig {

inline KelRtContextArg val(uint32_t value) {
    return {KEL_RT_ARG_VAL, 0, value};
}
inline KelRtContextArg mem(uint32_t memid, uint32_t offset = 0) {
    return {KEL_RT_ARG_MEM, offset, memid};
}
inline KelRtContextArg flt(float value) {
    return {KEL_RT_ARG_FLT, 0, std::bit_cast<uint32_t>(value)};
}

// A context that owns its arguments: count, operator id, then the operator's own.
struct Context {
    std::vector<KelRtContextArg> args;
    KelRtContext record;

    Context(uint32_t id, const std::vector<KelRtContextArg>& operator_args)
        : args{val(static_cast<uint32_t>(operator_args.size())), val(id)}, record{} {
        args.insert(args.end(), operator_args.begin(), operator_args.end());
        record = {
            args.data(), {0xDEAD, 0xDEAD}, static_cast<int32_t>(args.size()), 0xDEAD, KEL_RT_TARGET_CPU};
    }
    Context(const Context&) = delete;
};

class Rig {
  public:
    static constexpr uint32_t kMaxMemories = 32;

    explicit Rig(size_t entries = kMaxMemories)
        : sim(nna_sim_create()), table(entries, CpuBufferEntry{nullptr, 0}) {
        instance.device = sim;
        instance.cpu_buffers = instance.cpu_buffer_lookup = table.data();
    }
    ~Rig() {
        for (uint32_t memid = 0; memid < table.size(); ++memid)
            tivNnaCpuMemDealloc(&instance, memid);
        nna_sim_destroy(sim);
    }
    Rig(const Rig&) = delete;

    uint32_t memory(size_t bytes) { return nna_sim_add_memory(sim, static_cast<uint32_t>(bytes)); }

    // An accelerator memory whose device image holds `values` from byte `offset` on.
    template <typename T>
    uint32_t memory_of(const std::vector<T>& values, uint32_t offset = 0) {
        const auto bytes = static_cast<uint32_t>(values.size() * sizeof(T));
        const uint32_t memid = memory(bytes + offset);
        nna_sim_device_write(sim, memid, offset, values.data(), bytes);
        return memid;
    }

    // What the accelerator would see.
    template <typename T>
    std::vector<T> device(uint32_t memid, size_t count, uint32_t offset = 0) const {
        std::vector<T> values(count);
        nna_sim_device_read(sim, memid, offset, values.data(), static_cast<uint32_t>(count * sizeof(T)));
        return values;
    }

    uint32_t run(uint32_t id, const std::vector<KelRtContextArg>& operator_args) {
        const Context context(id, operator_args);
        return kelRt_executeContext(&instance, &context.record);
    }

    std::vector<NnaSimCall> calls() const {
        size_t count = 0;
        const NnaSimCall* first = nna_sim_calls(sim, &count);
        return {first, first + count};
    }

    NnaSim* sim;
    KelRtInstance instance{};
    std::vector<CpuBufferEntry> table;
};

}  // namespace rig
