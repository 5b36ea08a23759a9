// SPDX-License-Identifier: MIT
/**
 * @file
 * The audio clock that the output publishes after each write: arithmetic only.
 */
#pragma once

#include <algorithm>
#include <cstdint>

#include "internal/common.h"

struct clock_values {
    int64_t write_duration_us;  ///< queued in the device, not heard yet
    int64_t cur_frame_duration; ///< us
    int64_t max_time_us;        ///< media time at the end of the block
    int64_t time_us;            ///< media time being heard
};

inline int64_t frames_to_us(int32_t frames, int32_t sample_rate) { return int64_t{frames} * 1000000 / sample_rate; }

/// The clock after a block of @p frames was written and @p remaining frames are queued in the device, this block
/// included. A time stamp is the host's and may be anything: sums saturate instead of overflowing.
inline clock_values clock_after_write(int64_t pts, int32_t frames, int32_t remaining, int32_t sample_rate)
{
    clock_values clock = {};
    clock.write_duration_us = frames_to_us(remaining, sample_rate);
    clock.cur_frame_duration = frames_to_us(frames, sample_rate);
    clock.max_time_us = add_saturated(pts, clock.cur_frame_duration);
    clock.time_us = std::max<int64_t>(add_saturated(clock.max_time_us, -clock.write_duration_us), 0);
    return clock;
}
