// The stopwatch, on a clock that stands where the test sets it.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <optional>

#include "kelRt.h"

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
    ~SimpleTimer() override { monotonic.reset(); }

    static void at(int64_t seconds, long nanoseconds = 0) {
        monotonic = timespec{static_cast<time_t>(seconds), nanoseconds};
    }
    struct Free {
        void operator()(simple_timer* made) const { EXPECT_EQ(deinit_simple_timer(made), 0); }
    };
    std::unique_ptr<simple_timer, Free> owner{init_simple_timer()};
    simple_timer* const timer = owner.get();

    void expect_statistics(uint32_t samples, uint64_t avg, uint64_t max, uint64_t min) const {
        EXPECT_EQ(simple_timer_getSamples(timer), samples);
        EXPECT_EQ(simple_timer_getAvg(timer), avg);
        EXPECT_EQ(simple_timer_getMax(timer), max);
        EXPECT_EQ(simple_timer_getMin(timer), min);
    }
};

TEST_F(SimpleTimer, AddsUpLapsIntoSamples) {
    expect_statistics(0, 0, 0, 0);
    at(10, 500);
    EXPECT_EQ(simple_timer_stop(timer), 0u) << "not running";
    EXPECT_EQ(simple_timer_start(timer), 0);
    at(10, 7500);
    EXPECT_EQ(simple_timer_get_elapsed_time(timer), 7u);
    EXPECT_EQ(simple_timer_stop(timer), 7u);
    EXPECT_EQ(simple_timer_stop(timer), 0u) << "no longer running";
    EXPECT_EQ(simple_timer_get_elapsed_time(timer), 0u);
    at(20);
    EXPECT_EQ(simple_timer_start(timer), 0);
    at(30);
    EXPECT_EQ(simple_timer_start(timer), 0) << "starts over; the ten seconds are lost";
    at(31);
    EXPECT_EQ(simple_timer_stop(timer), 1000000u);
    EXPECT_EQ(simple_timer_end_sample(timer), 1000007u);
    expect_statistics(1, 1000007, 1000007, 1000007);
    EXPECT_EQ(simple_timer_end_sample(timer), 0u) << "the next sample starts empty";
    expect_statistics(2, 500004, 1000007, 0);
}

TEST_F(SimpleTimer, EndTakesARunningLapAndEndSampleDropsIt) {
    at(1);
    simple_timer_start(timer);
    at(3);
    EXPECT_EQ(simple_timer_end(timer), 2000000u);
    EXPECT_EQ(simple_timer_end(timer), 0u);
    at(5);
    simple_timer_start(timer);
    at(6);
    simple_timer_stop(timer);
    simple_timer_start(timer);
    at(10);
    EXPECT_EQ(simple_timer_end_sample(timer), 1000000u);
    EXPECT_EQ(simple_timer_stop(timer), 0u) << "the lap ended with the sample";
    simple_timer_start(timer);
    at(11);
    EXPECT_EQ(simple_timer_set_sample(timer, 99), 0);
    EXPECT_EQ(simple_timer_getMax(timer), 2000000u);
    EXPECT_EQ(simple_timer_end(timer), 1000000u) << "a number handed in leaves the lap alone";
    simple_timer_start(timer);
    simple_timer_clear(timer);
    expect_statistics(0, 0, 0, 0);
    at(12);
    EXPECT_EQ(simple_timer_end(timer), 0u);
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
        {0, 5, 0, 1005, 1},  // running, as the nanoseconds say
        {0, 0, 9, 0, 0},     // the one instant at which a start does not run
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
    if (sizeof(time_t) > 4) {
        at((int64_t{1} << 32) + 5);
        simple_timer_start(timer);
        at((int64_t{3} << 32) + 7);
        EXPECT_EQ(simple_timer_stop(timer), 2000000u) << "the record keeps 32 bits of the seconds";
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
        EXPECT_EQ(simple_timer_set_sample(timer, step.sample), 0);
        expect_statistics(++count, step.avg, step.max, step.min);
    }
    simple_timer_clear(timer);
    simple_timer_set_sample(timer, 0);
    simple_timer_set_sample(timer, UINT64_MAX);  // 1 below 0, as the average sees it
    expect_statistics(2, 0, UINT64_MAX, UINT64_MAX);
    simple_timer_set_sample(timer, uint64_t{1} << 63);
    expect_statistics(3, static_cast<uint64_t>(INT64_MIN / 3), UINT64_MAX, uint64_t{1} << 63);
}

TEST_F(SimpleTimer, TheCountWrapsWithoutDividingByIt) {
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
    EXPECT_EQ(simple_timer_stop(nullptr), 0u);
    EXPECT_EQ(simple_timer_get_elapsed_time(nullptr), 0u);
    EXPECT_EQ(simple_timer_end_sample(nullptr), 0u);
    EXPECT_EQ(simple_timer_end(nullptr), 0u);
    EXPECT_EQ(simple_timer_getSamples(nullptr), 0u);
    EXPECT_EQ(simple_timer_getAvg(nullptr), 0u);
    EXPECT_EQ(simple_timer_getMax(nullptr), 0u);
    EXPECT_EQ(simple_timer_getMin(nullptr), 0u);
    simple_timer_clear(nullptr);
    EXPECT_EQ(clock_readings, 0);
}

}  // namespace
