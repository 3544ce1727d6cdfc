// From bytes to records. Every number is held against what is there before it is believed, its checksum
// notwithstanding: anybody can compute one.
#include "records.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "bad_input.h"
#include "error.h"
#include "input_file.h"

namespace tool {
namespace {

// More than that of one kind of damage is one damage.
constexpr size_t kMaxDamages = 100;

std::vector<uint8_t> read_file(const std::string& path) {
    constexpr size_t kPiece = 1 << 16, kMostUnsized = size_t{512} << 20;
    std::vector<uint8_t> contents;
    try {
        npy::InputFile file(path);
        size_t size = 0;
        do {
            size = contents.size();
            if (size >= kMostUnsized && !file.is_regular())
                throw BadInput(path + ": this is no regular file, and there are 512 MiB or more in it");
            contents.resize(size + std::max(size, kPiece));
            contents.resize(size + file.read(contents.data() + size, contents.size() - size));
        } while (contents.size() == size + std::max(size, kPiece));
    } catch (const npy::Error& error) {
        throw BadInput(path + ": " + error.what());
    }
    return contents;
}

// Takes what a record consists of from its front, and is then at its end.
class Body {
  public:
    explicit Body(std::span<const uint8_t> bytes) : rest_(bytes) {}

    std::span<const uint8_t> take(uint64_t size) {
        if (size > rest_.size())
            throw BadInput("its parts are longer than it is");
        const auto taken = rest_.first(static_cast<size_t>(size));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

    template <typename T>
    std::vector<T> rows(uint32_t count, uint32_t most, const char* what) {
        if (count > most)
            throw BadInput("it has " + std::to_string(count) + " " + what + ", and " + std::to_string(most) +
                           " are the most");
        const auto bytes = take(uint64_t{count} * sizeof(T));
        std::vector<T> rows(count);
        if (count > 0)
            std::memcpy(rows.data(), bytes.data(), bytes.size());
        return rows;
    }

    void finish() const {
        if (!rest_.empty())
            throw BadInput("its parts are shorter than it is");
    }

  private:
    std::span<const uint8_t> rest_;
};

Record::Piece read_piece(const record::Piece& piece, const Record& record, Body& body) {
    const uint64_t end = uint64_t{piece.begin} + piece.length;
    if (piece.memory >= record.memories.size() || piece.when > record::kAfter ||
        end > record.memories[piece.memory].size)
        throw BadInput("it has bytes of no memory");
    return {piece.memory, static_cast<record::When>(piece.when), {piece.begin, end}, body.take(piece.length)};
}

void check_memories(const Record& record) {
    for (size_t i = 0; i < record.memories.size(); ++i) {
        if (record.memories[i].kind > record::kCpuBuffer || record.find_memory(record.memories[i].id) != i)
            throw BadInput("its memories make no sense");
    }
    for (size_t i = kFirstArgument; record.op && i < record.arguments.size(); ++i) {
        const uint32_t id = record.arguments[i].value;
        if (record.op->at(i).is_memory() && id != KEL_RT_NO_MEMORY_ID &&
            record.find_memory(id) == record.memories.size())
            throw BadInput("it names a memory that it does not describe");
    }
}

// Throws BadInput for what is no record.
Record read_body(std::span<const uint8_t> bytes) {
    Body body(bytes);
    Record record;
    const auto fixed = body.take(sizeof record.fixed);
    std::memcpy(&record.fixed, fixed.data(), fixed.size());
    for (const auto& [type, offset, value] :
         body.rows<record::Argument>(record.fixed.arguments, record::kMaxArguments, "arguments"))
        record.arguments.push_back({type, offset, value});
    record.memories = body.rows<record::Memory>(record.fixed.memories, record::kMaxMemories, "memories");
    const auto pieces = body.rows<record::Piece>(record.fixed.pieces, record::kMaxPieces, "pieces");
    record.faults = body.rows<record::Fault>(record.fixed.faults, record::kMaxFaults, "faults");
    for (const record::Piece& piece : pieces)
        record.pieces.push_back(read_piece(piece, record, body));
    body.finish();
    const bool is_read =
        !record.fixed.null_context && record.fixed.target == KEL_RT_TARGET_CPU && record.fixed.num_args > 2;
    record.op = is_read ? accepted(record.arguments) : nullptr;
    check_memories(record);
    return record;
}

// Null, or what is wrong with a prefix.
const char* check_prefix(std::span<const uint8_t> bytes, record::Prefix& prefix) {
    const size_t compared = std::min(bytes.size(), record::kMagic.size());
    if (!std::equal(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(compared), record::kMagic.begin()))
        return "no record begins here";
    if (bytes.size() < sizeof prefix)
        return "the record is cut short, within its first 32 bytes";
    std::memcpy(&prefix, bytes.data(), sizeof prefix);
    if (prefix.checksum != record::checksum(&prefix, offsetof(record::Prefix, checksum)))
        return "the first 32 bytes of the record are damaged";
    if (prefix.version != record::kVersion)
        return "the record is of a version that this program does not know";
    if (prefix.length < sizeof prefix)
        return "the record's length makes no sense";
    return nullptr;
}

}  // namespace

std::string Record::title() const {
    if (fixed.null_context)
        return "(null context)";
    if (op)
        return op->name;
    return arguments.size() < 2 ? "(no operator)"
                                : "(operator " + std::to_string(arguments[1].value & 0xFF) + ", refused)";
}

size_t Record::find_memory(uint32_t id) const {
    const auto has_id = [&](const record::Memory& memory) { return memory.id == id; };
    return static_cast<size_t>(std::find_if(memories.begin(), memories.end(), has_id) - memories.begin());
}

std::span<const uint8_t> Record::bytes(size_t memory, record::When when, Range range) const {
    for (const Piece& piece : pieces) {
        if (piece.memory == memory && piece.when == when && piece.range.begin <= range.begin &&
            range.end <= piece.range.end && range.length() > 0)
            return piece.bytes.subspan(static_cast<size_t>(range.begin - piece.range.begin),
                                       static_cast<size_t>(range.length()));
    }
    return {};
}

RecordFile::RecordFile(std::string path) : path_(std::move(path)), contents_(read_file(path_)) {
    read_all();
}

// Where the next bytes stand that a record could begin with.
size_t RecordFile::next_prefix(size_t from) const {
    const auto begin = contents_.begin() + static_cast<ptrdiff_t>(std::min(from, contents_.size()));
    const auto found = std::search(begin, contents_.end(), record::kMagic.begin(), record::kMagic.end());
    return static_cast<size_t>(found - contents_.begin());
}

void RecordFile::read_all() {
    const std::span<const uint8_t> all(contents_);
    for (size_t at = 0; at < all.size() && damages_.size() < kMaxDamages;) {
        const auto damaged = [&](const std::string& what) {
            damages_.push_back(path_ + ": byte " + std::to_string(at) + ": " + what);
            at = next_prefix(at + 1);
        };
        record::Prefix prefix;
        if (const char* const wrong = check_prefix(all.subspan(at), prefix)) {
            damaged(wrong);
            continue;
        }
        if (prefix.length > all.size() - at) {
            damaged("the record is cut short: it has " + std::to_string(prefix.length) +
                    " bytes, and the file ends after " + std::to_string(all.size() - at));
            continue;
        }
        const auto body = all.subspan(at + sizeof prefix, static_cast<size_t>(prefix.length) - sizeof prefix);
        if (prefix.body_checksum != record::checksum(body.data(), body.size())) {
            damaged("the record is damaged: its checksum does not fit");
            continue;
        }
        try {
            records_.push_back(read_body(body));
            records_.back().index = records_.size() - 1;
            at += static_cast<size_t>(prefix.length);
        } catch (const BadInput& wrong) {
            damaged(std::string("the record makes no sense: ") + wrong.what());
        }
    }
    if (all.empty())
        damages_.push_back(path_ + ": there is no record in it");
}

}  // namespace tool
