// What a job does that is allowed and seldom meant.
#pragma once

#include <vector>

#include "finding.h"
#include "job.h"

namespace tool {

// In the order of the contexts. Those that the library refuses are passed over.
std::vector<Finding> warnings_of(const Job& job);

}  // namespace tool
