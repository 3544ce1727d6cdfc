// The log step, byte for byte, and the order in which it touches clock, file position and streams.
#include <gtest/gtest.h>

#include "kelRt.h"
#include "kelRt_platform.h"
#include "support/probe.h"
#include "support/rig.h"

namespace {

constexpr char kPath[] = "src/drivers/nna/src/kel_rt/kel_rt.cpp";

struct LogTest : testing::Test {
    probe::Probe probe;
    const int32_t saved_max_size = g_log_file_max_size;
    ~LogTest() override { g_log_file_max_size = saved_max_size; }

    // Logs one error; returns its place in the source, padded, as all its records show it.
    std::string log_error() {
        kelRt_executeContext(nullptr, nullptr);
        std::string path = kPath;
        path.resize(64, ' ');
        const std::string text = probe.text();
        return path + ":" + text.substr(text.find(':') + 1, 4) + "  | ";
    }
};

TEST_F(LogTest, AnErrorLineIsWrittenAndMirroredByteForByte) {
    probe.time = {{7, 5}};
    probe.time_moves = true;
    kelRt_executeContext(nullptr, nullptr);
    EXPECT_EQ(probe.written(), 0u) << "never flushed";
    probe.clear();
    const std::string place = log_error();
    EXPECT_EQ(probe.text(), "[8.000005]  NNA_LOG_ERR  " + place + "Unexpected NULL context\n");
    EXPECT_EQ(
        probe.android,
        (std::vector<probe::AndroidRecord>{{6, "NNA-Srvc", "  " + place + "Unexpected NULL context\n"}}));
    EXPECT_EQ(probe.gettimeofday_calls, 2);
    EXPECT_EQ(probe.ftell_calls, 2);
}

TEST_F(LogTest, NegativeTimesAreSignExtended) {
    probe.time = {{-1, -2}};
    log_error();
    EXPECT_EQ(probe.text().rfind("[18446744073709551615.18446744073709551614]", 0), 0u) << probe.text();
}

TEST_F(LogTest, TheThresholdIsSignedAndASuppressedLineTouchesNothing) {
    rig::Rig rig;
    rig.memory_of(std::vector<float>{1});
    const struct {
        int32_t level;
        size_t debug_lines, error_lines;
    } cases[] = {{INT32_MIN, 2, 1}, {0, 2, 1}, {1, 0, 1}, {2, 0, 1}, {3, 0, 1}, {4, 0, 0}, {INT32_MAX, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.level);
        g_log_lvl = c.level;
        probe.clear();
        probe.position = g_log_file_max_size = 100;  // at the limit: not over it
        probe.gettimeofday_calls = probe.ftell_calls = 0;
        EXPECT_EQ(rig.run(4, {rig::mem(0), rig::mem(0), rig::mem(0), rig::val(1)}), NNA_STATUS_OK);
        EXPECT_EQ(probe.records().size(), c.debug_lines);
        EXPECT_TRUE(probe.android.empty()) << "DEBUG lines stay on standard output";
        kelRt_executeContext(nullptr, nullptr);
        EXPECT_EQ(probe.records().size(), c.debug_lines + c.error_lines);
        EXPECT_EQ(probe.android.size(), c.error_lines);
        EXPECT_EQ(probe.gettimeofday_calls, static_cast<int>(c.debug_lines + c.error_lines));
        EXPECT_EQ(probe.ftell_calls, static_cast<int>(c.debug_lines + c.error_lines));
        EXPECT_TRUE(probe.resets.empty());
    }
}

TEST_F(LogTest, OnePastTheLimitTruncatesAndSaysSoUnderTheSameStamp) {
    probe.time = {{3, 999999}};
    probe.time_moves = true;
    g_log_file_max_size = 100;
    probe.position = 101;
    const std::string place = log_error();
    EXPECT_EQ(probe.resets, (std::vector<std::pair<long, int32_t>>{{101, 100}}));
    EXPECT_EQ(probe.text(), "[3.999999]   NNA_LOG_INFO  " + place + "Log file truncated\n" +
                                "[3.999999]  NNA_LOG_ERR  " + place + "Unexpected NULL context\n");
    EXPECT_EQ(probe.android.size(), 1u) << "the notice is not mirrored";

    // Over the limit with nothing to write; and the limit is signed: a failed ftell, -1, exceeds a negative
    // one only.
    const struct {
        int32_t level, limit;
        long position;
        size_t resets;
    } cases[] = {{4, 100, 101, 1}, {3, 100, -1, 1}, {3, -2, -1, 2}};
    for (const auto& c : cases) {
        g_log_lvl = c.level;
        g_log_file_max_size = c.limit;
        probe.position = c.position;
        log_error();
        EXPECT_EQ(probe.resets.size(), c.resets) << c.limit << ' ' << c.position;
    }
}

}  // namespace
