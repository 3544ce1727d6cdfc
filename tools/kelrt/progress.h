// A bar that grows on the terminal while long work goes on.
#pragma once

#include <chrono>
#include <cstddef>

namespace tool {

// Drawn on standard error, if that is a terminal that can, once the work has taken half a second; gone when
// something else is to be shown, and at the end.
class Progress {
  public:
    explicit Progress(size_t total);
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void step();
    void clear();

  private:
    using Clock = std::chrono::steady_clock;

    void draw();

    const bool shown_;
    const size_t total_;
    size_t done_ = 0;
    Clock::time_point next_;
    bool drawn_ = false;
};

}  // namespace tool
