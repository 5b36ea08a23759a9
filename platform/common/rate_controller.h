// SPDX-License-Identifier: MIT
/**
 * @file
 * What keeps the sound between two clocks, that of the capture device and that of the output, at a constant age: how
 * long it is in flight, and what to do about it. Pure: times and counts are arguments.
 */
#pragma once

#include <cstdint>
#include <optional>

#include "clock_estimator.h"

namespace clocks
{

/// What the output's frames are in frames of the input: with whole frames left out or put in, or resampled.
struct Flow {
    double in_end = 0;  ///< input frames that went into the output frames made so far
    double out_end = 0; ///< output frames made so far
    double step = 1;    ///< input frames by output frame, of the latest
};

/**
 * The time from the capture device to the output's cable, by the two devices' own counts. It is measured against what
 * it was when it had settled, so that the origins of the counts do not matter, nor what the player leaves out or adds
 * in between: sound that is missing there is missing in the output's queue, and stays missing.
 *
 * The time is taken anew, two seconds later, when a device starts, and after each disturbance: an output that ran
 * empty counts none of the sound that came too late.
 */
class TimeInFlight
{
public:
    void capture_started(double rate);
    void capture_ended();
    void captured(int64_t now_ns, int64_t frames);
    void playback_started(double rate);
    /// Output frames that have left the device: those it was given less its delay.
    void played(int64_t now_ns, int64_t frames);
    /// An underrun, an overrun, a suspend. Without this call only a jump of more than 50 ms is noticed.
    void disturbed();

    /// Seconds by which the sound is older than it was when it had settled; nothing while that is not known.
    std::optional<double> excess(int64_t now_ns, const Flow& flow);
    /// The speed of the capture clock by that of the output's, while both are known.
    std::optional<double> speed_ratio() const;

private:
    void restart() { settle_ns_ = 0, set_point_.reset(); }

    ClockEstimator capture_;
    ClockEstimator playback_;
    bool capturing_ = false;
    bool playing_ = false;
    int64_t settle_ns_ = 0;           ///< when the set point is due; 0: both clocks must be known first
    std::optional<double> set_point_; ///< seconds
};

/**
 * The ratio of a resampler that keeps the time in flight (F. Adriaensen, "Controlling adaptive resampling", LAC 2012).
 * It follows the two clocks, and takes back what error there is; its changes are slower than the ear notices.
 */
class RateController
{
public:
    static constexpr double kMaxDeviation = 2000e-6; ///< of the ratio from 1
    static constexpr double kSlewPerSecond = 20e-6;

    /// A device started: the clocks may be others. The ratio stays until they are known, and follows them fast for ten
    /// seconds then.
    void start() { locked_ns_ = 0; }
    /**
     * @param excess of TimeInFlight, and @p speed_ratio of it: without that the ratio stays
     * @return input frames by output frame
     */
    double update(int64_t now_ns, std::optional<double> excess, std::optional<double> speed_ratio);
    double step() const { return 1 + deviation_; }

private:
    double slew(int64_t now_ns) const;

    double deviation_ = 0; ///< of the step from 1
    int64_t last_ns_ = 0;
    int64_t locked_ns_ = 0; ///< the end of the lock-in; 0: the clocks are not known since the start
};

/// Whole frames to leave out or put in, where the samples must not be touched. Nothing is done up to a millisecond,
/// which is more than an estimate moves to and fro: so there are no more slips than the clocks ask for.
class SlipController
{
public:
    explicit SlipController(int frames) : frames_(frames) {}
    /**
     * @param excess of TimeInFlight
     * @return the frames to leave out now, less than 0 to put in, 0: neither
     */
    int due(std::optional<double> excess) const;

private:
    int frames_; ///< at a time
};

} // namespace clocks
