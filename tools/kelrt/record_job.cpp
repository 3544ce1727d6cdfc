// Memories shrink to what the operator touches, so that a large memory with a small tensor is small here.
#include "record_job.h"

#include <algorithm>
#include <cstring>

#include "bad_input.h"

namespace tool {
namespace {

// Operands keep their places within a cache line.
constexpr uint64_t kLine = 64;

std::vector<uint32_t> values_of_record(const Record& record) {
    std::vector<uint32_t> values;
    for (const KelRtContextArg& argument : record.arguments)
        values.push_back(argument.value);
    return values;
}

uint32_t offset_of(const Record& record, size_t position) {
    return start_of(*record.op, record.arguments[position].offset);
}

Range placed(const Record& record, size_t position, Range range) {
    const uint64_t offset = offset_of(record, position);
    return range.length() == 0 ? Range{} : Range{range.begin + offset, range.end + offset};
}

// From the first to the last byte that matters: recorded ones, and footprints as far as the memory goes.
Range extent_of(const Record& record, uint32_t memory) {
    Range extent = {UINT64_MAX, 0};
    const auto add = [&](Range range) {
        extent = {std::min(extent.begin, range.begin), std::max(extent.end, range.end)};
    };
    for (const Record::Piece& piece : record.pieces) {
        if (piece.memory == memory)
            add(piece.range);
    }
    const auto& [id, kind, size, size_status, published] = record.memories[memory];
    const uint64_t limit = size_status == NNA_STATUS_OK ? size : UINT64_MAX;
    for (size_t i = kFirstArgument; record.op && i < record.arguments.size(); ++i) {
        if (!record.op->at(i).is_memory() || record.arguments[i].value != id)
            continue;
        const uint64_t offset = offset_of(record, i);
        add({offset,
             std::min(limit, std::max({offset, read_bytes(record, i).end, written_bytes(record, i).end}))});
    }
    const uint64_t begin = std::min(extent.begin, extent.end) / kLine * kLine;
    return {begin, extent.end};
}

npy::Array initial_of(const Record& record, uint32_t memory, Range extent) {
    npy::Array array{npy::Type::u1, {static_cast<size_t>(extent.length())}, {}};
    array.bytes.resize(array.shape[0]);
    for (const Record::Piece& piece : record.pieces) {
        if (piece.memory == memory && piece.when == record::kBefore && !piece.bytes.empty())
            std::memcpy(&array.bytes[static_cast<size_t>(piece.range.begin - extent.begin)],
                        piece.bytes.data(), piece.bytes.size());
    }
    return array;
}

// What SRAM must have held: what a get brought is read from there again, and a set finds room.
Sram sram_of(const Record& record) {
    const auto values = values_of_record(record);
    const uint32_t row_size = values[3], stride = values[4], rows = values[5];
    const Range addresses = sram_addresses(values);
    const uint64_t size = addresses.length();
    if (size > kMaxBytes || addresses.end > uint64_t{1} << 32)
        throw BadInput("its rows of SRAM reach too far to be run here");
    Sram sram{values[2], {npy::Type::u1, {static_cast<size_t>(size)}, {}}};
    sram.initial.bytes.resize(sram.initial.shape[0]);
    const size_t memory = record.find_memory(values[6]);
    const Range packed = {0, uint64_t{rows} * row_size};
    const auto bytes = record.bytes(memory, record::kAfter, packed);
    for (size_t r = 0; !bytes.empty() && row_size > 0 && r < rows; ++r)
        std::memcpy(&sram.initial.bytes[r * stride], &bytes[r * row_size], row_size);
    return sram;
}

}  // namespace

Range read_bytes(const Record& record, size_t position) {
    return placed(record, position, record.op->at(position).read_range(values_of_record(record)));
}

Range written_bytes(const Record& record, size_t position) {
    return placed(record, position, record.op->at(position).written_range(values_of_record(record)));
}

RecordJob job_of(const Record& record) {
    RecordJob result;
    bool fits = true;
    for (uint32_t i = 0; i < record.memories.size(); ++i) {
        const Range extent = extent_of(record, i);
        if (extent.length() > kMaxBytes)
            throw BadInput(kTooMuch);
        result.left_out.push_back(static_cast<uint32_t>(extent.begin));
        const bool on_cpu = record.memories[i].kind == record::kCpuBuffer;
        fits &= result.job.add_memory(
            {"mem" + std::to_string(record.memories[i].id), on_cpu, initial_of(record, i, extent)});
    }
    Context context;
    context.title = record.title();
    context.label = "record " + std::to_string(record.index);
    context.null = record.fixed.null_context;
    context.target = record.fixed.target;
    context.num_args = record.fixed.num_args;
    context.args = record.arguments;
    context.op = record.op;
    for (size_t i = kFirstArgument; record.op && i < context.args.size(); ++i) {
        KelRtContextArg& arg = context.args[i];
        if (!record.op->at(i).is_memory() || arg.value == KEL_RT_NO_MEMORY_ID)
            continue;
        const size_t memory = record.find_memory(arg.value);
        arg.value = static_cast<uint32_t>(memory);
        arg.offset -= moves_sram(id_of(*record.op)) ? 0 : result.left_out[memory];
        if (record.op->at(i).is_published())
            result.job.outputs.push_back(arg.value);
    }
    if (record.op && moves_sram(id_of(*record.op)))
        fits &= result.job.add_sram(sram_of(record));
    if (!fits)
        throw BadInput(kTooMuch);
    std::sort(result.job.outputs.begin(), result.job.outputs.end());
    result.job.outputs.erase(std::unique(result.job.outputs.begin(), result.job.outputs.end()),
                             result.job.outputs.end());
    result.job.contexts.push_back(std::move(context));
    return result;
}

}  // namespace tool
