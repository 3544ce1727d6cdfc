// What every part of the tool throws when the user's input is wrong: one sentence that names the file or
// option and the place in it. It ends the program with exit code 2, and no output is written.
#pragma once

#include <stdexcept>
#include <string>

namespace tool {

// One line of bounded length, whatever names the input is made of: control characters become '?', and of a
// long sentence the middle is left out.
std::string readable(std::string sentence);

struct BadInput : std::runtime_error {
    explicit BadInput(std::string sentence) : std::runtime_error(readable(std::move(sentence))) {}
};

}  // namespace tool
