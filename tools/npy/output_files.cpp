// Temporary files, the lock on their folder, the renaming, and the list from which a signal handler cleans
// up.
#include "output_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <forward_list>

namespace npy {
namespace {

// Files and folders that are to be removed, newest first. It changes only while signals are held.
std::forward_list<std::string> unfinished;

class SignalsHeld {
  public:
    SignalsHeld() {
        sigset_t all;
        ::sigfillset(&all);
        ::sigprocmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsHeld() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

  private:
    sigset_t before_;
};

// Makes something with `make`, which may complete its name and says whether it did, and notes it as
// unfinished. Noted first: the heap may end there, and then nothing must have been made.
template <typename Make>
bool make_unfinished(const std::string& path, Make make) {
    const SignalsHeld held;
    unfinished.push_front(path);
    if (make(unfinished.front()))
        return true;
    unfinished.pop_front();
    return false;
}

void make_folder(const std::string& folder) {
    std::filesystem::path path;
    for (const std::filesystem::path& part : std::filesystem::path(folder)) {
        path /= part;
        const auto make = [](const std::string& name) { return ::mkdir(name.c_str(), 0777) == 0; };
        if (make_unfinished(path.string(), make))
            continue;
        const int reason = errno;
        std::error_code unknown;
        if (!std::filesystem::is_directory(path, unknown)) {
            errno = reason;
            throw Error(with_reason(path.string() + ": cannot make the folder"));
        }
    }
}

// An open folder that no other set is put into meanwhile. Where the file system has no locks, two runs at a
// time are the user's risk.
class LockedFolder {
  public:
    explicit LockedFolder(const std::string& folder)
        : fd_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (fd_ < 0)
            throw Error(with_reason(folder + ": cannot use the folder"));
        while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~LockedFolder() { ::close(fd_); }
    LockedFolder(const LockedFolder&) = delete;
    LockedFolder& operator=(const LockedFolder&) = delete;

    // Has what happened in it written to disk; that not every file system can is no failure.
    void sync() const { ::fsync(fd_); }

  private:
    int fd_;
};

bool write_all(int fd, const void* data, size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t count = ::write(fd, bytes, size);
        if (count > 0) {
            bytes += count;
            size -= static_cast<size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace

// Delegates, so that what a failing make_folder has made is removed too.
OutputFiles::OutputFiles(const std::string& folder) : OutputFiles() {
    folder_ = folder;
    make_folder(folder);
}

OutputFiles::~OutputFiles() {
    const SignalsHeld held;
    remove_unfinished_files();
    unfinished.clear();
}

void OutputFiles::add(const std::string& name, const Array& array) {
    const std::string header = header_of(array);
    add_file(name + ".npy",
             {header, {reinterpret_cast<const char*>(array.bytes.data()), array.bytes.size()}});
}

void OutputFiles::add_file(const std::string& name, std::initializer_list<std::string_view> pieces) {
    const std::string path = (std::filesystem::path(folder_) / name).string();
    int fd = -1;
    const auto make = [&](std::string& temporary) {
        fd = ::mkostemp(temporary.data(), O_CLOEXEC);
        return fd >= 0;
    };
    if (!make_unfinished(path + ".XXXXXX", make))
        throw Error(with_reason(path + ": cannot create the file"));
    files_.push_back({path, unfinished.front(), unfinished.front() + "~"});

    // mkostemp makes a private file; the result is an ordinary one.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    bool written = true;
    for (const std::string_view piece : pieces)
        written = written && write_all(fd, piece.data(), piece.size());
    written = written && ::fsync(fd) == 0;
    int reason = written ? 0 : errno;
    if (::close(fd) != 0 && written)
        reason = errno;
    if (reason != 0) {
        errno = reason;
        throw Error(with_reason(path + ": cannot write the file"));
    }
}

// Between the two steps that replace a file it is never missing, where the file system knows hard links.
bool OutputFiles::put_in_place(File& file) {
    struct stat info {};
    if (::lstat(file.path.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode)) {
            errno = EISDIR;
            return false;
        }
        file.replaces = ::link(file.path.c_str(), file.old.c_str()) == 0 ||
                        std::rename(file.path.c_str(), file.old.c_str()) == 0;
        if (!file.replaces)
            return false;
    }
    file.placed = std::rename(file.temporary.c_str(), file.path.c_str()) == 0;
    return file.placed;
}

void OutputFiles::put_back(const File& file) {
    if (file.replaces) {
        std::rename(file.old.c_str(), file.path.c_str());
        ::unlink(file.old.c_str());  // of two names for one file rename removes neither
    } else if (file.placed) {
        ::unlink(file.path.c_str());
    }
}

void OutputFiles::commit() {
    const LockedFolder folder(folder_);
    const SignalsHeld held;
    for (File& file : files_) {
        if (put_in_place(file))
            continue;
        const int reason = errno;
        for (auto touched = files_.rbegin(); touched != files_.rend(); ++touched)
            put_back(*touched);
        errno = reason;
        throw Error(with_reason(file.path + ": cannot put the file in place"));
    }
    for (const File& file : files_) {
        if (file.replaces)
            ::unlink(file.old.c_str());
    }
    folder.sync();
    files_.clear();
    unfinished.clear();
}

void remove_unfinished_files() {
    for (const std::string& path : unfinished) {
        if (::unlink(path.c_str()) != 0)
            ::rmdir(path.c_str());
    }
}

}  // namespace npy
