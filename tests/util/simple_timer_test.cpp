// The stopwatch, on a clock that stands where the test sets it.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <optional>

#include "kelRt.h"
#include "support/heap.h"

namespace {

std::optional<timespec> monotonic;  // what CLOCK_MONOTONIC says; the real time if empty
int clock_readings = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t id, timespec* time) noexcept {
    if (id == CLOCK_MONOTONIC && monotonic) {
        ++clock_readings;
        *time = *monotonic;
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, id, time));
}

namespace {

class SimpleTimer : public testing::Test {
  protected:
    ~SimpleTimer() override {
        monotonic.reset();
        EXPECT_EQ(deinit_simple_timer(timer), 0);
        EXPECT_EQ(heap::blocks(), blocks) << "the record is freed";
    }
    static void at(int64_t seconds, long nanoseconds = 0) {
        monotonic = timespec{static_cast<time_t>(seconds), nanoseconds};
    }
    void expect_statistics(uint32_t samples, uint64_t avg, uint64_t max, uint64_t min) const {
        EXPECT_EQ(simple_timer_getSamples(timer), samples);
        EXPECT_EQ(simple_timer_getAvg(timer), avg);
        EXPECT_EQ(simple_timer_getMax(timer), max);
        EXPECT_EQ(simple_timer_getMin(timer), min);
    }

    const size_t blocks = heap::blocks();
    simple_timer* const timer = init_simple_timer();
};

uint64_t start(simple_timer* timer) {
    return static_cast<uint64_t>(simple_timer_start(timer));
}
uint64_t elapsed(simple_timer* timer) {
    return simple_timer_get_elapsed_time(timer);
}
uint64_t set_99(simple_timer* timer) {
    return static_cast<uint64_t>(simple_timer_set_sample(timer, 99));
}
uint64_t clear(simple_timer* timer) {
    simple_timer_clear(timer);
    return 0;
}
constexpr auto stop = simple_timer_stop, end_sample = simple_timer_end_sample, end = simple_timer_end;

TEST_F(SimpleTimer, AddsUpLapsIntoSamples) {
    expect_statistics(0, 0, 0, 0);
    const struct {
        int64_t milliseconds;
        uint64_t (*call)(simple_timer*);
        uint64_t result;  // in microseconds
    } steps[] = {
        {10, stop, 0},  // not running
        {10, start, 0},   {17, elapsed, 7000},    {17, stop, 7000},
        {18, stop, 0},                                                  // no longer running
        {18, elapsed, 0}, {20, start, 0},         {30, start, 0},       // starts over; ten are lost
        {31, stop, 1000}, {31, end_sample, 8000}, {32, end_sample, 0},  // the next sample starts empty
        {40, start, 0},   {43, end, 3000},                              // takes the running lap,
        {44, end, 0},     {50, start, 0},         {51, stop, 1000},
        {51, start, 0},   {60, end_sample, 1000},  // which this one drops
        {61, stop, 0},    {70, start, 0},         {72, stop, 2000},
        {72, start, 0},   {73, set_99, 0},  // leaves the open sample and the lap alone
        {75, end, 5000},  {80, start, 0},         {81, stop, 1000},
        {81, start, 0},   {82, clear, 0},  // drops both
        {83, end, 0},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.milliseconds);
        at(1, static_cast<long>(step.milliseconds) * 1000000);
        EXPECT_EQ(step.call(timer), step.result);
    }
    expect_statistics(1, 0, 0, 0);  // those of before are gone with the clearing
}

TEST_F(SimpleTimer, ElapsedTimeWrapsAndTruncatesByField) {
    constexpr int64_t k31 = int64_t{1} << 31;
    const struct {
        int64_t from_seconds;
        long from_nanoseconds;
        int64_t to_seconds;
        long to_nanoseconds;
        int64_t elapsed;
    } cases[] = {
        {1, 0, 1, 999, 0},
        {1, 900, 2, 0, 1000000},         // -900 / 1000 is 0
        {1, 1500, 2, 0, 999999},         // -1500 / 1000 is -1
        {1, 999999999, 2, 0, 1},         // -999999999 / 1000 is -999999
        {5, 0, 4, 0, -1000000},          // a clock that goes back
        {k31 - 1, 0, -k31, 0, 1000000},  // seconds wrap at 32 bits
        {-1, 0, 1, 0, 2000000},
        {-k31, 1000, k31 - 1, 2000, -999999},
        {0, 5, 0, 1005, 1},                  // running, as the nanoseconds say
        {1, -1000000000, 1, 1000, 1000001},  // so do nanoseconds, of which no clock has as many
        {0, 0, 9, 0, 0},                     // the one instant at which a start does not run
        // The record keeps 32 bits of the seconds, also where the clock has more.
        {(int64_t{1} << 32) + 5, 0, (int64_t{3} << 32) + 7, 0, 2000000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.from_seconds << "." << c.from_nanoseconds << " to "
                                        << c.to_seconds << "." << c.to_nanoseconds);
        at(c.from_seconds, c.from_nanoseconds);
        simple_timer_start(timer);
        at(c.to_seconds, c.to_nanoseconds);
        EXPECT_EQ(simple_timer_get_elapsed_time(timer), static_cast<uint64_t>(c.elapsed));
        EXPECT_EQ(simple_timer_stop(timer), static_cast<uint64_t>(c.elapsed));
    }
}

TEST_F(SimpleTimer, Statistics) {
    const struct {
        uint64_t sample, avg, max, min;
    } steps[] = {
        {10, 10, 10, 10}, {30, 20, 30, 10}, {0, 14, 30, 0}, {5, 12, 30, 5}, {5, 11, 30, 5}, {6, 11, 30, 5},
    };
    uint32_t count = 0;
    for (const auto& step : steps) {
        SCOPED_TRACE(count);
        simple_timer_set_sample(timer, step.sample);
        expect_statistics(++count, step.avg, step.max, step.min);
    }
    simple_timer_clear(timer);
    simple_timer_set_sample(timer, 0);
    simple_timer_set_sample(timer, UINT64_MAX);  // 1 below 0, as the average sees it
    expect_statistics(2, 0, UINT64_MAX, UINT64_MAX);
    simple_timer_set_sample(timer, uint64_t{1} << 63);
    expect_statistics(3, static_cast<uint64_t>(INT64_MIN / 3), UINT64_MAX, uint64_t{1} << 63);

    // The count wraps, and nothing is divided by it.
    simple_timer_clear(timer);
    simple_timer_set_sample(timer, 40);
    const uint32_t most = UINT32_MAX;
    std::memcpy(reinterpret_cast<char*>(timer) + 32, &most, 4);  // behind max, min, avg and start
    ASSERT_EQ(simple_timer_getSamples(timer), most);
    simple_timer_set_sample(timer, 50);
    expect_statistics(0, 40, 50, 40);
}

TEST_F(SimpleTimer, TakesNullEverywhereWithoutReadingTheClock) {
    at(1);
    clock_readings = 0;
    EXPECT_EQ(deinit_simple_timer(nullptr), -1);
    EXPECT_EQ(simple_timer_start(nullptr), -1);
    EXPECT_EQ(simple_timer_set_sample(nullptr, 1), -1);
    for (const auto number : {stop, elapsed, end_sample, end, clear})
        EXPECT_EQ(number(nullptr), 0u);
    EXPECT_EQ(simple_timer_getSamples(nullptr), 0u);
    for (const auto statistic : {simple_timer_getAvg, simple_timer_getMax, simple_timer_getMin})
        EXPECT_EQ(statistic(nullptr), 0u);
    EXPECT_EQ(clock_readings, 0);
}

}  // namespace
