// What every fuzz target has: the entry point, a check that ends the program, input as numbers, files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

// Runs one input. A target ends the program by must() or a sanitizer, or finds nothing.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

using Bytes = std::span<const uint8_t>;

// A line on the terminal, also when the program is quiet.
void say(const std::string& line);

// Ends the program with a line that says what does not hold.
void must(bool holds, const std::string& what);

// What the library and the tool print goes nowhere; lines below `log_level` are not even made.
void quiet(int32_t log_level);

// Numbers from the front of the input; zeros when it is used up.
class Input {
  public:
    explicit Input(Bytes bytes) : rest_(bytes) {}

    bool empty() const { return rest_.empty(); }
    uint8_t byte() { return static_cast<uint8_t>(number(1)); }
    uint32_t word() { return number(4); }
    Bytes take(size_t size) {
        const Bytes taken = rest_.first(size < rest_.size() ? size : rest_.size());
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

  private:
    uint32_t number(size_t size) {
        uint32_t value = 0;
        size_t shift = 0;
        for (const uint8_t byte : take(size)) {
            value |= uint32_t{byte} << shift;
            shift += 8;
        }
        return value;
    }

    Bytes rest_;
};

// A folder in memory, where the machine has such, that is gone when the program is.
class Folder {
  public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;

    // Writes a file and returns its path.
    std::string write(const std::string& name, Bytes contents) const;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace fuzz
