// Every place of the library that takes memory from the heap: what it does when there is none, and that it
// gives back what it got. The linker sends the library's allocations here (--wrap), because limits on a
// process's memory are not held everywhere: an emulator accepts them and goes on.
#include <gtest/gtest.h>

#include "support/probe.h"
#include "support/rig.h"

namespace {
struct Heap {
    bool exhausted;
    int asked = 0, held = 0;
};
Heap* watched = nullptr;

template <typename Allocate>
void* allocate(Allocate allocate) {
    if (!watched)
        return allocate();
    ++watched->asked;
    if (watched->exhausted)
        return nullptr;
    ++watched->held;
    return allocate();
}
}  // namespace

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void __real_free(void* block);
void* __wrap_malloc(size_t size) {
    return allocate([&] { return __real_malloc(size); });
}
void* __wrap_calloc(size_t count, size_t size) {
    return allocate([&] { return __real_calloc(count, size); });
}
void __wrap_free(void* block) {
    if (watched && block)
        --watched->held;
    __real_free(block);
}
}

namespace {

using Floats = std::vector<float>;
using Lines = std::vector<std::string>;

void convert(bool exhausted) {
    const int16_t in[4] = {1, -2, 3, -4};
    int8_t out[4] = {99, 99, 99, 99};
    uint32_t out_bytes = 0;
    // Of the vast count nothing is read when its floats, whose size wraps at 32 bits, are refused.
    const uint32_t count = exhausted ? UINT32_MAX : 4;
    probe::Probe probe;
    EXPECT_EQ(
        kelRt_copyFormatConv(reinterpret_cast<uint8_t*>(out), 8, 1, 1, reinterpret_cast<const uint8_t*>(in),
                             16, 0, 1, count, nullptr, &out_bytes),
        exhausted ? NNA_STATUS_OUT_OF_MEMORY : NNA_STATUS_OK);
    EXPECT_EQ(probe.messages(), exhausted ? Lines{"Malloc Failed"} : Lines{});
    EXPECT_EQ(out_bytes, exhausted ? UINT32_MAX - 3 : 4);
    EXPECT_EQ(out[3], exhausted ? 99 : -8);
}

// Slower without a copy, and the same.
void transpose_matrix(bool) {
    Floats m = {1, 2, 3, 4, 5, 6};
    transpose(m.data(), 3, 2);
    EXPECT_EQ(m, (Floats{1, 4, 2, 5, 3, 6}));
    Floats wide = {1, 2, 3, 4, 5, 6}, eye = {1, 0, 0, 1}, product(6);
    EXPECT_EQ(kelRt_matmul(wide.data(), eye.data(), product.data(), 2, 3, 2, 2, 1, 0), NNA_STATUS_OK);
    EXPECT_EQ(product, (Floats{1, 4, 2, 5, 3, 6}));
}

void buffer(bool exhausted) {
    CpuBufferEntry entry = {nullptr, 7};
    KelRtInstance instance{};
    instance.cpu_buffers = &entry;
    probe::Probe probe;
    EXPECT_EQ(tivNnaCpuMemAlloc(&instance, 0, 16), exhausted ? NNA_STATUS_OUT_OF_MEMORY : NNA_STATUS_OK);
    EXPECT_EQ(entry.ptr == nullptr, exhausted);
    EXPECT_EQ(entry.size, exhausted ? 7u : 16u);
    EXPECT_EQ(tivNnaCpuMemDealloc(&instance, 0), exhausted ? NNA_STATUS_NOT_ALLOCATED : NNA_STATUS_OK);
    EXPECT_EQ(probe.text(), "");
}

void stopwatch(bool exhausted) {
    simple_timer* const timer = init_simple_timer();
    EXPECT_EQ(timer == nullptr, exhausted);
    EXPECT_EQ(deinit_simple_timer(timer), exhausted ? -1 : 0);
}

TEST(Heap, IsReportedWhenExhaustedAndGivenBack) {
    const struct {
        const char* what;
        void (*use)(bool exhausted);
    } users[] = {{"conversion", convert},
                 {"transposition", transpose_matrix},
                 {"CPU buffer", buffer},
                 {"stopwatch", stopwatch}};
    for (const auto& user : users) {
        for (const bool exhausted : {false, true}) {
            SCOPED_TRACE(testing::Message() << user.what << (exhausted ? ", heap exhausted" : ""));
            Heap heap{exhausted};
            watched = &heap;
            user.use(exhausted);
            watched = nullptr;
            EXPECT_GT(heap.asked, 0);
            EXPECT_EQ(heap.held, 0);
        }
    }
}

}  // namespace
