// What reading and writing files throws.
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace npy {

// What is wrong, as one sentence without a full stop.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// With the operating system's reason for the last failure.
inline std::string with_reason(const std::string& what) {
    return what + " (" + std::strerror(errno) + ")";
}

}  // namespace npy
