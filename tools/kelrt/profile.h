// Where the time of many contexts goes: by operator as a table or as JSON, call by call as a trace.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "job.h"
#include "json_writer.h"
#include "operators.h"
#include "options.h"
#include "times.h"

namespace tool {

class Profile {
  public:
    // With `traced`, each call is kept for the trace.
    explicit Profile(bool traced) : traced_(traced) {}

    // A call that took so long and has just ended.
    void add(const Context& context, size_t index, double microseconds);

    // Call these when everything has run: a memory copy is measured to compare with.
    void print();
    void write(JsonWriter& json);
    // Chrome's trace event format: one complete event ("X") per call.
    std::string trace() const;

  private:
    using Clock = std::chrono::steady_clock;

    struct Row {
        Times times;
        uint64_t bytes = 0;  // touched by all calls
    };
    struct Call {
        double begin, microseconds;
        size_t index, row;
        uint64_t bytes;
        std::string label;
    };

    double total() const;

    static constexpr size_t kOthers = KEL_RT_NUM_OPS;  // contexts that the catalogue does not know
    // A trace of more than this is more than the viewers show.
    static constexpr size_t kMaxCalls = 1000000;

    double copy_speed();

    const bool traced_;
    const Clock::time_point start_ = Clock::now();
    std::array<Row, KEL_RT_NUM_OPS + 1> rows_;
    std::vector<Call> calls_;
    double copy_speed_ = 0;
};

// Ends a report inside its outermost object, with the profile if that is asked for, and writes the files that
// are.
void write_results(const Options& options, JsonWriter& report, Profile& profile);

}  // namespace tool
