// Running recorded calls again and comparing what comes out, bit for bit.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "options.h"

namespace tool {

struct ReplayOptions : Options {
    std::string only;             // an operator's name or id; empty: all
    std::optional<size_t> index;  // only the record of that number in its file
    std::string dump;             // folder for records as jobs; empty: none
};

// The exit code: 0 all equal, 1 differences, 2 damaged records.
int replay(const std::vector<std::string>& files, const ReplayOptions& options);

}  // namespace tool
