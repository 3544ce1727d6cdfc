// Writes what docs/performance.md shows of a run: tables, sentences with figures in them, drawings.
#pragma once

#include <string>
#include <vector>

#include "result.h"

namespace bench {

// Measures the cost of every operation over size too, for the drawings. What is wrong in words, or nothing.
std::string write_report(const std::string& directory, const std::string& command, const std::vector<Result>& results);

}  // namespace bench
