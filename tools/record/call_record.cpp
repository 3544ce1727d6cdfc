// The catalogue says which bytes; sizes hold it inside the memories. One allocation a call.
#include "call_record.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kelRt_platform.h"
#include "next.h"
#include "record_file.h"

namespace record {
namespace {

constexpr size_t kLargestHead = sizeof(Prefix) + sizeof(Fixed) + kMaxArguments * sizeof(Argument) +
                                kMaxMemories * sizeof(Memory) + kMaxPieces * sizeof(Piece) +
                                kMaxFaults * sizeof(Fault);

CpuBufferEntry cpu_buffer(const KelRtInstance& instance, uint32_t memory_id) {
    return instance.cpu_buffer_lookup ? instance.cpu_buffer_lookup[memory_id] : CpuBufferEntry{nullptr, 0};
}

uint8_t* put(uint8_t* to, const void* from, size_t size) {
    if (size > 0)
        std::memcpy(to, from, size);
    return to + size;
}

}  // namespace

CallRecord::CallRecord(KelRtInstance* instance, const KelRtContext* context) : instance_(instance) {
    if (context)
        read_arguments(*context);
    if (!op_)
        return;
    for (size_t i = tool::kFirstArgument; i < argument_count_; ++i) {
        if (!op_->at(i).is_memory() || values_[i] == KEL_RT_NO_MEMORY_ID)
            continue;
        add_memory(values_[i]);
        add_parts(i, kBefore);
        add_parts(i, kAfter);
    }
    if (!make_room())
        return;
    for (uint32_t memory = 0; memory < memory_count_; ++memory) {
        if (memories_[memory].row.kind == kCpuBuffer)
            take(memory, kBefore);
    }
}

CallRecord::~CallRecord() {
    std::free(room_);
}

// No record further than the library reads: it stops at the first that is wrong, and goes by the operator's
// own number of them, not by num_args.
void CallRecord::read_arguments(const KelRtContext& context) {
    const auto read_one = [&](KelRtArgType type) {
        const KelRtContextArg& arg = context.args[argument_count_];
        values_[argument_count_] = arg.value;
        arguments_[argument_count_++] = {arg.type, arg.offset, arg.value};
        return (arg.type & 0xFF) == type;
    };
    if (context.target != KEL_RT_TARGET_CPU || context.num_args <= 2)
        return;
    if (!read_one(KEL_RT_ARG_VAL) || !read_one(KEL_RT_ARG_VAL))
        return;
    const uint32_t id = values_[1] & 0xFF;
    if (id >= KEL_RT_NUM_OPS || values_[0] != tool::kOperators[id].arguments.size())
        return;
    for (const tool::Argument& argument : tool::kOperators[id].arguments) {
        if (!read_one(argument.type))
            return;
    }
    op_ = &tool::kOperators[id];
}

uint32_t CallRecord::index_of(uint32_t memory_id) const {
    uint32_t index = 0;
    while (index < memory_count_ && memories_[index].row.id != memory_id)
        ++index;
    return index;
}

void CallRecord::add_memory(uint32_t id) {
    const uint32_t known = index_of(id);
    if (known < memory_count_) {
        ++memories_[known].named;
        return;
    }
    State& state = memories_[memory_count_++];
    state = {{id, kCpuBuffer, 0, NNA_STATUS_OK, 0}, nullptr, 1, 0};
    const CpuBufferEntry buffer = cpu_buffer(*instance_, id);
    if (buffer.ptr) {
        state.row.size = buffer.size;
        state.base = static_cast<const uint8_t*>(buffer.ptr);
        return;
    }
    // Asked behind our own stand-in: the question is not the library's.
    state.row.kind = kAccelerator;
    state.row.size_status =
        next<&tivNnaMemorySize>("tivNnaMemorySize")(instance_->device, id, &state.row.size);
    if (state.row.size_status != NNA_STATUS_OK)
        state.row.size = 0;
}

// What the argument at this position makes the operator read or write. What it writes is read before as well:
// bytes that it turns out not to write are published as they were.
void CallRecord::add_parts(size_t position, When when) {
    const tool::Argument& argument = op_->at(position);
    const uint32_t memory = index_of(values_[position]);
    const uint32_t offset = tool::start_of(*op_, arguments_[position].offset);
    const tool::Values values(values_, argument_count_);
    const auto add = [&](tool::Range range) {
        if (range.length() > 0)
            add_part(memory, when, {range.begin + offset, range.end + offset});
    };
    if (when == kAfter) {
        add(argument.written_range(values));
        return;
    }
    for (const tool::Lookup& lookup : op_->lookups) {
        if (lookup.table == position) {
            add_part(memory, when, {0, lookup.row_bytes(values)}, static_cast<uint8_t>(position));
            return;
        }
    }
    add(argument.read_range(values));
    add(argument.written_range(values));
}

// Ranges of one memory that meet become one. The row of a table is known only when its index is.
void CallRecord::add_part(uint32_t memory, When when, tool::Range range, uint8_t lookup) {
    const uint64_t size = memories_[memory].row.size;
    range = {std::min(range.begin, size), std::min(range.end, size)};
    for (uint32_t i = 0; i < part_count_ && lookup == 0;) {
        Piece& other = parts_[i].piece;
        const uint64_t begin = other.begin, end = begin + other.length;
        if (parts_[i].lookup == 0 && other.memory == memory && other.when == when && begin <= range.end &&
            range.begin <= end) {
            range = {std::min(range.begin, begin), std::max(range.end, end)};
            parts_[i] = parts_[--part_count_];
        } else {
            ++i;
        }
    }
    if (range.length() > 0)
        parts_[part_count_++] = {
            {memory, when, static_cast<uint32_t>(range.begin), static_cast<uint32_t>(range.length())},
            lookup,
            false,
            nullptr};
}

bool CallRecord::make_room() {
    uint64_t size = kLargestHead;
    for (uint32_t i = 0; i < part_count_; ++i)
        size += parts_[i].piece.length;
    room_ = size <= SIZE_MAX ? static_cast<uint8_t*>(std::malloc(static_cast<size_t>(size))) : nullptr;
    if (!room_) {
        give_up("there is no memory for a record", ENOMEM);
        return false;
    }
    uint8_t* at = room_ + kLargestHead;
    for (uint32_t i = 0; i < part_count_; ++i) {
        parts_[i].bytes = at;
        at += parts_[i].piece.length;
    }
    return true;
}

// Places the part of a table at the row that the index says; false if that is not known, or outside.
bool CallRecord::find_row(Part& part) const {
    for (const tool::Lookup& lookup : op_->lookups) {
        if (lookup.table != part.lookup)
            continue;
        const State& index = memories_[index_of(values_[lookup.index])];
        const uint64_t at = arguments_[lookup.index].offset;
        if (values_[lookup.index] == KEL_RT_NO_MEMORY_ID || !index.base || at + 4 > index.row.size)
            return false;
        float value;
        std::memcpy(&value, index.base + at, sizeof value);
        const tool::Range row = lookup.row(value, tool::Values(values_, argument_count_));
        const uint64_t begin = arguments_[part.lookup].offset + row.begin;
        if (begin + part.piece.length > memories_[part.piece.memory].row.size)
            return false;
        part.piece.begin = static_cast<uint32_t>(begin);
    }
    return true;
}

// A row of another memory may have waited for the index in this one.
void CallRecord::take(uint32_t memory, When when) {
    for (uint32_t i = 0; i < part_count_; ++i) {
        Part& part = parts_[i];
        const uint8_t* const base = memories_[part.piece.memory].base;
        const bool is_due = part.piece.memory == memory || (part.lookup && !part.taken && base);
        if (!is_due || part.piece.when != when || (part.lookup && !find_row(part)))
            continue;
        std::memcpy(part.bytes, base + part.piece.begin, part.piece.length);
        part.taken = true;
    }
}

// Calls beyond what the record has room for overwrite the last: of the rows of SRAM the last one counts.
void CallRecord::platform_called(uint32_t status) {
    ++platform_calls_;
    if (status != NNA_STATUS_OK)
        faults_[fault_count_ < kMaxFaults ? fault_count_++ : kMaxFaults - 1] = {platform_calls_, status};
}

// A memory is resolved once for every argument that names it, and asked for again when it is handed back.
// Between its resolutions its caches may be made coherent, so the last one counts; after it the kernel may
// already have run.
void CallRecord::resolved(uint32_t memory_id, const void* base) {
    const uint32_t memory = index_of(memory_id);
    if (!room_ || memory == memory_count_)
        return;
    State& state = memories_[memory];
    state.base = static_cast<const uint8_t*>(base);
    if (state.seen++ < state.named && base)
        take(memory, kBefore);
}

void CallRecord::made_visible(uint32_t memory_id) {
    const uint32_t memory = index_of(memory_id);
    if (memory < memory_count_)
        memories_[memory].row.published = 1;
}

void CallRecord::finish(const Fixed& measured) {
    if (op_ && !room_)
        return;  // said so already
    take_results();
    if (!room_ && !make_room())
        return;
    uint8_t* at = put_head(measured);
    for (uint32_t i = 0; i < part_count_; ++i) {
        if (parts_[i].taken) {
            std::memmove(at, parts_[i].bytes, parts_[i].piece.length);
            at += parts_[i].piece.length;
        }
    }
    const auto size = static_cast<size_t>(at - room_);
    Prefix prefix;
    prefix.length = size;
    prefix.body_checksum = checksum(room_ + sizeof prefix, size - sizeof prefix);
    prefix.checksum = checksum(&prefix, offsetof(Prefix, checksum));
    put(room_, &prefix, sizeof prefix);
    append(room_, size);
}

// Of accelerator memory only what is published is an effect of the call, or rows of SRAM.
void CallRecord::take_results() {
    const bool sees_all = op_ && tool::moves_sram(tool::id_of(*op_));
    for (uint32_t memory = 0; memory < memory_count_; ++memory) {
        const State& state = memories_[memory];
        if (state.base && (state.row.kind == kCpuBuffer || state.row.published || sees_all))
            take(memory, kAfter);
    }
}

// All that stands before the bytes of the pieces, but the prefix; returns where they go.
uint8_t* CallRecord::put_head(const Fixed& measured) {
    Fixed fixed = measured;
    fixed.arguments = argument_count_;
    fixed.memories = memory_count_;
    fixed.faults = fault_count_;
    uint8_t* at = room_ + sizeof(Prefix) + sizeof(Fixed);
    at = put(at, arguments_, argument_count_ * sizeof(Argument));
    for (uint32_t i = 0; i < memory_count_; ++i)
        at = put(at, &memories_[i].row, sizeof(Memory));
    for (uint32_t i = 0; i < part_count_; ++i) {
        if (parts_[i].taken) {
            at = put(at, &parts_[i].piece, sizeof(Piece));
            ++fixed.pieces;
        }
    }
    at = put(at, faults_, fault_count_ * sizeof(Fault));
    put(room_ + sizeof(Prefix), &fixed, sizeof fixed);
    return at;
}

}  // namespace record
