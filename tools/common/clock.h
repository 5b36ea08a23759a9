// SPDX-License-Identifier: MIT
// The clock of the tools: CLOCK_MONOTONIC, by which the kernel stamps vertical blanks, flips and sound, too.
#pragma once

#include <time.h>

#include <cerrno>
#include <cstdint>

namespace common
{

inline int64_t now_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

inline void sleep_until_ns(int64_t deadline_ns)
{
    timespec deadline = {};
    deadline.tv_sec = deadline_ns / 1'000'000'000;
    deadline.tv_nsec = deadline_ns % 1'000'000'000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

} // namespace common
