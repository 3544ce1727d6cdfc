// The functions that this library stands in front of, found behind it in the order of the linker.
#pragma once

#include <dlfcn.h>

#include <atomic>

namespace record {

// A function of the type of `function`, which is this library's own of that name.
template <auto* function>
auto next(const char* name) {
    static std::atomic<void*> found{nullptr};
    void* address = found.load(std::memory_order_relaxed);
    if (!address) {
        address = dlsym(RTLD_NEXT, name);
        found.store(address, std::memory_order_relaxed);
    }
    return reinterpret_cast<decltype(function)>(address);
}

}  // namespace record
