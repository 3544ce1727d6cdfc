// Reading a file once, from its start to its end, without believing what it says about its size.
#pragma once

#include <cstddef>
#include <string>

namespace npy {

// A pipe will do as well. One that is empty and that nobody has open for writing is refused: it would be
// waited for without end. Complaints are npy::Error, without the path.
class InputFile {
  public:
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // A pipe or a device is none, and may go on without end.
    bool is_regular() const { return is_regular_; }

    // Fills `to`; fewer bytes only at the end of the file.
    size_t read(void* to, size_t size);

  private:
    void look_into_pipe();

    int fd_;
    bool is_regular_ = false;
    bool has_first_ = false;  // the byte that look_into_pipe had to take out
    char first_ = 0;
};

}  // namespace npy
