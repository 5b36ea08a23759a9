// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

namespace common
{

/// Notices that the wall clock was set, by this program or another: timerfd with TFD_TIMER_CANCEL_ON_SET.
class WallClockWatch
{
public:
    WallClockWatch();
    ~WallClockWatch();
    WallClockWatch(const WallClockWatch&) = delete;
    WallClockWatch& operator=(const WallClockWatch&) = delete;

    /// Whether it was set since the last call. Does not wait.
    bool was_set();

private:
    void arm() const;

    int timer_;
};

/**
 * Which frames a host withholds, so that the player resets: once the wall clock
 * was set, or the plan was left (PicturePlan). The player stamps frames by the wall
 * clock, and resets after a second without one. The first frame behind the step
 * makes it count from the new time; the pause behind that frame is one by any
 * clock. A player that resets at that frame by itself needs no pause: the time line
 * is new. Pure: times are arguments (CLOCK_MONOTONIC).
 */
class FrameBreak
{
public:
    /// A frame came at @p now_ns; since the one before there is @p cause. The player reset @p resets times so far.
    /// @return whether it is withheld
    bool withholds(int64_t now_ns, bool cause, int64_t resets)
    {
        if (cause) {
            until_ns_ = now_ns + kBreakNs;
            resets_ = resets;
        }
        return !cause && resets == resets_ && now_ns < until_ns_;
    }

private:
    /// A little more than the second after which the player resets.
    static constexpr int64_t kBreakNs = 1'100'000'000;
    int64_t until_ns_ = 0;
    int64_t resets_ = 0; ///< when there was cause
};

} // namespace common
