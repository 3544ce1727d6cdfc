// A recorded call as a job of one context, which runs on the simulated accelerator as any job does.
#pragma once

#include "job.h"
#include "records.h"

namespace tool {

struct RecordJob {
    Job job;
    // By memory of the record, which is memory of the job under the same number: how many of its first bytes
    // the job leaves out, as the operator does not come near them.
    std::vector<uint32_t> left_out;
};

// Memories hold what was recorded before the call, and zeros where nothing was. Throws BadInput, without the
// file's name, if that is more than the simulated accelerator holds.
RecordJob job_of(const Record& record);

// What the argument at this position of a record's operator reads and writes, as bytes of its memory.
Range read_bytes(const Record& record, size_t position);
Range written_bytes(const Record& record, size_t position);

}  // namespace tool
