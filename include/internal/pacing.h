// SPDX-License-Identifier: MIT
/**
 * @file
 * The decisions of frame pacing: pure functions of times, all in microseconds.
 * The synchronizer reads the clocks, asks here, and does what the answer says.
 *
 * Time stamps come from outside and a wall clock may be set to anything: sums
 * and differences saturate.
 */
#pragma once

#include <cstdint>

#include "internal/common.h"

namespace pacing
{

constexpr int64_t kUnset = -1;
constexpr int64_t kUnknownFrameUs = 16666;     ///< a display of unknown rate counts as one of 60 Hz
constexpr int64_t kAcceptableEarlyUs = 185000; ///< video further ahead than this may wait for audio

/// The vertical blanks as one step sees them.
struct vsync_grid {
    int64_t sampled_time = kUnset;      ///< system time of one of them; -1: unknown
    int64_t duration = kUnknownFrameUs; ///< from one to the next
};

/// The frame that was shown last.
struct shown_frame {
    int64_t pts;
    int64_t taken_time; ///< system time at which it was taken for display
};

/// The oldest frame in the queue against its predecessor and the audio clock.
struct frame_offset {
    int64_t video_clock; ///< media time of the video now
    int64_t diff;        ///< positive: video ahead of audio
    int64_t delay;       ///< how long the predecessor stays
};

/// How far apart sound and video may be until viewers notice.
struct offset_class {
    int64_t late_us;  ///< lowest diff of the class
    int64_t early_us; ///< highest
    loglevel_e level;
    const char* name;
};

enum class verdict {
    wait,
    flip,
    drop,
};

struct decision {
    verdict what;
    int64_t wait_us; ///< wait: at most so long
};

/// @p a - @p b, held at the ends of the range.
int64_t subtract(int64_t a, int64_t b);

/// One refresh of the display. A rate that no display has counts as unknown.
int64_t refresh_duration(float vrefresh);

/// When free run shows a frame that comes @p distance after its predecessor: 0 or the time to wait.
int64_t free_run_wait(int64_t now, int64_t frame_timer, int64_t distance);

/// How long a frame of @p duration stays when video is @p diff ahead of audio.
int64_t corrected_delay(int64_t duration, int64_t diff);

frame_offset offset_of(int64_t pts, const shown_frame& last, int64_t now, int64_t audio_clock);

const offset_class& classify(int64_t diff);

/// When to flip a frame: its release time, or where the grid is known, ahead of the vertical blank nearest to it, in
/// time for the display to latch it.
int64_t flip_target(int64_t release_time, const vsync_grid& grid);

/// Whether a frame to be flipped at @p target is due at the vertical blank that was sampled last.
bool due_at_vsync(int64_t target, const vsync_grid& grid);

/// Whether the oldest frame's time has come: the frame timer has reached @p due, or it goes out at this vertical blank.
/// An early frame waits until it is due, for @p longest_wait at most: then the decision is taken anew.
decision decide(int64_t now, int64_t due, bool at_vsync, int64_t longest_wait);

/// The frame timer after a frame was taken at @p now; it lags by a limited time only.
int64_t advance(int64_t frame_timer, int64_t delay, int64_t now);

/// What becomes of a frame that was taken, if its successor comes @p duration after it.
verdict decide_taken(int64_t now, int64_t frame_timer, int64_t duration);

} // namespace pacing
