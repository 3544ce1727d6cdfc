// The end of a failed call.
#include "operator_call.h"

namespace kelrt {

void OperatorCall::hand_back(KelRtInstance* instance, Resolved resolved) {
    while (resolved.count > 0) {
        const auto& tensor = resolved.tensors[--resolved.count];
        if (tensor.base)
            kel_rtMemory_deallocate(instance, tensor.base, tensor.memid);
    }
}

}  // namespace kelrt
