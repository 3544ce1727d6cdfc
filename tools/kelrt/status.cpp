// The names of the library's and of the simulated accelerator's statuses.
#include "status.h"

#include "kelRt.h"
#include "nna_sim.h"

namespace tool {
namespace {

const char* name_of(uint32_t status) {
#define NAME(status) \
    case status:     \
        return #status
    switch (status) {
        NAME(NNA_STATUS_FAILED);
        NAME(NNA_STATUS_OK);
        NAME(NNA_STATUS_ALREADY_ALLOCATED);
        NAME(NNA_STATUS_NOT_ALLOCATED);
        NAME(NNA_STATUS_WRITE_OVERFLOW);
        NAME(NNA_STATUS_READ_OVERFLOW);
        NAME(NNA_STATUS_OUT_OF_MEMORY);
        NAME(NNA_STATUS_NULL_POINTER);
        NAME(NNA_STATUS_UNSUPPORTED);
        NAME(NNA_STATUS_INVALID_ARGUMENT);
        NAME(NNA_STATUS_TYPE_MISMATCH);
        NAME(NNA_STATUS_MEMORY_SYNC_FAILED);
        NAME(NNA_SIM_STATUS_UNKNOWN_MEMORY);
        NAME(NNA_SIM_STATUS_OUT_OF_RANGE);
        NAME(NNA_SIM_STATUS_BAD_DIRECTION);
        default:
            return nullptr;
    }
#undef NAME
}

}  // namespace

std::string status_text(uint32_t status) {
    const char* const name = name_of(status);
    const std::string number = std::to_string(status);
    return name ? std::string(name) + " (" + number + ")" : "status " + number;
}

}  // namespace tool
