// A driver on the simulated accelerator: the job's memories, the instance record, and one call per context.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "job.h"
#include "nna_sim.h"

namespace tool {

class Machine {
  public:
    explicit Machine(const Job& job);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Puts every memory back to its initial bytes: into the device image or the CPU buffer. Nothing is put
    // into the CPU's view of accelerator memory, which is the library's to make coherent.
    void reset();

    // The same for the CPU's view: what a record holds is what the CPU saw.
    void show_memories();
    uint8_t* view(uint32_t memory_id) { return nna_sim_cpu_view(sim_.get(), memory_id); }
    // The k-th platform call of the next context fails.
    void fail_call(uint32_t k, uint32_t status) { nna_sim_fail_call(sim_.get(), k, status); }
    void set_out_shift(uint8_t shift) { instance_.out_shift = shift; }

    struct Result {
        uint32_t status;
        double microseconds;  // of the library alone
        uint8_t out_shift;    // of the instance afterwards
    };
    Result execute(const Context& context);

    // What a memory holds now: the device image or the CPU buffer.
    npy::Array read(uint32_t memory_id);
    npy::Array read_sram();
    // What the next context would find as the float at the start of an operand.
    float read_float(const KelRtContextArg& argument);

    uint64_t synced_bytes(uint32_t direction) const { return nna_sim_synced_bytes(sim_.get(), direction); }

  private:
    struct Destroy {
        void operator()(NnaSim* sim) const { nna_sim_destroy(sim); }
    };

    void read_bytes(uint32_t memory_id, uint32_t offset, void* to, uint32_t size);

    const Job& job_;
    std::unique_ptr<NnaSim, Destroy> sim_;
    std::vector<CpuBufferEntry> cpu_buffers_;
    KelRtInstance instance_{};
    std::vector<KelRtContextArg> args_;  // of the context under way
};

}  // namespace tool
