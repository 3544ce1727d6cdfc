// What the library calls of the platform's logging and the C library, caught in the test program: a program's
// own definitions come before those of any shared library. Standard output goes to a file while a probe
// lives.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelRt_platform.h"

namespace probe {

// One record of the log, taken apart. `stamp` is "seconds.microseconds".
struct Record {
    std::string stamp, level, path, line, message;
    bool operator==(const Record&) const = default;
};

struct AndroidRecord {
    int priority;
    std::string tag, text;
    bool operator==(const AndroidRecord&) const = default;
};

struct Time {
    long seconds, microseconds;
};

class Probe {
  public:
    Probe();  // sets g_log_lvl to 3 and puts it back at the end
    ~Probe();

    std::string text() const;             // all of standard output so far
    std::vector<Record> records() const;  // its lines; a line that is not a record fails the test
    std::vector<std::string> messages() const;
    void clear();
    size_t written() const;  // bytes of standard output that have left the stream's buffer

    std::vector<AndroidRecord> android;
    int gettimeofday_calls = 0;
    int ftell_calls = 0;
    std::vector<std::pair<long, int32_t>> resets;  // arguments of resetTivLogFile
    std::function<void()> at_gettimeofday;         // called whenever the library asks for the time
    bool time_moves = false;                       // by a second an answer
    std::optional<Time> time;                      // what gettimeofday says; the real time if empty
    std::optional<long> position;                  // what ftell(stdout) says; the real position if empty
    std::vector<int> profile_answers;              // what tivIsProfileEvent answers, in order; then 0
    std::vector<uint32_t> profile_questions;

  private:
    int saved_stdout_;
    int32_t saved_level_;
};

}  // namespace probe
