// The log step, byte for byte, and the order in which it touches clock, file position and streams.
#include <gtest/gtest.h>

#include <cstring>

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
};

std::string padded(std::string path) {
    path.resize(std::max<size_t>(path.size(), 64), ' ');
    return path;
}

TEST_F(LogTest, AnErrorLineIsWrittenAndMirroredByteForByte) {
    probe.time = {{7, 5}};
    kelRt_executeContext(nullptr, nullptr);
    const std::string text = probe.text();
    const std::string line = text.substr(text.find(':') + 1, 4);
    EXPECT_EQ(text,
              "[7.000005]  NNA_LOG_ERR  " + padded(kPath) + ":" + line + "  | Unexpected NULL context\n");
    ASSERT_EQ(probe.android.size(), 1u);
    EXPECT_EQ(probe.android[0],
              (probe::AndroidRecord{6, "NNA-Srvc",
                                    "  " + padded(kPath) + ":" + line + "  | Unexpected NULL context\n"}));
    EXPECT_EQ(probe.gettimeofday_calls, 1);
    EXPECT_EQ(probe.ftell_calls, 1);
}

TEST_F(LogTest, NegativeTimesAreSignExtended) {
    probe.time = {{-1, -2}};
    kelRt_executeContext(nullptr, nullptr);
    EXPECT_EQ(probe.text().rfind("[18446744073709551615.18446744073709551614]", 0), 0u) << probe.text();
}

TEST_F(LogTest, TheThresholdIsSignedAndASuppressedLineTouchesNothing) {
    rig::Rig rig;
    const std::vector<float> one = {1};
    const auto add = [&] { return rig.run(4, {rig::mem(0), rig::mem(0), rig::mem(0), rig::val(1)}); };
    rig.memory_of(one);
    struct {
        int32_t level;
        size_t debug_lines, error_lines;
    } cases[] = {{INT32_MIN, 2, 1}, {0, 2, 1}, {1, 0, 1}, {2, 0, 1}, {3, 0, 1}, {4, 0, 0}, {INT32_MAX, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.level);
        g_log_lvl = c.level;
        probe.clear();
        probe.position = 100;
        g_log_file_max_size = 100;  // at the limit: not over it
        probe.gettimeofday_calls = probe.ftell_calls = probe.reset_calls = 0;
        EXPECT_EQ(add(), NNA_STATUS_OK);
        EXPECT_EQ(probe.records().size(), c.debug_lines);
        for (const probe::Record& record : probe.records())
            EXPECT_EQ(record.level, "NNA_LOG_DEBUG");
        EXPECT_TRUE(probe.android.empty()) << "DEBUG lines stay on standard output";
        kelRt_executeContext(nullptr, nullptr);
        EXPECT_EQ(probe.records().size(), c.debug_lines + c.error_lines);
        EXPECT_EQ(probe.android.size(), c.error_lines);
        EXPECT_EQ(probe.gettimeofday_calls, static_cast<int>(c.debug_lines + c.error_lines));
        EXPECT_EQ(probe.ftell_calls, static_cast<int>(c.debug_lines + c.error_lines));
        EXPECT_EQ(probe.reset_calls, 0);
    }
}

TEST_F(LogTest, OnePastTheLimitTruncatesAndSaysSoUnderTheSameStamp) {
    probe.time = {{3, 999999}};
    g_log_file_max_size = 100;
    probe.position = 101;
    kelRt_executeContext(nullptr, nullptr);
    EXPECT_EQ(probe.reset_calls, 1);
    const std::string text = probe.text();
    const std::string line = text.substr(text.find(':') + 1, 4);
    EXPECT_EQ(text, "[3.999999]   NNA_LOG_INFO  " + padded(kPath) + ":" + line + "  | Log file truncated\n" +
                        "[3.999999]  NNA_LOG_ERR  " + padded(kPath) + ":" + line +
                        "  | Unexpected NULL context\n");
    EXPECT_EQ(probe.android.size(), 1u) << "the notice is not mirrored";

    // Over the limit, but nothing is to be written.
    g_log_lvl = 4;
    kelRt_executeContext(nullptr, nullptr);
    EXPECT_EQ(probe.reset_calls, 1);
    EXPECT_EQ(probe.text(), text);

    // The limit is signed: a failed ftell, -1, exceeds a negative one only.
    g_log_lvl = 3;
    probe.position = -1;
    kelRt_executeContext(nullptr, nullptr);
    EXPECT_EQ(probe.reset_calls, 1);
    g_log_file_max_size = -2;
    kelRt_executeContext(nullptr, nullptr);
    EXPECT_EQ(probe.reset_calls, 2);
}

}  // namespace
