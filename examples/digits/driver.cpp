// The instance, its memories, and the way of one context.
#include "driver.h"

#include <algorithm>
#include <numeric>
#include <string>

namespace {

// The simulated accelerator numbers its memories from 0. CPU buffers share the numbering, so ours start where
// this driver expects no accelerator memory any more.
constexpr uint32_t kFirstCpuBuffer = 64;
constexpr uint32_t kMemoryIds = 128;

void check(uint32_t status, const std::string& what) {
    if (status != NNA_STATUS_OK)
        throw DriverError(what + " failed with status " + std::to_string(status));
}

uint32_t size32(size_t bytes) {
    if (bytes > UINT32_MAX)
        throw DriverError("memory sizes have 32 bits");
    return static_cast<uint32_t>(bytes);
}

}  // namespace

Driver::Driver() : sim_(nna_sim_create()), cpu_buffers_(kMemoryIds), next_cpu_buffer_(kFirstCpuBuffer) {
    instance_.device = sim_.get();
    // One table for both, so that operators see the buffers allocated here.
    instance_.cpu_buffers = cpu_buffers_.data();
    instance_.cpu_buffer_lookup = cpu_buffers_.data();
}

Driver::~Driver() {
    for (uint32_t id = kFirstCpuBuffer; id < next_cpu_buffer_; ++id)
        tivNnaCpuMemDealloc(&instance_, id);
}

Tensor Driver::accelerator_memory(size_t bytes) {
    const uint32_t id = nna_sim_add_memory(sim_.get(), size32(bytes));
    if (id >= kFirstCpuBuffer)
        throw DriverError("no accelerator memory id is left");
    return {id, 0};
}

Tensor Driver::cpu_buffer(size_t bytes) {
    if (next_cpu_buffer_ >= kMemoryIds)
        throw DriverError("no CPU buffer id is left");
    const uint32_t id = next_cpu_buffer_;
    check(tivNnaCpuMemAlloc(&instance_, id, size32(bytes)), "allocating a CPU buffer");
    ++next_cpu_buffer_;
    return {id, 0};
}

void Driver::write(Tensor to, std::span<const std::byte> bytes) {
    const uint32_t size = size32(bytes.size());
    check(to.memory < kFirstCpuBuffer
              ? nna_sim_device_write(sim_.get(), to.memory, to.offset, bytes.data(), size)
              : tivNnaCpuMemWrite(&instance_, to.memory, to.offset, bytes.data(), size),
          "writing memory " + std::to_string(to.memory));
}

void Driver::read(Tensor from, std::span<std::byte> bytes) {
    const uint32_t size = size32(bytes.size());
    check(from.memory < kFirstCpuBuffer
              ? nna_sim_device_read(sim_.get(), from.memory, from.offset, bytes.data(), size)
              : tivNnaCpuMemRead(&instance_, from.memory, from.offset, bytes.data(), size),
          "reading memory " + std::to_string(from.memory));
}

Tensor Driver::constant(std::span<const float> values) {
    const Tensor tensor = accelerator_memory(values.size_bytes());
    write(tensor, std::as_bytes(values));
    return tensor;
}

void Driver::run(Operator op, std::initializer_list<Argument> arguments) {
    // Two records in front of the operator's own: how many follow, and which operator.
    std::vector<KelRtContextArg> records;
    records.push_back(Argument(static_cast<uint32_t>(arguments.size())).record);
    records.push_back(Argument(uint32_t{op.id}).record);
    for (const Argument& argument : arguments)
        records.push_back(argument.record);

    KelRtContext context{};
    context.args = records.data();
    context.num_args = static_cast<int32_t>(records.size());
    context.target = KEL_RT_TARGET_CPU;

    const auto start = std::chrono::steady_clock::now();
    const uint32_t status = kelRt_executeContext(&instance_, &context);
    const Duration duration = std::chrono::steady_clock::now() - start;
    check(status, std::string("operator ") + op.name);

    auto timing = std::find_if(timings_.begin(), timings_.end(),
                               [&](const Timing& known) { return known.op.id == op.id; });
    if (timing == timings_.end())
        timing = timings_.insert(timings_.end(), Timing{op, {}});
    timing->durations.push_back(duration);
}

std::vector<OperatorTime> Driver::times() const {
    const auto microseconds = [](Duration duration) {
        return std::chrono::duration<double, std::micro>(duration).count();
    };
    std::vector<OperatorTime> times;
    for (const auto& [op, durations] : timings_) {
        std::vector<Duration> sorted = durations;
        const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
        std::nth_element(sorted.begin(), middle, sorted.end());
        const Duration total = std::accumulate(sorted.begin(), sorted.end(), Duration::zero());
        times.push_back({op, sorted.size(), microseconds(total), microseconds(*middle)});
    }
    return times;
}

double Driver::synced_kb(uint32_t direction) const {
    return static_cast<double>(nna_sim_synced_bytes(sim_.get(), direction)) / 1000;
}
