// The log step: every diagnostic of the library is one KEL_LOG_... line, written out at its call site. And
// the profiling lines, which are a separate kind: no threshold, no size limit, no Android copy.
#pragma once

#include <cstdint>
#include <cstdio>

#include "kelRt_platform.h"

namespace kelrt {

enum class LogLevel : int32_t { Debug = 0, Info = 1, Warn = 2, Err = 3 };

struct LogStamp {
    unsigned long long seconds;
    unsigned long long microseconds;
};

// Stamps a record and keeps the log file under its limit; called once the threshold has let the record pass.
// Writes the truncation notice, under the record's own stamp, path and line, when the file had to be cut.
LogStamp open_log_record(const char* path, int line);

[[gnu::always_inline]] inline bool log_admits(LogLevel level) {
    return g_log_lvl <= static_cast<int32_t>(level);
}

// Writes the profiling line of `attribute` when it is made and when it goes out of scope. Each end asks the
// platform twice, before and after it takes the time; a question answered no is not asked again.
class ProfileScope {
  public:
    explicit ProfileScope(const char* attribute);
    ~ProfileScope();
    ProfileScope(const ProfileScope&) = delete;
    ProfileScope& operator=(const ProfileScope&) = delete;

  private:
    const char* attribute_;
};

}  // namespace kelrt

// The threshold comes first and a suppressed record touches nothing else: no clock, no file position. `end`
// is the newline of the record, or nothing. One fprintf a record, so that records of concurrent callers do
// not mix within a line; never flushed. WARN and ERR are mirrored to the Android log without stamp and level.
#define KEL_LOG_STEP(level, end, format, ...)                                                                \
    do {                                                                                                     \
        if (::kelrt::log_admits(::kelrt::LogLevel::level)) [[unlikely]] {                                    \
            [](auto... kel_args) __attribute__((cold, noinline)) {                                           \
                const ::kelrt::LogStamp kel_stamp = ::kelrt::open_log_record(__FILE__, __LINE__);            \
                std::fprintf(stdout, "[%llu.%06llu]  %9s  %-64s:%4d  | " format end, kel_stamp.seconds,      \
                             kel_stamp.microseconds, KEL_LOG_NAME_##level, __FILE__, __LINE__, kel_args...); \
                if constexpr (::kelrt::LogLevel::level >= ::kelrt::LogLevel::Warn) {                         \
                    __android_log_print(::kelrt::LogLevel::level == ::kelrt::LogLevel::Warn ? 5 : 6,         \
                                        "NNA-Srvc", "  %-64s:%4d  | " format "\n", __FILE__, __LINE__,       \
                                        kel_args...);                                                        \
                }                                                                                            \
            }                                                                                                \
            (__VA_ARGS__);                                                                                   \
        }                                                                                                    \
    } while (0)

#define KEL_LOG_NAME_Debug "NNA_LOG_DEBUG"
#define KEL_LOG_NAME_Warn "NNA_LOG_WARN"
#define KEL_LOG_NAME_Err "NNA_LOG_ERR"

#define KEL_LOG_DEBUG(...) KEL_LOG_STEP(Debug, "\n", __VA_ARGS__)
#define KEL_LOG_WARN(...) KEL_LOG_STEP(Warn, "\n", __VA_ARGS__)
#define KEL_LOG_ERR(...) KEL_LOG_STEP(Err, "\n", __VA_ARGS__)

// A record with no line break, so that what follows shares its physical line.
#define KEL_LOG_DEBUG_OPEN_LINE(...) KEL_LOG_STEP(Debug, "", __VA_ARGS__)
