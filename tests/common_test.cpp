// SPDX-License-Identifier: MIT
#include "internal/common.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/callers.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/unread_output.h"

namespace
{

constexpr const char* kSwitch = "debug_hdmiplayer_common_test";

int value_of(const char* text)
{
    setenv(kSwitch, text, 1);
    return env_get_value(kSwitch, 7);
}

std::string content_of(const char* file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

} // namespace

TEST(Common, SwitchesTakeUpToTenDecimalDigitsAndNothingElse)
{
    for (const auto& [text, value] : {std::pair("42", 42), std::pair("0000000005", 5), std::pair("2147483648", INT_MAX),
                                      std::pair("9999999999", INT_MAX), std::pair("", 0)})
        EXPECT_EQ(value_of(text), value) << text;
    for (const char* malformed : {"00000000005", "-1", "+1", " 1", "1 ", "0x1", "on", "\xb2"})
        EXPECT_EQ(value_of(malformed), 7) << malformed;
    unsetenv(kSwitch);
    EXPECT_EQ(env_get_value(kSwitch, 7), 7);
    EXPECT_EQ(env_get_value(nullptr, 7), 7);
}

TEST(Common, TextsOfLessThanTwoCharactersCountAsUnset)
{
    setenv(kSwitch, "/t", 1);
    const std::unique_ptr<char, void (*)(void*)> text(env_get_string(kSwitch), free);
    setenv(kSwitch, "/", 1);
    EXPECT_STREQ(text.get(), "/t") << "not a copy";
    EXPECT_EQ(env_get_string(kSwitch), nullptr);
    unsetenv(kSwitch);
    EXPECT_EQ(env_get_string(kSwitch), nullptr);
    EXPECT_EQ(env_get_string(nullptr), nullptr);
}

TEST(Common, ALogRecordHasColourTimeThreadAndTitleAndAddsNoLineBreak)
{
    const std::pair<loglevel_e, std::string> rows[] = {{LOG_LEVEL_E, "0;31mE"}, {LOG_LEVEL_W, "0;33mW"},
                                                       {LOG_LEVEL_I, "0;32mI"}, {LOG_LEVEL_D, "0mD"},
                                                       {LOG_LEVEL_V, "0mV"},    {LOG_LEVEL_N, "0mV"}};
    for (const auto& [level, style] : rows) {
        // The level switch does not matter here: the caller decides.
        const std::string text = logged("0", [level = level] { console_print(level, "%s-%d", "text", 3); });
        const std::string expected = "\033\\[" + style.substr(0, style.size() - 1) +
                                     "\\[[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}\\] " +
                                     std::to_string(syscall(SYS_gettid)) + " " + style.back() + " text-3\033\\[0m";
        EXPECT_TRUE(testing::internal::RE::FullMatch(text, expected)) << text;
    }
}

void log_at_every_level(int& evaluated)
{
    log_e("%d;", ++evaluated);
    log_w("%d;", ++evaluated);
    log_i("%d;", ++evaluated);
    log_d("%d;", ++evaluated);
    log_v("%d;", ++evaluated);
}

TEST(Common, TheLevelIsReadAtEveryMessageAndGuardsTheArguments)
{
    const std::pair<const char*, int> rows[] = {{"0", 0}, {"", 0}, {"1", 1}, {"3", 3}, {"9", 5}, {"-1", 2}, {"x", 2}};
    for (const auto& [level, messages] : rows) {
        int evaluated = 0;
        const std::string text = logged(level, [&evaluated] { log_at_every_level(evaluated); });
        EXPECT_EQ(evaluated, messages) << level;
        EXPECT_EQ(occurrences(text, ";"), messages + occurrences(text, "[0;")) << text;
    }
    EXPECT_TRUE(log_enabled(LOG_LEVEL_W) && !log_enabled(LOG_LEVEL_I)) << "the default is warnings";
}

// Times of day, which compare as texts but at midnight.
int times_set_back(const std::string& text)
{
    int count = 0;
    std::istringstream lines(text);
    std::string last;
    for (std::string line; std::getline(lines, line);) {
        const size_t stamp = line.rfind("m[");
        if (stamp == std::string::npos)
            continue;
        const std::string time = line.substr(stamp + 2, strlen("00:00:00.000"));
        count += time < last && last.substr(0, 2) != "23" ? 1 : 0;
        last = time;
    }
    return count;
}

TEST(Common, RecordsOfDifferentThreadsDoNotInterleaveAndGoByTheirTimes)
{
    int records = 0;
    const std::string text = logged("2", [&records] {
        Callers callers;
        callers.run([](int) { console_print(LOG_LEVEL_E, "%s%s", "begin ", "end\n"); }, 4);
        EXPECT_TRUE(eventually([&] { return callers.calls() >= 20000; }));
        callers.stop();
        records = callers.calls();
    });
    EXPECT_EQ(occurrences(text, " E begin end\n\033[0m\033[0;31m["), records - 1);
    EXPECT_EQ(times_set_back(text), 0);
}

// Printed, kept or counted: each of a thread's messages in its order.
void expect_nothing_lost_unsaid(UnreadOutput::Kind kind)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 2000;
    UnreadOutput output(kind);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            for (int n = 0; n < kEach; ++n)
                console_print(LOG_LEVEL_E, "<%d:%05d>%s\n", thread, n, std::string(100, '.').c_str());
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    int last = 0;
    const std::string text = output.read([&] {
        const auto begin = std::chrono::steady_clock::now();
        do {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            console_print(LOG_LEVEL_E, "<4:%05d>\n", last++);
        } while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(200));
    });
    int next[kThreads + 1] = {};
    int printed = 0, missing = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        int thread = 0, number = 0;
        const size_t message = line.find('<');
        if (message != std::string::npos && sscanf(&line[message], "<%d:%d>", &thread, &number) == 2) {
            EXPECT_GE(number, next[thread]) << line;
            EXPECT_EQ(line.size() - message, thread < kThreads ? 109U : 9U) << line;
            next[thread] = number + 1;
            ++printed;
        } else if (line.find(" messages are missing here") != std::string::npos) {
            missing += atoi(line.c_str() + line.rfind('m', line.find(" messages")) + 1);
        }
    }
    EXPECT_EQ(printed + missing, kThreads * kEach + last);
    EXPECT_GT(missing, 0);
    EXPECT_EQ(next[kThreads], last);
}

TEST(Common, AnOutputThatNobodyReadsHoldsUpNobodyAndLosesNothingUnsaid)
{
    expect_nothing_lost_unsaid(UnreadOutput::Kind::pipe);
    expect_nothing_lost_unsaid(UnreadOutput::Kind::terminal);
}

TEST(Common, WhatTheOutputRefusedIsPrintedOnceSomethingIsLoggedBeItSuppressed)
{
    setenv("debug_hdmiplayer_log_level", "2", 1);
    UnreadOutput output(UnreadOutput::Kind::terminal);
    const std::string line(500, '.');
    for (int n = 0; n < 200; ++n)
        log_w("<%d>%s\n", n, line.c_str());
    EXPECT_TRUE(g_console_behind);
    const std::string text =
        output.read([] { EXPECT_TRUE(eventually([] { return !log_enabled(LOG_LEVEL_D) && !g_console_behind; })); });
    EXPECT_NE(text.find("messages are missing here"), std::string::npos) << text.substr(text.size() - 200);
    unsetenv("debug_hdmiplayer_log_level");
}

TEST(Common, DeadlinesCarryNanosecondsIntoSecondsAndReachAsFarAsAsked)
{
    const struct timespec late = timespec_add_us({10, 600000000}, 1500000);
    EXPECT_TRUE(late.tv_sec == 12 && late.tv_nsec == 100000000);
    const struct timespec exact = timespec_add_us({10, 999999000}, 1);
    EXPECT_TRUE(exact.tv_sec == 11 && exact.tv_nsec == 0);

    // The longest interval in ms does not fit 32 bits of microseconds.
    const auto seconds = [](uint64_t ns) { return static_cast<time_t>(ns / 1000000000); };
    const time_t realtime = seconds(system_time(CLOCK_REALTIME));
    const time_t monotonic = seconds(system_time(CLOCK_MONOTONIC));
    EXPECT_NEAR(get_cond_timeout_ms(UINT32_MAX).tv_sec - realtime, 4294997, 60);
    EXPECT_NEAR(get_cond_timeout_us(500000000).tv_sec - realtime, 530, 60);
    EXPECT_NEAR(get_monotonic_timeout_us(500000000).tv_sec - monotonic, 530, 60);
    EXPECT_NEAR(static_cast<time_t>(get_system_time_us() / 1000000) - realtime, 30, 60);
}

TEST(Common, DumpsAppendWhileTheirSwitchIsOn)
{
    const std::filesystem::path home = std::filesystem::current_path();
    char directory[] = "/tmp/common_test_XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    std::filesystem::current_path(directory);
    uint8_t block[] = {1, 2, 3, 4};

    setenv("debug_hdmiplayer_dump_write_pcm", "1", 1);
    const std::string text = logged("5", [&] {
        dump_pcm_write(block, 4);
        dump_pcm_write(block, 2);
        dump_pcm_write(block, -4);
        dump_pcm_write(nullptr, 4);
        dump_pcm_read(block, 4);
        std::filesystem::create_directory("dump_hdmiplayer_read.pcm");
        setenv("debug_hdmiplayer_dump_read_pcm", "1", 1);
        dump_pcm_read(block, 4);
    });
    EXPECT_EQ(occurrences(text, " V [dump_pcm_write "), 2) << text;
    EXPECT_EQ(occurrences(text, "] fwrite(dump_hdmiplayer_write.pcm) size:2 ret:1\033[0m"), 1) << text;
    EXPECT_EQ(content_of("dump_hdmiplayer_write.pcm"), "\1\2\3\4\1\2");
    EXPECT_EQ(occurrences(text, "] fopen(dump_hdmiplayer_read.pcm) fail\n"), 1) << text;

    unsetenv("debug_hdmiplayer_dump_write_pcm");
    unsetenv("debug_hdmiplayer_dump_read_pcm");
    std::filesystem::current_path(home);
    std::filesystem::remove_all(directory);
}
