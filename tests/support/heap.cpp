// Stands between the library and the C library's heap: the linker sends calls of malloc here as
// __wrap_malloc, and so on.
#include "heap.h"

#include <atomic>

namespace {
std::atomic<size_t> taken{0}, asked{0};
std::atomic<int> until_failure{0};

template <class Allocate>
void* counted(Allocate allocate) {
    ++asked;
    if (until_failure > 0 && --until_failure == 0)
        return nullptr;
    void* const block = allocate();
    taken += block != nullptr;
    return block;
}
}  // namespace

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void __real_free(void* block);

void* __wrap_malloc(size_t size) {
    return counted([=] { return __real_malloc(size); });
}
void* __wrap_calloc(size_t count, size_t size) {
    return counted([=] { return __real_calloc(count, size); });
}
void __wrap_free(void* block) {
    taken -= block != nullptr;
    __real_free(block);
}
}

size_t heap::blocks() {
    return taken;
}
size_t heap::allocations() {
    return asked;
}
void heap::fail_allocation(int k) {
    until_failure = k;
}
