// The entry point: verify a context against the operator table, dispatch it, close a failure with the error
// line.
#include "kelRt.h"

#include <cstddef>

#include "log.h"
#include "op_table.h"

// The records are shared with drivers that were compiled long ago: their layout is fixed.
static_assert(sizeof(KelRtContextArg) == 12);
static_assert(sizeof(void*) != 4 || sizeof(KelRtContext) == 24);
static_assert(sizeof(void*) != 4 ||
              (offsetof(KelRtContext, args) == 0 && offsetof(KelRtContext, num_args) == 12 &&
               offsetof(KelRtContext, target) == 20));
static_assert(sizeof(void*) != 4 || sizeof(CpuBufferEntry) == 8);
static_assert(sizeof(void*) != 4 ||
              (offsetof(KelRtInstance, device) == 0 * 4 && offsetof(KelRtInstance, cpu_buffers) == 5 * 4 &&
               offsetof(KelRtInstance, cpu_buffer_lookup) == 8 * 4 &&
               offsetof(KelRtInstance, out_shift) == 13 * 4 && sizeof(KelRtInstance) == 14 * 4));
static_assert(sizeof(void*) != 4 || (sizeof(KelRtMatrix) == 12 && offsetof(KelRtMatrix, data) == 8));

namespace {

using kelrt::KelRtOpEntry;
using kelrt::kOpTable;

const char* type_name(uint8_t type) {
    static constexpr const char* kNames[] = {"init_none", "init_to_val", "init_to_mem_idx", "init_to_flt"};
    return type < 4 ? kNames[type] : "";
}

// Both codes are compared as bytes: the upper bytes of an argument's type word mean nothing.
bool has_type(const KelRtContextArg& arg, uint8_t expected) {
    return static_cast<uint8_t>(arg.type) == expected;
}

// What is wrong with an argument that has another type.
[[gnu::cold, gnu::noinline]] uint32_t report_type(const KelRtContextArg& arg, uint8_t expected, int index) {
    const uint8_t actual = static_cast<uint8_t>(arg.type);
    if (actual > KEL_RT_ARG_FLT) {
        KEL_LOG_ERR("Unknown Context Argument[%d] Type %d", index, actual);
        return NNA_STATUS_INVALID_ARGUMENT;
    }
    KEL_LOG_ERR("Context Argument[%d] Type Mismatch expected %s actual %s", index, type_name(expected),
                type_name(actual));
    return NNA_STATUS_TYPE_MISMATCH;
}

// Holds the operator arguments against the operator's row. Arguments 0 and 1, the same in all rows, have been
// looked at.
uint32_t check_operator_args(const KelRtOpEntry& op, const KelRtContextArg* args) {
    if (args[0].value != op.op_args) {
        KEL_LOG_ERR("Number of Context args do not match");
        KEL_LOG_ERR("Expected %d Actual %d", op.op_args, args[0].value);
        return NNA_STATUS_INVALID_ARGUMENT;
    }
    // The table's count rules here, not num_args: a context simply carries at least that many records. A code
    // that the check itself reports as unknown counts as a mismatch all the same.
    for (uint32_t i = 2; i < op.total_args; ++i) {
        if (!has_type(args[i], op.types[i])) [[unlikely]] {
            report_type(args[i], op.types[i], static_cast<int>(i));
            return NNA_STATUS_TYPE_MISMATCH;
        }
    }
    return NNA_STATUS_OK;
}

uint32_t verify_and_run(KelRtInstance* instance, const KelRtContext* context) {
    const uint8_t id = static_cast<uint8_t>(context->args[1].value);
    if (id >= KEL_RT_NUM_OPS) {
        KEL_LOG_ERR("KEL RT Unknown operator %d", id);
        return NNA_STATUS_INVALID_ARGUMENT;
    }
    const KelRtOpEntry& op = kOpTable[id];
    const uint32_t status = check_operator_args(op, context->args);
    if (status != NNA_STATUS_OK)
        return status;

    KEL_LOG_DEBUG("KEL RT executing operator %s", op.name);
    // Cannot be reached past the check above; the second belt stays.
    if (id >= KEL_RT_NUM_OPS) {
        KEL_LOG_ERR("Operator verification failed %d", id);
        return NNA_STATUS_FAILED;
    }
    return op.handler(instance, context);
}

}  // namespace

uint32_t kelRt_executeContext(KelRtInstance* instance, const KelRtContext* context) {
    if (!context) {
        KEL_LOG_ERR("Unexpected NULL context");
        return NNA_STATUS_NULL_POINTER;
    }
    if (context->target != KEL_RT_TARGET_CPU) {
        KEL_LOG_ERR("Unsupported target %d", context->target);
        return NNA_STATUS_INVALID_ARGUMENT;
    }
    if (context->num_args <= 2) {
        KEL_LOG_ERR("Insufficient arguments for CPU %d", context->num_args);
        return NNA_STATUS_INVALID_ARGUMENT;
    }
    for (int i = 0; i < 2; ++i) {
        if (!has_type(context->args[i], KEL_RT_ARG_VAL)) [[unlikely]]
            return report_type(context->args[i], KEL_RT_ARG_VAL, i);
    }

    const uint32_t status = verify_and_run(instance, context);
    if (status != NNA_STATUS_OK) {
        // The second number is the type code of argument 1, not the operator id, on purpose: log readers
        // match it.
        KEL_LOG_ERR("Error %d kelrt op %d", status, static_cast<uint8_t>(context->args[1].type));
    }
    return status;
}
