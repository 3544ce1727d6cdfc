// libkelRt_record.so: stands in front of the library, by preloading or by being linked before it, and records
// the calls that go through. docs/field-debugging.md says how it is used, record_format.h what it writes.
//
// It stands in front of four functions of the platform too, which the library calls for a context: only so it
// can look at accelerator memory when the library does, and see which platform call failed. All it asks of
// the platform itself are the sizes of the memories, before the wrapped call begins.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "call_record.h"
#include "kelRt.h"
#include "kelRt_platform.h"
#include "next.h"
#include "record_file.h"

namespace {

using record::CallRecord;
using record::Fixed;
using record::next;

// The call that this thread has under way.
thread_local CallRecord* current = nullptr;

// Calls since the process began, and those among them that the operator limit lets through.
std::atomic<uint64_t> call_number{0}, candidates{0};

uint64_t nanoseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

// The operator's byte, or -1 where the library does not look at it.
int operator_id(const KelRtContext* context) {
    const bool is_read = context && context->target == KEL_RT_TARGET_CPU && context->num_args > 2;
    return is_read ? static_cast<int>(context->args[1].value & 0xFF) : -1;
}

bool is_wanted(const KelRtContext* context) {
    const record::Limits& limits = record::limits();
    if (limits.operator_id >= 0 && operator_id(context) != limits.operator_id)
        return false;
    return limits.every == 1 || candidates++ % limits.every == 0;
}

// A platform's function, with this call's record told of it; what the platform calls of its own meanwhile is
// none of the library's calls.
template <auto* function, typename... Arguments>
uint32_t pass_on(const char* name, Arguments... arguments) {
    CallRecord* const call = current;
    current = nullptr;
    const uint32_t status = next<function>(name)(arguments...);
    current = call;
    if (call)
        call->platform_called(status);
    return status;
}

constexpr record::Machine kMachine =
#if defined(__x86_64__)
    record::kX86_64;
#elif defined(__arm__)
    record::kArm;
#elif defined(__aarch64__)
    record::kArm64;
#else
    record::kOther;
#endif

uint32_t execute_recorded(KelRtInstance* instance, const KelRtContext* context, uint64_t number) {
    const int error = errno;
    Fixed fixed;
    fixed.number = number;
    fixed.process = static_cast<uint32_t>(getpid());
    fixed.thread = static_cast<uint32_t>(syscall(SYS_gettid));
    fixed.log_level = &g_log_lvl ? g_log_lvl : 0;
    fixed.null_context = !context;
    fixed.num_args = context ? context->num_args : 0;
    fixed.target = context ? context->target : 0;
    fixed.machine = kMachine;
    fixed.pointer_bytes = sizeof(void*);
    fixed.start_ns = nanoseconds(CLOCK_REALTIME);

    CallRecord call(instance, context);
    if (call.sees_instance())
        fixed.out_shift_before = instance->out_shift;
    errno = error;

    CallRecord* const outer = current;  // of a log function that executes contexts itself
    current = &call;
    const uint64_t start = nanoseconds(CLOCK_MONOTONIC);
    fixed.status = next<&kelRt_executeContext>("kelRt_executeContext")(instance, context);
    fixed.duration_ns = nanoseconds(CLOCK_MONOTONIC) - start;
    current = outer;

    const int error_after = errno;
    if (call.sees_instance())
        fixed.out_shift_after = instance->out_shift;
    if (!record::limits().failed_only || fixed.status != NNA_STATUS_OK)
        call.finish(fixed);
    errno = error_after;
    return fixed.status;
}

}  // namespace

uint32_t kelRt_executeContext(KelRtInstance* instance, const KelRtContext* context) {
    // Nothing is behind us where the library was loaded for its loader alone (dlopen with RTLD_LOCAL) and
    // this function was asked for by its bare name.
    if (!next<&kelRt_executeContext>("kelRt_executeContext"))
        return NNA_STATUS_FAILED;
    if (record::is_recording()) {
        const uint64_t number = call_number++;
        if (is_wanted(context))
            return execute_recorded(instance, context, number);
    }
    return next<&kelRt_executeContext>("kelRt_executeContext")(instance, context);
}

uint32_t tivNnaMemoryPtr(void* device, uint32_t memid, void** out) {
    const uint32_t status = pass_on<&tivNnaMemoryPtr>("tivNnaMemoryPtr", device, memid, out);
    if (current && status == NNA_STATUS_OK)
        current->resolved(memid, *out);
    return status;
}

uint32_t tivNnaMemorySize(void* device, uint32_t memid, uint32_t* out) {
    return pass_on<&tivNnaMemorySize>("tivNnaMemorySize", device, memid, out);
}

uint32_t tivNnaMemorySyncCache(void* device, uint32_t memid, uint32_t direction, uint32_t reserved,
                               uint32_t size) {
    const uint32_t status =
        pass_on<&tivNnaMemorySyncCache>("tivNnaMemorySyncCache", device, memid, direction, reserved, size);
    if (current && status == NNA_STATUS_OK && direction == 0)
        current->made_visible(memid);
    return status;
}

uint32_t tivNnaUdrv_dumpSram(void* device, uint32_t sram_address, uint32_t size, void* memory) {
    return pass_on<&tivNnaUdrv_dumpSram>("tivNnaUdrv_dumpSram", device, sram_address, size, memory);
}
