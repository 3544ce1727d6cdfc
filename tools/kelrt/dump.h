// A record as files: its job for `kelrt run`, its tensors as .npy.
#pragma once

#include <string>

#include "records.h"

namespace tool {

// Writes NUMBER.json, NUMBER.MEMORY.npy with the bytes before the call, and NUMBER.MEMORY.after.npy.
void dump(const std::string& folder, const std::string& file, const Record& record);

}  // namespace tool
