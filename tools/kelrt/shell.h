// One operator, straight from the shell: `kelrt op cpu_ewop_add a=x.npy 'b=f4[4]:1,2,3,4' n=4`.
#pragma once

#include <string>
#include <vector>

#include "job.h"

namespace tool {

// A job of one context. Its outputs are the arguments that the operator writes; memories are called as the
// arguments are.
Job job_from_words(const std::string& operator_name, const std::vector<std::string>& words);

}  // namespace tool
