// What a job does that is allowed and seldom meant.
#pragma once

#include <string>
#include <vector>

#include "job.h"

namespace tool {

// A sentence for each. Contexts that the catalogue does not know, or that an unchecked job spells otherwise,
// are passed over.
std::vector<std::string> warnings_of(const Job& job);

}  // namespace tool
