/*
 * The simulated accelerator: stands behind kelRt_platform.h on machines that have none.
 *
 * It is a non-coherent machine. Every accelerator memory exists twice: the device image, which the
 * accelerator reads and writes, and the CPU view, which tivNnaMemoryPtr gives out. Only tivNnaMemorySyncCache
 * carries bytes between them (direction 1 device to view, direction 0 view to device), so a missing or
 * misplaced cache operation gives wrong numbers rather than luck. A fresh view is filled with
 * NNA_SIM_STALE_BYTE, a fresh device image with zeros.
 *
 * Every platform call on a memory is recorded, and any of them can be told to fail. Plain C, so that drivers
 * in either language can use it.
 *
 * Threads may share a simulator: platform calls and the functions under "memories" are safe side by side. As
 * on the device, nobody keeps two of them from the same bytes at the same time; that is the driver's to
 * order. Set the SRAM up and the faults before the threads start, and read the record when they are done.
 */
#ifndef NNA_SIM_H
#define NNA_SIM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NNA_SIM_API __attribute__((visibility("default")))

/** One accelerator; pass it as KelRtInstance.device. */
typedef struct NnaSim NnaSim;

/** What a fresh CPU view holds: as floats, -1.0e-13 or so, which is neither zero nor NaN and shows in any
 * sum. */
#define NNA_SIM_STALE_BYTE 0xA9

/** The simulator's own statuses, in the place of a real platform's. */
enum NnaSimStatus {
    NNA_SIM_STATUS_UNKNOWN_MEMORY = 2001, /**< no accelerator memory has this id */
    NNA_SIM_STATUS_OUT_OF_RANGE = 2002,   /**< more bytes than the memory or the SRAM has */
    NNA_SIM_STATUS_BAD_DIRECTION = 2003,  /**< a cache direction other than 0 and 1 */
};

NNA_SIM_API NnaSim* nna_sim_create(void);
/** Frees the simulator and all its memories; null is allowed. */
NNA_SIM_API void nna_sim_destroy(NnaSim* sim);

/* ---- memories ---- */

/** Adds an accelerator memory of `size` bytes and returns its id: 0, 1, 2, ... */
NNA_SIM_API uint32_t nna_sim_add_memory(NnaSim* sim, uint32_t size);

/** What the accelerator does: writes to, or reads from, the device image. Returns 1001 or an NnaSimStatus. */
NNA_SIM_API uint32_t nna_sim_device_write(NnaSim* sim, uint32_t memid, uint32_t offset, const void* src,
                                          uint32_t size);
NNA_SIM_API uint32_t nna_sim_device_read(NnaSim* sim, uint32_t memid, uint32_t offset, void* dst,
                                         uint32_t size);

/** The CPU's view of a memory without any cache maintenance, and without a record; null for an unknown id. */
NNA_SIM_API uint8_t* nna_sim_cpu_view(NnaSim* sim, uint32_t memid);

/** Bytes that cache maintenance has carried: direction 1 device to view, direction 0 view to device. */
NNA_SIM_API uint64_t nna_sim_synced_bytes(const NnaSim* sim, uint32_t direction);

/* ---- SRAM ---- */

enum NnaSimSramDirection { NNA_SIM_SRAM_TO_MEMORY = 0, NNA_SIM_MEMORY_TO_SRAM = 1 };

/** Gives the accelerator `size` bytes of zeroed SRAM at address `base`; it has none at first. */
NNA_SIM_API void nna_sim_set_sram(NnaSim* sim, uint32_t base, uint32_t size);
/** Which way tivNnaUdrv_dumpSram moves; at first NNA_SIM_SRAM_TO_MEMORY. */
NNA_SIM_API void nna_sim_set_sram_direction(NnaSim* sim, enum NnaSimSramDirection direction);
/** The byte at SRAM address `base`; null without SRAM. */
NNA_SIM_API uint8_t* nna_sim_sram(NnaSim* sim);

/* ---- the record of platform calls, and faults ---- */

enum NnaSimFunction {
    NNA_SIM_MEMORY_PTR,
    NNA_SIM_MEMORY_SIZE,
    NNA_SIM_MEMORY_SYNC,
    NNA_SIM_DUMP_SRAM,
};

/** How many calls the record keeps. */
#define NNA_SIM_MAX_CALLS 4096

typedef struct NnaSimCall {
    enum NnaSimFunction function;
    uint32_t memid;     /**< not for NNA_SIM_DUMP_SRAM */
    uint32_t direction; /**< NNA_SIM_MEMORY_SYNC only */
    uint32_t size;      /**< NNA_SIM_MEMORY_SYNC and NNA_SIM_DUMP_SRAM */
    uint32_t address;   /**< NNA_SIM_DUMP_SRAM only */
    void* pointer;      /**< NNA_SIM_DUMP_SRAM only: the CPU side */
    uint32_t status;    /**< what the call returned */
} NnaSimCall;

/** The first NNA_SIM_MAX_CALLS calls since the last nna_sim_clear_calls, in the order in which they ended;
 * valid until the next platform call. */
NNA_SIM_API const NnaSimCall* nna_sim_calls(const NnaSim* sim, size_t* count);
/** How many calls there were since then, kept or not. */
NNA_SIM_API uint64_t nna_sim_call_count(const NnaSim* sim);
NNA_SIM_API void nna_sim_clear_calls(NnaSim* sim);

/** The k-th platform call from now on (1 is the next) does nothing but return `status`; k = 0 takes all
 * faults back. Several faults can be set. */
NNA_SIM_API void nna_sim_fail_call(NnaSim* sim, uint32_t k, uint32_t status);

/** The same, but the call does its work first: a platform that reports failure and leaves a result all the
 * same. */
NNA_SIM_API void nna_sim_fail_call_late(NnaSim* sim, uint32_t k, uint32_t status);

/* ---- the common library ---- */

/**
 * Begins a log: empties or creates the file, sends standard output there and limits it to `max_size` bytes
 * (g_log_file_max_size). When the limit is passed the simulator empties this file, and never another: what
 * standard output was when the program started stays whole. There the library says "Log file truncated" all
 * the same when a limit is passed. 0, or -1 with nothing changed if the file cannot be written or is none.
 */
NNA_SIM_API int32_t nna_sim_begin_log(const char* path, int32_t max_size);

/** Which profiling event classes are on: bit `event` of the mask, for events 0 to 31. At first none. */
NNA_SIM_API void nna_sim_set_profile_events(uint32_t mask);

#ifdef __cplusplus
}
#endif

#endif
