// Contexts against the catalogue: what the library would refuse or, trusting its driver, would not notice.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "job.h"

namespace tool {

// Says what is wrong with an argument, given its position among the operator's own. It may throw.
using Complain = std::function<void(size_t argument, const std::string& what)>;

// Checks arguments whose number is right: their types, that each operand has the bytes that will be touched,
// that none lies over another that must not, and what is looked up by data that nothing has written yet; each
// only where the checks before it found nothing. Then notes what the context writes.
void check_arguments(const Operator& op, std::span<const KelRtContextArg> arguments, Job& job,
                     const Complain& complain);

// The parts of it: types alone; then, of arguments whose types are right, whether each operand has the bytes
// that will be touched; and whether any lies over another that must not. True: nothing was wrong.
bool check_types(const Operator& op, std::span<const KelRtContextArg> arguments, const Complain& complain);
bool check_extents(const Operator& op, std::span<const KelRtContextArg> arguments, const Job& job,
                   const Complain& complain);
bool check_overlaps(const Operator& op, std::span<const KelRtContextArg> arguments, const Job& job,
                    const Complain& complain);

// Notes what a context writes.
void note_writes(const Operator& op, std::span<const KelRtContextArg> arguments, Job& job);

// The float at the start of an argument's operand; none where it is not known yet.
using Index = std::function<std::optional<float>(const KelRtContextArg& argument)>;

// Checks that a context whose arguments are right looks nothing up outside its table, and writes nothing over
// the row that it looks up.
void check_lookups(const Operator& op, std::span<const KelRtContextArg> arguments, const Job& job,
                   const Complain& complain, const Index& index);

}  // namespace tool
