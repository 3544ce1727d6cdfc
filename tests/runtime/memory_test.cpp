// The CPU buffer table and the runtime memory interface: statuses, messages, platform calls. That caches are
// maintained where they must be, and failures of fetching and publishing, are the operators' test.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>

#include "support/heap.h"
#include "support/probe.h"
#include "support/rig.h"

namespace {

using Lines = std::vector<std::string>;

struct CpuBuffers : testing::Test {
    rig::Rig rig;
    probe::Probe probe;
    KelRtInstance* const instance = &rig.instance;
};

TEST_F(CpuBuffers, AreCreatedOnceAndReleasedOnce) {
    const size_t blocks = heap::blocks();
    EXPECT_EQ(tivNnaCpuMemAlloc(instance, 3, 16), NNA_STATUS_OK);
    void* const first = rig.table[3].ptr;
    EXPECT_EQ(rig.table[3].size, 16u);
    EXPECT_EQ(tivNnaCpuMemAlloc(instance, 3, 32), NNA_STATUS_ALREADY_ALLOCATED);
    EXPECT_EQ(rig.table[3].ptr, first);
    EXPECT_EQ(rig.table[3].size, 16u);
    EXPECT_EQ(probe.messages(), Lines{"Reallocating memory memid: 3"});
    EXPECT_EQ(tivNnaCpuMemDealloc(instance, 3), NNA_STATUS_OK);
    EXPECT_EQ(rig.table[3].ptr, nullptr);
    EXPECT_EQ(rig.table[3].size, 0u);
    EXPECT_EQ(heap::blocks(), blocks);
    probe.clear();
    for (const int32_t level : {1, 0}) {
        g_log_lvl = level;
        EXPECT_EQ(tivNnaCpuMemDealloc(instance, 3), NNA_STATUS_NOT_ALLOCATED);
        EXPECT_EQ(probe.messages(),
                  level ? Lines{} : Lines{"Deallocating NULL address memid: 3"});  // a DEBUG line
    }
}

TEST_F(CpuBuffers, RefuseWhatPassesTheirEnd) {
    ASSERT_EQ(tivNnaCpuMemAlloc(instance, 5, 8), NNA_STATUS_OK);
    std::string read = "--------";
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 0, "abcdefgh", 8), NNA_STATUS_OK);
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 6, "YZ", 2), NNA_STATUS_OK);
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 8, "", 0), NNA_STATUS_OK);
    EXPECT_EQ(tivNnaCpuMemRead(instance, 5, 3, read.data(), 5), NNA_STATUS_OK);
    EXPECT_EQ(read, "defYZ---");
    EXPECT_TRUE(probe.text().empty());

    const std::string line = "Memory Access overflow memid: 5 size: 8 req_offset: ";
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 0, "123456789", 9), NNA_STATUS_WRITE_OVERFLOW);
    EXPECT_EQ(tivNnaCpuMemRead(instance, 5, 8, read.data(), 1), NNA_STATUS_READ_OVERFLOW);
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 0xFFFFFFFF, "", 0), NNA_STATUS_WRITE_OVERFLOW);
    EXPECT_EQ(probe.messages(),
              (Lines{line + "0 req_size: 9", line + "8 req_size: 1", line + "-1 req_size: 0"}));
    EXPECT_EQ(tivNnaCpuMemRead(instance, 5, 0, read.data(), 8), NNA_STATUS_OK);
    EXPECT_EQ(read, "abcdefYZ") << "a refused write changes nothing";
}

// The check is of a 32-bit sum: an offset near 2^32 passes it, and is then taken at its word.
TEST_F(CpuBuffers, LetAHugeOffsetWrapPastTheCheck) {
    constexpr size_t kReserved = sizeof(void*) == 8 ? (size_t{1} << 32) + 4096 : 8192;
    void* const reserved =
        mmap(nullptr, kReserved, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(reserved, MAP_FAILED);
    // On 32 bits the pointer wraps as well: what lies four bytes below the buffer is written.
    auto* const buffer = static_cast<char*>(reserved) + (sizeof(void*) == 8 ? 0 : 4096);
    const char* const reached =
        reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(buffer) + 0xFFFFFFFCu);
    rig.table[5] = {buffer, 4};
    std::string read = "--------";
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 0xFFFFFFFC, "abcdefgh", 8), NNA_STATUS_OK);
    EXPECT_EQ(std::string(reached, 8), "abcdefgh");
    EXPECT_EQ(tivNnaCpuMemRead(instance, 5, 0xFFFFFFFC, read.data(), 8), NNA_STATUS_OK);
    EXPECT_EQ(read, "abcdefgh");
    EXPECT_EQ(tivNnaCpuMemRead(instance, 5, 0xFFFFFFFC, read.data(), 9), NNA_STATUS_READ_OVERFLOW);
    rig.table[5] = {nullptr, 0};
    munmap(reserved, kReserved);
}

TEST_F(CpuBuffers, UseOneTableForStorageAndTheOtherForLookup) {
    std::vector<CpuBufferEntry> lookup(8, CpuBufferEntry{nullptr, 0});
    rig.instance.cpu_buffer_lookup = lookup.data();
    ASSERT_EQ(tivNnaCpuMemAlloc(instance, 1, 4), NNA_STATUS_OK);
    void* out = &rig;
    EXPECT_EQ(tivNnaCpuMemPtr(instance, 1, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, nullptr) << "the lookup table has no such buffer";
    lookup[1] = rig.table[1];
    EXPECT_EQ(tivNnaCpuMemPtr(instance, 1, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, rig.table[1].ptr);
    EXPECT_EQ(tivNnaCpuMemPtr(instance, 1, nullptr), NNA_STATUS_NULL_POINTER);
    rig.instance.cpu_buffer_lookup = nullptr;
    EXPECT_EQ(tivNnaCpuMemPtr(instance, 1, &out), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(out, rig.table[1].ptr) << "left as it was";

    char byte = 0;
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 6, 0, &byte, 0), NNA_STATUS_NULL_POINTER) << "no buffer";
    EXPECT_EQ(tivNnaCpuMemRead(instance, 6, 0, &byte, 0), NNA_STATUS_NULL_POINTER);
    rig.instance.cpu_buffers = nullptr;
    EXPECT_EQ(tivNnaCpuMemAlloc(instance, 2, 4), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(tivNnaCpuMemDealloc(instance, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 1, 0, &byte, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(tivNnaCpuMemRead(instance, 1, 0, &byte, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_TRUE(probe.text().empty());
    rig.instance.cpu_buffers = rig.table.data();
}

struct RuntimeMemory : CpuBuffers {
    const uint32_t memid = rig.memory(4);
    void* const view = nna_sim_cpu_view(rig.sim, memid);
    void* out = &rig;

    std::string mismatch(const void* ptr, const void* expected) const {
        char text[128];
        std::snprintf(text, sizeof text, "Pointer Mismatch Mem[%u] %p %p", memid, ptr, expected);
        return text;
    }
};

TEST_F(RuntimeMemory, NoMemoryIdIsNoTensor) {
    for (const auto resolve : {kel_rtMemory_allocate, kel_rtMemory_copyFrom}) {
        out = &rig;
        EXPECT_EQ(resolve(instance, KEL_RT_NO_MEMORY_ID, &out), NNA_STATUS_OK);
        EXPECT_EQ(out, nullptr);
        nna_sim_fail_call(rig.sim, 1, 77);
        out = &rig;
        EXPECT_NE(resolve(instance, memid, &out), NNA_STATUS_OK);
        EXPECT_EQ(out, nullptr) << "cleared first";
    }
    nna_sim_clear_calls(rig.sim);
    probe.clear();
    EXPECT_EQ(kel_rtMemory_deallocate(instance, &rig, KEL_RT_NO_MEMORY_ID), NNA_STATUS_OK);
    EXPECT_TRUE(rig.calls().empty());

    // Publishing has no such exception: the platform is asked, though no table has an entry for this id.
    EXPECT_EQ(kel_rtMemory_copyTo(instance, &rig, KEL_RT_NO_MEMORY_ID), NNA_STATUS_MEMORY_SYNC_FAILED);
    ASSERT_EQ(rig.calls().size(), 1u);
    EXPECT_EQ(rig.calls()[0].function, NNA_SIM_MEMORY_SIZE);
    EXPECT_EQ(rig.calls()[0].memid, KEL_RT_NO_MEMORY_ID);
    EXPECT_EQ(probe.messages(), Lines{"tivNnaMemorySize failed, err = 2001"});
}

TEST_F(RuntimeMemory, ChecksPointersThatComeBack) {
    // Accelerator memory: hand-back compares with the mapping, publishing takes any pointer but null.
    EXPECT_EQ(kel_rtMemory_deallocate(instance, view, memid), NNA_STATUS_OK);
    EXPECT_EQ(kel_rtMemory_deallocate(instance, nullptr, memid), NNA_STATUS_OK);
    EXPECT_EQ(kel_rtMemory_copyTo(instance, &rig, memid), NNA_STATUS_OK);
    EXPECT_EQ(kel_rtMemory_deallocate(instance, &rig, memid), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages(), Lines{mismatch(&rig, view)});
    for (void* const ptr : {view, static_cast<void*>(nullptr)}) {
        nna_sim_fail_call(rig.sim, 1, 77);
        EXPECT_EQ(kel_rtMemory_deallocate(instance, ptr, memid), 77u);
    }

    // A CPU buffer comes first, and needs no platform.
    ASSERT_EQ(tivNnaCpuMemAlloc(instance, memid, 4), NNA_STATUS_OK);
    void* const buffer = rig.table[memid].ptr;
    nna_sim_clear_calls(rig.sim);
    probe.clear();
    EXPECT_EQ(kel_rtMemory_copyTo(instance, buffer, memid), NNA_STATUS_OK);
    EXPECT_EQ(kel_rtMemory_deallocate(instance, buffer, memid), NNA_STATUS_OK);
    EXPECT_EQ(kel_rtMemory_copyTo(instance, &rig, memid), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kel_rtMemory_deallocate(instance, &rig, memid), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kel_rtMemory_deallocate(instance, nullptr, memid), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kel_rtMemory_copyTo(instance, nullptr, memid), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages(), (Lines{mismatch(&rig, buffer), mismatch(&rig, buffer),
                                       mismatch(nullptr, buffer), "KEL RT Null address"}));
    EXPECT_TRUE(rig.calls().empty());

    // Without a lookup table every id is accelerator memory.
    rig.instance.cpu_buffer_lookup = nullptr;
    EXPECT_EQ(kel_rtMemory_allocate(instance, memid, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, view);
}

}  // namespace
