// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

namespace common
{

/// The time from frame to frame, by least squares: a few that come late hardly change it. Pure.
class FramePeriod
{
public:
    void add(int64_t arrived_ns)
    {
        if (frames_ == 0)
            first_ns_ = arrived_ns;
        const auto at_ns = static_cast<double>(arrived_ns - first_ns_);
        times_ += at_ns;
        weighted_ += frames_ * at_ns;
        frames_++;
    }

    /// In nanoseconds; 0: not known.
    double value() const
    {
        const double mean = (frames_ - 1) / 2;
        const double squares = frames_ * (frames_ * frames_ - 1) / 12;
        return squares > 0 ? (weighted_ - mean * times_) / squares : 0;
    }

private:
    double frames_ = 0;
    int64_t first_ns_ = 0;
    double times_ = 0;    ///< sum of times since the first frame
    double weighted_ = 0; ///< the same, each times the frames before it
};

/**
 * A delay-locked loop over the times at which frames are due: a thread that comes late with a frame does not move it.
 * Once it has locked in, no frame moves it by much, even if a third of them come late. Pure: times in nanoseconds, of
 * any steady clock.
 */
class FrameLoop
{
public:
    /// @p locked_step_ns: by which one frame moves it at most, once it has locked in.
    explicit FrameLoop(double locked_step_ns) : locked_step_ns_(locked_step_ns) {}

    /// The next frame is due when it comes; those behind it come with @p period_ns. 0: each is due when it comes.
    void restart(double period_ns)
    {
        runs_ = false;
        period_ns_ = period_ns;
    }
    /// As restart(), with the period that it had.
    void lock_in_anew()
    {
        runs_ = false;
        steady_ = 0;
    }

    /// Whether there was a frame since it was started again.
    bool runs() const { return runs_; }
    double due_ns() const { return due_ns_; }
    double period_ns() const { return period_ns_; }

    /// A frame came that would be due at @p came_ns by its own arrival. One that is a whole period beside the loop
    /// shows that it has slipped: it locks in anew.
    void follow(double came_ns)
    {
        const double before_ns = std::exchange(came_ns_, came_ns);
        if (!std::exchange(runs_, true) || !(period_ns_ > 0)) {
            due_ns_ = came_ns;
            doubts_ = 0;
            return;
        }
        const double frames = std::round((came_ns - due_ns_) / period_ns_);
        // Much later than the one before: it is late itself, or a frame before it never came. The next ones tell.
        const bool much_later = frames > 1 && frames < kMissing;
        const bool at_its_pace = came_ns - before_ns > kPace * period_ns_;
        doubts_ = !much_later ? 0 : at_its_pace ? doubts_ + 1 : 1;
        if (much_later && doubts_ <= kMostDoubts) {
            due_ns_ += period_ns_;
            return;
        }
        doubts_ = 0;
        steady_ = frames == 1 ? steady_ + 1 : 0;
        const double most_ns = steady_ > kLockedIn ? locked_step_ns_ : period_ns_;
        const double error_ns = std::clamp(came_ns - (due_ns_ + frames * period_ns_), -most_ns, most_ns);
        due_ns_ += frames * period_ns_ + kPart * error_ns;
        period_ns_ += kPartOfPeriod * error_ns / std::max(frames, 1.0);
    }

private:
    static constexpr double kPart = 1.0 / 8;
    static constexpr double kPartOfPeriod = 1.0 / 128;
    /// Periods from frame to frame: by more, frames are missing; by less, a late one is made up for.
    static constexpr double kMissing = 4;
    static constexpr double kPace = 0.75;
    /// Frames in a row that may each be late by more than half a period.
    static constexpr int kMostDoubts = 4;
    /// Frames that the loop needs for its period.
    static constexpr int kLockedIn = 64;

    const double locked_step_ns_;
    bool runs_ = false;
    int steady_ = 0; ///< frames since it began, or slipped by one
    double due_ns_ = 0;
    double period_ns_ = 0;
    double came_ns_ = 0; ///< when the frame before was due by its own arrival
    int doubts_ = 0;     ///< frames in a row that came much later than the one before
};

} // namespace common
