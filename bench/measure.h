// Times candidates in turns, so that what disturbs the machine disturbs all of them.
#pragma once

#include <vector>

#include "work.h"

namespace bench {

// Least seconds of one call of each, over rounds that take about `budget` seconds in all.
std::vector<double> least_seconds(const std::vector<Work>& candidates, double budget);

}  // namespace bench
