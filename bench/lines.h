// The lines of the table: which operations are measured at which sizes, in which group they count, and what
// limits them.
#pragma once

#include <string>
#include <vector>

#include "physical_limits.h"
#include "problem.h"

namespace bench {

struct Line {
    std::string group, name;
    Op op;
    Shape shape;
    Problem::Input input;
    double tolerance;  // of the comparison with peers: relative to the result and the mean of all
    bool ordered;      // the order of a sum is the contract, so the limit is the measure, not the peers
    std::vector<Pass> passes;

    std::string text() const { return name + "/" + shape.text(); }
};

std::vector<Line> all_lines();

}  // namespace bench
