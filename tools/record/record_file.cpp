// Whatever happens to the file, the driver sees nothing of it but one WARN line.
#include "record_file.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "log.h"
#include "record_format.h"

namespace record {
namespace {

// The state of the one recording that a process makes. It is set up once, by whichever thread calls first.
pthread_once_t once = PTHREAD_ONCE_INIT;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<bool> recording{false};
std::atomic<int> has_warned{0};  // RISC-V exchanges no single bytes
Limits limits_;
int fd = -1;
uint64_t records = 0, bytes = 0;  // written so far, under the mutex

// A record that was cut short by a crash stays where it is, and new ones follow it; but nothing is appended
// to what is no file of records.
bool holds_records() {
    std::array<uint8_t, kMagic.size()> magic;
    const ssize_t count = pread(fd, magic.data(), magic.size(), 0);
    return count == 0 ||
           (count > 0 && std::memcmp(magic.data(), kMagic.data(), static_cast<size_t>(count)) == 0);
}

void open_file() {
    // Not blocking: a pipe that nobody reads is refused below, not waited for.
    fd = open(limits_.file, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0666);
    struct stat info {};
    if (fd < 0)
        give_up("cannot open the file", errno);
    else if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || !holds_records())
        give_up("this is no file of records", 0);
    else
        recording = true;
}

// Within the driver's first call, whose errno it leaves as it was.
void set_up() {
    const int error = errno;
    const char* const wrong = read_limits(limits_);
    if (!limits_.file)
        return;
    // A child goes on recording, and must not find the mutex taken by a thread that it does not have.
    pthread_atfork([] { pthread_mutex_lock(&mutex); }, [] { pthread_mutex_unlock(&mutex); },
                   [] { pthread_mutex_unlock(&mutex); });
    if (wrong)
        give_up(wrong, EINVAL);
    else
        open_file();
    errno = error;
}

// Writing beyond a file size limit raises a signal that would end the driver: it is held back and taken away,
// unless the driver itself holds it back.
class NoFileSizeSignal {
  public:
    NoFileSizeSignal() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &set_, &before_);
    }
    ~NoFileSizeSignal() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    NoFileSizeSignal(const NoFileSizeSignal&) = delete;

    void take_away() const {
        const timespec now{};
        if (!sigismember(&before_, SIGXFSZ))
            sigtimedwait(&set_, nullptr, &now);
    }

  private:
    sigset_t set_, before_;
};

// 0, or the reason. One write does it, but where a signal or a full disk cuts it short.
int write_all(const uint8_t* data, size_t size) {
    const NoFileSizeSignal held;
    while (size > 0) {
        const ssize_t count = write(fd, data, size);
        if (count > 0) {
            data += count;
            size -= static_cast<size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            const int reason = count == 0 ? ENOSPC : errno;
            if (reason == EFBIG)
                held.take_away();
            return reason;
        }
    }
    return 0;
}

}  // namespace

bool is_recording() {
    pthread_once(&once, set_up);
    return recording.load(std::memory_order_relaxed);
}

const Limits& limits() {
    return limits_;
}

void append(const void* data, size_t size) {
    pthread_mutex_lock(&mutex);
    const bool goes_on = recording && records < limits_.calls && size <= limits_.bytes - bytes;
    int reason = 0;
    if (goes_on) {
        reason = write_all(static_cast<const uint8_t*>(data), size);
        ++records;
        bytes += size;
    }
    if (!goes_on || records == limits_.calls)
        recording = false;
    pthread_mutex_unlock(&mutex);
    if (reason != 0)
        give_up("cannot write to the file", reason);
}

void give_up(const char* what, int reason) {
    recording = false;
    // Without a platform there is nobody to tell.
    if (has_warned.exchange(1) || !&g_log_lvl)
        return;
    KEL_LOG_WARN("KELRT_RECORD: %s: %s%s%s, recording stops", limits_.file, what, reason ? ": " : "",
                 reason ? std::strerror(reason) : "");
}

}  // namespace record
