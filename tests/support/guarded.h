// Bytes with a page that nobody may touch at one end, where the first byte read or written past them ends the
// test, and a known pattern up to the next page at the other, which `intact` looks at.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace guarded {

constexpr uint8_t kFill = 0xEE;  // of the bytes themselves too, at first

enum class Wall { Before, After };

class Bytes {
  public:
    // Up to 3 bytes of slack before the wall put elements at odd addresses.
    Bytes(size_t size, Wall wall, size_t slack = 0) : size_(size) {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        inner_ = (size + slack + page) / page * page;  // at least a byte beyond the other end
        map_ = static_cast<uint8_t*>(
            mmap(nullptr, inner_ + page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        first_ = map_ + (wall == Wall::Before ? page : 0);
        if (map_ == MAP_FAILED || mprotect(first_, inner_, PROT_READ | PROT_WRITE) != 0)
            std::abort();
        std::memset(first_, kFill, inner_);
        data_ = wall == Wall::Before ? first_ + slack : first_ + inner_ - slack - size;
        mapped_ = inner_ + page;
    }
    Bytes(const std::vector<uint8_t>& bytes, Wall wall, size_t slack = 0) : Bytes(bytes.size(), wall, slack) {
        std::copy(bytes.begin(), bytes.end(), data_);
    }
    ~Bytes() { munmap(map_, mapped_); }
    Bytes(const Bytes&) = delete;

    uint8_t* data() { return data_; }
    float* floats() { return reinterpret_cast<float*>(data_); }
    std::vector<uint8_t> copy() const { return {data_, data_ + size_}; }
    bool intact() const {
        const auto kept = [](uint8_t byte) { return byte == kFill; };
        return std::all_of(first_, data_, kept) && std::all_of(data_ + size_, first_ + inner_, kept);
    }

  private:
    size_t size_, inner_, mapped_;
    uint8_t *map_, *first_, *data_;
};

}  // namespace guarded
