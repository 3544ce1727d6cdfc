// Bytes that end, or begin, exactly at a page nobody may touch: the first byte read or written past them ends
// the test.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace guarded {

enum class Wall { Before, After };

class Bytes {
  public:
    Bytes(size_t size, Wall wall, uint8_t fill = 0xEE) : size_(size) {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t inner = (size + page - 1) / page * page;
        mapped_ = inner + 2 * page;
        map_ = static_cast<uint8_t*>(mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (map_ == MAP_FAILED || (inner && mprotect(map_ + page, inner, PROT_READ | PROT_WRITE) != 0))
            std::abort();
        data_ = map_ + page + (wall == Wall::After ? inner - size : 0);
        if (size)
            std::memset(data_, fill, size);
    }
    Bytes(const std::vector<uint8_t>& bytes, Wall wall) : Bytes(bytes.size(), wall) {
        if (size_)
            std::memcpy(data_, bytes.data(), size_);
    }
    ~Bytes() { munmap(map_, mapped_); }
    Bytes(const Bytes&) = delete;

    uint8_t* data() { return data_; }
    std::vector<uint8_t> copy() const { return {data_, data_ + size_}; }

  private:
    size_t size_, mapped_;
    uint8_t *map_, *data_;
};

}  // namespace guarded
