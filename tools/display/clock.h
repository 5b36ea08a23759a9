// SPDX-License-Identifier: MIT
// The clock of vertical blanks and flips.
#pragma once

#include <time.h>

#include <cstdint>

namespace display
{

/// CLOCK_MONOTONIC in nanoseconds.
inline int64_t monotonic_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

} // namespace display
