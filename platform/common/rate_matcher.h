// SPDX-License-Identifier: MIT
/**
 * @file
 * Rate matching for a playback device whose clock is not that of the capture device: what the player writes is
 * resampled by a ratio that keeps the time from the capture device to the output's cable as it is.
 *
 * The platform tells both devices' counts and when they were so, passes what is written through convert(), and adds
 * delay() to what it says of its own queue. docs/porting.md has it in ten lines. RAW output uses TimeInFlight and
 * SlipController of rate_controller.h instead.
 *
 * Threads: the functions of the capture device and those of the playback device may be called at the same time, each
 * group by one thread at a time. Nothing blocks.
 */
#pragma once

#include "internal/locks.h"
#include "rate_controller.h"
#include "ratio_resampler.h"

namespace clocks
{

/// For reports.
struct MatchState {
    double step = 1;              ///< input frames by output frame
    std::optional<double> excess; ///< seconds, as TimeInFlight has it; nothing before it has settled
    int64_t set_points = 0;       ///< times that the time in flight was taken anew
};

class RateMatcher
{
public:
    // --- The capture device. Counts of frames begin at any number, and include frames that nobody read.

    void capture_started(double rate);
    void capture_ended();
    void captured(int64_t now_ns, int64_t frames);

    // --- The playback device.

    /// @return false: no memory
    bool playback_started(int rate, int channels);
    /// Another device plays on: what was converted goes on there, and counts go on.
    void playback_moved();
    /// Frames of convert()'s output that have left the device, before each convert(). Not while nothing is queued.
    void played(int64_t now_ns, int64_t frames);
    /// A device ran empty, over, or slept.
    void disturbed();
    /// Takes all of @p in. @p out has room for RatioResampler::room(frames). @return output frames, or negative
    int convert(int64_t now_ns, const int16_t* in, int frames, int16_t* out);
    /// Input frames that are not heard yet, while @p queued output frames are not.
    int delay(int queued) const;

    MatchState state() const;
    /// Forgets all, the latest ratio included.
    void reset();

private:
    mutable mutex_t mutex_;
    TimeInFlight in_flight_ GUARDED_BY(mutex_);
    RateController controller_ GUARDED_BY(mutex_);
    RatioResampler resampler_ GUARDED_BY(mutex_);
    MatchState state_ GUARDED_BY(mutex_);
    int rate_ GUARDED_BY(mutex_) = 0; ///< of the playback device
    int64_t in_frames_ GUARDED_BY(mutex_) = 0;
    int64_t out_frames_ GUARDED_BY(mutex_) = 0;
};

} // namespace clocks
