// Every operator as a row: a context, what its adapter does with which argument, the kernel behind it. Tests
// walk the rows; what the platform is asked and what is logged when it fails follows from a row's script.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "support/rig.h"

namespace rows {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;
using Pointers = uint8_t* const*;  // of the tensors, offsets added

// Tensor i is memory i, or that of a later number, from an odd byte on.
constexpr uint32_t offset_of(uint32_t tensor) {
    return 2 * tensor + 1;
}

struct Operator {
    uint32_t id;
    const char* name;
    std::vector<KelRtContextArg> args;
    std::vector<uint32_t> bytes;  // of each tensor
    // What the adapter does with which argument: A allocate, F copyFrom, S move an SRAM row, T copyTo,
    // D deallocate. From it follow the platform calls (A: pointer; F: size, sync 1, pointer; T: size, sync 0;
    // D: pointer) and, for a failure at each of them, everything else.
    const char* script;
    // DEBUG dump, and what the kernel logs of null pointers: @1 is tensor 1 with id and offset, #1 without
    // offset, +1 with its pointer advanced, *1 only that.
    const char *dump, *refusal;
    uint32_t out_bytes;  // 0: reports none
    uint32_t (*kernel)(Pointers m, uint32_t* out_bytes, uint8_t* out_shift);
    uint32_t refused = 7;  // so many tensors must not be null

    bool moves_sram() const { return std::strchr(script, 'S'); }
    // The context's arguments when tensor 0 is memory `first`.
    std::vector<KelRtContextArg> args_at(uint32_t first) const;
};

extern const std::vector<Operator> kOperators;

struct Step {
    char what;
    uint32_t tensor;
};
std::vector<Step> steps(const Operator& op);

// SRAM rows' size in bytes.
constexpr uint32_t kSramRow = 5;

// What the accelerator holds of each tensor before the context: floats from an odd byte on, in several
// variations.
std::vector<Bytes> contents(const Operator& op, uint32_t variation = 0);

// A rig with such memories, and SRAM that counts.
struct Bench : rig::Rig {
    explicit Bench(size_t entries = kMaxMemories);
    explicit Bench(const Operator& op) : Bench() { add(op); }

    uint32_t add(const Operator& op);  // its memories; the first one's id
    uint32_t size(uint32_t memid) const;
    Bytes image(uint32_t memid) const { return device<uint8_t>(memid, size(memid)); }
    Bytes view(uint32_t memid) const;
    Lines called() const;  // the platform's functions, as Expectation gives them
};

// Which platform call fails, and how.
struct Fault {
    uint32_t call = 0;  // the k-th; 0: none
    enum When {
        Early,       // it does nothing
        Late,        // it does its work first
        FromThenOn,  // and neither do the calls that follow
    } when = Early;
    uint32_t status = 4242;
};

// A kernel that refuses its work; because it lacks a tensor, perhaps.
struct Refusal {
    uint32_t status = NNA_STATUS_OK;  // that of a kernel that does not
    uint32_t null = UINT32_MAX;
};

// The script, played against a platform with a fault, or a kernel that refuses. Tensors may lie in CPU
// buffers, of which the platform knows nothing.
class Expectation {
  public:
    uint32_t status = NNA_STATUS_OK;
    Lines calls, messages;
    std::vector<bool> synced, published;  // by tensor
    bool computed = true;                 // the kernel ran
    std::vector<bool> moved;              // by SRAM row

    explicit Expectation(const Operator& op, Fault fault = {}, Refusal refusal = {},
                         std::vector<bool> buffered = {});

  private:
    bool call(NnaSimFunction function, uint32_t memid, uint32_t direction = 0);
    bool pointer(uint32_t memid);
    bool sync(uint32_t memid, uint32_t direction);
    bool done() const;  // whether the last call did its work
    std::string failure(const char* text) const;

    Fault fault_;
    bool failed_ = false;  // the last call
    std::vector<bool> buffered_;
    uint32_t row_status_ = NNA_STATUS_OK;
};

}  // namespace rows
