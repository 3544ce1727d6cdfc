// The CPU buffer table and the runtime memory interface: statuses, messages, platform calls, cache truth.
#include <gtest/gtest.h>

#include "support/probe.h"
#include "support/rig.h"

namespace {

using Lines = std::vector<std::string>;

TEST(CpuBuffers, AreCreatedOnceAndReleasedOnce) {
    rig::Rig rig;
    probe::Probe probe;
    KelRtInstance* const instance = &rig.instance;
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
    probe.clear();
    EXPECT_EQ(tivNnaCpuMemDealloc(instance, 3), NNA_STATUS_NOT_ALLOCATED);
    EXPECT_TRUE(probe.text().empty()) << "a DEBUG line only";
    g_log_lvl = 0;
    EXPECT_EQ(tivNnaCpuMemDealloc(instance, 3), NNA_STATUS_NOT_ALLOCATED);
    EXPECT_EQ(probe.messages(), Lines{"Deallocating NULL address memid: 3"});
    EXPECT_EQ(probe.records().at(0).level, "NNA_LOG_DEBUG");
    EXPECT_TRUE(rig.calls().empty());
}

TEST(CpuBuffers, RefuseWhatPassesTheirEnd) {
    rig::Rig rig;
    probe::Probe probe;
    KelRtInstance* const instance = &rig.instance;
    ASSERT_EQ(tivNnaCpuMemAlloc(instance, 5, 8), NNA_STATUS_OK);
    const std::string written = "abcdefgh";
    std::string read = "--------";
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 0, written.data(), 8), NNA_STATUS_OK);
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 6, "YZ", 2), NNA_STATUS_OK);
    EXPECT_EQ(tivNnaCpuMemRead(instance, 5, 3, read.data(), 5), NNA_STATUS_OK);
    EXPECT_EQ(read, "defYZ---");
    EXPECT_TRUE(probe.text().empty());

    const std::string line = "Memory Access overflow memid: 5 size: 8 req_offset: ";
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 0, "123456789", 9), NNA_STATUS_WRITE_OVERFLOW);
    EXPECT_EQ(tivNnaCpuMemRead(instance, 5, 8, read.data(), 1), NNA_STATUS_READ_OVERFLOW);
    EXPECT_EQ(probe.messages(), (Lines{line + "0 req_size: 9", line + "8 req_size: 1"}));
    EXPECT_EQ(tivNnaCpuMemRead(instance, 5, 0, read.data(), 8), NNA_STATUS_OK);
    EXPECT_EQ(read, "abcdefYZ") << "a refused write changes nothing";

    // The check is of the 32-bit sum alone: at the end there is room for nothing, past it not even for that.
    probe.clear();
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 0xFFFFFFFF, "", 0), NNA_STATUS_WRITE_OVERFLOW);
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 5, 8, "", 0), NNA_STATUS_OK);

    EXPECT_EQ(tivNnaCpuMemWrite(instance, 6, 0, "", 0), NNA_STATUS_NULL_POINTER) << "no buffer";
    EXPECT_EQ(tivNnaCpuMemRead(instance, 6, 0, read.data(), 0), NNA_STATUS_NULL_POINTER);
}

TEST(CpuBuffers, UseOneTableForStorageAndTheOtherForLookup) {
    rig::Rig rig;
    probe::Probe probe;
    std::vector<CpuBufferEntry> lookup(8, CpuBufferEntry{nullptr, 0});
    rig.instance.cpu_buffer_lookup = lookup.data();
    KelRtInstance* const instance = &rig.instance;
    ASSERT_EQ(tivNnaCpuMemAlloc(instance, 1, 4), NNA_STATUS_OK);
    void* out = &rig;
    EXPECT_EQ(tivNnaCpuMemPtr(instance, 1, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, nullptr) << "the lookup table has no such buffer";
    lookup[1] = rig.table[1];
    EXPECT_EQ(tivNnaCpuMemPtr(instance, 1, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, rig.table[1].ptr);

    rig.instance.cpu_buffer_lookup = nullptr;
    EXPECT_EQ(tivNnaCpuMemPtr(instance, 1, &out), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(out, rig.table[1].ptr) << "left as it was";
    EXPECT_EQ(tivNnaCpuMemPtr(instance, 1, nullptr), NNA_STATUS_NULL_POINTER);
    rig.instance.cpu_buffer_lookup = lookup.data();
    EXPECT_EQ(tivNnaCpuMemPtr(instance, 1, nullptr), NNA_STATUS_NULL_POINTER);

    rig.instance.cpu_buffers = nullptr;
    char byte = 0;
    EXPECT_EQ(tivNnaCpuMemAlloc(instance, 2, 4), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(tivNnaCpuMemDealloc(instance, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(tivNnaCpuMemWrite(instance, 1, 0, &byte, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(tivNnaCpuMemRead(instance, 1, 0, &byte, 1), NNA_STATUS_NULL_POINTER);
    EXPECT_TRUE(probe.text().empty());
    rig.instance.cpu_buffers = rig.table.data();
}

TEST(RuntimeMemory, NoMemoryIdIsNoTensor) {
    rig::Rig rig;
    void* out = &rig;
    EXPECT_EQ(kel_rtMemory_allocate(&rig.instance, KEL_RT_NO_MEMORY_ID, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, nullptr);
    out = &rig;
    EXPECT_EQ(kel_rtMemory_copyFrom(&rig.instance, KEL_RT_NO_MEMORY_ID, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(kel_rtMemory_deallocate(&rig.instance, &rig, KEL_RT_NO_MEMORY_ID), NNA_STATUS_OK);
    EXPECT_TRUE(rig.calls().empty());

    // Publishing has no such exception: the platform is asked, though no table has an entry for this id.
    probe::Probe probe;
    EXPECT_EQ(kel_rtMemory_copyTo(&rig.instance, &rig, KEL_RT_NO_MEMORY_ID), NNA_STATUS_MEMORY_SYNC_FAILED);
    ASSERT_EQ(rig.calls().size(), 1u);
    EXPECT_EQ(rig.calls()[0].function, NNA_SIM_MEMORY_SIZE);
    EXPECT_EQ(rig.calls()[0].memid, KEL_RT_NO_MEMORY_ID);
    EXPECT_EQ(probe.messages(), Lines{"tivNnaMemorySize failed, err = 2001"});
}

TEST(RuntimeMemory, CpuBuffersComeFirstAndNeedNoCacheWork) {
    rig::Rig rig;
    const uint32_t memid = rig.memory(4);
    ASSERT_EQ(tivNnaCpuMemAlloc(&rig.instance, memid, 4), NNA_STATUS_OK);
    void* const buffer = rig.table[memid].ptr;
    probe::Probe probe;
    void* out = nullptr;
    EXPECT_EQ(kel_rtMemory_allocate(&rig.instance, memid, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, buffer);
    out = nullptr;
    EXPECT_EQ(kel_rtMemory_copyFrom(&rig.instance, memid, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, buffer);
    EXPECT_EQ(kel_rtMemory_copyTo(&rig.instance, buffer, memid), NNA_STATUS_OK);
    EXPECT_EQ(kel_rtMemory_deallocate(&rig.instance, buffer, memid), NNA_STATUS_OK);
    EXPECT_TRUE(probe.text().empty());

    char text[128];
    std::snprintf(text, sizeof text, "Pointer Mismatch Mem[%u] %p %p", memid, static_cast<void*>(&rig),
                  buffer);
    EXPECT_EQ(kel_rtMemory_copyTo(&rig.instance, &rig, memid), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(kel_rtMemory_deallocate(&rig.instance, &rig, memid), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages(), (Lines{text, text}));
    probe.clear();
    EXPECT_EQ(kel_rtMemory_copyTo(&rig.instance, nullptr, memid), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages(), Lines{"KEL RT Null address"});
    std::snprintf(text, sizeof text, "Pointer Mismatch Mem[%u] (nil) %p", memid, buffer);
    probe.clear();
    EXPECT_EQ(kel_rtMemory_deallocate(&rig.instance, nullptr, memid), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(probe.messages(), Lines{text});
    EXPECT_TRUE(rig.calls().empty());
}

TEST(RuntimeMemory, AcceleratorMemoryIsCoherentOnlyAfterTheRightCall) {
    rig::Rig rig;
    const uint32_t memid = rig.memory_of(std::vector<uint8_t>{1, 2, 3});
    void* out = nullptr;
    ASSERT_EQ(kel_rtMemory_allocate(&rig.instance, memid, &out), NNA_STATUS_OK);
    auto* const view = static_cast<uint8_t*>(out);
    EXPECT_EQ(view[0], NNA_SIM_STALE_BYTE) << "allocate does no cache work";
    ASSERT_EQ(kel_rtMemory_copyFrom(&rig.instance, memid, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, view);
    EXPECT_EQ(view[2], 3);
    view[2] = 9;
    EXPECT_EQ(rig.device<uint8_t>(memid, 3)[2], 3);
    // Not compared with the mapping: any non-null pointer publishes the memory, the whole of it.
    EXPECT_EQ(kel_rtMemory_copyTo(&rig.instance, &rig, memid), NNA_STATUS_OK);
    EXPECT_EQ(rig.device<uint8_t>(memid, 3)[2], 9);
    EXPECT_EQ(nna_sim_synced_bytes(rig.sim, 0), 3u);
    EXPECT_EQ(nna_sim_synced_bytes(rig.sim, 1), 3u);
}

TEST(RuntimeMemory, FailuresOfThePlatform) {
    rig::Rig rig;
    const uint32_t memid = rig.memory(4);
    KelRtInstance* const instance = &rig.instance;
    void* const view = nna_sim_cpu_view(rig.sim, memid);
    void* out = nullptr;
    probe::Probe probe;
    const auto failing = [&](uint32_t k, auto call) {
        nna_sim_fail_call(rig.sim, 0, 0);
        nna_sim_fail_call(rig.sim, k, 77);
        probe.clear();
        out = &rig;
        return call();
    };
    const auto copy_from = [&] { return kel_rtMemory_copyFrom(instance, memid, &out); };
    const auto copy_to = [&] { return kel_rtMemory_copyTo(instance, view, memid); };

    EXPECT_EQ(failing(1, [&] { return kel_rtMemory_allocate(instance, memid, &out); }), 77u);
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(probe.text().empty());
    EXPECT_EQ(failing(1, copy_from), NNA_STATUS_MEMORY_SYNC_FAILED);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(probe.messages(), Lines{"tivNnaMemorySize failed, err = 77"});
    EXPECT_EQ(failing(2, copy_from), NNA_STATUS_MEMORY_SYNC_FAILED);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(probe.messages(), Lines{"tivNnaMemorySyncCache failed. Err = 77"});
    EXPECT_EQ(failing(3, copy_from), 77u);
    EXPECT_TRUE(probe.text().empty());
    EXPECT_EQ(failing(1, copy_to), NNA_STATUS_MEMORY_SYNC_FAILED);
    EXPECT_EQ(probe.messages(), Lines{"tivNnaMemorySize failed, err = 77"});
    EXPECT_EQ(failing(2, copy_to), NNA_STATUS_MEMORY_SYNC_FAILED);
    EXPECT_EQ(probe.messages(), Lines{"tivNnaMemorySyncCache failed. Err = 77"});

    EXPECT_EQ(failing(1, [&] { return kel_rtMemory_deallocate(instance, view, memid); }), 77u);
    EXPECT_EQ(failing(1, [&] { return kel_rtMemory_deallocate(instance, nullptr, memid); }), 77u);
    nna_sim_fail_call(rig.sim, 0, 0);
    EXPECT_EQ(kel_rtMemory_deallocate(instance, nullptr, memid), NNA_STATUS_OK);
    EXPECT_EQ(kel_rtMemory_deallocate(instance, view, memid), NNA_STATUS_OK);
    EXPECT_TRUE(probe.text().empty());
    EXPECT_EQ(kel_rtMemory_deallocate(instance, &rig, memid), NNA_STATUS_NULL_POINTER);
    char text[128];
    std::snprintf(text, sizeof text, "Pointer Mismatch Mem[%u] %p %p", memid, static_cast<void*>(&rig), view);
    EXPECT_EQ(probe.messages(), Lines{text});

    // Without a lookup table every id is accelerator memory.
    tivNnaCpuMemAlloc(instance, memid, 4);
    rig.instance.cpu_buffer_lookup = nullptr;
    EXPECT_EQ(kel_rtMemory_allocate(instance, memid, &out), NNA_STATUS_OK);
    EXPECT_EQ(out, view);
}

}  // namespace
