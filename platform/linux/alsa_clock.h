// SPDX-License-Identifier: MIT
/**
 * @file
 * The monotonic clock in nanoseconds, and its conversion to frames.
 */
#pragma once

#include <time.h>

#include <cstdint>

namespace hdmi_linux
{

constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerUs = 1000;

inline int64_t now_ns()
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

/// In two steps, because a day in nanoseconds times a rate does not fit into 64 bits.
inline int64_t frames_in(int64_t ns, int rate)
{
    return ns / kNsPerSecond * rate + ns % kNsPerSecond * rate / kNsPerSecond;
}

inline int64_t ns_of(int64_t frames, int rate)
{
    return frames / rate * kNsPerSecond + frames % rate * kNsPerSecond / rate;
}

} // namespace hdmi_linux
