// Opening and reading, with the operating system's reason for what fails.
#include "input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "error.h"

namespace npy {

InputFile::InputFile(const std::string& path)
    : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)) {
    if (fd_ < 0)
        throw Error(with_reason("cannot open the file"));
    struct stat info {};
    const bool is_known = ::fstat(fd_, &info) == 0;
    is_regular_ = is_known && S_ISREG(info.st_mode);
    if (is_known && S_ISFIFO(info.st_mode))
        look_into_pipe();
    // Only opening was not to wait.
    ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
}

InputFile::~InputFile() {
    ::close(fd_);
}

// Without a writer a pipe is at its end, with one it is merely empty for now.
void InputFile::look_into_pipe() {
    const ssize_t count = ::read(fd_, &first_, 1);
    has_first_ = count == 1;
    if (count == 0) {
        ::close(fd_);
        throw Error("nobody writes into this pipe");
    }
}

size_t InputFile::read(void* to, size_t size) {
    char* const bytes = static_cast<char*>(to);
    size_t done = 0;
    if (has_first_ && size > 0) {
        bytes[done++] = first_;
        has_first_ = false;
    }
    while (done < size) {
        const ssize_t count = ::read(fd_, bytes + done, size - done);
        if (count == 0)
            break;
        if (count > 0)
            done += static_cast<size_t>(count);
        else if (errno != EINTR)
            throw Error(with_reason("cannot read the file"));
    }
    return done;
}

}  // namespace npy
