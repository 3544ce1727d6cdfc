// What bounds an operation whatever the code: bytes to move, operations to do, sums whose order is
// prescribed.
#pragma once

#include <string>
#include <vector>

#include "work.h"

namespace bench {

// A pass over the operands. What it needs overlaps at best, so the longest part counts; passes follow each
// other.
struct Pass {
    double read = 0, written = 0;  // bytes
    double flops = 0;              // multiplications and additions, in equal parts, not fused
    double divisions = 0;
    double chain = 0;         // single-precision additions that each wait for the one before
    double double_chain = 0;  // the same in double precision
};

// Seconds of one operation at full rate on this processor, in its widest vectors (of the chains: of one
// addition). They are measured beside every line, because the clock changes with whatever else the processor
// does.
struct Rates {
    double flop, division, chain, double_chain;
};
std::vector<Work> rate_works();
Rates rates_from(const double* seconds);  // of the works above

// Work that moves the bytes of a pass: a copy of as many, or only reading or only writing them. Several ways,
// of which the fastest counts.
std::vector<Work> moves(const Pass& pass);

struct Limit {
    double seconds;
    const char* kind;  // what takes longest
};
// `moving` are the seconds that each pass takes to move its bytes.
Limit limit_of(const std::vector<Pass>& passes, const std::vector<double>& moving, const Rates& rates);

}  // namespace bench
