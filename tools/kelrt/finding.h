// Something that is wrong with a context, or looks so.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tool {

struct Finding {
    static constexpr size_t kWholeJob = SIZE_MAX;

    bool is_error = false;  // else it is allowed and seldom meant
    size_t context = kWholeJob;
    std::string argument;  // its name; empty: the whole context
    std::string what;
    uint32_t status = 0;  // with which the library refuses the context; 0: it does not
};

}  // namespace tool
