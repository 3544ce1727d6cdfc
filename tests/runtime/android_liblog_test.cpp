// One error through the log of a real Android: it appears on standard error under our tag. CTest reads it
// there.
#include "kelRt.h"

int main() {
    return kelRt_executeContext(nullptr, nullptr) == NNA_STATUS_NULL_POINTER ? 0 : 1;
}
