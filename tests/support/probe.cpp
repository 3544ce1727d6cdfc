// The interposed functions, and standard output as a file.
#include "probe.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "kelRt_platform.h"

namespace {
probe::Probe* current = nullptr;
}

#define INTERPOSE extern "C" __attribute__((visibility("default")))

INTERPOSE int gettimeofday(timeval* tv, void*) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    *tv = {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
    if (current) {
        ++current->gettimeofday_calls;
        if (current->at_gettimeofday)
            current->at_gettimeofday();
        if (current->time) {
            *tv = {current->time->seconds, static_cast<suseconds_t>(current->time->microseconds)};
            current->time->seconds += current->time_moves;
        }
    }
    return 0;
}

INTERPOSE long ftell(FILE* stream) {
    if (current && stream == stdout) {
        ++current->ftell_calls;
        if (current->position)
            return *current->position;
    }
    return static_cast<long>(ftello(stream));
}

INTERPOSE int32_t resetTivLogFile(long position, int32_t max_size) {
    if (current)
        current->resets.emplace_back(position, max_size);
    return 0;
}

INTERPOSE int32_t tivIsProfileEvent(uint32_t event) {
    if (!current)
        return 0;
    current->profile_questions.push_back(event);
    const size_t asked = current->profile_questions.size();
    return asked <= current->profile_answers.size() ? current->profile_answers[asked - 1] : 0;
}

INTERPOSE int __android_log_print(int priority, const char* tag, const char* format, ...) {
    char text[2048];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (current)
        current->android.push_back({priority, tag, text});
    return 1;
}

namespace probe {

Probe::Probe() : saved_level_(g_log_lvl) {
    std::fflush(stdout);
    saved_stdout_ = dup(STDOUT_FILENO);
    char name[] = "/tmp/kelrt-log-XXXXXX";
    const int file = mkstemp(name);
    unlink(name);
    dup2(file, STDOUT_FILENO);
    close(file);
    std::rewind(stdout);
    std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);  // as that of a service is, and not a terminal's
    g_log_lvl = 3;
    current = this;
}

Probe::~Probe() {
    current = nullptr;
    g_log_lvl = saved_level_;
    const std::string caught = testing::Test::HasFailure() ? text() : "";
    std::fflush(stdout);
    dup2(saved_stdout_, STDOUT_FILENO);
    close(saved_stdout_);
    std::fputs(caught.c_str(), stdout);  // googletest's own lines are among them
}

std::string Probe::text() const {
    std::fflush(stdout);
    std::string all(written(), '\0');
    EXPECT_EQ(pread(STDOUT_FILENO, all.data(), all.size(), 0), static_cast<ssize_t>(all.size()));
    return all;
}

size_t Probe::written() const {
    return static_cast<size_t>(lseek(STDOUT_FILENO, 0, SEEK_END));
}

void Probe::clear() {
    std::fflush(stdout);
    EXPECT_EQ(ftruncate(STDOUT_FILENO, 0), 0);
    std::rewind(stdout);
    android.clear();
}

std::vector<Record> Probe::records() const {
    std::vector<Record> records;
    const std::string all = text();
    for (size_t start = 0; start < all.size();) {
        const size_t end = std::min(all.find('\n', start), all.size());
        const std::string line = all.substr(start, end - start);
        start = end + 1;
        // "[stamp]  LEVEL  path padded to 64:line  | message"
        const size_t close = line.find("]  "), level_end = line.find("  ", close + 3);
        const size_t bar = line.find("  | "), colon = line.rfind(':', bar);
        if (line[0] != '[' || close == std::string::npos || level_end == std::string::npos ||
            bar == std::string::npos || colon == std::string::npos || colon - (level_end + 2) < 64) {
            ADD_FAILURE() << "not a log record: " << line;
            continue;
        }
        std::string path = line.substr(level_end + 2, colon - level_end - 2);
        path.erase(path.find_last_not_of(' ') + 1);
        records.push_back({line.substr(1, close - 1), line.substr(close + 3, level_end - close - 3), path,
                           line.substr(colon + 1, bar - colon - 1), line.substr(bar + 4)});
    }
    return records;
}

std::vector<std::string> Probe::messages() const {
    std::vector<std::string> messages;
    for (const Record& record : records())
        messages.push_back(record.message);
    return messages;
}

}  // namespace probe
