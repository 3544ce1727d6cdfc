// Split: a plain byte copy that carves one tensor out of another.
#include "copy_bytes.h"
#include "kelRt.h"
#include "log.h"

uint32_t kelRt_split(const void* src, void* dst, uint32_t nbytes) {
    if (!src || !dst) {
        KEL_LOG_ERR("Bad Address Input %p Output %p", src, dst);
        return NNA_STATUS_NULL_POINTER;
    }
    kelrt::copy_bytes(dst, src, nbytes);
    return NNA_STATUS_OK;
}
