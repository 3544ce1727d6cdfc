// The stopwatch: accumulates the time between starts and stops into samples, and keeps count, running
// average, maximum and minimum of the samples closed so far. Microseconds throughout.
#include <cstdlib>
#include <ctime>

#include "kelRt.h"

namespace {

// Seconds and nanoseconds in 32 bits each, also where the clock has more. All zero: not running.
struct Instant {
    uint32_t seconds, nanoseconds;
};

}  // namespace

struct simple_timer {
    uint64_t max, min, avg;  // min 0: no sample yet
    Instant start;
    uint32_t samples;
    uint64_t accumulated;  // of the sample that is still open
};

namespace {

Instant now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return {static_cast<uint32_t>(time.tv_sec), static_cast<uint32_t>(time.tv_nsec)};
}

bool running(const simple_timer& timer) {
    return timer.start.seconds != 0 || timer.start.nanoseconds != 0;
}

// Each field's difference wraps at 32 bits and is signed. The nanoseconds round toward zero on their own, so
// a sum of laps can differ from the whole by a microsecond each.
uint64_t elapsed(const simple_timer& timer) {
    if (!running(timer))
        return 0;
    const Instant end = now();
    const auto seconds = static_cast<int32_t>(end.seconds - timer.start.seconds);
    const auto nanoseconds = static_cast<int32_t>(end.nanoseconds - timer.start.nanoseconds);
    return static_cast<uint64_t>(int64_t{seconds} * 1000000 + nanoseconds / 1000);
}

void close_sample(simple_timer& timer, uint64_t sample) {
    ++timer.samples;
    // Modulo 2^64, read as signed: a sample below the average lowers it. The count wraps to 0 after 2^32
    // samples, and nothing is divided by that.
    const auto difference = static_cast<int64_t>(sample - timer.avg);
    if (timer.samples != 0)
        timer.avg += static_cast<uint64_t>(difference / int64_t{timer.samples});
    if (timer.max < sample)
        timer.max = sample;
    // 0 stands for unset and wraps to the largest value here, so a true minimum of 0 gives way to the next
    // sample, on purpose.
    if (timer.min - 1 >= sample)
        timer.min = sample;
}

}  // namespace

simple_timer* init_simple_timer(void) {
    return static_cast<simple_timer*>(std::calloc(1, sizeof(simple_timer)));
}

int32_t deinit_simple_timer(simple_timer* timer) {
    if (!timer)
        return -1;
    std::free(timer);
    return 0;
}

int32_t simple_timer_start(simple_timer* timer) {
    if (!timer)
        return -1;
    timer->start = now();
    return 0;
}

uint64_t simple_timer_stop(simple_timer* timer) {
    if (!timer)
        return 0;
    const uint64_t lap = elapsed(*timer);
    timer->start = {};
    timer->accumulated += lap;
    return lap;
}

uint64_t simple_timer_get_elapsed_time(const simple_timer* timer) {
    return timer ? elapsed(*timer) : 0;
}

int32_t simple_timer_set_sample(simple_timer* timer, uint64_t sample) {
    if (!timer)
        return -1;
    close_sample(*timer, sample);
    return 0;
}

uint64_t simple_timer_end_sample(simple_timer* timer) {
    if (!timer)
        return 0;
    const uint64_t sample = timer->accumulated;
    close_sample(*timer, sample);
    timer->accumulated = 0;
    timer->start = {};
    return sample;
}

uint64_t simple_timer_end(simple_timer* timer) {
    simple_timer_stop(timer);
    return simple_timer_end_sample(timer);
}

uint32_t simple_timer_getSamples(const simple_timer* timer) {
    return timer ? timer->samples : 0;
}

uint64_t simple_timer_getAvg(const simple_timer* timer) {
    return timer ? timer->avg : 0;
}

uint64_t simple_timer_getMax(const simple_timer* timer) {
    return timer ? timer->max : 0;
}

uint64_t simple_timer_getMin(const simple_timer* timer) {
    return timer ? timer->min : 0;
}

void simple_timer_clear(simple_timer* timer) {
    if (timer)
        *timer = {};
}
