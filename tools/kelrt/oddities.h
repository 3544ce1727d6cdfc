// Arguments that the library takes as they are and that mean something else than one would think.
#pragma once

#include <span>

#include "check.h"
#include "operators.h"

namespace tool {

// Geometry that wraps is an error; what is odd but harmless, a warning. Says so by complain(is_error,
// argument among the operator's own, what).
using ComplainOdd = std::function<void(bool is_error, size_t argument, const std::string& what)>;
void check_oddities(const Operator& op, std::span<const KelRtContextArg> arguments, const Job& job,
                    const ComplainOdd& complain);

}  // namespace tool
