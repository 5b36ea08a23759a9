// SPDX-License-Identifier: MIT
/**
 * @file
 * Keeps the count of decoded samples true to the time that has passed, where
 * coded frames are lost before they reach the decoder.
 *
 * Sound is placed in time by its count: what never came moves all behind it
 * ahead. Only time tells, because frames come at the pace of the source. The
 * delay of a frame is its time of arrival less the samples queued before it.
 * Whatever holds a frame up makes it late and never early, so that the least
 * delay of the last seconds is that of frames which nothing held up. Frames
 * that are later and do not catch up tell what is missing. A chunk that came
 * late is followed by frames that have caught up.
 *
 * Pure: times and counts are arguments. Not locked.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace ac3
{

/// A frame of the stream, as it is about to be queued.
struct ComingFrame {
    int32_t rate = 0;     ///< Hz
    int64_t samples = 0;  ///< per channel, below too
    int64_t lost = 0;     ///< samples before it that are missing in the stream's bytes
    bool made_up = false; ///< concealed, or silence in its place
};

/// What to do before a frame is queued.
struct Correction {
    int64_t silence = 0; ///< samples to insert before it
    int64_t skip = 0;    ///< samples to leave out at its beginning
};

class FrameClock
{
public:
    /// More silence than this, with next to no sound between, is not given: by then the clocks of source and machine
    /// are milliseconds apart, and the count begins anew.
    static constexpr int64_t kMostSilenceUs = 60'000'000;

    /// @p room: samples of silence that can be queued before the frame
    Correction frame_came(int64_t now_us, const ComingFrame& frame, int64_t room);

    /**
     * To be asked whenever sound is read, which is every 10 ms at least. Samples
     * of silence to queue if nothing else is, at most @p room: frames are so
     * late that the output would run dry. What comes of them after all is left
     * out later, so that the count is right again. Nothing is filled in for the
     * time of a reader that stood still: the output has been silent by itself.
     */
    int64_t starving(int64_t now_us, int64_t room);

    /// Forgets the past: a new time line begins.
    void restart() { *this = {}; }

    /// What was lost meanwhile is not missed: likewise, unless silence was queued in place of frames. These may still
    /// come, and if their time were forgotten, the sound would be as much late for good.
    void paused();

private:
    /// Frames whose delay is kept: two seconds of AC-3.
    static constexpr size_t kHistory = 64;

    bool settled() const;
    int64_t least_delay() const;
    int64_t most_delay() const;
    int64_t delay(int64_t now_us) const { return samples_of(now_us) - count_; }
    int64_t samples_of(int64_t us) const { return us * rate_ / 1'000'000; }
    int64_t take_lost(int64_t now_us, const ComingFrame& frame, int64_t room);
    void remember(int64_t delay, int64_t samples);
    void begin_watch();
    void make_up(int64_t samples);
    int64_t watch(int64_t late, int64_t samples);
    int64_t judge();
    int64_t correct(int64_t samples, int64_t room);

    int32_t rate_ = 0;
    bool begun_ = false; ///< a frame has come
    int64_t count_ = 0;  ///< samples queued
    std::array<int64_t, kHistory> delays_{};
    size_t frames_ = 0; ///< whose delay was kept so far
    int64_t known_ = 0; ///< samples of these
    int64_t spent_ = 0; ///< samples of silence; sound brings it down
    int64_t skip_ = 0;  ///< samples still to be left out

    bool watching_ = false;  ///< the next frames are to tell what is missing
    int64_t made_up_ = 0;    ///< samples queued in place of frames that may come nevertheless
    int64_t least_late_ = 0; ///< of the frames watched
    int64_t mark_ = 0;       ///< lateness at which the watch began anew
    int64_t watched_ = 0;    ///< samples since

    int64_t asked_us_ = 0;       ///< when starving() was called
    int64_t asked_since_us_ = 0; ///< and since when without a gap
};

} // namespace ac3
