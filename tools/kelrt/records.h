// Files of recorded calls, read with suspicion: a record is taken whole or not at all, and what is damaged is
// named by its place in the file. The format is record_format.h.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "kelRt.h"
#include "operators.h"
#include "record_format.h"

namespace tool {

struct Record {
    struct Piece {
        uint32_t memory;  // index
        record::When when;
        Range range;  // bytes of the memory
        std::span<const uint8_t> bytes;
    };

    size_t index = 0;  // among the whole records of its file
    record::Fixed fixed;
    const Operator* op = nullptr;            // that the library ran; null: it refused the context
    std::vector<KelRtContextArg> arguments;  // arguments 0 and 1 included, as far as the library read them
    std::vector<record::Memory> memories;
    std::vector<Piece> pieces;
    std::vector<record::Fault> faults;

    // The operator's name, or what stands for it.
    std::string title() const;
    // Where `memories` has the memory of this id; their number if nowhere.
    size_t find_memory(uint32_t id) const;
    // A range of a memory's bytes at one time, if one piece holds all of it.
    std::span<const uint8_t> bytes(size_t memory, record::When when, Range range) const;
};

class RecordFile {
  public:
    // Reads a file; throws BadInput if that cannot be read. The records point into it.
    explicit RecordFile(std::string path);
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;

    const std::string& path() const { return path_; }
    const std::vector<Record>& records() const { return records_; }
    // Sentences that begin with the path.
    const std::vector<std::string>& damages() const { return damages_; }

  private:
    size_t next_prefix(size_t from) const;
    void read_all();

    std::string path_;
    std::vector<uint8_t> contents_;
    std::vector<Record> records_;
    std::vector<std::string> damages_;
};

}  // namespace tool
