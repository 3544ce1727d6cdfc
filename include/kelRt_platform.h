/*
 * What libkelRt imports from the platform it runs on. Whoever binds a platform includes this header and
 * defines everything in it, so that the compiler checks the binding. Three shared libraries carry the symbols
 * on the device: libtivnna_udriver.so, libtiv_common.so and liblog.so.
 *
 * Status codes are those of kelRt.h: 1001 is success, any other value a failure of the platform's own
 * choosing. A driver that runs contexts side by side calls these functions side by side.
 */
#ifndef KEL_RT_PLATFORM_H
#define KEL_RT_PLATFORM_H

#include <stdint.h>

#define KEL_RT_PLATFORM_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* ---- libtivnna_udriver: accelerator memory by memory id. `device` is the first word of KelRtInstance. ----
 */

/** Stores in *out a CPU-visible pointer to the start of accelerator memory `memid`; the same pointer at every
 * call. */
KEL_RT_PLATFORM_API uint32_t tivNnaMemoryPtr(void* device, uint32_t memid, void** out);

/** Stores in *out the size of accelerator memory `memid` in bytes. */
KEL_RT_PLATFORM_API uint32_t tivNnaMemorySize(void* device, uint32_t memid, uint32_t* out);

/**
 * Makes the CPU caches coherent for the first `size` bytes of `memid`.
 * direction 1: before the CPU reads what the accelerator wrote; direction 0: after the CPU wrote what the
 * accelerator will read. `reserved` is always passed as 0; its meaning is the platform's.
 */
KEL_RT_PLATFORM_API uint32_t tivNnaMemorySyncCache(void* device, uint32_t memid, uint32_t direction,
                                                   uint32_t reserved, uint32_t size);

/** Moves `size` bytes between on-chip SRAM at `sram_address` and CPU-visible `memory`; the platform knows
 * which way. */
KEL_RT_PLATFORM_API uint32_t tivNnaUdrv_dumpSram(void* device, uint32_t sram_address, uint32_t size,
                                                 void* memory);

/* ---- libtiv_common: logging and profiling ---- */

/** Log threshold: a message is written when g_log_lvl <= its level (0 DEBUG, 1 INFO, 2 WARN, 3 ERR). */
KEL_RT_PLATFORM_API extern int32_t g_log_lvl;

/** Largest allowed position of the log stream (standard output) in bytes. No value stands for any length:
 * past 2 GiB a stream exceeds INT32_MAX as well, where long has 64 bits. */
KEL_RT_PLATFORM_API extern int32_t g_log_file_max_size;

/** Truncates or rotates the log file behind standard output; called when `position` exceeds `max_size`. */
KEL_RT_PLATFORM_API int32_t resetTivLogFile(long position, int32_t max_size);

/** Non-zero when profiling of this event class is switched on. The library asks for class 1 only. */
KEL_RT_PLATFORM_API int32_t tivIsProfileEvent(uint32_t event);

/* ---- liblog: as <android/log.h> declares it ---- */

/** Writes a record of this priority (5 WARN, 6 ERR) and tag to Android's log; the result is not looked at. */
KEL_RT_PLATFORM_API int __android_log_print(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
