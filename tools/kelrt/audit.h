// `kelrt check`: all that is wrong with contexts, without running any.
#pragma once

#include <string>
#include <vector>

#include "finding.h"
#include "job.h"

namespace tool {

// The float at the start of an operand, as the context of that number finds it; none where that is not known.
using IndexOf = std::function<std::optional<float>(size_t context, const KelRtContextArg& argument)>;

// In the order of the contexts, what concerns the whole job last.
std::vector<Finding> audit(Job& job, const IndexOf& index);

// Audits a job file or a file of records, and shows what it finds; `report` names a JSON file, or none. The
// exit code: 0, 1 with findings, 2 for a damaged file of records.
int check_file(const std::string& file, const std::string& report);

}  // namespace tool
