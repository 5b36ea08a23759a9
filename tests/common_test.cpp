// SPDX-License-Identifier: MIT
#include "internal/common.h"

#include <gtest/gtest.h>
#include <regex.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace
{

constexpr const char* kSwitch = "debug_hdmiplayer_common_test";

int value_of(const char* text)
{
    setenv(kSwitch, text, 1);
    return env_get_value(kSwitch, 7);
}

bool matches(const std::string& text, const std::string& extended_regex)
{
    regex_t compiled = {};
    if (regcomp(&compiled, ("^" + extended_regex + "$").c_str(), REG_EXTENDED | REG_NOSUB) != 0)
        return false;
    const bool match = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return match;
}

std::string content_of(const char* file)
{
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A directory of its own as the working directory, for the dump files.
class CommonDump : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NE(getcwd(home_, sizeof(home_)), nullptr);
        ASSERT_NE(mkdtemp(dir_), nullptr);
        ASSERT_EQ(chdir(dir_), 0);
    }
    void TearDown() override
    {
        unsetenv("debug_hdmiplayer_dump_write_pcm");
        unsetenv("debug_hdmiplayer_dump_read_pcm");
        unlink("dump_hdmiplayer_write.pcm");
        unlink("dump_hdmiplayer_read.pcm");
        ASSERT_EQ(chdir(home_), 0);
        rmdir(dir_);
    }

    char dir_[32] = "/tmp/common_test_XXXXXX";
    char home_[PATH_MAX] = {};
    uint8_t block_[4] = {1, 2, 3, 4};
};

} // namespace

TEST(CommonEnv, SwitchesTakeUpToTenDecimalDigitsAndNothingElse)
{
    EXPECT_EQ(value_of("0"), 0);
    EXPECT_EQ(value_of("42"), 42);
    EXPECT_EQ(value_of("0000000005"), 5);
    EXPECT_EQ(value_of("2147483647"), INT_MAX);
    EXPECT_EQ(value_of("2147483648"), INT_MAX);
    EXPECT_EQ(value_of("9999999999"), INT_MAX);
    EXPECT_EQ(value_of(""), 0);

    for (const char* malformed : {"00000000005", "-1", "+1", " 1", "1 ", "0x1", "1a", "on", "1.5", "\xb2"})
        EXPECT_EQ(value_of(malformed), 7) << malformed;

    unsetenv(kSwitch);
    EXPECT_EQ(env_get_value(kSwitch, 7), 7);
    EXPECT_EQ(env_get_value(nullptr, 7), 7);
}

TEST(CommonEnv, TextsOfLessThanTwoCharactersCountAsUnset)
{
    setenv(kSwitch, "/t", 1);
    const std::unique_ptr<char, void (*)(void*)> text(env_get_string(kSwitch), free);
    ASSERT_NE(text, nullptr);
    setenv(kSwitch, "changed", 1);
    EXPECT_STREQ(text.get(), "/t") << "not a copy";

    setenv(kSwitch, "/", 1);
    EXPECT_EQ(env_get_string(kSwitch), nullptr);
    setenv(kSwitch, "", 1);
    EXPECT_EQ(env_get_string(kSwitch), nullptr);
    unsetenv(kSwitch);
    EXPECT_EQ(env_get_string(kSwitch), nullptr);
    EXPECT_EQ(env_get_string(nullptr), nullptr);
}

TEST(CommonLog, RecordHasColourTimeThreadAndTitleAndAddsNoLineBreak)
{
    const struct {
        loglevel_e level;
        const char* colour;
        const char* title;
    } rows[] = {{LOG_LEVEL_E, "\033\\[0;31m", "E"}, {LOG_LEVEL_W, "\033\\[0;33m", "W"},
                {LOG_LEVEL_I, "\033\\[0;32m", "I"}, {LOG_LEVEL_D, "\033\\[0m", "D"},
                {LOG_LEVEL_V, "\033\\[0m", "V"},    {LOG_LEVEL_N, "\033\\[0m", "V"}};
    for (const auto& row : rows) {
        // The level switch does not matter here: the caller decides.
        const std::string text = logged("0", [&] { console_print(row.level, "%s-%d", "text", 3); });
        const std::string expected = std::string(row.colour) + "\\[[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}\\] " +
                                     std::to_string(syscall(SYS_gettid)) + " " + row.title + " text-3\033\\[0m";
        EXPECT_TRUE(matches(text, expected)) << text;
    }
}

TEST(CommonLog, LevelIsReadAtEveryMessageAndGuardsTheArguments)
{
    int evaluated = 0;
    const auto all = [&evaluated] {
        log_e("%d", ++evaluated);
        log_w("%d", ++evaluated);
        log_i("%d", ++evaluated);
        log_d("%d", ++evaluated);
        log_v("%d", ++evaluated);
    };
    const struct {
        const char* level;
        int messages;
    } rows[] = {{"0", 0}, {"", 0}, {"1", 1}, {"3", 3}, {"5", 5}, {"9", 5}, {"-1", 2}, {"verbose", 2}};
    for (const auto& row : rows) {
        evaluated = 0;
        EXPECT_EQ(occurrences(logged(row.level, all), "\033[0m"),
                  row.messages + (row.messages > 3 ? row.messages - 3 : 0))
            << row.level;
        EXPECT_EQ(evaluated, row.messages) << row.level;
    }
    EXPECT_FALSE(log_enabled(LOG_LEVEL_I)) << "the default is warnings";
    EXPECT_TRUE(log_enabled(LOG_LEVEL_W));
}

TEST(CommonLog, RecordsOfDifferentThreadsDoNotInterleave)
{
    constexpr int kThreads = 4;
    constexpr int kRecords = 500;
    const std::string text = logged("2", [] {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([] {
                for (int n = 0; n < kRecords; ++n)
                    console_print(LOG_LEVEL_E, "%s%s", "begin ", "end\n");
            });
        }
        for (std::thread& thread : threads)
            thread.join();
    });
    EXPECT_EQ(occurrences(text, " E begin end\n\033[0m\033[0;31m["), kThreads * kRecords - 1);
}

TEST(CommonTime, DeadlinesCarryNanosecondsIntoSeconds)
{
    const struct timespec late = timespec_add_us({10, 600000000}, 1500000);
    EXPECT_EQ(late.tv_sec, 12);
    EXPECT_EQ(late.tv_nsec, 100000000);
    const struct timespec exact = timespec_add_us({10, 999999000}, 1);
    EXPECT_EQ(exact.tv_sec, 11);
    EXPECT_EQ(exact.tv_nsec, 0);
    const struct timespec below = timespec_add_us({10, 999998999}, 1);
    EXPECT_EQ(below.tv_sec, 10);
    EXPECT_EQ(below.tv_nsec, 999999999);

    // Longest interval in ms, which does not fit 32 bits of microseconds.
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const struct timespec longest = get_cond_timeout_ms(UINT32_MAX);
    EXPECT_GE(longest.tv_sec - now.tv_sec, 4294967);
    EXPECT_LE(longest.tv_sec - now.tv_sec, 4294967 + 60);
    const struct timespec us = get_cond_timeout_us(5000000);
    EXPECT_GE(us.tv_sec - now.tv_sec, 5);
    EXPECT_LE(us.tv_sec - now.tv_sec, 65);
}

TEST(CommonTime, ClocksAgreeOnTheirUnits)
{
    const uint64_t before_us = get_system_time_us();
    const uint64_t realtime_ns = system_time(CLOCK_REALTIME);
    const uint64_t after_us = get_system_time_us();
    EXPECT_LE(before_us, realtime_ns / 1000);
    EXPECT_GE(after_us, realtime_ns / 1000);
}

TEST(CommonAudio, PeriodFollowsTheRate)
{
    EXPECT_EQ(convert_sample_rate_to_frames(44100), 896);
    for (int rate : {8000, 16000, 32000, 48000})
        EXPECT_EQ(convert_sample_rate_to_frames(rate), 960) << rate;
    for (int rate : {0, -1, 11025, 22050, 96000, 192000})
        EXPECT_EQ(convert_sample_rate_to_frames(rate), 1024) << rate;
}

TEST_F(CommonDump, BlocksAreAppendedWhileTheSwitchIsOn)
{
    dump_pcm_write(block_, 4);
    EXPECT_NE(access("dump_hdmiplayer_write.pcm", F_OK), 0);

    setenv("debug_hdmiplayer_dump_write_pcm", "1", 1);
    EXPECT_EQ(logged("4", [this] { dump_pcm_write(block_, 4); }), "");
    const std::string text = logged("5", [this] { dump_pcm_write(block_, 2); });
    EXPECT_NE(text.find("[dump_pcm_write "), std::string::npos) << text;
    EXPECT_NE(text.find("] fwrite(dump_hdmiplayer_write.pcm) size:2 ret:1\033[0m"), std::string::npos) << text;
    EXPECT_EQ(content_of("dump_hdmiplayer_write.pcm"), "\1\2\3\4\1\2");
    EXPECT_NE(access("dump_hdmiplayer_read.pcm", F_OK), 0) << "the other switch is off";

    setenv("debug_hdmiplayer_dump_read_pcm", "1", 1);
    dump_pcm_read(block_, 3);
    EXPECT_EQ(content_of("dump_hdmiplayer_read.pcm"), "\1\2\3");
}

TEST_F(CommonDump, NothingToWriteIsIgnoredAndAFailedOpenIsLogged)
{
    setenv("debug_hdmiplayer_dump_write_pcm", "1", 1);
    EXPECT_EQ(logged("5",
                     [this] {
                         dump_pcm_write(block_, 0);
                         dump_pcm_write(block_, -4);
                         dump_pcm_write(nullptr, 4);
                     }),
              "");
    EXPECT_NE(access("dump_hdmiplayer_write.pcm", F_OK), 0);

    ASSERT_EQ(mkdir("dump_hdmiplayer_write.pcm", 0700), 0);
    const std::string text = logged("1", [this] { dump_pcm_write(block_, 4); });
    EXPECT_NE(text.find("] fopen(dump_hdmiplayer_write.pcm) fail\n"), std::string::npos) << text;
    rmdir("dump_hdmiplayer_write.pcm");
}
