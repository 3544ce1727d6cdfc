// The library at work, through its public interface.
#pragma once

#include "problem.h"
#include "work.h"

namespace bench {

Work ours(const Problem& problem);

}  // namespace bench
