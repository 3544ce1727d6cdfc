// libtiv_common of the simulated accelerator: log threshold and limit, truncation of the log, profiling
// switches.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "kelRt_platform.h"
#include "nna_sim.h"

// Warnings and errors, and a log that is never cut, until somebody says otherwise.
int32_t g_log_lvl = 2;
int32_t g_log_file_max_size = INT32_MAX;

namespace {
uint32_t profile_events = 0;
}

void nna_sim_set_profile_events(uint32_t mask) {
    profile_events = mask;
}

int32_t tivIsProfileEvent(uint32_t event) {
    return event < 32 && (profile_events >> event & 1) != 0;
}

// Empties the log when standard output is a file. A terminal or a pipe has nothing to truncate: -1, and no
// harm.
int32_t resetTivLogFile(long, int32_t) {
    const int fd = fileno(stdout);
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))
        return -1;
    std::fflush(stdout);
    if (ftruncate(fd, 0) != 0)
        return -1;
    std::rewind(stdout);
    return 0;
}
