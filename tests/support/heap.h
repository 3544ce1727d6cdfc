// The heap as the library sees it in programs that take its objects in: blocks are counted, and any
// allocation can be told to fail.
#pragma once

#include <cstddef>

namespace heap {

size_t blocks();              // taken and not yet given back
size_t allocations();         // asked for so far
void fail_allocation(int k);  // the k-th from now on, once; 0: none

}  // namespace heap
