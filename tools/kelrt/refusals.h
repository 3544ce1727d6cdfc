// What the library itself refuses, told before it runs: with which status, and what its log says.
#pragma once

#include <optional>
#include <string>

#include "check.h"
#include "job.h"

namespace tool {

struct Refusal {
    uint32_t status;
    std::string message;        // of the log line, as far as it is known beforehand
    std::string argument = {};  // at fault, if it is one
};

// Of the entry point: for the context's target, number, types and operator.
std::optional<Refusal> refused_at_entry(const Context& context);

// Of the operator's kernel, for arguments that the entry point lets through.
std::optional<Refusal> refused_by_kernel(const Operator& op, std::span<const KelRtContextArg> arguments,
                                         const Index& index);

}  // namespace tool
