// What the user asks of a run or a replay.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

struct Options {
    uint32_t repeat = 1;
    std::string out;     // folder for the outputs; empty: they are only shown
    bool quiet = false;  // shows what failed, and nothing else
    bool profile = false;
    std::string report;  // JSON file of all that the text shows; empty: none
    std::string trace;   // trace file; empty: none
};

}  // namespace tool
