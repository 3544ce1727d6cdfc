// libtivnna_udriver of the simulated accelerator: memories with a device image and a CPU view, SRAM, a record
// of the calls, and faults on demand.
//
// Bytes are copied outside the lock, so that a thread sanitizer still sees two contexts meet in one memory.
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "kelRt.h"
#include "kelRt_platform.h"
#include "nna_sim.h"

namespace {

struct Memory {
    std::vector<uint8_t> device;
    std::vector<uint8_t> view;
};

struct Fault {
    uint32_t status;
    bool late;  // after the call's work
};

bool fits(const std::vector<uint8_t>& bytes, uint32_t offset, uint32_t size) {
    return uint64_t{offset} + size <= bytes.size();
}

}  // namespace

struct NnaSim {
    mutable std::mutex mutex;  // of everything below, but not of the memories' and the SRAM's bytes
    std::vector<std::unique_ptr<Memory>> memories;  // views keep their address when memories are added
    std::vector<uint8_t> sram;
    uint32_t sram_base = 0;
    NnaSimSramDirection sram_direction = NNA_SIM_SRAM_TO_MEMORY;
    uint64_t synced_bytes[2] = {0, 0};
    std::vector<NnaSimCall> calls;     // the first since they were cleared
    uint64_t call_number = 0;          // of the last platform call begun, counted from creation
    uint64_t calls_ended = 0;          // since they were cleared
    std::map<uint64_t, Fault> faults;  // by call number

    Memory* memory(uint32_t memid) const {
        const std::lock_guard lock(mutex);
        return memid < memories.size() ? memories[memid].get() : nullptr;
    }

    // Runs one platform call, unless it is due to fail, and records it.
    template <typename Action>
    uint32_t perform(NnaSimCall call, Action action) {
        const std::optional<Fault> fault = next_fault();
        if (!fault || fault->late)
            call.status = action();
        if (fault)
            call.status = fault->status;

        const std::lock_guard lock(mutex);
        ++calls_ended;
        if (calls.size() < NNA_SIM_MAX_CALLS)
            calls.push_back(call);
        return call.status;
    }

  private:
    // The fault of the call that begins now.
    std::optional<Fault> next_fault() {
        const std::lock_guard lock(mutex);
        const auto due = faults.extract(++call_number);
        return due ? std::optional(due.mapped()) : std::nullopt;
    }
};

NnaSim* nna_sim_create(void) {
    return new NnaSim;
}

void nna_sim_destroy(NnaSim* sim) {
    delete sim;
}

uint32_t nna_sim_add_memory(NnaSim* sim, uint32_t size) {
    auto memory = std::make_unique<Memory>();
    memory->device.assign(size, 0);
    memory->view.reserve(size ? size : 1);  // an empty memory has an address too
    memory->view.assign(size, NNA_SIM_STALE_BYTE);
    const std::lock_guard lock(sim->mutex);
    sim->memories.push_back(std::move(memory));
    return static_cast<uint32_t>(sim->memories.size() - 1);
}

uint32_t nna_sim_device_write(NnaSim* sim, uint32_t memid, uint32_t offset, const void* src, uint32_t size) {
    Memory* const memory = sim->memory(memid);
    if (!memory)
        return NNA_SIM_STATUS_UNKNOWN_MEMORY;
    if (!fits(memory->device, offset, size))
        return NNA_SIM_STATUS_OUT_OF_RANGE;
    if (size > 0)
        std::memcpy(memory->device.data() + offset, src, size);
    return NNA_STATUS_OK;
}

uint32_t nna_sim_device_read(NnaSim* sim, uint32_t memid, uint32_t offset, void* dst, uint32_t size) {
    const Memory* const memory = sim->memory(memid);
    if (!memory)
        return NNA_SIM_STATUS_UNKNOWN_MEMORY;
    if (!fits(memory->device, offset, size))
        return NNA_SIM_STATUS_OUT_OF_RANGE;
    if (size > 0)
        std::memcpy(dst, memory->device.data() + offset, size);
    return NNA_STATUS_OK;
}

uint8_t* nna_sim_cpu_view(NnaSim* sim, uint32_t memid) {
    Memory* const memory = sim->memory(memid);
    return memory ? memory->view.data() : nullptr;
}

uint64_t nna_sim_synced_bytes(const NnaSim* sim, uint32_t direction) {
    const std::lock_guard lock(sim->mutex);
    return direction < 2 ? sim->synced_bytes[direction] : 0;
}

void nna_sim_set_sram(NnaSim* sim, uint32_t base, uint32_t size) {
    sim->sram_base = base;
    sim->sram.assign(size, 0);
}

void nna_sim_set_sram_direction(NnaSim* sim, NnaSimSramDirection direction) {
    sim->sram_direction = direction;
}

uint8_t* nna_sim_sram(NnaSim* sim) {
    return sim->sram.empty() ? nullptr : sim->sram.data();
}

const NnaSimCall* nna_sim_calls(const NnaSim* sim, size_t* count) {
    *count = sim->calls.size();
    return sim->calls.data();
}

uint64_t nna_sim_call_count(const NnaSim* sim) {
    const std::lock_guard lock(sim->mutex);
    return sim->calls_ended;
}

void nna_sim_clear_calls(NnaSim* sim) {
    const std::lock_guard lock(sim->mutex);
    sim->calls.clear();
    sim->calls_ended = 0;
}

void nna_sim_fail_call(NnaSim* sim, uint32_t k, uint32_t status) {
    if (k == 0)
        sim->faults.clear();
    else
        sim->faults[sim->call_number + k] = {status, false};
}

void nna_sim_fail_call_late(NnaSim* sim, uint32_t k, uint32_t status) {
    sim->faults[sim->call_number + k] = {status, true};
}

// ---- the platform's functions ----

uint32_t tivNnaMemoryPtr(void* device, uint32_t memid, void** out) {
    auto* const sim = static_cast<NnaSim*>(device);
    return sim->perform({NNA_SIM_MEMORY_PTR, memid, 0, 0, 0, nullptr, 0}, [&]() -> uint32_t {
        Memory* const memory = sim->memory(memid);
        if (!memory)
            return NNA_SIM_STATUS_UNKNOWN_MEMORY;
        *out = memory->view.data();
        return NNA_STATUS_OK;
    });
}

uint32_t tivNnaMemorySize(void* device, uint32_t memid, uint32_t* out) {
    auto* const sim = static_cast<NnaSim*>(device);
    return sim->perform({NNA_SIM_MEMORY_SIZE, memid, 0, 0, 0, nullptr, 0}, [&]() -> uint32_t {
        const Memory* const memory = sim->memory(memid);
        if (!memory)
            return NNA_SIM_STATUS_UNKNOWN_MEMORY;
        *out = static_cast<uint32_t>(memory->device.size());
        return NNA_STATUS_OK;
    });
}

uint32_t tivNnaMemorySyncCache(void* device, uint32_t memid, uint32_t direction, uint32_t, uint32_t size) {
    auto* const sim = static_cast<NnaSim*>(device);
    return sim->perform({NNA_SIM_MEMORY_SYNC, memid, direction, size, 0, nullptr, 0}, [&]() -> uint32_t {
        Memory* const memory = sim->memory(memid);
        if (!memory)
            return NNA_SIM_STATUS_UNKNOWN_MEMORY;
        if (direction > 1)
            return NNA_SIM_STATUS_BAD_DIRECTION;
        if (!fits(memory->device, 0, size))
            return NNA_SIM_STATUS_OUT_OF_RANGE;
        const auto& from = direction == 1 ? memory->device : memory->view;
        auto& to = direction == 1 ? memory->view : memory->device;
        if (size > 0)
            std::memcpy(to.data(), from.data(), size);
        const std::lock_guard lock(sim->mutex);
        sim->synced_bytes[direction] += size;
        return NNA_STATUS_OK;
    });
}

uint32_t tivNnaUdrv_dumpSram(void* device, uint32_t sram_address, uint32_t size, void* memory) {
    auto* const sim = static_cast<NnaSim*>(device);
    return sim->perform({NNA_SIM_DUMP_SRAM, 0, 0, size, sram_address, memory, 0}, [&]() -> uint32_t {
        const uint32_t offset = sram_address - sim->sram_base;
        if (sram_address < sim->sram_base || !fits(sim->sram, offset, size))
            return NNA_SIM_STATUS_OUT_OF_RANGE;
        if (size == 0)
            return NNA_STATUS_OK;
        uint8_t* const row = sim->sram.data() + offset;
        if (sim->sram_direction == NNA_SIM_SRAM_TO_MEMORY)
            std::memcpy(memory, row, size);
        else
            std::memcpy(row, memory, size);
        return NNA_STATUS_OK;
    });
}
