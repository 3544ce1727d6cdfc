// What a driver of the accelerator does around libkelRt: it owns the instance, hands out memories and runs
// operators as contexts. Nothing here knows about digits.
#pragma once

#include <bit>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "kelRt.h"
#include "nna_sim.h"

// Where an operand lies: a memory id and a byte offset into that memory.
struct Tensor {
    uint32_t memory = KEL_RT_NO_MEMORY_ID;
    uint32_t offset = 0;

    Tensor at(uint32_t bytes) const { return {memory, offset + bytes}; }
};

// One operator argument. The C++ type says which type code the record gets, so that an argument list reads
// like the operator's description: {scores, scores, bias, 10}.
struct Argument {
    KelRtContextArg record;

    Argument(Tensor tensor) : record{KEL_RT_ARG_MEM, tensor.offset, tensor.memory} {}
    Argument(uint32_t value) : record{KEL_RT_ARG_VAL, 0, value} {}
    Argument(int32_t value) : Argument(static_cast<uint32_t>(value)) {}
    Argument(float value) : record{KEL_RT_ARG_FLT, 0, std::bit_cast<uint32_t>(value)} {}
};

struct Operator {
    uint8_t id;
    const char* name;
};

inline constexpr Operator kCopyFmtConv{2, "cpu_copy_fmt_conv"};
inline constexpr Operator kEwopAdd{4, "cpu_ewop_add"};
inline constexpr Operator kSoftmax{5, "cpu_softmax"};
inline constexpr Operator kHw32FmtConv{6, "cpu_hw32_fmt_conv"};
inline constexpr Operator kLstmStatesCpuActivation{8, "cpu_lstm_states_cpu_activation"};
inline constexpr Operator kMatmul{10, "cpu_matmul"};
inline constexpr Operator kFeaturenorm{11, "cpu_featurenorm"};

struct OperatorTime {
    Operator op;
    size_t calls;
    double total_us, median_us;
};

struct DriverError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One accelerator with its runtime, used by one thread. Everything that fails throws a DriverError.
class Driver {
  public:
    Driver();
    ~Driver();
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    // Memory that the accelerator reads and writes too.
    Tensor accelerator_memory(size_t bytes);
    // Memory for what passes only from one CPU operator to the next: no cache work is ever done for it.
    Tensor cpu_buffer(size_t bytes);

    // The other side of a memory. For accelerator memory that is the accelerator, which knows nothing of the
    // CPU's caches: what it left is what an operator finds, and it finds what an operator published.
    void write(Tensor to, std::span<const std::byte> bytes);
    void read(Tensor from, std::span<std::byte> bytes);

    // Accelerator memory that holds `values` from the start, as the weights of a network do.
    Tensor constant(std::span<const float> values);

    // Builds the context of one operator, executes it and takes the time.
    void run(Operator op, std::initializer_list<Argument> arguments);

    // One entry for each operator that has run, in the order of first use.
    std::vector<OperatorTime> times() const;

    // What cache maintenance carried in a direction: 1 to the CPU, 0 back.
    double synced_kb(uint32_t direction) const;

    // For faults on purpose.
    NnaSim* simulator() { return sim_.get(); }

  private:
    using Duration = std::chrono::steady_clock::duration;
    struct Timing {
        Operator op;
        std::vector<Duration> durations;
    };
    struct DestroySim {
        void operator()(NnaSim* sim) const { nna_sim_destroy(sim); }
    };

    std::unique_ptr<NnaSim, DestroySim> sim_;
    std::vector<CpuBufferEntry>
        cpu_buffers_;  // indexed by memory id, so also by those of accelerator memories
    uint32_t next_cpu_buffer_;
    KelRtInstance instance_{};
    std::vector<Timing> timings_;
};
