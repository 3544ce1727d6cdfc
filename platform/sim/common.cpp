// libtiv_common of the simulated accelerator: log threshold and limit, truncation of the log, profiling
// switches.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "kelRt_platform.h"
#include "nna_sim.h"

// Warnings and errors, and the highest limit that there is, until somebody says otherwise.
int32_t g_log_lvl = 2;
int32_t g_log_file_max_size = INT32_MAX;

namespace {

std::atomic<uint32_t> profile_events = 0;

// The file that nna_sim_begin_log began; locked with standard output.
struct stat begun_log;
bool has_begun_log = false;

// Holds standard output against other threads' lines.
struct HeldStdout {
    HeldStdout() { flockfile(stdout); }
    ~HeldStdout() { funlockfile(stdout); }
    HeldStdout(const HeldStdout&) = delete;
    HeldStdout& operator=(const HeldStdout&) = delete;
};

bool is_begun_log(int fd) {
    struct stat info {};
    return has_begun_log && fstat(fd, &info) == 0 && info.st_dev == begun_log.st_dev &&
           info.st_ino == begun_log.st_ino;
}

}  // namespace

int32_t nna_sim_begin_log(const char* path, int32_t max_size) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return -1;
    const HeldStdout held;
    std::fflush(stdout);
    const int out = fileno(stdout);
    struct stat info {};
    const bool begun = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && dup2(fd, out) >= 0;
    if (fd != out)
        close(fd);
    if (!begun)
        return -1;
    begun_log = info;
    has_begun_log = true;
    std::rewind(stdout);
    g_log_file_max_size = max_size;
    return 0;
}

void nna_sim_set_profile_events(uint32_t mask) {
    profile_events = mask;
}

int32_t tivIsProfileEvent(uint32_t event) {
    return event < 32 && (profile_events >> event & 1) != 0;
}

// Empties the log that the simulator began. Whatever else is behind standard output belongs to somebody else,
// even a file that grows past the limit: -1, and no harm.
int32_t resetTivLogFile(long, int32_t) {
    const HeldStdout held;
    const int fd = fileno(stdout);
    if (!is_begun_log(fd))
        return -1;
    std::fflush(stdout);
    if (ftruncate(fd, 0) != 0)
        return -1;
    std::rewind(stdout);
    return 0;
}
