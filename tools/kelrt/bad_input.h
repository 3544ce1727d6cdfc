// What every part of the tool throws when the user's input is wrong: one sentence that names the file or
// option and the place in it. It ends the program with exit code 2, before anything has been run or written.
#pragma once

#include <stdexcept>

namespace tool {

struct BadInput : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace tool
