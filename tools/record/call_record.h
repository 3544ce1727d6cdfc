// One call under way, and the record that becomes of it.
//
// The bytes that an operator works on are copied at the moments at which the library itself looks at them:
// those of a CPU buffer before and after the call, those of accelerator memory right after the library has
// resolved it (having made the caches coherent, where it does), and after the call. They are read through the
// CPU's own mapping, and only where the operator reads or writes as well. So nothing is synchronised,
// invalidated or brought into a cache that the call would not bring there itself.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelRt.h"
#include "operators.h"
#include "record_format.h"

namespace record {

class CallRecord {
  public:
    // Reads as much of the context as the library does, which may be null or refused, and then nothing of the
    // instance. Else asks the platform for the sizes of the memories.
    CallRecord(KelRtInstance* instance, const KelRtContext* context);
    ~CallRecord();
    CallRecord(const CallRecord&) = delete;
    CallRecord& operator=(const CallRecord&) = delete;

    // Whether the library looks into the instance, which else may be anything.
    bool sees_instance() const { return op_; }

    // What the library asks of the platform meanwhile, and what comes of it.
    void platform_called(uint32_t status);
    void resolved(uint32_t memory_id, const void* base);
    void made_visible(uint32_t memory_id);  // to the accelerator

    // After the call: completes the record and appends it to the file.
    void finish(const Fixed& measured);

  private:
    struct State {
        Memory row;
        const uint8_t* base;  // null: not resolved yet
        uint32_t named;       // by so many arguments
        uint32_t seen;        // resolutions so far
    };
    struct Part {
        Piece piece;
        uint8_t lookup;  // argument position of the table that this is a row of; 0: of none
        bool taken;
        uint8_t* bytes;
    };

    void read_arguments(const KelRtContext& context);
    void add_memory(uint32_t id);
    void add_parts(size_t position, When when);
    void add_part(uint32_t memory, When when, tool::Range range, uint8_t lookup = 0);
    bool make_room();
    void take(uint32_t memory, When when);
    void take_results();
    uint8_t* put_head(const Fixed& measured);
    bool find_row(Part& part) const;
    uint32_t index_of(uint32_t memory_id) const;

    KelRtInstance* const instance_;
    const tool::Operator* op_ = nullptr;  // null: the library refuses the context
    uint32_t values_[kMaxArguments];      // as the catalogue counts them
    Argument arguments_[kMaxArguments];
    uint32_t argument_count_ = 0;
    State memories_[kMaxMemories];
    uint32_t memory_count_ = 0;
    Part parts_[kMaxPieces];
    uint32_t part_count_ = 0;
    Fault faults_[kMaxFaults];
    uint32_t fault_count_ = 0, platform_calls_ = 0;
    uint8_t* room_ = nullptr;  // for the record; the bytes of the parts lie behind the largest possible head
};

}  // namespace record
