// SPDX-License-Identifier: MIT
/**
 * @file
 * What the library prints while something runs, for tests of its messages.
 */
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "eventually.h"
#include "internal/common.h"

/// Sets the highest level that is printed for a scope. The environment changes: no other thread may log meanwhile.
class LogLevel
{
public:
    explicit LogLevel(const char* level)
    {
        const char* before = getenv(kSwitch);
        was_set_ = before != nullptr;
        before_ = was_set_ ? before : "";
        setenv(kSwitch, level, 1);
    }
    ~LogLevel() { was_set_ ? setenv(kSwitch, before_.c_str(), 1) : unsetenv(kSwitch); }
    LogLevel(const LogLevel&) = delete;
    LogLevel& operator=(const LogLevel&) = delete;

private:
    static constexpr const char* kSwitch = "debug_hdmiplayer_log_level";
    bool was_set_;
    std::string before_;
};

/// The console output of @p action.
template <typename Action> std::string printed(Action action)
{
    // What the library could not print, since nobody read the output, belongs to what was before.
    EXPECT_TRUE(eventually([] {
        if (g_console_behind)
            console_catch_up();
        return !g_console_behind;
    }));
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

/// The same with messages up to @p level; @p action ends the threads it starts.
template <typename Action> std::string logged(const char* level, Action action)
{
    LogLevel scope(level);
    return printed(action);
}

/// How often @p part occurs in @p text.
inline int occurrences(const std::string& text, const std::string& part)
{
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

/// Expects each of @p parts once in @p text.
inline void expect_once(const std::string& text, std::initializer_list<const char*> parts)
{
    for (const char* part : parts)
        EXPECT_EQ(occurrences(text, part), 1) << part << text;
}
