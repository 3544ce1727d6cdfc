// The table of one instruction set.
#include "instruction_sets.h"

namespace kelrt::KELRT_SET {

#define X(name) .name = name,
const Kernels kKernels = {KELRT_KERNELS(X)};
#undef X

}  // namespace kelrt::KELRT_SET
