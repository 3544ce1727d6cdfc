// Where a memory id leads when the driver has a CPU buffer for it: inline, because a context with CPU buffers
// asks six times in some 20 ns. Everything else about memory ids is in kel_rtMemory.cpp.
#pragma once

#include "kelRt.h"

namespace kelrt {

// The id's CPU buffer, or null: the id is then accelerator memory. No table has an entry for
// KEL_RT_NO_MEMORY_ID, and without a table no id has a buffer.
inline void* cpu_buffer(const KelRtInstance* instance, uint32_t memid) {
    const CpuBufferEntry* const table = instance->cpu_buffer_lookup;
    return table && memid != KEL_RT_NO_MEMORY_ID ? table[memid].ptr : nullptr;
}

// Whether a pointer is the id's CPU buffer still: there is nothing to publish then, and nothing to hand back.
inline bool is_cpu_buffer(const KelRtInstance* instance, const void* ptr, uint32_t memid) {
    return ptr && ptr == cpu_buffer(instance, memid);
}

}  // namespace kelrt
