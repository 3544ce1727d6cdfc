// Running a job, reporting on it and bringing out what it made.
#pragma once

#include "job.h"
#include "options.h"

namespace tool {

// The exit code: 0, or 1 when a context failed, which ends the run and leaves no outputs.
int run_job(const Job& job, const Options& options);

}  // namespace tool
