// The file that records are appended to, by several threads and, sharing the name, by several processes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record_limits.h"

namespace record {

// Whether calls are recorded at all, at this moment. The first question reads the environment and opens the
// file.
bool is_recording();
const Limits& limits();

// Appends one record in one write, unless a limit is reached.
void append(const void* data, size_t size);

// Ends the recording; the first time, one WARN line says why. `reason` is an errno value, or 0.
void give_up(const char* what, int reason);

}  // namespace record
