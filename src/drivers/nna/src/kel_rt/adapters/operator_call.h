// The walk that every adapter makes, once: resolve tensors, run the kernel, publish, hand back; and on the
// first failure hand back everything resolved, last first.
#pragma once

#include <bit>
#include <cstdint>

#include "kelRt.h"
#include "log.h"

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
        if (status_ == NNA_STATUS_OK)
            return;
        while (resolved_count_ > 0) {
            const Tensor& tensor = resolved_[--resolved_count_];
            if (tensor.base)
                kel_rtMemory_deallocate(instance_, tensor.base, tensor.memid);
        }
    }

    OperatorCall(const OperatorCall&) = delete;
    OperatorCall& operator=(const OperatorCall&) = delete;

    uint32_t status() const { return status_; }
    bool failed() const { return status_ != NNA_STATUS_OK; }
    void fail(uint32_t status) { status_ = status; }

    // Ends a call without handing anything back.
    uint32_t abandon() {
        resolved_count_ = 0;
        return status_;
    }

    uint8_t operator_id() const { return static_cast<uint8_t>(args_[1].value); }
    uint32_t value(int arg) const { return args_[arg].value; }
    uint32_t offset(int arg) const { return args_[arg].offset; }
    int32_t signed_value(int arg) const { return static_cast<int32_t>(args_[arg].value); }
    float float_value(int arg) const { return std::bit_cast<float>(args_[arg].value); }

    // Resolves an output that the kernel will write.
    Tensor allocate(int arg) { return resolve(arg, kel_rtMemory_allocate); }
    // Resolves an input, with its caches made coherent.
    Tensor copyFrom(int arg) { return resolve(arg, kel_rtMemory_copyFrom); }

    // Takes the kernel's status.
    void executed(uint32_t kernel_status) {
        if (kernel_status == NNA_STATUS_OK)
            return;
        KEL_LOG_ERR("Error executing operator %d", kernel_status);
        fail(kernel_status);
    }

    // Publishes an output.
    void copyTo(const Tensor& tensor) {
        if (!failed())
            status_ = kel_rtMemory_copyTo(instance_, tensor.base, tensor.memid);
    }

    // Hands a tensor back; what the check says changes nothing.
    void deallocate(const Tensor& tensor) {
        if (!failed())
            kel_rtMemory_deallocate(instance_, tensor.base, tensor.memid);
    }

    KelRtInstance* instance() const { return instance_; }

  private:
    // The normalised LSTM has the most tensors.
    static constexpr int kMaxTensors = 7;

    Tensor resolve(int arg, uint32_t (*memory_function)(KelRtInstance*, uint32_t, void**)) {
        Tensor tensor{nullptr, args_[arg].value, args_[arg].offset};
        if (failed())
            return tensor;
        status_ = memory_function(instance_, tensor.memid, &tensor.base);
        // Recorded even when the call failed: a platform that fails and yet leaves a pointer gets it back.
        resolved_[resolved_count_++] = tensor;
        return tensor;
    }

    KelRtInstance* instance_;
    const KelRtContextArg* args_;
    uint32_t status_ = NNA_STATUS_OK;
    int resolved_count_ = 0;
    Tensor resolved_[kMaxTensors];
};

}  // namespace kelrt
