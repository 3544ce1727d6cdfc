// Files of records: each is taken whole or named as damaged, the whole ones are the file, byte for byte; and
// every one is replayed, checked and dumped as a job without harm, whatever it says.
#include "records.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "audit.h"
#include "bad_input.h"
#include "dump.h"
#include "fuzz.h"
#include "job.h"
#include "record_job.h"
#include "replay.h"

namespace {

using fuzz::must;
using Buffer = std::vector<uint8_t>;

template <typename T>
void put(Buffer& to, const T* from, size_t count) {
    const auto* const bytes = reinterpret_cast<const uint8_t*>(from);
    to.insert(to.end(), bytes, bytes + count * sizeof(T));
}

// A record as it stands in a file; of the reserved word of its prefix the reader keeps nothing.
Buffer written(const tool::Record& record, uint32_t reserved) {
    Buffer body;
    put(body, &record.fixed, 1);
    for (const KelRtContextArg& arg : record.arguments)
        put(body, &arg, 1);
    put(body, record.memories.data(), record.memories.size());
    for (const tool::Record::Piece& piece : record.pieces) {
        const record::Piece row = {piece.memory, piece.when, static_cast<uint32_t>(piece.range.begin),
                                   static_cast<uint32_t>(piece.range.length())};
        put(body, &row, 1);
    }
    put(body, record.faults.data(), record.faults.size());
    for (const tool::Record::Piece& piece : record.pieces)
        put(body, piece.bytes.data(), piece.bytes.size());

    record::Prefix prefix;
    prefix.reserved = reserved;
    prefix.length = sizeof prefix + body.size();
    prefix.body_checksum = record::checksum(body.data(), body.size());
    prefix.checksum = record::checksum(&prefix, offsetof(record::Prefix, checksum));
    Buffer whole;
    put(whole, &prefix, 1);
    whole.insert(whole.end(), body.begin(), body.end());
    return whole;
}

// What everybody who is given a record relies on.
void check_sense(const tool::Record& record) {
    for (const tool::Record::Piece& piece : record.pieces) {
        must(piece.memory < record.memories.size(), "bytes are those of a memory");
        must(piece.range.end <= record.memories[piece.memory].size, "bytes lie in their memory");
        must(piece.bytes.size() == piece.range.length(), "a range has its bytes");
    }
    for (size_t i = tool::kFirstArgument; record.op && i < record.arguments.size(); ++i) {
        const uint32_t id = record.arguments[i].value;
        must(!record.op->at(i).is_memory() || id == KEL_RT_NO_MEMORY_ID ||
                 record.find_memory(id) < record.memories.size(),
             "an operand lies in a memory that is described");
    }
}

void check_whole(const tool::RecordFile& file, fuzz::Bytes bytes) {
    size_t at = 0;
    for (const tool::Record& record : file.records()) {
        uint32_t reserved = 0;
        must(bytes.size() - at >= sizeof(record::Prefix), "a record has a prefix");
        std::memcpy(&reserved, &bytes[at + offsetof(record::Prefix, reserved)], sizeof reserved);
        const Buffer again = written(record, reserved);
        must(again.size() <= bytes.size() - at && std::memcmp(again.data(), &bytes[at], again.size()) == 0,
             "a record that is written again is what it was");
        at += again.size();
    }
    must(at == bytes.size(), "a file without damage is its records");
}

// A dumped record is a job that can be read, of the same context on the same bytes.
void check_dump(const fuzz::Folder& folder, const tool::RecordFile& file, const tool::Record& record) {
    const std::string dumped = folder.path() + "/dump";
    try {
        const tool::RecordJob expected = tool::job_of(record);
        tool::dump(dumped, file.path(), record);
        const tool::Job job = tool::read_job(dumped + "/" + std::to_string(record.index) + ".json", true);
        must(job.memories.size() == expected.job.memories.size(), "a dump has the record's memories");
        for (size_t i = 0; i < job.memories.size(); ++i)
            must(job.memories[i].initial.bytes == expected.job.memories[i].initial.bytes,
                 "a dump has the record's bytes");
        const tool::Context &got = job.contexts.at(0), &wanted = expected.job.contexts.at(0);
        must(got.null == wanted.null, "a dump has the record's context");
        // What the library does not read of an operator's id and types, a job by name does not say.
        const bool same =
            std::equal(got.args.begin(), got.args.end(), wanted.args.begin(), wanted.args.end(),
                       [&](const KelRtContextArg& a, const KelRtContextArg& b) {
                           const bool is_id = wanted.op && &b == &wanted.args[1];
                           return (is_id ? (a.value ^ b.value) % 256 == 0 : a.value == b.value) &&
                                  (wanted.op || (a.type == b.type && a.offset == b.offset));
                       });
        must(same || wanted.null, "a dump has the record's arguments");
    } catch (const tool::BadInput& refusal) {
        must(refusal.what()[0] != '\0', "a refusal says why");
    }
    std::filesystem::remove_all(dumped);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const fuzz::Folder folder;
    fuzz::quiet(4);
    const std::string path = folder.write("records", {data, size});
    const tool::RecordFile file(path);
    for (const std::string& damage : file.damages())
        must(damage.starts_with(path + ": "), "a damage names the file");
    for (const tool::Record& record : file.records())
        check_sense(record);
    if (file.damages().empty())
        check_whole(file, {data, size});

    tool::ReplayOptions options;
    options.quiet = true;
    const int code = tool::replay({path}, options);
    must(code == 2 ? !file.damages().empty() : code >= 0 && file.damages().empty(),
         "damage is told by the exit code");
    try {
        must(tool::check_file(path, "") <= 2, "records are checked");
    } catch (const tool::BadInput&) {
        must(file.records().empty(), "only what has no record is taken for a job");
    }
    for (size_t i = 0; i < file.records().size() && i < 4; ++i)
        check_dump(folder, file, file.records()[i]);
    return 0;
}

#ifdef KELRT_LIBFUZZER

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

namespace {

// How long a record's parts say it is; what is missing of them counts as nothing.
size_t length_of(fuzz::Bytes record) {
    record::Fixed fixed;
    if (record.size() < sizeof(record::Prefix) + sizeof fixed)
        return record.size();
    std::memcpy(&fixed, &record[sizeof(record::Prefix)], sizeof fixed);
    const uint64_t pieces = sizeof(record::Prefix) + sizeof fixed + uint64_t{12} * fixed.arguments +
                            uint64_t{20} * fixed.memories,
                   faults = pieces + uint64_t{16} * fixed.pieces;
    uint64_t length = faults + uint64_t{8} * fixed.faults;
    for (uint64_t at = pieces; at < faults && at + sizeof(record::Piece) <= record.size();
         at += sizeof(record::Piece)) {
        record::Piece piece;
        std::memcpy(&piece, &record[at], sizeof piece);
        length += piece.length;
    }
    return length < record.size() ? static_cast<size_t>(length) : record.size();
}

}  // namespace

// No mutation meets a checksum: prefixes are mended, all but now and then.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
    size = LLVMFuzzerMutate(data, size, max_size);
    if (seed % 16 == 0)
        return size;
    for (size_t at = 0; size - at >= sizeof(record::Prefix);) {
        const fuzz::Bytes rest(data + at, size - at);
        const size_t length = length_of(rest);
        record::Prefix prefix;
        prefix.length = length;
        const size_t body = at + sizeof prefix;
        prefix.body_checksum = record::checksum(data + body, length - sizeof prefix);
        prefix.checksum = record::checksum(&prefix, offsetof(record::Prefix, checksum));
        std::memcpy(data + at, &prefix, sizeof prefix);
        at += length;
    }
    return size;
}

#endif
