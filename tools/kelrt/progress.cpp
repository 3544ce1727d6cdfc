// Ten drawings a second at most, so that a million quick contexts stay quick.
#include "progress.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace tool {
namespace {

constexpr size_t kColumns = 30;
constexpr auto kPause = std::chrono::milliseconds(100), kPatience = std::chrono::milliseconds(500);

bool is_terminal() {
    const char* const name = std::getenv("TERM");
    return isatty(STDERR_FILENO) && name && *name && std::string_view(name) != "dumb";
}

}  // namespace

Progress::Progress(size_t total)
    : shown_(is_terminal() && total > 1), total_(total), next_(Clock::now() + kPatience) {}

void Progress::step() {
    ++done_;
    if (shown_ && Clock::now() >= next_)
        draw();
}

void Progress::draw() {
    const size_t filled = kColumns * done_ / total_;
    std::fprintf(stderr, "\r[%s%s] %zu of %zu", std::string(filled, '#').c_str(),
                 std::string(kColumns - filled, '.').c_str(), done_, total_);
    drawn_ = true;
    next_ = Clock::now() + kPause;
}

void Progress::clear() {
    if (drawn_)
        std::fprintf(stderr, "\r\033[K");
    drawn_ = false;
}

}  // namespace tool
