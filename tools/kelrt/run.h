// Running a job, reporting on it and bringing out what it made.
#pragma once

#include <cstdint>
#include <string>

#include "job.h"

namespace tool {

struct RunOptions {
    uint32_t repeat = 1;
    std::string out;  // folder for the outputs; empty: they are only shown
};

// The exit code: 0, or 1 when a context failed, which ends the run and leaves no outputs.
int run_job(const Job& job, const RunOptions& options);

}  // namespace tool
