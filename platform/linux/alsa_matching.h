// SPDX-License-Identifier: MIT
/**
 * @file
 * What playback and pass-through know of the capture device's clock, and the rate matching of playback.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "config.h"
#include "internal/locks.h"
#include "rate_matcher.h"
#include "sound_ring.h"

namespace hdmi_linux
{

/// The capture device's count.
struct CaptureClock {
    int64_t opening = 0; ///< number of the device's opening; 0: there is no device
    int64_t breaks = 0;  ///< times that the count lost frames since: overruns, suspends
    int card = -1;       ///< as CardDevice
    int rate = 0;        ///< Hz
    int64_t ns = 0;      ///< CLOCK_MONOTONIC; 0: there is no count yet
    int64_t frames = 0;  ///< captured by then, read or not
};

/// Passes what a CaptureClock tells on to an estimate: a clocks::TimeInFlight or a clocks::RateMatcher.
class CaptureFollower
{
public:
    template <typename Estimate> void follow(const CaptureClock& clock, Estimate* estimate)
    {
        if (clock.opening != last_.opening && clock.opening == 0)
            estimate->capture_ended();
        else if (clock.opening != last_.opening)
            estimate->capture_started(clock.rate);
        else if (clock.breaks != last_.breaks)
            estimate->disturbed();
        if (clock.opening != 0 && clock.ns != 0)
            estimate->captured(clock.ns, clock.frames);
        last_ = clock;
    }

private:
    CaptureClock last_;
};

/**
 * Rate matching of the playback device. Its owner holds a mutex around every call but captured().
 *
 * It begins with the first block after the capture device and the playback device were found to be two cards, and ends
 * when playback moves to a device that needs none. Positions count the frames that the device gets, from its opening.
 */
class Matching
{
public:
    /// From the capture device's thread. Does not wait.
    void captured(const CaptureClock& clock);

    /// Playback was opened; blocks have at most @p frames frames.
    void open(int rate, int channels, int frames);
    /// From here on it plays on a PCM of @p card, as CardDevice. What was converted goes on there.
    void attach(RateMatching policy, int card);
    bool at_work() const { return at_work_; }
    /// The PCM had played up to @p position at @p ns.
    void played(int64_t ns, int64_t position);
    /// It ran empty, or slept.
    void disturbed();
    /// Puts a block into @p ring, converted if that is due.
    void append(const uint8_t* data, int frames, int64_t now, SoundRing* ring);
    /// Frames of the player that are not heard yet, while @p queued of the device's are not.
    int delay(int queued) const { return at_work_ ? matcher_.delay(queued) : queued; }
    /// By how much the capture device's clock is faster, as the ratio has it.
    double ppm() const { return at_work_ ? (matcher_.state().step - 1) * 1e6 : 0; }

private:
    bool wanted() const;
    bool begin(int64_t position);

    static constexpr int kNoCapture = -2;

    mutex_t capture_mutex_;
    CaptureFollower capture_ GUARDED_BY(capture_mutex_);
    std::atomic<int> capture_card_{kNoCapture}; ///< the capture device's thread writes it
    clocks::RateMatcher matcher_;
    RateMatching policy_ = RateMatching::automatic;
    int card_ = -1;
    int rate_ = 0;
    int channels_ = 0;
    bool at_work_ = false;
    int64_t begun_at_ = 0; ///< position
    std::vector<int16_t> input_;
    std::vector<int16_t> output_;
};

} // namespace hdmi_linux
