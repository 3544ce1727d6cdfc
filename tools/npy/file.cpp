// .npy files on disk: read whole, and written so that nobody ever sees half of one.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "npy.h"

namespace npy {
namespace {

struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw Error(path + ": " + what + " (" + std::strerror(errno) + ")");
}

}  // namespace

std::string read_file(const std::string& path) {
    const std::unique_ptr<std::FILE, Close> file(std::fopen(path.c_str(), "rb"));
    if (!file)
        fail(path, "cannot open the file");
    std::string contents;
    char block[65536];
    while (const size_t count = std::fread(block, 1, sizeof block, file.get()))
        contents.append(block, count);
    if (std::ferror(file.get()))
        fail(path, "cannot read the file");
    return contents;
}

Array load(const std::string& path) {
    const std::string contents = read_file(path);
    try {
        return parse(contents);
    } catch (const Error& error) {
        throw Error(path + ": " + error.what());
    }
}

StagedFile::StagedFile(std::string path, std::string_view contents)
    : path_(std::move(path)), temporary_(path_ + ".XXXXXX") {
    const int fd = ::mkostemp(temporary_.data(), O_CLOEXEC);
    if (fd < 0)
        fail(path_, "cannot create the file");
    // mkostemp makes a private file; the result is an ordinary one.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);

    size_t done = 0;
    bool good = true;
    while (good && done < contents.size()) {
        const ssize_t count = ::write(fd, contents.data() + done, contents.size() - done);
        good = count > 0 || (count < 0 && errno == EINTR);
        if (count > 0)
            done += static_cast<size_t>(count);
    }
    if (::close(fd) != 0 || !good) {
        const int reason = errno;
        ::unlink(temporary_.c_str());
        errno = reason;
        fail(path_, "cannot write the file");
    }
}

StagedFile::StagedFile(StagedFile&& other) noexcept
    : path_(std::move(other.path_)), temporary_(std::exchange(other.temporary_, {})) {}

StagedFile::~StagedFile() {
    if (!temporary_.empty())
        ::unlink(temporary_.c_str());
}

void StagedFile::commit() {
    if (std::rename(temporary_.c_str(), path_.c_str()) != 0)
        fail(path_, "cannot put the file in place");
    temporary_.clear();
}

void save(const std::string& path, const Array& array) {
    StagedFile(path, format(array)).commit();
}

}  // namespace npy
