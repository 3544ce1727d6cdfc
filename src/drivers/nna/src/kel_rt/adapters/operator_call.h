// The walk that every adapter makes, once: resolve tensors, run the kernel, publish, hand back; and on the
// first failure hand back everything resolved, last first.
#pragma once

#include <bit>
#include <cstdint>

#include "kelRt.h"
#include "log.h"
#include "memory.h"

namespace kelrt {

// A memory argument and the pointer that its id resolved to. The kernel gets the pointer advanced by the
// argument's byte offset, the memory interface the unadvanced one.
struct Tensor {
    void* base = nullptr;
    uint32_t memid = KEL_RT_NO_MEMORY_ID;
    uint32_t offset = 0;

    // Integer arithmetic, because a null base with an offset is advanced like any other.
    template <typename T>
    T* as() const {
        return reinterpret_cast<T*>(reinterpret_cast<uintptr_t>(base) + offset);
    }
};

// How DEBUG dumps show a tensor: unadvanced pointer, memory id, offset; the short form leaves the offset out.
#define KEL_TENSOR "0x%p(ID=0x%02X)(offset=%#X)"
#define KEL_TENSOR_ARGS(t) (t).base, (t).memid, (t).offset
#define KEL_TENSOR_SHORT "0x%p(ID=0x%02X)"
#define KEL_TENSOR_SHORT_ARGS(t) (t).base, (t).memid

// One operator invocation under way. After a step has failed the later steps do nothing, so an adapter states
// its steps in order and looks at the status only where it reads what they brought. On destruction a failed
// call hands back every tensor it resolved, in reverse order; a successful one has handed back what it wanted
// to.
class OperatorCall {
  public:
    OperatorCall(KelRtInstance* instance, const KelRtContext* context)
        : instance_(instance), args_(context->args) {}

    ~OperatorCall() {
        if (failed()) [[unlikely]]
            hand_back(instance_, resolved_);
    }

    OperatorCall(const OperatorCall&) = delete;
    OperatorCall& operator=(const OperatorCall&) = delete;

    uint32_t status() const { return status_; }
    bool failed() const { return status_ != NNA_STATUS_OK; }
    void fail(uint32_t status) { status_ = status; }

    // Ends a call without handing anything back.
    uint32_t abandon() {
        resolved_.count = 0;
        return status_;
    }

    uint8_t operator_id() const { return static_cast<uint8_t>(args_[1].value); }
    uint32_t value(int arg) const { return args_[arg].value; }
    uint32_t offset(int arg) const { return args_[arg].offset; }
    int32_t signed_value(int arg) const { return static_cast<int32_t>(args_[arg].value); }
    float float_value(int arg) const { return std::bit_cast<float>(args_[arg].value); }

    // Resolves an output that the kernel will write.
    Tensor allocate(int arg) { return resolve<kel_rtMemory_allocate>(arg); }
    // Resolves an input, with its caches made coherent.
    Tensor copyFrom(int arg) { return resolve<kel_rtMemory_copyFrom>(arg); }

    // Takes the kernel's status.
    void executed(uint32_t kernel_status) {
        if (kernel_status == NNA_STATUS_OK) [[likely]]
            return;
        KEL_LOG_ERR("Error executing operator %d", kernel_status);
        fail(kernel_status);
    }

    // Publishes an output.
    void copyTo(const Tensor& tensor) {
        if (!failed() && !is_cpu_buffer(instance_, tensor.base, tensor.memid))
            status_ = kel_rtMemory_copyTo(instance_, tensor.base, tensor.memid);
    }

    // Hands a tensor back; what the check says changes nothing.
    void deallocate(const Tensor& tensor) {
        if (!failed() && !is_cpu_buffer(instance_, tensor.base, tensor.memid))
            kel_rtMemory_deallocate(instance_, tensor.base, tensor.memid);
    }

  private:
    // The normalised LSTM has the most tensors.
    static constexpr int kMaxTensors = 7;

    struct Resolved {
        struct {
            void* base;
            uint32_t memid;
        } tensors[kMaxTensors];
        int count = 0;
    };

    template <uint32_t (*memory_function)(KelRtInstance*, uint32_t, void**)>
    Tensor resolve(int arg) {
        Tensor tensor{nullptr, args_[arg].value, args_[arg].offset};
        if (!failed()) [[likely]] {
            tensor.base = cpu_buffer(instance_, tensor.memid);
            if (!tensor.base) {
                void* base = nullptr;  // apart, so that the tensor stays in registers
                status_ = memory_function(instance_, tensor.memid, &base);
                tensor.base = base;
            }
        }
        // Recorded even when the call failed: a platform that fails and yet leaves a pointer gets it back.
        resolved_.tensors[resolved_.count++] = {tensor.base, tensor.memid};
        return tensor;
    }

    // Gets a copy, so that nothing of a call that goes well has to be in memory.
    [[gnu::cold]] static void hand_back(KelRtInstance* instance, Resolved resolved);

    KelRtInstance* instance_;
    const KelRtContextArg* args_;
    uint32_t status_ = NNA_STATUS_OK;
    Resolved resolved_;
};

}  // namespace kelrt
