// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

namespace play
{

/**
 * When the frames of a device pass, learned from what the device says of
 * itself while it runs: frame @p position passed at a given time. A device
 * moves its position by leaps and is asked late, so a single word of it comes
 * some milliseconds after the fact; of each half second the early words count,
 * and between these the time is interpolated. So the device's clock may drift
 * against CLOCK_MONOTONIC.
 *
 * May be asked while it learns: what it says of the present then shifts by
 * what it has learned since. Who adds may be a real-time thread: in a run of
 * less than an hour adding allocates nothing.
 */
class ClockTrack
{
public:
    explicit ClockTrack(int rate);

    void add(int64_t position, int64_t at_ns);

    /// When frame @p position passes. Without any word of the device: as if frame 0 had passed at time 0.
    int64_t time_of(double position) const;
    double position_at(int64_t at_ns) const;
    /// How much faster than its nominal rate the device runs, in parts per million; 0 until some seconds are known.
    double drift_ppm() const;
    bool empty() const;
    int rate() const { return rate_; }

private:
    struct Anchor {
        double position;
        double late_ns; ///< time beyond that of the nominal rate from position 0, time 0 on
    };

    double nominal_ns(double position) const { return position * 1e9 / rate_; }
    Anchor gathered() const;
    double late_ns(double position) const;
    double slope() const;

    const int rate_;
    mutable std::mutex mutex_;
    std::vector<Anchor> anchors_;
    std::vector<Anchor> recent_;         ///< words of the half second under way
    mutable std::vector<Anchor> sorted_; ///< room in which gathered() works
    int64_t recent_since_ns_ = 0;
    bool settled_ = false; ///< the device's first guesses are over
};

} // namespace play
