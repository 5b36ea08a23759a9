// SPDX-License-Identifier: MIT
/**
 * @file
 * A device's clock, estimated from pairs of time and frame count. Pure: times and counts are arguments.
 */
#pragma once

#include <cstdint>

namespace clocks
{

constexpr int64_t kNsPerSecond = 1'000'000'000;

/**
 * A delay-locked loop of second order (F. Adriaensen, "Using a DLL to filter time", LAC 2005). It predicts the count
 * at the time of the next pair, and corrects position and rate by a part of the difference.
 *
 * The loop begins as a straight line fitted to all pairs so far, and becomes the loop of constant bandwidth when that
 * one has the longer memory: a rate is known after seconds, and an exact rate after a minute. Pairs need not be evenly
 * spaced. The counts are the device's own; they need not be those of the time of reading, if the time is theirs.
 */
class ClockEstimator
{
public:
    /// Begins anew. @p nominal_rate frames a second, until two pairs are known.
    void start(double nominal_rate);
    /// The count stood still, or lost frames: positions begin anew with the next pair. The rate stays.
    void rebase() { averaged_ = 0; }

    /**
     * The device had counted @p frames at @p now_ns. Pairs less than a millisecond after the last one are ignored.
     * @return false for a jump of more than 50 ms, which counts as a rebase().
     */
    bool update(int64_t now_ns, int64_t frames);

    /// Whether the estimate is good for a decision: two seconds of pairs are known, at least 20.
    bool settled() const { return pairs_ >= kSettledPairs && last_ns_ - first_ns_ >= kSettledNs; }
    /// The count at @p now_ns, between frames and into the near future.
    double frames_at(int64_t now_ns) const;
    double nominal_rate() const { return nominal_; }
    /// The rate by the nominal rate.
    double speed() const { return rate_ / nominal_; }

private:
    static constexpr int kSettledPairs = 20;
    static constexpr int64_t kSettledNs = 2 * kNsPerSecond;

    double nominal_ = 1;
    double rate_ = 1;     ///< frames a second
    double position_ = 0; ///< at last_ns_
    int64_t first_ns_ = 0;
    int64_t last_ns_ = 0;
    int64_t pairs_ = 0;    ///< since the start
    int64_t averaged_ = 0; ///< pairs since the start or the last rebase()
};

} // namespace clocks
