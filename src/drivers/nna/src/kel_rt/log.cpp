// The parts of the log step that need no call site: time stamp, size limit, profiling lines.
#include "log.h"

#include <sys/time.h>

namespace kelrt {
namespace {

LogStamp now() {
    timeval time{};
    gettimeofday(&time, nullptr);
    // Widened with sign extension before they print as unsigned, whatever the width of time_t.
    return {static_cast<unsigned long long>(static_cast<long long>(time.tv_sec)),
            static_cast<unsigned long long>(static_cast<long long>(time.tv_usec))};
}

// The event class that the LSTM kernels report, and the category printed for it.
constexpr uint32_t kProfileEvent = 1;
constexpr const char* kProfileCategory = "lstmstates";

void profile_line(char sign, const char* attribute) {
    if (!tivIsProfileEvent(kProfileEvent))
        return;
    const LogStamp stamp = now();
    if (!tivIsProfileEvent(kProfileEvent))
        return;
    std::fprintf(stdout, "[%llu.%06llu]  NNA_PROFILE  |  <%s> NNA/ApiLayer %c, attr:%s\n", stamp.seconds,
                 stamp.microseconds, kProfileCategory, sign, attribute);
}

}  // namespace

LogStamp open_log_record(const char* path, int line) {
    const LogStamp stamp = now();
    const long position = std::ftell(stdout);
    if (position > g_log_file_max_size) {
        resetTivLogFile(position, g_log_file_max_size);
        std::fprintf(stdout, "[%llu.%06llu]   NNA_LOG_INFO  %-64s:%4d  | Log file truncated\n", stamp.seconds,
                     stamp.microseconds, path, line);
    }
    return stamp;
}

ProfileScope::ProfileScope(const char* attribute) : attribute_(attribute) {
    profile_line('+', attribute_);
}

ProfileScope::~ProfileScope() {
    profile_line('-', attribute_);
}

}  // namespace kelrt
