// What is to be recorded, as the environment says.
#pragma once

#include <cstdint>

namespace record {

struct Limits {
    const char* file = nullptr;   // KELRT_RECORD; null: nothing is recorded
    uint64_t calls = UINT64_MAX;  // KELRT_RECORD_CALLS: so many records, then no more
    uint64_t bytes = UINT64_MAX;  // KELRT_RECORD_BYTES: so many bytes in all; K, M and G multiply by 1024
    uint64_t every = 1;           // KELRT_RECORD_EVERY: the first call and then every n-th
    int operator_id = -1;         // KELRT_RECORD_OP: only this operator, by name or id
    bool failed_only = false;     // KELRT_RECORD_FAILED=1: only calls whose status is not 1001
};

// The name of the variable that says something else; null if all is well.
const char* read_limits(Limits& limits);

}  // namespace record
