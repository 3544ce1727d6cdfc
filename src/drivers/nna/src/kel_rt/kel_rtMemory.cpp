// Memory id -> CPU pointer, and SRAM rows. A CPU buffer of the driver's table comes first, the CPU's mapping
// of accelerator memory second; caches are maintained around the CPU's work on accelerator memory only.
// Nothing is copied or freed.
#include "kelRt.h"
#include "kelRt_platform.h"
#include "log.h"
#include "memory.h"

using kelrt::cpu_buffer;

namespace {

// Directions of tivNnaMemorySyncCache.
constexpr uint32_t kCpuWillRead = 1;
constexpr uint32_t kCpuHasWritten = 0;

// Maintains the caches over the whole memory, never over just the operand's range.
uint32_t sync_whole(KelRtInstance* instance, uint32_t memid, uint32_t direction) {
    uint32_t size = 0;
    uint32_t status = tivNnaMemorySize(instance->device, memid, &size);
    if (status != NNA_STATUS_OK) {
        KEL_LOG_ERR("tivNnaMemorySize failed, err = %d", status);
        return NNA_STATUS_MEMORY_SYNC_FAILED;
    }
    status = tivNnaMemorySyncCache(instance->device, memid, direction, 0, size);
    if (status != NNA_STATUS_OK) {
        KEL_LOG_ERR("tivNnaMemorySyncCache failed. Err = %d", status);
        return NNA_STATUS_MEMORY_SYNC_FAILED;
    }
    return NNA_STATUS_OK;
}

uint32_t check_match(uint32_t memid, const void* ptr, const void* expected) {
    if (ptr == expected)
        return NNA_STATUS_OK;
    KEL_LOG_ERR("Pointer Mismatch Mem[%d] %p %p", memid, ptr, expected);
    return NNA_STATUS_NULL_POINTER;
}

// The status of the last row alone counts, and no failure stops the loop. SRAM addresses and the rows' places
// in memory advance in wrapping 32-bit arithmetic; integers, because memory may be null.
uint32_t move_sram_rows(KelRtInstance* instance, uint32_t sram_address, uint32_t row_size,
                        uint32_t sram_stride, uint32_t rows, void* memory) {
    uint32_t status = NNA_STATUS_OK;
    for (uint32_t r = 0; r < rows; ++r) {
        const uintptr_t row = reinterpret_cast<uintptr_t>(memory) + r * row_size;
        status = tivNnaUdrv_dumpSram(instance->device, sram_address + r * sram_stride, row_size,
                                     reinterpret_cast<void*>(row));
    }
    return status;
}

}  // namespace

uint32_t kel_rtMemory_allocate(KelRtInstance* instance, uint32_t memid, void** out_ptr) {
    *out_ptr = nullptr;
    if (memid == KEL_RT_NO_MEMORY_ID)
        return NNA_STATUS_OK;
    *out_ptr = cpu_buffer(instance, memid);
    if (*out_ptr)
        return NNA_STATUS_OK;
    return tivNnaMemoryPtr(instance->device, memid, out_ptr);
}

uint32_t kel_rtMemory_copyFrom(KelRtInstance* instance, uint32_t memid, void** out_ptr) {
    *out_ptr = nullptr;
    if (memid == KEL_RT_NO_MEMORY_ID)
        return NNA_STATUS_OK;
    *out_ptr = cpu_buffer(instance, memid);
    if (*out_ptr)
        return NNA_STATUS_OK;
    const uint32_t status = sync_whole(instance, memid, kCpuWillRead);
    if (status != NNA_STATUS_OK)
        return status;
    return tivNnaMemoryPtr(instance->device, memid, out_ptr);
}

// KEL_RT_NO_MEMORY_ID has no special case here on purpose: an output must be a real tensor.
uint32_t kel_rtMemory_copyTo(KelRtInstance* instance, void* ptr, uint32_t memid) {
    if (!ptr) {
        KEL_LOG_ERR("KEL RT Null address");
        return NNA_STATUS_NULL_POINTER;
    }
    if (const void* const buffer = cpu_buffer(instance, memid))
        return check_match(memid, ptr, buffer);
    return sync_whole(instance, memid, kCpuHasWritten);
}

uint32_t kel_rtMemory_deallocate(KelRtInstance* instance, void* ptr, uint32_t memid) {
    if (memid == KEL_RT_NO_MEMORY_ID)
        return NNA_STATUS_OK;
    if (const void* const buffer = cpu_buffer(instance, memid))
        return check_match(memid, ptr, buffer);
    void* mapped = nullptr;
    const uint32_t status = tivNnaMemoryPtr(instance->device, memid, &mapped);
    if (!ptr || status != NNA_STATUS_OK)
        return status;
    return check_match(memid, ptr, mapped);
}

// The same transfer twice, under two names: which way the bytes go is the platform's business.

uint32_t kel_rtNnaSramGet(KelRtInstance* instance, uint32_t sram_address, uint32_t row_size,
                          uint32_t sram_stride, uint32_t rows, void* memory) {
    return move_sram_rows(instance, sram_address, row_size, sram_stride, rows, memory);
}

uint32_t kel_rtNnaSramSet(KelRtInstance* instance, uint32_t sram_address, uint32_t row_size,
                          uint32_t sram_stride, uint32_t rows, void* memory) {
    return move_sram_rows(instance, sram_address, row_size, sram_stride, rows, memory);
}
